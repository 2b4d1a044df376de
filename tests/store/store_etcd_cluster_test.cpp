// Many processes writing one store on an etcd cluster, while its members
// fail or not: writer processes (store_writer shared) put, update and delete
// the same records, indexed and sharding fields included; afterwards Verify
// finds every entry with its record, and every record is as the last
// acknowledged write of each of its fields left it, or as a write in flight
// did (shared_writes.h). The faults: the leader killed with SIGKILL during
// the writes and started again; one member stopped. The quorum lost, seen
// from the command line, is cli_store_etcd_test's.
#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shared_writes.h"
#include "store/table_store.h"
#include "store_place.h"
#include "store_test_support.h"
#include "support/etcd_cluster.h"

namespace corvida_store_test {
namespace {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::storetest::Task;

// The writer processes of one test, numbered from 1.
class SharedWriters {
public:
    // Starts writers 1 to count, each making writes writes on where with a
    // deadline of timeout seconds per call.
    SharedWriters(const std::string& where, int count, int writes, double timeout) : m_writes(writes) {
        for (int w = 1; w <= count; ++w) {
            Child child;
            EXPECT_TRUE(Spawn(CORVIDA_STORE_WRITER,
                              {"shared", where, std::to_string(w), std::to_string(writes), std::to_string(timeout)},
                              &child));
            m_children.push_back(child);
            m_output.emplace_back();
        }
    }

    ~SharedWriters() {
        for (Child& child : m_children) {
            if (child.out >= 0) ReadAll(&child);
            if (child.pid >= 0) WaitExit(child, 0);
        }
    }

    // Waits until writer 1 reported lines writes in all; false when they did
    // not come within a minute.
    bool WaitForFirst(size_t lines) {
        std::string& text = m_output[0];
        while (static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) < lines) {
            std::string more;
            if (!ReadLine(&m_children[0], &more, 60000)) return false;
            text += more;
        }
        return true;
    }

    // Waits for every writer to end and returns what they reported. Each
    // must report every write.
    std::vector<SharedWriteOutcome> Finish() {
        std::vector<SharedWriteOutcome> outcomes;
        for (size_t i = 0; i < m_children.size(); ++i) {
            m_output[i] += ReadAll(&m_children[i]);
            EXPECT_EQ(WaitExit(m_children[i], 120000), 0) << "writer " << i + 1 << " said:\n" << m_output[i];
            m_children[i].pid = -1;
            std::istringstream lines(m_output[i]);
            std::string line;
            int reported = 0;
            while (std::getline(lines, line)) {
                SharedWriteOutcome outcome;
                EXPECT_TRUE(ParseSharedWriteLine(static_cast<int>(i) + 1, line, &outcome)) << line;
                outcomes.push_back(outcome);
                ++reported;
            }
            EXPECT_EQ(reported, m_writes) << "writer " << i + 1;
        }
        return outcomes;
    }

private:
    int m_writes;
    std::vector<Child> m_children;
    std::vector<std::string> m_output;
};

size_t Acknowledged(const std::vector<SharedWriteOutcome>& outcomes) {
    return static_cast<size_t>(std::count_if(outcomes.begin(), outcomes.end(),
                                             [](const SharedWriteOutcome& o) { return o.acknowledged; }));
}

// Verify, then the records against the writes.
::testing::AssertionResult StoreAgrees(const std::string& where, const std::vector<SharedWriteOutcome>& outcomes) {
    std::unique_ptr<TableStore> store;
    Status s = OpenStore(where, &store);
    std::unique_ptr<Table> table;
    if (s.ok()) s = store->OpenTable(Task::default_instance(), nullptr, &table);
    if (s.ok()) s = table->Verify();
    std::vector<Record> all;
    if (s.ok()) s = table->Scan(nullptr, 0, &all);
    if (!s.ok()) return ::testing::AssertionFailure() << s.ToString();
    std::map<int64_t, Task> stored;
    for (const Record& record : all) {
        const Task& task = static_cast<const Task&>(*record.message);
        stored[task.id()] = task;
    }
    const std::vector<std::string> problems = CheckSharedWrites(outcomes, stored);
    if (problems.empty()) return ::testing::AssertionSuccess() << stored.size() << " records";
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    for (const std::string& problem : problems) failure << problem << "\n";
    return failure;
}

// The check itself finds a lost write: the writes of two writers to one
// record, one after the other, and the store holding the first one's values.
TEST(SharedWritesCheckTest, AWriteFollowedByAnAcknowledgedOneCannotBeTheLast) {
    // Writes of writers 1 and 2 to one record that write its owner and level.
    std::vector<SharedWriteOutcome> writes;
    for (int writer = 1; writer <= 2 && writes.size() < 2; ++writer) {
        for (uint64_t n = 0; n < 1000; ++n) {
            const SharedWrite write = MakeSharedWrite(writer, n);
            if (write.record.id() == 1 && write.kind == SharedWrite::kPut) {
                writes.push_back({writer, n, 0, 0, true, ""});
                break;
            }
        }
    }
    ASSERT_EQ(writes.size(), 2u);
    writes[0].begin_ns = 10;
    writes[0].end_ns = 20;
    writes[1].begin_ns = 30;
    writes[1].end_ns = 40;
    const Task first = MakeSharedWrite(writes[0].writer, writes[0].n).record;
    const Task second = MakeSharedWrite(writes[1].writer, writes[1].n).record;
    EXPECT_TRUE(CheckSharedWrites(writes, {{1, second}}).empty());
    EXPECT_EQ(CheckSharedWrites(writes, {{1, first}}).size(), 3u);  // its three groups
    EXPECT_EQ(CheckSharedWrites(writes, {}).size(), 4u);             // and its existence
    // Overlapping, either may be the last; failed, the second may have been
    // applied or not.
    writes[1].begin_ns = 15;
    EXPECT_TRUE(CheckSharedWrites(writes, {{1, first}}).empty());
    writes[1].begin_ns = 30;
    writes[1].acknowledged = false;
    EXPECT_TRUE(CheckSharedWrites(writes, {{1, first}}).empty());
    EXPECT_TRUE(CheckSharedWrites(writes, {{1, second}}).empty());
}

// Tests that stop or kill members: every member runs again, with a leader,
// after each.
class EtcdClusterWritesTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_cluster = SharedEtcdCluster();
        ASSERT_NE(m_cluster, nullptr);
        ASSERT_FALSE(m_place.where().empty());
    }

    void TearDown() override {
        if (m_cluster == nullptr) return;
        for (int i = 0; i < m_cluster->size(); ++i) {
            if (!m_cluster->Running(i)) {
                EXPECT_TRUE(m_cluster->Restart(i));
            }
        }
        EXPECT_TRUE(m_cluster->WaitForLeader(20)) << m_cluster->Logs();
    }

    corvida_test::EtcdCluster* m_cluster = nullptr;
    StorePlace m_place{EngineKind::kEtcd};
};

