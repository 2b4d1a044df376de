// corvida-pb store on etcd clusters, as a user meets them: a cluster that
// serves TLS and asks for client certificates (made by the test with
// openssl), and a cluster that loses two of its three members in the middle
// of the writes and gets them back.
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/text_format.h>

#include "cli_fixture.h"
#include "store/table_store.h"
#include "store_place.h"
#include "store_test_support.h"
#include "support/etcd_cluster.h"
#include "support/test_certificates.h"
#include "tables3.pb.h"

namespace {

using namespace corvida_test;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::test3::Player3;
using corvida_store_test::EngineKind;
using corvida_store_test::StorePlace;
using corvida_store_test::TempDir;

constexpr char kTables3[] = "tests/protos/tables3.proto";

// A one-member cluster that serves TLS to the clients that show a
// certificate of the test's CA, started once for the suite.
class StoreEtcdTlsCliTest : public CliTest {
protected:
    static void SetUpTestSuite() {
        s_dir = new TempDir();
        std::string error;
        if (!MakeTestCertificates(s_dir->path(), &s_certs, &error)) {
            ADD_FAILURE() << error;
            return;
        }
        EtcdClusterOptions options;
        options.members = 1;
        options.tls = &s_certs;
        options.client_cert_auth = true;
        s_cluster = EtcdCluster::Start(options, &error).release();
        if (s_cluster == nullptr) ADD_FAILURE() << "the etcd cluster did not start: " << error;
    }

    static void TearDownTestSuite() {
        delete s_cluster;
        s_cluster = nullptr;
        delete s_dir;
        s_dir = nullptr;
    }

    void SetUp() override {
        CliTest::SetUp();
        ASSERT_NE(s_cluster, nullptr);
    }

    // corvida-pb store command on the table Guild of namespace ns, with tls
    // (the TLS options) and args.
    static ProcessResult Store(const std::string& command, const std::string& ns, const std::vector<std::string>& tls,
                               const std::vector<std::string>& args = {}) {
        std::vector<std::string> all = {"store", command, "--db", s_cluster->Locator(ns), "--proto", kGame,
                                        "--table", "Guild"};
        all.insert(all.end(), tls.begin(), tls.end());
        all.insert(all.end(), args.begin(), args.end());
        return Pb(all);
    }

    static std::vector<std::string> WithCertificate() {
        return {"--etcd-cacert", s_certs.ca_cert, "--etcd-cert", s_certs.client_cert, "--etcd-key",
                s_certs.client_key};
    }

