#include "store/etcd_errors.h"

#include <cstdlib>
#include <string_view>

namespace corvida {
namespace store {

const char kEtcdMaxTxnOpsSetting[] = "--max-txn-ops of the etcd cluster";
const char kEtcdMaxRequestBytesSetting[] = "--max-request-bytes of the etcd cluster";

namespace {

// What etcd's members add to --max-request-bytes for the size of a gRPC
// message they accept: larger messages are refused by gRPC itself, with
// the sum in the message.
constexpr size_t kEtcdGrpcOverheadBytes = 512 * 1024;

bool Contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

const char* CodeName(grpc::StatusCode code) {
    switch (code) {
        case grpc::StatusCode::OK: return "OK";
        case grpc::StatusCode::CANCELLED: return "CANCELLED";
        case grpc::StatusCode::UNKNOWN: return "UNKNOWN";
        case grpc::StatusCode::INVALID_ARGUMENT: return "INVALID_ARGUMENT";
        case grpc::StatusCode::DEADLINE_EXCEEDED: return "DEADLINE_EXCEEDED";
        case grpc::StatusCode::NOT_FOUND: return "NOT_FOUND";
        case grpc::StatusCode::ALREADY_EXISTS: return "ALREADY_EXISTS";
        case grpc::StatusCode::PERMISSION_DENIED: return "PERMISSION_DENIED";
        case grpc::StatusCode::UNAUTHENTICATED: return "UNAUTHENTICATED";
        case grpc::StatusCode::RESOURCE_EXHAUSTED: return "RESOURCE_EXHAUSTED";
        case grpc::StatusCode::FAILED_PRECONDITION: return "FAILED_PRECONDITION";
        case grpc::StatusCode::ABORTED: return "ABORTED";
        case grpc::StatusCode::OUT_OF_RANGE: return "OUT_OF_RANGE";
        case grpc::StatusCode::UNIMPLEMENTED: return "UNIMPLEMENTED";
        case grpc::StatusCode::INTERNAL: return "INTERNAL";
        case grpc::StatusCode::UNAVAILABLE: return "UNAVAILABLE";
        case grpc::StatusCode::DATA_LOSS: return "DATA_LOSS";
        default: return "gRPC error";
    }
}

// gRPC's account of a failed connection ("failed to connect to all
// addresses; last error: UNKNOWN: ipv4:127.0.0.1:2379: Failed to connect to
// remote host: Connection refused"), cut to its cause ("Failed to connect to
// remote host: Connection refused"), with a hint where the cause is a
// connection the member closed during the TLS handshake.
std::string ConnectFailure(std::string_view message, bool tls) {
    std::string_view cause = message;
    const size_t last = cause.find("last error: ");
    if (last != std::string_view::npos) cause.remove_prefix(last + 12);
    for (std::string_view code : {"UNKNOWN: ", "UNAVAILABLE: "}) {
        if (cause.substr(0, code.size()) == code) cause.remove_prefix(code.size());
    }
    for (std::string_view scheme : {"ipv4:", "ipv6:", "unix:"}) {
        if (cause.substr(0, scheme.size()) == scheme) {
            const size_t end = cause.find(": ", scheme.size());
            if (end != std::string_view::npos) cause.remove_prefix(end + 2);
        }
    }
    // How gRPC words a connection the other side closed before it could be
    // used: what a member does to a client whose TLS it will not take.
    const bool closed = Contains(cause, "Socket closed") || Contains(cause, "Endpoint read failed");
    std::string detail(cause);
    if (Contains(cause, "andshake") || Contains(cause, "certificate") || Contains(cause, "Peer name")) {
        detail = "TLS handshake failed: " + detail;
    } else if (closed && tls) {
        detail +=
            " (the member closed the connection during the TLS handshake: if it is up, does it accept the "
            "client's certificate and key?)";
    } else if (closed) {
        detail +=
            " (the member closed the connection: if it is up, does it serve TLS only? then give the etcd TLS "
            "options, the cluster's CA file at least)";
    }
    return detail;
}

EtcdFailure Answer(Status status, EtcdFailure::Refusal refusal = EtcdFailure::Refusal::kOther) {
    EtcdFailure failure;
    failure.kind = EtcdFailure::Kind::kAnswer;
    failure.status = std::move(status);
    failure.refusal = refusal;
    return failure;
}

// The Y of gRPC's "received message larger than max (X vs. Y)", 0 when the
// message does not say.
size_t ReceiveLimit(std::string_view message) {
    const size_t vs = message.find(" vs. ");
    if (vs == std::string_view::npos) return 0;
    const std::string number(message.substr(vs + 5));
    return std::strtoull(number.c_str(), nullptr, 10);
}

}  // namespace

EtcdFailure ClassifyEtcdFailure(const grpc::Status& status, bool tls) {
    const std::string& message = status.error_message();
    const grpc::StatusCode code = status.error_code();
    EtcdFailure failure;
    failure.detail = message;
    if (code == grpc::StatusCode::DEADLINE_EXCEEDED) {
        failure.kind = EtcdFailure::Kind::kDeadline;
        return failure;
    }
    if (code == grpc::StatusCode::UNAVAILABLE) {
        if (message == "etcdserver: no leader") {
            failure.kind = EtcdFailure::Kind::kNoLeader;
        } else if (Contains(message, "failed to connect to all addresses")) {
            failure.kind = EtcdFailure::Kind::kMemberDown;
            failure.detail = ConnectFailure(message, tls);
        } else {
            failure.kind = EtcdFailure::Kind::kInterrupted;
        }
        return failure;
    }
    if (code == grpc::StatusCode::UNKNOWN && Contains(message, "Stream removed")) {
        failure.kind = EtcdFailure::Kind::kInterrupted;
        return failure;
    }

    if (message == "etcdserver: too many operations in txn request") {
        return Answer(Status::InvalidArgument(std::string("the transaction holds more operations than ") +
                                              kEtcdMaxTxnOpsSetting + " allows; nothing was written"),
                      EtcdFailure::Refusal::kTooManyOperations);
    }
    if (message == "etcdserver: request is too large" ||
        (code == grpc::StatusCode::RESOURCE_EXHAUSTED && Contains(message, "received message larger than max"))) {
        const size_t limit = ReceiveLimit(message);
        failure = Answer(Status::InvalidArgument(std::string("the request is larger than ") +
                                                 kEtcdMaxRequestBytesSetting + " allows; nothing was written"),
                         EtcdFailure::Refusal::kTooLarge);
        if (limit > kEtcdGrpcOverheadBytes) failure.max_request_bytes = limit - kEtcdGrpcOverheadBytes;
        return failure;
    }
    if (message == "etcdserver: duplicate key given in txn request") {
        return Answer(Status::InvalidArgument(
            "the transaction changes one key twice, which an etcd transaction may not; nothing was written"));
    }
    if (Contains(message, "required revision has been compacted")) {
        return Answer(
            Status::IOError("the revision the read was taken at has been compacted away on the etcd cluster (" +
                            message + "): read again from a new view"),
            EtcdFailure::Refusal::kCompacted);
    }
    if (Contains(message, "required revision is a future revision")) {
        return Answer(Status::IOError("the revision the read was taken at is ahead of the etcd member (" + message +
                                      "): is the view from another cluster?"),
                      EtcdFailure::Refusal::kFutureRevision);
    }
    if (Contains(message, "database space exceeded")) {
        return Answer(Status::IOError("the etcd cluster is out of space (" + message +
                                      "): compact and defragment it, or raise its --quota-backend-bytes"));
    }
    if (code == grpc::StatusCode::PERMISSION_DENIED) {
        return Answer(Status::IOError("permission denied by the etcd cluster (" + message +
                                      "): the client's user, the common name of its certificate, needs a role "
                                      "that grants the namespace's keys"));
    }
    if (code == grpc::StatusCode::UNAUTHENTICATED || Contains(message, "user name is empty") ||
        Contains(message, "authentication failed")) {
        return Answer(Status::IOError("the etcd cluster asks for authentication (" + message +
                                      "): this client authenticates by its TLS client certificate only, so the "
                                      "cluster must run with --client-cert-auth"));
    }
    if (code == grpc::StatusCode::UNIMPLEMENTED) {
        return Answer(Status::IOError("the member does not serve etcd's v3 API (" + message + ")"));
    }
    return Answer(Status::IOError(std::string("the etcd member answered ") + CodeName(code) + ": " + message));
}

}  // namespace store
}  // namespace corvida
