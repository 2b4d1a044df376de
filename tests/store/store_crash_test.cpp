// Writers killed at random moments: a child process writes with sync on and
// is killed with SIGKILL; the store must then hold every write the child
// acknowledged (and perhaps the one it was in the middle of, whole), and
// every index and shard entry must have its record and every record its
// entries. Most rounds kill the writer at a random moment after its first
// acknowledged write; every fourth one at a random moment after it started,
// which may fall into the opening or the creation of the store. The same
// with writes made in Write calls of many records, several commits each:
// the call in flight must have left a prefix of its writes.
//
// CORVIDA_STORE_CRASH_ROUNDS sets the number of rounds (default 20; the
// longer run of docs/store.md uses 100), CORVIDA_STORE_CRASH_SEED the seed of
// the kill times (default: from the clock, printed).
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "crash_ops.h"
#include "store/table_store.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::test3::Player3;

// The records of the store as "ShortDebugString" lines by key, or the
// failure.
::testing::AssertionResult StoredRecords(const std::string& dir, std::map<std::string, std::string>* records) {
    std::unique_ptr<TableStore> store;
    Status s = OpenStore(dir, &store);
    if (!s.ok()) return ::testing::AssertionFailure() << "reopen: " << s.ToString();
    std::unique_ptr<Table> table;
    s = store->OpenTable(Player3::default_instance(), nullptr, &table);
    if (s.IsNotFound()) return ::testing::AssertionSuccess();  // killed before the table was created
    if (!s.ok()) return ::testing::AssertionFailure() << "open table: " << s.ToString();
    s = table->Verify();
    if (!s.ok()) return ::testing::AssertionFailure() << "verify: " << s.ToString();
    std::vector<Record> all;
    s = table->Scan(nullptr, 0, &all);
    if (!s.ok()) return ::testing::AssertionFailure() << "scan: " << s.ToString();
    for (const Record& r : all) {
        const Player3& p = static_cast<const Player3&>(*r.message);
        (*records)[std::to_string(p.zone()) + "/" + std::to_string(p.uid())] = p.ShortDebugString();
    }
    return ::testing::AssertionSuccess();
}

std::map<std::string, std::string> ModelRecords(uint64_t count) {
    std::map<std::string, std::string> records;
    for (const auto& entry : CrashModel(count)) {
        records[std::to_string(entry.first.first) + "/" + std::to_string(entry.first.second)] =
            entry.second.ShortDebugString();
    }
    return records;
}

// Runs the rounds with the writer's mode ("write": one operation a call;
// "bulk": kBulkCall a call). After the last acknowledged operation L, the
// store must hold the first n operations for an n from L + 1 to L + 1 +
// in_flight: the call in flight left a prefix of its operations.
void KillWritersInRounds(const std::string& mode, uint64_t in_flight, int rounds) {
    const unsigned seed = static_cast<unsigned>(
        EnvInt("CORVIDA_STORE_CRASH_SEED", static_cast<int>(std::chrono::steady_clock::now().time_since_epoch().count() & 0x7fffffff)));
    std::printf("crash test: %d rounds, CORVIDA_STORE_CRASH_SEED=%u\n", rounds, seed);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> delay_ms(0, 300);

    TempDir dir;
    uint64_t applied = 0;  // operations [0, applied) are in the store
    uint64_t acknowledged = 0;
    int cut = 0;  // rounds that found the call in flight cut between its commits
    for (int round = 0; round < rounds; ++round) {
        Child child;
        ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {mode, dir.path(), std::to_string(applied)}, &child));
        std::string acks;
        if (round % 4 != 3 && !ReadLine(&child, &acks, 30000)) {
            kill(child.pid, SIGKILL);
            waitpid(child.pid, nullptr, 0);
            FAIL() << "round " << round << ": the writer acknowledged nothing in 30 s";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms(rng)));
        kill(child.pid, SIGKILL);
        int status = 0;
        waitpid(child.pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself in round " << round;
        acks += ReadAll(&child);

        uint64_t low = applied;
        const size_t last_line = acks.rfind('\n', acks.size() >= 2 ? acks.size() - 2 : 0);
        if (!acks.empty()) {
            const uint64_t last = std::strtoull(acks.c_str() + (last_line == std::string::npos ? 0 : last_line + 1),
                                                nullptr, 10);
            acknowledged += last + 1 - applied;
            low = last + 1;
        }
        std::map<std::string, std::string> stored;
        ASSERT_TRUE(StoredRecords(dir.path(), &stored)) << "round " << round;
        uint64_t held = low;
        while (held <= low + in_flight && stored != ModelRecords(held)) ++held;
        ASSERT_LE(held, low + in_flight) << "round " << round << ": the store holds none of the " << low << " to "
                                         << low + in_flight << " first operations (" << stored.size() << " records)";
        if (held != low && held != low + in_flight) ++cut;
        applied = held;
    }
    std::printf("crash test: %llu operations acknowledged, %llu applied; %d calls in flight cut between commits\n",
                static_cast<unsigned long long>(acknowledged), static_cast<unsigned long long>(applied), cut);
    EXPECT_GE(acknowledged, static_cast<uint64_t>(rounds)) << "the writer hardly wrote: the test proved little";
}

