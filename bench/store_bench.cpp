// corvida_store_bench: the table store next to raw RocksDB doing the same
// key-value reads and writes of the same bytes, sync off.
//
// Both databases hold the same kRecords BenchRecords (21 fields, 3 of them
// the key, an index by_level with one record per level, sharded by id). The
// raw database is a copy of the store's own keys and values, opened with the
// store's own options, so each baseline reads and writes exactly the keys
// and bytes that the store operation reads and writes:
//   Put          store: read the row, write marker + 18 fields        raw: same iterator, same batch
//   Update (2)   store: read the marker, write marker + 2 fields      raw: same Get, same batch
//   Get          store: read the row, merge 18 fields into a message  raw: same iterator, values copied
//   FindByIndex  store: read one index entry, then its row, merged    raw: same two iterations
// bench/run.sh prints their ratios (CPU time). And the price of durability:
// Put on a store that syncs its write-ahead log at every write
// (StoreOptions::sync), timed by the wall clock since it waits for the disk;
// compare its Time column with BM_StorePut's.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <rocksdb/db.h>
#include <rocksdb/iterator.h>
#include <rocksdb/utilities/options_util.h>
#include <rocksdb/write_batch.h>

#include "bench_store.h"
#include "bench_support.h"
#include "bench_tables.pb.h"
#include "store/key_format.h"
#include "store/rocksdb_engine.h"
#include "store/table_store.h"

namespace corvida_bench {
namespace {

namespace keys = corvida::store::keys;

using corvida::bench::BenchRecord;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;

constexpr int kRecords = 1000;

BenchRecord RecordNumber(int i) {
    BenchRecord record;
    FillRecord(&record);
    record.set_id(i + 1);  // not 0: a proto3 key field at its default serializes otherwise than SerializeAsString
    record.set_level(i);
    record.ByteSizeLong();
    return record;
}

// The keys and values of one record as the store keeps them.
struct RawRow {
    std::string row_key;                                 // the row marker's key
    std::vector<std::pair<std::string, std::string>> kv;  // its fields, in key order
    std::string index_entry;                             // its by_level entry's key
    std::string index_prefix;                            // that entry without the primary key
    std::vector<std::pair<std::string, std::string>> update;  // the fields an Update writes (score, balance)
};

// A store and a raw copy of its database, in directories removed at exit.
class Fixture {
public:
    static Fixture& Get() {
        if (s_fixture == nullptr) s_fixture.reset(new Fixture());
        return *s_fixture;
    }

    // Closes both databases and removes their directories, if they were made.
    static void Release() { s_fixture.reset(); }

    ~Fixture() {
        m_table.reset();
        m_store.reset();
        m_synced_table.reset();
        m_synced_store.reset();
        m_raw.reset();
        for (const std::string& dir : m_dirs) std::filesystem::remove_all(dir);
    }

    Table* table() { return m_table.get(); }
    Table* synced_table() { return m_synced_table.get(); }
    rocksdb::DB* raw() { return m_raw.get(); }
    const RawRow& row(int i) const { return m_rows[static_cast<size_t>(i)]; }
    bool ok() const { return m_ok; }

private:
    Fixture() {
        char store_dir[] = "/tmp/corvida-store-bench-XXXXXX";
        char raw_dir[] = "/tmp/corvida-store-raw-XXXXXX";
        char synced_dir[] = "/tmp/corvida-store-sync-XXXXXX";
        if (mkdtemp(store_dir) == nullptr || mkdtemp(raw_dir) == nullptr || mkdtemp(synced_dir) == nullptr) return;
        m_dirs = {store_dir, raw_dir, synced_dir};
        if (!Fill(store_dir) || !CopyRaw(store_dir, raw_dir) || !Fill(synced_dir)) return;
        corvida::store::StoreOptions options;
        corvida::store::StoreOptions synced;
        synced.sync = true;
        m_ok = TableStore::Open(store_dir, options, &m_store).ok() &&
               m_store->OpenTable(BenchRecord::default_instance(), nullptr, &m_table).ok() &&
               TableStore::Open(synced_dir, synced, &m_synced_store).ok() &&
               m_synced_store->OpenTable(BenchRecord::default_instance(), nullptr, &m_synced_table).ok();
    }

