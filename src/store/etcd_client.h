// EtcdClient: the calls of etcd's v3 API the etcd engine makes, to the
// members of one cluster, each within a deadline. Private to the store.
//
// Members: the client keeps one gRPC channel to each member of the locator
// (each verified against its own host name under TLS) and sends each call to
// the member that answered last. A member that cannot take a call without
// having acted on it (unreachable, a refused TLS handshake, no leader; see
// store/etcd_errors.h) passes the call to the next member, and while some
// member reports no leader (an election, or a quorum down) the round is tried
// again after a short pause: a write survives an election and fails only when
// the deadline passes. A call that may have been acted on is repeated only
// when it reads; a write whose connection broke is reported, its outcome
// unknown, never sent twice.
//
// Deadline: each call, failover and pauses included, ends within
// timeout_seconds of its start with an answer or an error.
//
// Threads: a client may be used from any number of threads at once.
#ifndef CORVIDA_STORE_ETCD_CLIENT_H_
#define CORVIDA_STORE_ETCD_CLIENT_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h"
#include "plog/plog.h"
#include "store/etcd_errors.h"
#include "store/etcd_locator.h"
#include "store/status.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

class EtcdClient {
public:
    // Prepares the channels to the members of locator with the deadline and
    // TLS files of options; nothing is sent yet. kInvalidArgument for a
    // deadline that is not a positive number of seconds, or TLS files that
    // cannot be used.
    static Status Open(const EtcdLocator& locator, const StoreOptions& options, std::unique_ptr<EtcdClient>* client);

    ~EtcdClient();
    EtcdClient(const EtcdClient&) = delete;
    EtcdClient& operator=(const EtcdClient&) = delete;

    // Each call below names its operation for messages in what
    // ("reading"). When it fails by the cluster's answer (a refusal, not a
    // member out of reach) it sets *failure, when given, for callers that
    // act on the answer.

    // KV.Range.
    Status Range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response, const char* what,
                 EtcdFailure* failure = nullptr);

    // KV.Txn. A transaction that only reads may be asked of a second member
    // when the first broke off; one that writes is sent once.
    Status Txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, const char* what,
               EtcdFailure* failure = nullptr);

    // KV.Compact.
    Status Compact(const etcdserverpb::CompactionRequest& request, const char* what, EtcdFailure* failure = nullptr);

    // Maintenance.Defragment of every member of the locator, one after the
    // other; each member is unavailable while it defragments. Reports every
    // member that failed.
    Status DefragmentEach(const char* what);

private:
    struct Member;
    // One call: grpc::Status(Member&, grpc::ClientContext*).
    using Attempt = std::function<grpc::Status(Member&, grpc::ClientContext*)>;

    EtcdClient(std::vector<std::unique_ptr<Member>> members, std::chrono::duration<double> timeout, bool tls,
               LPPLOGCATEGORYINST log);

    // Runs attempt on the members as the contract at the top says. replayable:
    // the call may be repeated after it broke off (it reads only).
    Status Call(const char* what, bool replayable, const Attempt& attempt, EtcdFailure* failure);

    // The error for a round in which no member took the call: reasons has a
    // line for each; some had no leader, or all were unreachable.
    Status NoMemberTook(const char* what, const std::vector<std::string>& reasons, bool no_leader, bool all_down) const;

    std::chrono::system_clock::time_point Deadline() const;

    std::vector<std::unique_ptr<Member>> m_members;
    std::chrono::duration<double> m_timeout;
    bool m_tls;
    LPPLOGCATEGORYINST m_log;
    std::atomic<size_t> m_current{0};  // the member that answered last
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ETCD_CLIENT_H_