// Four processes, 200 writes each, on ten records.
TEST_F(EtcdClusterWritesTest, FourWriterProcessesOnTheSameRecords) {
    SharedWriters writers(m_place.where(), 4, 200, 5);
    const std::vector<SharedWriteOutcome> outcomes = writers.Finish();
    EXPECT_EQ(Acknowledged(outcomes), 800u);
    for (const SharedWriteOutcome& outcome : outcomes) EXPECT_TRUE(outcome.acknowledged) << outcome.error;
    EXPECT_TRUE(StoreAgrees(m_place.where(), outcomes));
}

// The leader is killed while three processes write, and started again a
// moment later. Writes may fail meanwhile, each with what etcd did not do;
// none that was acknowledged is lost.
TEST_F(EtcdClusterWritesTest, TheLeaderKilledDuringTheWrites) {
    SharedWriters writers(m_place.where(), 3, 150, 2);
    ASSERT_TRUE(writers.WaitForFirst(40));
    const int leader = m_cluster->LeaderIndex();
    ASSERT_GE(leader, 0);
    m_cluster->Kill(leader);
    ASSERT_TRUE(writers.WaitForFirst(60));
    ASSERT_TRUE(m_cluster->Restart(leader));
    const std::vector<SharedWriteOutcome> outcomes = writers.Finish();
    size_t failed = 0;
    for (const SharedWriteOutcome& outcome : outcomes) {
        if (outcome.acknowledged) continue;
        ++failed;
        EXPECT_NE(outcome.error.find("etcd: "), std::string::npos) << outcome.error;
        RecordProperty("error", outcome.error);
    }
    EXPECT_LE(failed, outcomes.size() / 4) << "most writes go on";
    ASSERT_TRUE(m_cluster->WaitForLeader(20));
    EXPECT_TRUE(StoreAgrees(m_place.where(), outcomes));
}

// With one member of three stopped (the one clients ask first), every write
// succeeds; started again, it is part of the quorum again: the records read
// the same with another member stopped instead.
TEST_F(EtcdClusterWritesTest, OneMemberStopped) {
    m_cluster->Stop(0);
    ASSERT_TRUE(m_cluster->WaitForLeader(20));
    SharedWriters writers(m_place.where(), 3, 100, 5);
    const std::vector<SharedWriteOutcome> outcomes = writers.Finish();
    for (const SharedWriteOutcome& outcome : outcomes) EXPECT_TRUE(outcome.acknowledged) << outcome.error;
    EXPECT_TRUE(StoreAgrees(m_place.where(), outcomes));
    ASSERT_TRUE(m_cluster->Restart(0));
    ASSERT_TRUE(m_cluster->WaitForLeader(20));
    m_cluster->Stop(1);
    ASSERT_TRUE(m_cluster->WaitForLeader(20));
    EXPECT_TRUE(StoreAgrees(m_place.where(), outcomes));
}

}  // namespace
}  // namespace corvida_store_test