    static bool Fill(const std::string& dir) {
        corvida::store::StoreOptions options;
        options.create_if_missing = true;
        std::unique_ptr<TableStore> store;
        std::unique_ptr<Table> table;
        if (!TableStore::Open(dir, options, &store).ok() || !store->CreateTable(BenchBlob(), "BenchRecord").ok() ||
            !store->OpenTable(BenchRecord::default_instance(), nullptr, &table).ok()) {
            return false;
        }
        for (int i = 0; i < kRecords; ++i) {
            if (!table->Put(RecordNumber(i)).ok()) return false;
        }
        return true;
    }

    // Copies every key and value of the store into a fresh database and
    // notes each record's keys.
    bool CopyRaw(const std::string& store_dir, const std::string& raw_dir) {
        // The raw database gets the store's own options, as its options file
        // records them.
        rocksdb::DBOptions options;
        std::vector<rocksdb::ColumnFamilyDescriptor> families;
        std::shared_ptr<rocksdb::Cache> cache = corvida::store::NewStoreBlockCache();  // a cache as large as the store's
        if (!rocksdb::LoadLatestOptions(rocksdb::ConfigOptions(), store_dir, &options, &families, &cache).ok()) return false;
        options.create_if_missing = true;
        rocksdb::DB* db = nullptr;
        if (!rocksdb::DB::OpenForReadOnly(rocksdb::Options(), store_dir, &db).ok()) return false;
        std::unique_ptr<rocksdb::DB> source(db);
        std::vector<rocksdb::ColumnFamilyHandle*> handles;
        if (!rocksdb::DB::Open(options, raw_dir, families, &handles, &db).ok()) return false;
        m_raw.reset(db);
        for (rocksdb::ColumnFamilyHandle* handle : handles) {
            m_raw->DestroyColumnFamilyHandle(handle).PermitUncheckedError();
        }
        std::map<std::string, std::string> index_entries;   // primary key -> entry key
        std::map<std::string, std::string> index_prefixes;  // primary key -> the prefix of its index value
        std::map<std::string, RawRow> rows;                 // primary key -> row
        std::unique_ptr<rocksdb::Iterator> it(source->NewIterator(rocksdb::ReadOptions()));
        rocksdb::WriteBatch batch;
        for (it->SeekToFirst(); it->Valid(); it->Next()) {
            const std::string key = it->key().ToString();
            batch.Put(key, it->value());
            std::string pk;
            std::string_view tag;
            if (key[0] == 'R' && keys::SplitRowKey(std::string_view(key).substr(5), &pk, &tag)) {
                RawRow& row = rows[pk];
                if (tag.empty()) {
                    row.row_key = key;
                } else {
                    row.kv.emplace_back(key, it->value().ToString());
                }
                if (tag == "7" || tag == "8") row.update.emplace_back(key, it->value().ToString());
            } else if (key[0] == 'I') {
                std::string_view rest = std::string_view(key).substr(5);
                std::string name;
                std::string value;
                if (keys::ReadEscaped(&rest, &name) && keys::SplitSecondaryKey(rest, &value, &pk)) {
                    index_entries[pk] = key;
                    index_prefixes[pk] = keys::SecondaryPrefix('I', keys::ReadU32(key.substr(1, 4)), name, value);
                }
            }
        }
        // Into a table file, as the store's own records are once it reopens.
        if (!m_raw->Write(rocksdb::WriteOptions(), &batch).ok() || !m_raw->Flush(rocksdb::FlushOptions()).ok()) {
            return false;
        }
        for (int i = 0; i < kRecords; ++i) {
            const BenchRecord record = RecordNumber(i);
            BenchRecord key;
            key.set_id(record.id());
            key.set_name(record.name());
            key.set_stamp(record.stamp());
            const std::string pk = key.SerializeAsString();  // the key fields in number order, as ExtractMsgKey
            RawRow row = rows[pk];
            row.index_entry = index_entries[pk];
            row.index_prefix = index_prefixes[pk];
            if (row.row_key.empty() || row.index_entry.empty() || row.update.size() != 2) return false;
            m_rows.push_back(row);
        }
        return true;
    }

