#include "store/etcd_client.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "store/etcd_tls.h"
#include "store/grpc_call.h"

namespace corvida {
namespace store {

namespace {

// How long a member without a leader is left before it is asked again: an
// election takes about one election timeout of the cluster (1 s unless set).
constexpr std::chrono::milliseconds kFirstPause{50};
constexpr std::chrono::milliseconds kLongestPause{500};

// Longest deadline taken as given; more is "no deadline" for any purpose and
// would overflow the clock.
constexpr double kLongestTimeoutSeconds = 1e6;

// etcd members refuse, rather than queue, a request from a client that asks
// for a leader while they have none.
constexpr char kRequireLeaderKey[] = "hasleader";
constexpr char kRequireLeaderValue[] = "true";

bool ReadsOnly(const etcdserverpb::TxnRequest& request) {
    auto reads = [](const etcdserverpb::RequestOp& op) { return op.has_request_range(); };
    return std::all_of(request.success().begin(), request.success().end(), reads) &&
           std::all_of(request.failure().begin(), request.failure().end(), reads);
}

std::string Join(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        if (!text.empty()) text += "; ";
        text += part;
    }
    return text;
}

std::string Seconds(std::chrono::duration<double> d) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", d.count());
    return text;
}

}  // namespace

struct EtcdClient::Member {
    std::string endpoint;
    std::unique_ptr<etcdserverpb::KV::Stub> kv;
    std::unique_ptr<etcdserverpb::Maintenance::Stub> maintenance;
};

Status EtcdClient::Open(const EtcdLocator& locator, const StoreOptions& options, std::unique_ptr<EtcdClient>* client) {
    if (!(options.timeout_seconds > 0) || !std::isfinite(options.timeout_seconds)) {
        return Status::InvalidArgument("the etcd deadline (timeout_seconds) must be a positive number of seconds");
    }
    const bool tls = EtcdTlsWanted(options.etcd_tls);
    std::shared_ptr<grpc::ChannelCredentials> credentials = grpc::InsecureChannelCredentials();
    if (tls) {
        grpc::SslCredentialsOptions files;
        Status s = LoadEtcdTls(options.etcd_tls, &files);
        if (!s.ok()) return s;
        credentials = grpc::SslCredentials(files);
    }

    grpc::ChannelArguments arguments;
    // A page of a scan may be larger than gRPC's default of 4 MiB; the
    // cluster bounds what it stores, not this client.
    arguments.SetMaxReceiveMessageSize(-1);
    // A member that comes back is used again within a second, not after
    // gRPC's default backoff of up to two minutes. (The minimum, which is
    // also how long one connection attempt may take, stays gRPC's.)
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
    arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
    std::vector<std::unique_ptr<Member>> members;
    for (const std::string& endpoint : locator.endpoints) {
        auto member = std::make_unique<Member>();
        member->endpoint = endpoint;
        // One channel for both services of the member.
        const std::shared_ptr<grpc::Channel> channel = grpc::CreateCustomChannel(endpoint, credentials, arguments);
        member->kv = etcdserverpb::KV::NewStub(channel);
        member->maintenance = etcdserverpb::Maintenance::NewStub(channel);
        members.push_back(std::move(member));
    }
    const double timeout = std::min(options.timeout_seconds, kLongestTimeoutSeconds);
    client->reset(new EtcdClient(std::move(members), std::chrono::duration<double>(timeout), tls, options.log));
    return Status::OK();
}

EtcdClient::EtcdClient(std::vector<std::unique_ptr<Member>> members, std::chrono::duration<double> timeout, bool tls,
                       LPPLOGCATEGORYINST log)
    : m_members(std::move(members)), m_timeout(timeout), m_tls(tls), m_log(log) {}

EtcdClient::~EtcdClient() = default;

std::chrono::system_clock::time_point EtcdClient::Deadline() const {
    return std::chrono::system_clock::now() +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(m_timeout);
}

Status EtcdClient::Range(const etcdserverpb::RangeRequest& request, etcdserverpb::RangeResponse* response,
                         const char* what, EtcdFailure* failure) {
    return Call(
        what, true,
        [&](Member& member, grpc::ClientContext* context) {
            return AwaitCall(
                [&](GrpcDone done) { member.kv->async()->Range(context, &request, response, std::move(done)); });
        },
        failure);
}

Status EtcdClient::Txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse* response, const char* what,
                       EtcdFailure* failure) {
    return Call(
        what, ReadsOnly(request),
        [&](Member& member, grpc::ClientContext* context) {
            return AwaitCall(
                [&](GrpcDone done) { member.kv->async()->Txn(context, &request, response, std::move(done)); });
        },
        failure);
}

Status EtcdClient::Compact(const etcdserverpb::CompactionRequest& request, const char* what, EtcdFailure* failure) {
    etcdserverpb::CompactionResponse response;
    return Call(
        what, false,
        [&](Member& member, grpc::ClientContext* context) {
            return AwaitCall(
                [&](GrpcDone done) { member.kv->async()->Compact(context, &request, &response, std::move(done)); });
        },
        failure);
}

