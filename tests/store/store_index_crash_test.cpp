// Indexes built online and dropped, killed at random moments: each round
// alters the table (adding the index by_level, or dropping it, by turns),
// starts a child process that runs the back-fill (or the removal of the
// entries) while another of its threads writes records, and kills it with
// SIGKILL after a random number of batches and a random delay. The test then
// resumes the work to its end; every record must be in every index exactly
// once (Verify), and a dropped index must have left no entry behind.
//
// CORVIDA_STORE_CRASH_ROUNDS sets the number of rounds (default 20),
// CORVIDA_STORE_CRASH_SEED the seed of the kill times (default: from the
// clock, printed).
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "index_build_ops.h"
#include "schema_versions.h"
#include "store/key_format.h"
#include "store/table_store.h"
#include "store_test_support.h"

namespace corvida_store_test {
namespace {

using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::IndexState;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableDescription;
using corvida::store::TableStore;

// Where the index stands: the state of by_level, or "absent".
std::string IndexStanding(TableStore* store) {
    TableDescription described;
    const Status s = store->DescribeTable(kBuildTable, &described);
    if (!s.ok()) return s.ToString();
    for (const auto& index : described.indexes) {
        if (index.name == kBuildIndex) return corvida::store::IndexStateName(index.state);
    }
    return "absent";
}

// The number of the table, from the one row key a fresh store has for it.
uint32_t TableNumber(const std::string& dir) {
    for (const auto& entry : RawContents(dir)) {
        if (entry.first[0] == corvida::store::keys::kRow) return corvida::store::keys::ReadU32(entry.first.substr(1));
    }
    return 0;
}

TEST(StoreIndexCrashTest, KilledBuildsAndDropsResumeToACompleteIndex) {
    const int rounds = EnvInt("CORVIDA_STORE_CRASH_ROUNDS", 20);
    const unsigned seed = static_cast<unsigned>(EnvInt(
        "CORVIDA_STORE_CRASH_SEED",
        static_cast<int>(std::chrono::steady_clock::now().time_since_epoch().count() & 0x7fffffff)));
    std::printf("index crash test: %d rounds, CORVIDA_STORE_CRASH_SEED=%u\n", rounds, seed);
    std::mt19937 rng(seed);
    SchemaVersion without(BuildTableProto(false));
    SchemaVersion with(BuildTableProto(true));
    ASSERT_TRUE(without.ok() && with.ok());

    TempDir dir;
    {
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(OpenStore(dir.path(), &store).ok());
        ASSERT_TRUE(store->CreateTable(without.blob(), kBuildTable).ok());
        std::unique_ptr<Table> table;
        ASSERT_TRUE(store->OpenTable(without.Prototype(kBuildTable), nullptr, &table).ok());
        for (int i = 1; i <= kBuildRecords; ++i) {
            ASSERT_TRUE(table->Put(*without.Parse(kBuildTable, BuildRowText(i, i))).ok());
        }
    }
    const uint32_t number = TableNumber(dir.path());
    ASSERT_NE(number, 0u);
    const std::string entries = corvida::store::keys::SecondarySpace(corvida::store::keys::kIndex, number, kBuildIndex);

    int killed_midway = 0;
    for (int round = 0; round < rounds; ++round) {
        const bool adding = round % 2 == 0;
        SchemaVersion& next = adding ? with : without;
        {
            std::unique_ptr<TableStore> store;
            ASSERT_TRUE(OpenStore(dir.path(), &store).ok());
            AlterPlan plan;
            const Status s = store->AlterTable(next.blob(), kBuildTable, AlterOptions(), &plan);
            ASSERT_TRUE(s.ok()) << "round " << round << ": " << s.ToString();
            ASSERT_EQ(IndexStanding(store.get()), adding ? "building" : "dropping") << "round " << round;
        }

        Child child;
        ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"build", dir.path()}, &child));
        const int batches = std::uniform_int_distribution<int>(1, 3)(rng);
        std::string lines;
        while (std::count(lines.begin(), lines.end(), '\n') < batches && lines.find("finished") == std::string::npos) {
            std::string more;
            if (!ReadLine(&child, &more, 30000)) {
                kill(child.pid, SIGKILL);
                waitpid(child.pid, nullptr, 0);
                FAIL() << "round " << round << ": the child reported no batch in 30 s; it wrote: " << lines << more;
            }
            lines += more;
        }
        // A batch takes milliseconds: a longer delay would often find the work done.
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 2000)(rng)));
        kill(child.pid, SIGKILL);
        int status = 0;
        waitpid(child.pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child stopped by itself in round " << round;
        lines += ReadAll(&child);

        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(OpenStore(dir.path(), &store).ok());
        const std::string standing = IndexStanding(store.get());
        if (standing == "building" || standing == "dropping") {
            ++killed_midway;
            const Status resumed = store->BuildIndex(kBuildTable, kBuildIndex, nullptr, nullptr);
            ASSERT_TRUE(resumed.ok()) << "round " << round << ": " << resumed.ToString();
        }
        ASSERT_EQ(IndexStanding(store.get()), adding ? "ready" : "absent") << "round " << round;
        std::unique_ptr<Table> table;
        ASSERT_TRUE(store->OpenTable(next.Prototype(kBuildTable), nullptr, &table).ok());
        const Status verified = table->Verify();
        ASSERT_TRUE(verified.ok()) << "round " << round << ": " << verified.ToString();
        if (!adding) {
            table.reset();
            store.reset();
            for (const auto& entry : RawContents(dir.path())) {
                ASSERT_NE(entry.first.compare(0, entries.size(), entries), 0)
                    << "round " << round << ": an entry of the dropped index is left";
            }
        }
    }
    std::printf("index crash test: %d of %d rounds killed the work half way\n", killed_midway, rounds);
    EXPECT_GE(killed_midway, rounds / 2) << "the kills hardly ever met the work: the test proved little";
}

}  // namespace
}  // namespace corvida_store_test