    static std::unique_ptr<Fixture> s_fixture;

    std::vector<std::string> m_dirs;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
    std::unique_ptr<TableStore> m_synced_store;
    std::unique_ptr<Table> m_synced_table;
    std::unique_ptr<rocksdb::DB> m_raw;
    std::vector<RawRow> m_rows;
    bool m_ok = false;
};

std::unique_ptr<Fixture> Fixture::s_fixture;

// The records the benchmarks cycle through, built before timing.
std::vector<BenchRecord> Records() {
    std::vector<BenchRecord> records;
    for (int i = 0; i < kRecords; ++i) records.push_back(RecordNumber(i));
    return records;
}

bool Ready(benchmark::State& state) {
    if (Fixture::Get().ok()) return true;
    Fail(state, "the store or its raw copy could not be set up");
    return false;
}

// Runs op(i) for the records i = 0, 1, ... in turn while the benchmark runs
// and marks it failed when a call fails; op returns a Status of the store or
// of RocksDB. Reports the heap allocations per call.
template <typename Op>
void Cycle(benchmark::State& state, Op op) {
    int i = 0;
    const long before = Allocations();
    for (auto _ : state) {
        const auto s = op(i);
        if (!s.ok()) {
            Fail(state, s.ToString());
            return;
        }
        i = (i + 1) % kRecords;
    }
    ReportAllocations(state, before);
}

// Reads every key and value of the row, as the store reads a row.
rocksdb::Status ReadRow(rocksdb::Iterator* it, const std::string& row_key) {
    for (it->Seek(row_key); it->Valid() && it->key().starts_with(row_key); it->Next()) {
        std::string value = it->value().ToString();
        benchmark::DoNotOptimize(value);
    }
    return it->status();
}

// Writes the row's marker with a new stamp and the fields kv in one batch, as
// the store commits a write of a record.
rocksdb::Status Commit(rocksdb::DB* db, const std::string& row_key,
                       const std::vector<std::pair<std::string, std::string>>& kv) {
    rocksdb::WriteBatch batch;
    batch.Put(row_key, keys::NewStamp());
    for (const auto& pair : kv) batch.Put(pair.first, pair.second);
    return db->Write(rocksdb::WriteOptions(), &batch);
}

// Puts every record in turn into table.
void TimePuts(benchmark::State& state, Table* table) {
    const std::vector<BenchRecord> records = Records();
    Cycle(state, [&](int i) { return table->Put(records[static_cast<size_t>(i)]); });
}

void BM_StorePut(benchmark::State& state) {
    if (Ready(state)) TimePuts(state, Fixture::Get().table());
}

void BM_StorePutSync(benchmark::State& state) {
    if (Ready(state)) TimePuts(state, Fixture::Get().synced_table());
}

void BM_Baseline_RocksDBPut(benchmark::State& state) {
    if (!Ready(state)) return;
    rocksdb::DB* db = Fixture::Get().raw();
    Cycle(state, [db](int i) {
        const RawRow& row = Fixture::Get().row(i);
        std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
        const rocksdb::Status s = ReadRow(it.get(), row.row_key);
        return s.ok() ? Commit(db, row.row_key, row.kv) : s;
    });
}

void BM_StoreUpdate2(benchmark::State& state) {
    if (!Ready(state)) return;
    const std::vector<BenchRecord> records = Records();
    const std::vector<std::string> paths = {"score", "balance"};
    Cycle(state, [&](int i) { return Fixture::Get().table()->Update(records[static_cast<size_t>(i)], paths); });
}

void BM_Baseline_RocksDBUpdate2(benchmark::State& state) {
    if (!Ready(state)) return;
    rocksdb::DB* db = Fixture::Get().raw();
    Cycle(state, [db](int i) {
        const RawRow& row = Fixture::Get().row(i);
        std::string marker;
        const rocksdb::Status s = db->Get(rocksdb::ReadOptions(), row.row_key, &marker);
        return s.ok() ? Commit(db, row.row_key, row.update) : s;
    });
}

void BM_StoreGet(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<BenchRecord> keys;
    for (const BenchRecord& record : Records()) {
        BenchRecord key;
        key.set_id(record.id());
        key.set_name(record.name());
        key.set_stamp(record.stamp());
        keys.push_back(key);
    }
    BenchRecord out;
    Cycle(state, [&](int i) {
        const Status s = Fixture::Get().table()->Get(keys[static_cast<size_t>(i)], {}, &out, nullptr);
        return s.ok() && out.level() != i ? Status::Corruption("Get read another record") : s;
    });
}

void BM_Baseline_RocksDBGet(benchmark::State& state) {
    if (!Ready(state)) return;
    rocksdb::DB* db = Fixture::Get().raw();
    Cycle(state, [db](int i) {
        std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
        return ReadRow(it.get(), Fixture::Get().row(i).row_key);
    });
}

void BM_StoreFindByIndex(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<BenchRecord> levels(kRecords);
    for (int i = 0; i < kRecords; ++i) levels[static_cast<size_t>(i)].set_level(i);
    std::vector<Record> found;
    Cycle(state, [&](int i) {
        found.clear();
        const Status s = Fixture::Get().table()->FindByIndex("by_level", levels[static_cast<size_t>(i)], &found);
        return s.ok() && found.size() != 1 ? Status::Corruption("FindByIndex did not find one record") : s;
    });
}

void BM_Baseline_RocksDBFindByIndex(benchmark::State& state) {
    if (!Ready(state)) return;
    rocksdb::DB* db = Fixture::Get().raw();
    Cycle(state, [db](int i) {
        const RawRow& row = Fixture::Get().row(i);
        std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
        std::vector<std::string> pks;
        for (it->Seek(row.index_prefix); it->Valid() && it->key().starts_with(row.index_prefix); it->Next()) {
            pks.push_back(it->key().ToString().substr(row.index_prefix.size()));
        }
        rocksdb::Status s = it->status();
        if (s.ok() && pks.size() != 1) s = rocksdb::Status::Corruption("not one entry");
        return s.ok() ? ReadRow(it.get(), row.row_key) : s;
    });
}

}  // namespace

void ReleaseStoreFixture() { Fixture::Release(); }

void RegisterStoreBenchmarks() {
    // Reads first, while both databases hold each record once, in a table file.
    Register("BM_StoreGet", BM_StoreGet);
    Register("BM_Baseline_RocksDBGet", BM_Baseline_RocksDBGet);
    Register("BM_StoreFindByIndex", BM_StoreFindByIndex);
    Register("BM_Baseline_RocksDBFindByIndex", BM_Baseline_RocksDBFindByIndex);
    Register("BM_StoreUpdate2", BM_StoreUpdate2);
    Register("BM_Baseline_RocksDBUpdate2", BM_Baseline_RocksDBUpdate2);
    Register("BM_StorePut", BM_StorePut);
    Register("BM_Baseline_RocksDBPut", BM_Baseline_RocksDBPut);
    Register("BM_StorePutSync", BM_StorePutSync)->UseRealTime();
}

}  // namespace corvida_bench

int main(int argc, char** argv) {
    corvida_bench::RegisterStoreBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    corvida_bench::ReleaseStoreFixture();  // before static destruction, which RocksDB's own objects go through
    return corvida_bench::Failures() == 0 ? 0 : 1;
}
