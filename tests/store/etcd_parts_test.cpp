// The parts of the etcd engine that need no cluster: the locator, the
// reading of gRPC failures, and etcd's API next to the project's own
// definitions in one descriptor pool.
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include "etcd/etcdserver/etcdserverpb/rpc.pb.h"
#include "store/etcd_errors.h"
#include "store/etcd_locator.h"

namespace corvida_etcd_test {
namespace {

using corvida::store::EtcdFailure;
using corvida::store::EtcdLocator;
using corvida::store::Status;

TEST(EtcdLocatorTest, ReadsMembersAndNamespace) {
    EtcdLocator locator;
    ASSERT_TRUE(corvida::store::ParseEtcdLocator("etcd://127.0.0.1:2379", &locator).ok());
    EXPECT_EQ(locator.endpoints, std::vector<std::string>{"127.0.0.1:2379"});
    EXPECT_EQ(locator.name_space, "");
    EXPECT_EQ(locator.KeyPrefix(), "/");

    ASSERT_TRUE(
        corvida::store::ParseEtcdLocator("etcd://a.example:1,[::1]:2,10.0.0.3:65535/game_v2.test-1", &locator).ok());
    EXPECT_EQ(locator.endpoints, (std::vector<std::string>{"a.example:1", "[::1]:2", "10.0.0.3:65535"}));
    EXPECT_EQ(locator.name_space, "game_v2.test-1");
    EXPECT_EQ(locator.KeyPrefix(), "game_v2.test-1/");

    ASSERT_TRUE(corvida::store::ParseEtcdLocator("etcd://localhost:2379/", &locator).ok());
    EXPECT_EQ(locator.name_space, "");
    EXPECT_TRUE(corvida::store::IsEtcdLocator("etcd://x"));
    EXPECT_FALSE(corvida::store::IsEtcdLocator("/var/lib/etcd"));
    EXPECT_FALSE(corvida::store::IsEtcdLocator("ETCD://x:1"));
}

TEST(EtcdLocatorTest, NamesWhatIsWrong) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"http://127.0.0.1:2379", "does not begin with etcd://"},
        {"etcd://", "names no member"},
        {"etcd:///ns", "names no member"},
        {"etcd://127.0.0.1", "\"127.0.0.1\" has no port"},
        {"etcd://127.0.0.1:", "has no port"},
        {"etcd://:2379", "has no host"},
        {"etcd://h:0", "outside 1..65535"},
        {"etcd://h:65536", "outside 1..65535"},
        {"etcd://h:12a", "not a number"},
        {"etcd://h:123456", "not a number"},
        {"etcd://h_1:2", "neither a host name nor an address"},
        {"etcd://::1:2379", "write an IPv6 address in brackets"},
        {"etcd://[::1:2379", "never closes it"},
        {"etcd://[]:1", "no IPv6 address"},
        {"etcd://a:1,,b:2", "empty entry"},
        {"etcd://a:1,", "empty entry"},
        {"etcd://a:1/team/game", "the namespace \"team/game\" holds a character other than"},
        {"etcd://a:1/caf\xc3\xa9", "holds a character other than"},
        {"etcd://a:1/" + std::string(129, 'n'), "longer than 128 characters"},
    };
    for (const auto& c : cases) {
        EtcdLocator locator;
        const Status s = corvida::store::ParseEtcdLocator(c.first, &locator);
        EXPECT_TRUE(s.IsInvalidArgument()) << c.first << ": " << s.ToString();
        EXPECT_NE(s.message().find(c.second), std::string::npos) << c.first << ": " << s.message();
        EXPECT_NE(s.message().find("etcd://HOST:PORT[,HOST:PORT...][/NAMESPACE]"), std::string::npos) << s.message();
    }
}

EtcdFailure Classify(grpc::StatusCode code, const std::string& message, bool tls = false) {
    return corvida::store::ClassifyEtcdFailure(grpc::Status(code, message), tls);
}

