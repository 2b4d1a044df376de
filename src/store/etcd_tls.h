// The TLS material of a client of an etcd cluster, read from its files and
// checked before the first connection. Private to the store.
//
// A mistake in the files (a missing file, no PEM certificate in it, an
// encrypted key, a key that belongs to another certificate) is reported
// here, naming the file, instead of as an opaque handshake failure on every
// call. Messages name files, never their contents: a private key never
// reaches a message or a log line.
#ifndef CORVIDA_STORE_ETCD_TLS_H_
#define CORVIDA_STORE_ETCD_TLS_H_

#include <grpcpp/security/credentials.h>

#include "store/status.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

// True when any of the TLS files is given: the client then speaks TLS.
bool EtcdTlsWanted(const EtcdTlsOptions& tls);

// Reads and checks the files of tls into *credentials: ca_file (PEM
// certificates; empty: the system's authorities), and cert_file with
// key_file (both or neither). kInvalidArgument, naming the file, when one
// cannot be used.
Status LoadEtcdTls(const EtcdTlsOptions& tls, grpc::SslCredentialsOptions* credentials);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ETCD_TLS_H_