// Upgrades of a store of layout 1 killed at random moments: afterwards the
// store is of layout 1, byte for byte as before, or of layout 2 with every
// record and every entry. CORVIDA_STORE_UPGRADE_ROUNDS sets the rounds
// (default 20).
TEST(StoreCrashTest, AnUpgradeKilledAnywhereLeavesOneLayoutOrTheOther) {
    const int rounds = EnvInt("CORVIDA_STORE_UPGRADE_ROUNDS", 20);
    const unsigned seed = static_cast<unsigned>(
        EnvInt("CORVIDA_STORE_CRASH_SEED", static_cast<int>(std::chrono::steady_clock::now().time_since_epoch().count() & 0x7fffffff)));
    std::printf("upgrade crash test: %d rounds, CORVIDA_STORE_CRASH_SEED=%u\n", rounds, seed);
    std::mt19937 rng(seed);

    // A store of layout 1 with the records of the crash sequence's first
    // 400 operations.
    TempDir original;
    const uint64_t operations = 400;
    {
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(OpenStore(original.path(), &store).ok());
        ASSERT_TRUE(store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
        std::unique_ptr<Table> table;
        ASSERT_TRUE(store->OpenTable(Player3::default_instance(), nullptr, &table).ok());
        for (uint64_t i = 0; i < operations; ++i) {
            const CrashOp op = MakeCrashOp(i);
            Status s = op.kind == CrashOp::kPut      ? table->Put(op.record)
                       : op.kind == CrashOp::kDelete ? table->Delete(op.record)
                                                     : table->Update(op.record, op.paths);
            ASSERT_TRUE(s.ok() || s.IsNotFound()) << s.ToString();
        }
    }
    RewriteInLayout1(original.path());
    const std::map<std::string, std::string> layout1 = RawContents(original.path());
    const std::map<std::string, std::string> expected = ModelRecords(operations);

    std::uniform_int_distribution<int> delay_ms(0, 120);
    int upgraded = 0;
    for (int round = 0; round < rounds; ++round) {
        TempDir dir;
        std::filesystem::copy(original.path(), dir.path(), std::filesystem::copy_options::recursive |
                                                               std::filesystem::copy_options::overwrite_existing);
        Child child;
        ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"upgrade", dir.path()}, &child));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms(rng)));
        kill(child.pid, SIGKILL);
        waitpid(child.pid, nullptr, 0);
        ReadAll(&child);

        const std::map<std::string, std::string> raw = RawContents(dir.path());
        const auto layout = raw.find("Mlayout");
        ASSERT_NE(layout, raw.end()) << "round " << round;
        if (layout->second == "1") {
            EXPECT_EQ(layout1, raw) << "round " << round << ": a store of layout 1 that is not as it was";
            continue;
        }
        ASSERT_EQ("2", layout->second) << "round " << round;
        ++upgraded;
        std::map<std::string, std::string> stored;
        ASSERT_TRUE(StoredRecords(dir.path(), &stored)) << "round " << round;
        EXPECT_EQ(expected, stored) << "round " << round;
    }
    std::printf("upgrade crash test: %d of %d rounds found the store upgraded\n", upgraded, rounds);
}

TEST(StoreCrashTest, AcknowledgedWritesSurviveAKill) {
    KillWritersInRounds("write", 1, EnvInt("CORVIDA_STORE_CRASH_ROUNDS", 20));
}

TEST(StoreCrashTest, ACallOfManyWritesLeavesAPrefixOfThem) {
    KillWritersInRounds("bulk", kBulkCall, EnvInt("CORVIDA_STORE_CRASH_ROUNDS", 20) / 2);
}

}  // namespace
}  // namespace corvida_store_test
