// Eight threads write, update and delete overlapping records of one table,
// indexed fields included, while reading them; afterwards every index and
// shard entry has its record and every record its entries. On every engine
// (store_place.h). Built with ThreadSanitizer (scripts/ci-sanitizers.sh) it
// is also the store's race check.
//
// CORVIDA_STORE_STRESS_ITERATIONS sets the operations per thread (default
// 600 on RocksDB, 200 on etcd, whose every write is a round trip to a
// quorum of members).
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "store/table_store.h"
#include "store_place.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::test3::Player3;

constexpr int kThreads = 8;
constexpr int kRecords = 16;

// One random operation on one of the shared records. Returns false, with the
// failure in *error, when the store refused an operation it must accept.
bool RandomOperation(Table* table, std::mt19937* rng, std::string* error) {
    const int r = static_cast<int>((*rng)() % kRecords);
    Player3 record;
    record.set_zone(r % 2);
    record.set_uid(static_cast<uint64_t>(r));
    const int value = static_cast<int>((*rng)() % 4);
    Status s;
    std::vector<Record> found;
    switch ((*rng)() % 8) {
        case 0:
            record.set_name("n" + std::to_string(value));
            record.set_level(value);
            record.mutable_stats()->set_hp(value);
            s = table->Put(record);
            break;
        case 1:
            record.set_level(value);
            s = table->Update(record, {"level"});
            break;
        case 2:
            record.set_name("n" + std::to_string(value));
            record.mutable_pos()->set_x(value);
            s = table->Update(record, {"name", "pos.x"});
            break;
        case 3:
            record.mutable_stats()->set_mp(value);
            s = table->Update(record, {"stats"});
            break;
        case 4:
            s = table->Delete(record);
            if (s.IsNotFound()) s = Status::OK();
            break;
        case 5: {
            Player3 out;
            s = table->Get(record, {}, &out, nullptr);
            if (s.IsNotFound()) s = Status::OK();
            break;
        }
        case 6:
            record.set_level(value);
            s = table->FindByIndex("by_level", record, &found);
            break;
        default: s = table->Scan(&record, 0, &found); break;
    }
    if (!s.ok()) *error = s.ToString();
    return s.ok();
}

class StoreConcurrencyTest : public ::testing::TestWithParam<EngineKind> {
protected:
    StorePlace m_place{GetParam()};
};

TEST_P(StoreConcurrencyTest, ConcurrentWritersKeepIndexesAndRecordsTogether) {
    ASSERT_FALSE(m_place.where().empty());
    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(OpenStore(m_place.where(), &store).ok());
    ASSERT_TRUE(store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
    std::unique_ptr<Table> table;
    ASSERT_TRUE(store->OpenTable(Player3::default_instance(), nullptr, &table).ok());

    const int iterations = EnvInt("CORVIDA_STORE_STRESS_ITERATIONS", GetParam() == EngineKind::kRocksDB ? 600 : 200);
    std::atomic<int> failures(0);
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t + 1));
            for (int i = 0; i < iterations; ++i) {
                if (!RandomOperation(table.get(), &rng, &errors[t])) {
                    ++failures;
                    return;
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::string& error : errors) EXPECT_TRUE(error.empty()) << error;
    ASSERT_EQ(0, failures.load());

    const Status verified = table->Verify();
    EXPECT_TRUE(verified.ok()) << verified.ToString();
    // Each record is found through each of its index values and its shard.
    std::vector<Record> all;
    ASSERT_TRUE(table->Scan(nullptr, 0, &all).ok());
    EXPECT_FALSE(all.empty());
    for (const Record& r : all) {
        const Player3& p = static_cast<const Player3&>(*r.message);
        for (const char* index : {"by_level", "by_name"}) {
            std::vector<Record> found;
            ASSERT_TRUE(table->FindByIndex(index, p, &found).ok());
            int hits = 0;
            for (const Record& f : found) hits += static_cast<const Player3&>(*f.message).uid() == p.uid() ? 1 : 0;
            EXPECT_EQ(1, hits) << index << " of " << p.ShortDebugString();
        }
        std::vector<Record> shard;
        ASSERT_TRUE(table->Scan(&p, 0, &shard).ok());
        EXPECT_EQ(1u, shard.size()) << p.ShortDebugString();
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, StoreConcurrencyTest, ::testing::ValuesIn(StoreEngines()), EngineName);

}  // namespace
}  // namespace corvida_store_test