TEST(EtcdErrorsTest, TellsWhatTheEngineMayDoNext) {
    using Kind = EtcdFailure::Kind;
    EXPECT_EQ(Classify(grpc::StatusCode::UNAVAILABLE, "etcdserver: no leader").kind, Kind::kNoLeader);
    EXPECT_EQ(Classify(grpc::StatusCode::DEADLINE_EXCEEDED, "Deadline Exceeded").kind, Kind::kDeadline);
    EXPECT_EQ(Classify(grpc::StatusCode::UNAVAILABLE, "Socket closed").kind, Kind::kInterrupted);
    EXPECT_EQ(Classify(grpc::StatusCode::UNAVAILABLE, "etcdserver: request timed out").kind, Kind::kInterrupted);
    EXPECT_EQ(Classify(grpc::StatusCode::UNKNOWN, "Stream removed").kind, Kind::kInterrupted);

    const EtcdFailure refused =
        Classify(grpc::StatusCode::UNAVAILABLE,
                 "failed to connect to all addresses; last error: UNKNOWN: ipv4:127.0.0.1:2379: Failed to connect "
                 "to remote host: Connection refused");
    EXPECT_EQ(refused.kind, Kind::kMemberDown);
    EXPECT_EQ(refused.detail, "Failed to connect to remote host: Connection refused");

    const EtcdFailure handshake =
        Classify(grpc::StatusCode::UNAVAILABLE,
                 "failed to connect to all addresses; last error: UNKNOWN: ipv4:127.0.0.1:2379: Ssl handshake failed: "
                 "SSL_ERROR_SSL: error:0A000086:SSL routines::certificate verify failed",
                 true);
    EXPECT_EQ(handshake.kind, Kind::kMemberDown);
    EXPECT_EQ(handshake.detail.find("TLS handshake failed: Ssl handshake failed"), 0u) << handshake.detail;

    const std::string closed =
        "failed to connect to all addresses; last error: UNAVAILABLE: ipv4:127.0.0.1:2379: Socket closed";
    EXPECT_NE(Classify(grpc::StatusCode::UNAVAILABLE, closed, true).detail.find("accept the client's certificate"),
              std::string::npos);
    EXPECT_NE(Classify(grpc::StatusCode::UNAVAILABLE, closed, false).detail.find("does it serve TLS only?"),
              std::string::npos);
    const std::string reset =
        "failed to connect to all addresses; last error: UNKNOWN: ipv4:127.0.0.1:2379: "
        "recvmsg:Connection reset by peer";
    EXPECT_EQ(Classify(grpc::StatusCode::UNAVAILABLE, reset, true).detail, "recvmsg:Connection reset by peer");
}

