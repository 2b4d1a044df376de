// The etcd engine while members of its cluster fail: one member stopped,
// a quorum lost and restored, the leader killed during commits.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "etcd_test_support.h"

namespace corvida_etcd_test {
namespace {

using Clock = std::chrono::steady_clock;

class EtcdFaultTest : public ClusterTest<EtcdFaultTest> {
public:
    static EtcdClusterOptions ClusterOptions() { return {}; }

protected:
    // Every member back, with a leader, for the next test.
    void TearDown() override {
        if (s_cluster == nullptr) return;
        for (int i = 0; i < s_cluster->size(); ++i) {
            if (!s_cluster->Running(i)) {
                EXPECT_TRUE(s_cluster->Restart(i));
            }
        }
        EXPECT_TRUE(s_cluster->WaitForLeader(20)) << s_cluster->Logs();
    }

    static std::unique_ptr<Engine> Open(const std::string& name_space, double timeout_seconds) {
        StoreOptions options;
        options.timeout_seconds = timeout_seconds;
        std::unique_ptr<Engine> engine;
        EXPECT_TRUE(IsOk(OpenOn(*s_cluster, name_space, &engine, options)));
        return engine;
    }
};

TEST_F(EtcdFaultTest, WritesGoOnWithOneMemberStopped) {
    std::unique_ptr<Engine> engine = Open("one-stopped", 5);
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(IsOk(PutAll(engine.get(), {{"before", "1"}})));
    // The member the engine talks to first, whichever role it has.
    s_cluster->Stop(0);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(IsOk(PutAll(engine.get(), {{"k" + std::to_string(i), "v"}}))) << i;
    }
    EXPECT_EQ(Contents(engine.get()).size(), 21u);
    ASSERT_TRUE(s_cluster->Restart(0));
    ASSERT_TRUE(s_cluster->WaitForLeader(20));
    EXPECT_TRUE(IsOk(PutAll(engine.get(), {{"after", "1"}})));
}

// Two of three members stopped: a commit fails within its deadline with a
// clear message and leaves nothing half done; with the members back, the
// same engine writes again.
TEST_F(EtcdFaultTest, ALostQuorumFailsWithinTheDeadlineAndComesBack) {
    constexpr double kTimeout = 2;
    std::unique_ptr<Engine> engine = Open("quorum", kTimeout);
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(IsOk(PutAll(engine.get(), {{"before", "1"}})));
    const int leader = s_cluster->LeaderIndex();
    ASSERT_GE(leader, 0);
    const int follower = (leader + 1) % 3;
    s_cluster->Stop(leader);
    s_cluster->Stop(follower);

    EngineBatch batch;
    batch.Put("a", "1");
    batch.Put("b", "2");
    batch.Put("c", "3");
    bool committed = true;
    const auto start = Clock::now();
    Status s = engine->Commit(batch, &committed);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_LT(seconds, kTimeout + 1.5) << s.ToString();
    const bool clear =
        s.message().find("the cluster has had no leader until the deadline of 2 s") != std::string::npos ||
        s.message().find("no answer within the deadline of 2 s") != std::string::npos;
    EXPECT_TRUE(clear) << s.message();
    RecordProperty("error", s.ToString());
    // By now the member left knows it has no leader, and says so; reads
    // need a quorum too.
    std::string value;
    bool found = false;
    s = engine->Get(nullptr, "before", &value, &found);
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("etcd: reading: the cluster has had no leader until the deadline of 2 s"),
              std::string::npos)
        << s.message();
    RecordProperty("read_error", s.ToString());

    ASSERT_TRUE(s_cluster->Restart(leader));
    ASSERT_TRUE(s_cluster->Restart(follower));
    ASSERT_TRUE(s_cluster->WaitForLeader(20)) << s_cluster->Logs();
    ASSERT_TRUE(IsOk(PutAll(engine.get(), {{"after", "1"}})));
    const auto contents = Contents(engine.get());
    EXPECT_EQ(contents.count("before"), 1u);
    EXPECT_EQ(contents.count("after"), 1u);
    // The failed batch: all of it or none of it.
    const size_t parts = contents.count("a") + contents.count("b") + contents.count("c");
    EXPECT_TRUE(parts == 0 || parts == 3) << parts;
}

// A writer commits one key after another while the leader is killed and
// started again: some commits fail, every acknowledged one is there.
TEST_F(EtcdFaultTest, AcknowledgedCommitsSurviveTheLeadersCrash) {
    std::unique_ptr<Engine> engine = Open("leader-killed", 3);
    ASSERT_NE(engine, nullptr);
    constexpr int kCommits = 150;
    std::atomic<int> done{0};
    std::vector<int> acknowledged;
    std::vector<std::string> errors;
    std::thread writer([&] {
        for (int i = 0; i < kCommits; ++i) {
            const std::string key = "k" + std::to_string(i);
            EngineBatch batch;
            batch.ExpectAbsent(key);
            batch.Put(key, "v");
            bool committed = false;
            const Status s = engine->Commit(batch, &committed);
            if (s.ok() && committed) acknowledged.push_back(i);
            if (!s.ok()) errors.push_back(s.ToString());
            done = i + 1;
        }
    });
    while (done < 30) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int leader = s_cluster->LeaderIndex();
    ASSERT_GE(leader, 0);
    s_cluster->Kill(leader);
    while (done < 60) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_TRUE(s_cluster->Restart(leader));
    writer.join();

    const auto contents = Contents(engine.get());
    for (int i : acknowledged) EXPECT_EQ(contents.count("k" + std::to_string(i)), 1u) << i;
    EXPECT_GE(acknowledged.size(), static_cast<size_t>(kCommits) - 10);
    for (const std::string& error : errors) {
        EXPECT_NE(error.find("etcd: committing: "), std::string::npos) << error;
        RecordProperty("error", error);
    }
}

}  // namespace
}  // namespace corvida_etcd_test