    static inline TempDir* s_dir = nullptr;
    static inline TestCertificates s_certs;
    static inline EtcdCluster* s_cluster = nullptr;
};

TEST_F(StoreEtcdTlsCliTest, AClientWithTheRightCaAndCertificateWritesAndReads) {
    ProcessResult r = Store("create", "accepted", WithCertificate());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("created table corvida.example.Guild in ", 0), 0u) << r.out;
    r = Store("put", "accepted", WithCertificate(), {"--text", "guild_id: 7 name: \"Owls\" member_count: 4"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = Store("get", "accepted", WithCertificate(), {"--text", "guild_id: 7"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "guild_id: 7\nname: \"Owls\"\nmember_count: 4\n");
}

TEST_F(StoreEtcdTlsCliTest, AClientWithoutACertificateIsRefused) {
    const ProcessResult r = Store("create", "refused", {"--etcd-cacert", s_certs.ca_cert});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("no member of the cluster is reachable"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("does it accept the client's certificate"), std::string::npos) << r.err;
    // The tool's one line, without gRPC's own lines about the handshake.
    EXPECT_EQ(r.err.rfind("corvida-pb store create: error: etcd: opening: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    RecordProperty("error", r.err);
    // Nor was anything created.
    const ProcessResult tables = Pb({"store", "tables", "--db", s_cluster->Locator("refused"), "--etcd-cacert",
                                     s_certs.ca_cert, "--etcd-cert", s_certs.client_cert, "--etcd-key",
                                     s_certs.client_key});
    EXPECT_EQ(tables.status, 1) << tables.out;
    EXPECT_NE(tables.err.find("no table store"), std::string::npos) << tables.err;
}

TEST_F(StoreEtcdTlsCliTest, AClientWithoutTlsIsToldToUseIt) {
    const ProcessResult r = Store("create", "plain", {});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("does it serve TLS only?"), std::string::npos) << r.err;
}

// The tool loads the etcd engine only for an etcd:// locator: it links no
// part of gRPC, and a module that is not there is one error line.
TEST_F(CliTest, TheToolLinksNoPartOfTheEtcdEngine) {
    const ProcessResult r = RunProcess({"/usr/bin/ldd", CORVIDA_PB_EXE});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.find("libgrpc"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("libabsl"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("libcorvida_store_etcd"), std::string::npos) << r.out;
}

TEST_F(CliTest, AMissingEtcdModuleIsOneErrorLine) {
    ProcessOptions options;
    const std::string missing = m_tmp + "/missing.so";
    options.set_env["CORVIDA_STORE_ETCD_MODULE"] = missing;
    const ProcessResult r = Pb({"store", "tables", "--db", "etcd://127.0.0.1:1/x"}, options);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "corvida-pb store tables: error: etcd://127.0.0.1:1/x: " + missing +
                         ": no such file (the etcd engine's module named by CORVIDA_STORE_ETCD_MODULE)\n");
}

// Two members of the shared cluster stopped: a write fails within its
// deadline with the reason and exit status 1, and writes nothing; with the
// members back, writes go on. Every acknowledged write is there afterwards
// and Verify finds nothing amiss.
class StoreEtcdQuorumCliTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        m_cluster = corvida_store_test::SharedEtcdCluster();
        ASSERT_NE(m_cluster, nullptr);
        ASSERT_FALSE(m_place.where().empty());
    }

    void TearDown() override {
        if (m_cluster != nullptr) {
            for (int i = 0; i < m_cluster->size(); ++i) {
                if (!m_cluster->Running(i)) {
                    EXPECT_TRUE(m_cluster->Restart(i));
                }
            }
            EXPECT_TRUE(m_cluster->WaitForLeader(20)) << m_cluster->Logs();
        }
        CliTest::TearDown();
    }

    ProcessResult Store(const std::string& command, const std::vector<std::string>& args) const {
        std::vector<std::string> all = {"store", command, "--db", m_place.where(), "--proto", kTables3,
                                        "--table", "Player3", "--timeout", "2"};
        all.insert(all.end(), args.begin(), args.end());
        return Pb(all);
    }

    EtcdCluster* m_cluster = nullptr;
    StorePlace m_place{EngineKind::kEtcd};
};

TEST_F(StoreEtcdQuorumCliTest, TwoMembersStoppedFailWithinTheDeadlineThenWritesGoOn) {
    ASSERT_EQ(Store("create", {}).status, 0);
    const std::vector<std::string> acknowledged = {"zone: 1 uid: 1 name: \"a\" level: 1",
                                                   "zone: 1 uid: 2 name: \"b\" level: 2"};
    for (const std::string& text : acknowledged) {
        const ProcessResult r = Store("put", {"--text", text});
        ASSERT_EQ(r.status, 0) << r.err;
    }

    const int leader = m_cluster->LeaderIndex();
    ASSERT_GE(leader, 0);
    m_cluster->Stop(leader);
    m_cluster->Stop((leader + 1) % 3);
    // A put that would move the record's index and shard entries.
    const std::string lost = "zone: 1 uid: 2 name: \"lost\" level: 9";
    const auto start = std::chrono::steady_clock::now();
    ProcessResult r = Store("put", {"--text", lost});
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_LT(seconds, 2 + 2.5) << r.err;
    EXPECT_NE(r.err.find("deadline of 2 s"), std::string::npos) << r.err;
    RecordProperty("error", r.err);
    r = Store("get", {"--text", "zone: 1 uid: 1"});
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_NE(r.err.find("the cluster has had no leader until the deadline of 2 s"), std::string::npos) << r.err;

    ASSERT_TRUE(m_cluster->Restart(leader));
    ASSERT_TRUE(m_cluster->Restart((leader + 1) % 3));
    ASSERT_TRUE(m_cluster->WaitForLeader(20)) << m_cluster->Logs();
    const std::string after = "zone: 2 uid: 3 name: \"c\" level: 3";
    r = Store("put", {"--text", after});
    EXPECT_EQ(r.status, 0) << r.err;

    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(corvida_store_test::OpenStore(m_place.where(), &store).ok());
    std::unique_ptr<Table> table;
    ASSERT_TRUE(store->OpenTable(Player3::default_instance(), nullptr, &table).ok());
    const Status verified = table->Verify();
    EXPECT_TRUE(verified.ok()) << verified.ToString();
    const auto read = [&table](const std::string& text) {
        Player3 key;
        EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &key));
        Player3 out;
        const Status s = table->Get(key, {}, &out, nullptr);
        EXPECT_TRUE(s.ok()) << s.ToString();
        return out.ShortDebugString();
    };
    const auto parsed = [](const std::string& text) {
        Player3 record;
        EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &record));
        return record.ShortDebugString();
    };
    EXPECT_EQ(read("zone: 1 uid: 1"), parsed(acknowledged[0]));
    EXPECT_EQ(read("zone: 2 uid: 3"), parsed(after));
    // The failed put: all of it or none of it.
    const std::string second = read("zone: 1 uid: 2");
    EXPECT_TRUE(second == parsed(acknowledged[1]) || second == parsed(lost)) << second;
}

}  // namespace