Status EtcdClient::DefragmentEach(const char* what) {
    std::vector<std::string> failures;
    for (const auto& member : m_members) {
        grpc::ClientContext context;
        context.set_deadline(Deadline());
        etcdserverpb::DefragmentRequest request;
        etcdserverpb::DefragmentResponse response;
        const grpc::Status s = AwaitCall([&](GrpcDone done) {
            member->maintenance->async()->Defragment(&context, &request, &response, std::move(done));
        });
        if (s.ok()) continue;
        const EtcdFailure failure = ClassifyEtcdFailure(s, m_tls);
        std::string reason = failure.kind == EtcdFailure::Kind::kAnswer ? failure.status.message() : failure.detail;
        if (failure.kind == EtcdFailure::Kind::kDeadline) {
            reason = "not done within the deadline of " + Seconds(m_timeout) + " s (it goes on in the member)";
        }
        failures.push_back(member->endpoint + ": " + reason);
    }
    if (failures.empty()) return Status::OK();
    return Status::IOError(std::string("etcd: ") + what + ": " + Join(failures));
}

Status EtcdClient::Call(const char* what, bool replayable, const Attempt& attempt, EtcdFailure* failure) {
    const auto deadline = Deadline();
    const size_t count = m_members.size();
    auto pause = std::chrono::duration_cast<std::chrono::system_clock::duration>(kFirstPause);
    while (true) {
        std::vector<std::string> reasons;
        bool no_leader = false;
        bool all_down = true;
        const size_t first = m_current.load(std::memory_order_relaxed);
        for (size_t k = 0; k < count; ++k) {
            const size_t index = (first + k) % count;
            Member& member = *m_members[index];
            grpc::ClientContext context;
            context.set_deadline(deadline);
            context.AddMetadata(kRequireLeaderKey, kRequireLeaderValue);
            const grpc::Status s = attempt(member, &context);
            if (s.ok()) {
                if (index != first) {
                    m_current.store(index, std::memory_order_relaxed);
                    PLOG_WRITE_IF(m_log, PLOG_PRIORITY_WARN, "corvida/src/store/etcd_client", plog_category_logv,
                                  "etcd: %s: member %s answered after: %s", what, member.endpoint.c_str(),
                                  Join(reasons).c_str());
                }
                return Status::OK();
            }
            EtcdFailure classified = ClassifyEtcdFailure(s, m_tls);
            switch (classified.kind) {
                case EtcdFailure::Kind::kMemberDown:
                    reasons.push_back(member.endpoint + ": " + classified.detail);
                    continue;
                case EtcdFailure::Kind::kNoLeader:
                    no_leader = true;
                    all_down = false;
                    reasons.push_back(member.endpoint + ": no leader");
                    continue;
                case EtcdFailure::Kind::kInterrupted:
                    if (replayable) {
                        all_down = false;
                        reasons.push_back(member.endpoint + ": " + classified.detail);
                        continue;
                    }
                    return Status::IOError(std::string("etcd: ") + what + ": member " + member.endpoint +
                                           " broke off (" + classified.detail +
                                           "); the write may or may not have been applied");
                case EtcdFailure::Kind::kDeadline:
                    reasons.push_back(member.endpoint + ": no answer");
                    return Status::IOError(std::string("etcd: ") + what + ": no answer within the deadline of " +
                                           Seconds(m_timeout) + " s (" + Join(reasons) +
                                           "): the cluster is electing a leader, or a quorum of its members is "
                                           "down or cut off" +
                                           (replayable ? "" : "; the write may or may not have been applied"));
                case EtcdFailure::Kind::kAnswer: {
                    const std::string message = std::string("etcd: ") + what + ": " + classified.status.message();
                    Status answer = classified.status.IsInvalidArgument() ? Status::InvalidArgument(message)
                                                                          : Status::IOError(message);
                    if (failure != nullptr) *failure = std::move(classified);
                    return answer;
                }
            }
        }
        // No member took the call without having acted on it. While one has
        // no leader an election may end soon: try the round again.
        if (!no_leader || std::chrono::system_clock::now() + pause >= deadline) {
            return NoMemberTook(what, reasons, no_leader, all_down);
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::duration_cast<std::chrono::system_clock::duration>(kLongestPause));
    }
}

Status EtcdClient::NoMemberTook(const char* what, const std::vector<std::string>& reasons, bool no_leader,
                                bool all_down) const {
    const std::string prefix = std::string("etcd: ") + what + ": ";
    if (no_leader) {
        return Status::IOError(prefix + "the cluster has had no leader until the deadline of " + Seconds(m_timeout) +
                               " s (" + Join(reasons) + "): a quorum of its members is down or cut off");
    }
    if (all_down) return Status::IOError(prefix + "no member of the cluster is reachable (" + Join(reasons) + ")");
    return Status::IOError(prefix + "no member of the cluster answered (" + Join(reasons) + ")");
}

}  // namespace store
}  // namespace corvida