TEST(EtcdErrorsTest, MapsTheClustersAnswers) {
    using Refusal = EtcdFailure::Refusal;
    EtcdFailure f = Classify(grpc::StatusCode::INVALID_ARGUMENT, "etcdserver: too many operations in txn request");
    EXPECT_EQ(f.kind, EtcdFailure::Kind::kAnswer);
    EXPECT_EQ(f.refusal, Refusal::kTooManyOperations);
    EXPECT_TRUE(f.status.IsInvalidArgument());
    EXPECT_NE(f.status.message().find("--max-txn-ops of the etcd cluster"), std::string::npos);

    f = Classify(grpc::StatusCode::INVALID_ARGUMENT, "etcdserver: request is too large");
    EXPECT_EQ(f.refusal, Refusal::kTooLarge);
    EXPECT_EQ(f.max_request_bytes, 0u);
    EXPECT_NE(f.status.message().find("--max-request-bytes of the etcd cluster"), std::string::npos);
    f = Classify(grpc::StatusCode::RESOURCE_EXHAUSTED, "grpc: received message larger than max (2200018 vs. 2097152)");
    EXPECT_EQ(f.refusal, Refusal::kTooLarge);
    EXPECT_EQ(f.max_request_bytes, 1572864u);
    EXPECT_TRUE(f.status.IsInvalidArgument());

    f = Classify(grpc::StatusCode::OUT_OF_RANGE, "etcdserver: mvcc: required revision has been compacted");
    EXPECT_EQ(f.refusal, Refusal::kCompacted);
    EXPECT_TRUE(f.status.IsIOError());
    // What a member says to a read at a revision it has not applied yet:
    // the engine then asks it again in a way that waits.
    f = Classify(grpc::StatusCode::OUT_OF_RANGE, "etcdserver: mvcc: required revision is a future revision");
    EXPECT_EQ(f.refusal, Refusal::kFutureRevision);
    EXPECT_TRUE(f.status.IsIOError());

    const std::vector<std::pair<EtcdFailure, std::string>> io_errors = {
        {Classify(grpc::StatusCode::PERMISSION_DENIED, "etcdserver: permission denied"), "permission denied"},
        {Classify(grpc::StatusCode::INVALID_ARGUMENT, "etcdserver: user name is empty"), "asks for authentication"},
        {Classify(grpc::StatusCode::UNAUTHENTICATED, "etcdserver: invalid auth token"), "asks for authentication"},
        {Classify(grpc::StatusCode::RESOURCE_EXHAUSTED, "etcdserver: mvcc: database space exceeded"),
         "--quota-backend-bytes"},
        {Classify(grpc::StatusCode::UNIMPLEMENTED, "unknown service etcdserverpb.KV"), "v3 API"},
        {Classify(grpc::StatusCode::INTERNAL, "odd"), "answered INTERNAL: odd"},
    };
    for (const auto& c : io_errors) {
        EXPECT_TRUE(c.first.status.IsIOError()) << c.first.status.ToString();
        EXPECT_NE(c.first.status.message().find(c.second), std::string::npos) << c.first.status.message();
    }
    f = Classify(grpc::StatusCode::INVALID_ARGUMENT, "etcdserver: duplicate key given in txn request");
    EXPECT_TRUE(f.status.IsInvalidArgument());
    EXPECT_NE(f.status.message().find("one key twice"), std::string::npos);
}

// etcd's files, the files they import and the project's option file share
// the generated pool of the one protobuf runtime: every file builds, and
// the options of both sides keep their own extension numbers.
TEST(EtcdApiTest, SharesTheDescriptorPoolWithoutClashes) {
    const google::protobuf::DescriptorPool* pool = google::protobuf::DescriptorPool::generated_pool();
    for (const char* file :
         {"etcd/etcdserver/etcdserverpb/rpc.proto", "etcd/mvcc/mvccpb/kv.proto", "etcd/auth/authpb/auth.proto",
          "gogoproto/gogo.proto", "google/api/annotations.proto", "google/api/http.proto",
          "corvidaservice.optionv1.proto", "google/protobuf/descriptor.proto"}) {
        EXPECT_NE(pool->FindFileByName(file), nullptr) << file;
    }
    EXPECT_EQ(pool->FindFileByName("gogoproto/gogo.proto")->dependency(0),
              google::protobuf::FileDescriptorProto::descriptor()->file());
    const google::protobuf::Descriptor* field_options = google::protobuf::FieldOptions::descriptor();
    const google::protobuf::FieldDescriptor* nullable = pool->FindExtensionByName("gogoproto.nullable");
    const google::protobuf::FieldDescriptor* size = pool->FindExtensionByName("corvidaservice.corvida_size");
    ASSERT_NE(nullable, nullptr);
    ASSERT_NE(size, nullptr);
    EXPECT_EQ(pool->FindExtensionByNumber(field_options, nullable->number()), nullable);
    EXPECT_EQ(pool->FindExtensionByNumber(field_options, size->number()), size);
    EXPECT_NE(etcdserverpb::RangeRequest::descriptor()->file(), nullptr);
}

}  // namespace
}  // namespace corvida_etcd_test
