// What a failed call to one etcd member means, and the store's Status for
// it. Private to the store.
//
// A call fails in one of five ways, and each decides what the engine may do
// next:
//
//   kMemberDown    the member could not be reached (no connection, a refused
//                  TLS handshake): the request never left, another member
//                  may be asked;
//   kNoLeader      the member has no leader and refused the request before
//                  acting on it ("etcdserver: no leader", which members give
//                  to clients that ask for a leader as this engine does): an
//                  election is running or a quorum is down; another member,
//                  or the same one a little later, may be asked;
//   kInterrupted   the connection broke, or the member gave up waiting on the
//                  cluster, after the request may have been acted on: a read
//                  may be asked again, a write's outcome is unknown;
//   kDeadline      the call's deadline passed;
//   kAnswer        the cluster's answer (a refused request, a compacted
//                  revision, a permission): any member would say the same.
//
// Every failure maps to kIOError (the cluster could not do it: unreachable,
// no leader, no quorum in time, permission, compacted history, quota) or,
// for a request the cluster refuses by its settings, to kInvalidArgument
// naming the setting. kBusy stays what it is elsewhere in the store, a lock
// held by another process; an etcd cluster holds none.
#ifndef CORVIDA_STORE_ETCD_ERRORS_H_
#define CORVIDA_STORE_ETCD_ERRORS_H_

#include <cstddef>
#include <string>

#include <grpcpp/support/status.h>

#include "store/status.h"

namespace corvida {
namespace store {

// The settings of an etcd cluster that bound one request, as messages name
// them.
extern const char kEtcdMaxTxnOpsSetting[];
extern const char kEtcdMaxRequestBytesSetting[];

struct EtcdFailure {
    enum class Kind { kMemberDown, kNoLeader, kInterrupted, kDeadline, kAnswer };

    Kind kind = Kind::kAnswer;
    // What happened, for a message: "connection refused", "TLS handshake
    // failed: ...", "etcdserver: request timed out".
    std::string detail;
    // kAnswer: the store's status for it, its message without context.
    Status status;
    // kAnswer: the answers the engine acts on.
    enum class Refusal { kOther, kTooManyOperations, kTooLarge, kCompacted, kFutureRevision };
    Refusal refusal = Refusal::kOther;
    // kTooLarge: the member's --max-request-bytes when it said (else 0).
    size_t max_request_bytes = 0;
};

// Classifies status, a failed call's result. tls tells whether the client
// spoke TLS, for the hint of a connection closed during the handshake.
EtcdFailure ClassifyEtcdFailure(const grpc::Status& status, bool tls);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ETCD_ERRORS_H_
