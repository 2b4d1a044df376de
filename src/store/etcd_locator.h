// Where a table store on etcd lives: the members to ask and the namespace.
// Private to the store.
//
//   etcd://HOST:PORT[,HOST:PORT...][/NAMESPACE]
//
// HOST is a host name, an IPv4 address or an IPv6 address in brackets
// ("[::1]"); PORT a decimal port of the member's client URL. NAMESPACE is made
// of at most 128 letters, digits, '.', '_' and '-', and may be empty (or left
// out with its slash).
//
// Every key of a store lives under the prefix "NAMESPACE/" ("/" for the empty
// namespace). No prefix of one namespace begins another's, since a namespace
// holds no '/': stores of different namespaces share a cluster without ever
// seeing each other's keys.
#ifndef CORVIDA_STORE_ETCD_LOCATOR_H_
#define CORVIDA_STORE_ETCD_LOCATOR_H_

#include <string>
#include <string_view>
#include <vector>

#include "store/status.h"

namespace corvida {
namespace store {

constexpr size_t kMaxEtcdNamespace = 128;

struct EtcdLocator {
    std::vector<std::string> endpoints;  // "HOST:PORT" as written, in order
    std::string name_space;

    // The bytes every key of the store begins with.
    std::string KeyPrefix() const { return name_space + "/"; }
};

// True when locator names an etcd cluster (begins with "etcd://"); anything
// else is a directory.
bool IsEtcdLocator(std::string_view locator);

// Parses locator into *parsed. kInvalidArgument, naming the part at fault,
// when it does not follow the form above.
Status ParseEtcdLocator(std::string_view locator, EtcdLocator* parsed);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ETCD_LOCATOR_H_
