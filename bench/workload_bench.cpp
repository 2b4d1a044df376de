// corvida_workload_bench: YCSB-style workloads on a table store of
// BenchRecords, next to raw RocksDB doing the same key-value work on a copy
// of the store's database.
//
//   corvida_workload_bench load DIR RECORDS [THREADS]
//       builds DIR/store (RECORDS records, put through the library by
//       THREADS threads, default 2, then compacted) and DIR/raw, a copy of
//       its files.
//   corvida_workload_bench run DIR ENGINE MIX THREADS SECONDS
//       runs one mix (A, B, C or E) on ENGINE (store or raw) with THREADS
//       threads for SECONDS seconds after a warm-up of a fifth of that, and
//       prints one tab-separated line (the header with --header).
//   corvida_workload_bench record RECORDS K
//       prints record K's row key in hex, its key fields and the record in
//       text format (bench/process_bench.sh uses them).
//   corvida_workload_bench smoke
//       every mix on both engines for a moment over 1000 records in a
//       temporary directory: proves the driver and its checks still work.
//
// The records: BenchRecord (21 fields, two sub-messages, the index by_level),
// record k has id k / 100 + 1 (its shard: 100 records each), name
// "player-<k>", level k % 100. The mixes, as YCSB's core workloads, keys
// chosen by a scrambled Zipfian distribution (theta 0.99):
//   A  50 % reads, 50 % updates       B  95 % reads, 5 % updates
//   C  reads only                     E  95 % scans of a shard (the first 1 to
//                                        100 records, uniform), 5 % inserts
// A read is Get of the whole record; an update writes score and balance
// (Update with two paths); an insert puts a new record into an existing
// shard.
//
// Raw RocksDB (opened with the store's own options, from its options file)
// does what the store does underneath, on the same keys and bytes: a read
// iterates the record's row (marker and 18 fields) and copies the values; an
// update reads the marker and writes marker and two fields in one batch; an
// insert looks for the row and writes marker, 18 fields, index and shard
// entry in one batch; a scan reads the shard's entries and then each row, at
// one snapshot. It computes keys as an application would (serializing the
// key fields; the index and shard values come from the bridge once, at
// start-up), and checks at start-up that they are the keys and bytes the
// store wrote. What the store adds is its own work: the bridge (keys,
// cutting and merging fields), the conditional commit and messages.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <google/protobuf/text_format.h>
#include <rocksdb/db.h>
#include <rocksdb/iterator.h>
#include <rocksdb/options.h>
#include <rocksdb/utilities/options_util.h>
#include <rocksdb/write_batch.h>

#include "bench_store.h"
#include "bench_support.h"
#include "bench_tables.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "store/engine.h"
#include "store/key_format.h"
#include "store/rocksdb_engine.h"
#include "store/table_store.h"

namespace corvida_bench {
namespace {

namespace fs = std::filesystem;
namespace keys = corvida::store::keys;

using corvida::bench::BenchRecord;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using Clock = std::chrono::steady_clock;

constexpr int64_t kShardRecords = 100;
constexpr int64_t kLevels = 100;
constexpr int kMaxScan = 100;
constexpr const char* kIndex = "by_level";
const std::vector<std::string> kUpdatePaths = {"score", "balance"};
const char* const kUpdateTags[] = {"7", "8"};  // their tag paths

// ---------------------------------------------------------------------------
// Records and key choice.
// ---------------------------------------------------------------------------

// The shape of a loaded store: how many records it was loaded with. Records
// inserted later (numbers from `records` up) go into the existing shards.
struct Population {
    int64_t records;

    int64_t shards() const { return std::max<int64_t>(1, records / kShardRecords); }
    int64_t ShardOf(int64_t k) const {
        return k < records ? k / kShardRecords : static_cast<int64_t>(Fnv(static_cast<uint64_t>(k)) % shards());
    }

    // Record k, written over a record filled by FillRecord.
    void Make(int64_t k, BenchRecord* record) const {
        char name[32];
        std::snprintf(name, sizeof(name), "player-%010lld", static_cast<long long>(k));
        record->set_id(static_cast<int32_t>(ShardOf(k) + 1));
        record->set_name(name);
        record->set_level(static_cast<int32_t>(k % kLevels));
    }

    static uint64_t Fnv(uint64_t value) {
        uint64_t hash = 0xcbf29ce484222325ULL;
        for (int i = 0; i < 8; ++i) {
            hash ^= value & 0xff;
            hash *= 0x100000001b3ULL;
            value >>= 8;
        }
        return hash;
    }
};

// YCSB's Zipfian generator (Gray et al., "Quickly generating billion-record
// synthetic databases"), its items scrambled by a hash so that the popular
// records are spread over the key space.
class ScrambledZipfian {
public:
    explicit ScrambledZipfian(int64_t items, double theta = 0.99)
        : m_items(items), m_theta(theta), m_alpha(1.0 / (1.0 - theta)), m_zetan(Zeta(items, theta)) {
        m_eta = (1.0 - std::pow(2.0 / static_cast<double>(items), 1.0 - theta)) / (1.0 - Zeta(2, theta) / m_zetan);
    }

    int64_t Next(std::mt19937_64& random) const {
        const double u = std::uniform_real_distribution<double>(0.0, 1.0)(random);
        const double uz = u * m_zetan;
        int64_t rank;
        if (uz < 1.0) {
            rank = 0;
        } else if (uz < 1.0 + std::pow(0.5, m_theta)) {
            rank = 1;
        } else {
            rank = static_cast<int64_t>(static_cast<double>(m_items) * std::pow(m_eta * u - m_eta + 1.0, m_alpha));
        }
        return static_cast<int64_t>(Population::Fnv(static_cast<uint64_t>(rank)) % static_cast<uint64_t>(m_items));
    }

private:
    static double Zeta(int64_t n, double theta) {
        double sum = 0;
        for (int64_t i = 1; i <= n; ++i) sum += 1.0 / std::pow(static_cast<double>(i), theta);
        return sum;
    }

    int64_t m_items;
    double m_theta;
    double m_alpha;
    double m_zetan;
    double m_eta;
};

// ---------------------------------------------------------------------------
// Latency histogram: 32 buckets per power of two (about 3 % wide).
// ---------------------------------------------------------------------------

class Histogram {
public:
    void Add(uint64_t ns) {
        ++m_counts[Bucket(ns)];
        ++m_total;
    }
    void Merge(const Histogram& other) {
        for (size_t i = 0; i < kBuckets; ++i) m_counts[i] += other.m_counts[i];
        m_total += other.m_total;
    }
    uint64_t total() const { return m_total; }

    // The latency (ns) below which fraction q of the samples lie: the middle
    // of the bucket that holds the q-th sample.
    double Quantile(double q) const {
        const uint64_t rank = static_cast<uint64_t>(std::ceil(q * static_cast<double>(m_total)));
        uint64_t seen = 0;
        for (size_t i = 0; i < kBuckets; ++i) {
            seen += m_counts[i];
            if (seen >= rank && m_counts[i] > 0) return (Low(i) + Low(i + 1)) / 2.0;
        }
        return 0;
    }

private:
    static constexpr int kSubBits = 5;
    static constexpr size_t kBuckets = 64 + 40 * 32;

    static size_t Bucket(uint64_t ns) {
        if (ns < 64) return static_cast<size_t>(ns);
        const int exponent = 63 - __builtin_clzll(ns);  // >= 6
        const size_t bucket = 64 + static_cast<size_t>(exponent - 6) * 32 + ((ns >> (exponent - kSubBits)) & 31);
        return std::min(bucket, kBuckets - 1);
    }
    static double Low(size_t bucket) {
        if (bucket < 64) return static_cast<double>(bucket);
        const size_t exponent = (bucket - 64) / 32 + 6;
        const size_t sub = (bucket - 64) % 32;
        return std::ldexp(static_cast<double>(32 + sub), static_cast<int>(exponent) - kSubBits);
    }

    uint64_t m_counts[kBuckets] = {};
    uint64_t m_total = 0;
};

// ---------------------------------------------------------------------------
// The operations.
// ---------------------------------------------------------------------------

enum class Op { kRead, kUpdate, kInsert, kScan };

struct Mix {
    char name;
    int read, update, insert, scan;  // percent

    Op Pick(std::mt19937_64& random) const {
        const int p = static_cast<int>(random() % 100);
        if (p < read) return Op::kRead;
        if (p < read + update) return Op::kUpdate;
        if (p < read + update + insert) return Op::kInsert;
        return Op::kScan;
    }
};

const Mix kMixes[] = {{'A', 50, 50, 0, 0}, {'B', 95, 5, 0, 0}, {'C', 100, 0, 0, 0}, {'E', 0, 0, 5, 95}};

// One thread's way to run operations on an engine. Each returns an empty
// string, or what went wrong.
class Worker {
public:
    virtual ~Worker() = default;
    virtual std::string Read(int64_t k) = 0;
    virtual std::string Update(int64_t k) = 0;
    virtual std::string Insert(int64_t k) = 0;
    virtual std::string Scan(int64_t k, size_t limit) = 0;
};

// The engines; each makes one worker per thread.
class Engine {
public:
    virtual ~Engine() = default;
    virtual std::unique_ptr<Worker> NewWorker() = 0;
};

// What went wrong, or nothing.
std::string OkOr(const Status& s) { return s.ok() ? std::string() : s.ToString(); }
std::string OkOr(const rocksdb::Status& s) { return s.ok() ? std::string() : s.ToString(); }

class StoreWorker : public Worker {
public:
    StoreWorker(Table* table, const Population& population) : m_table(table), m_population(population) {
        FillRecord(&m_record);
    }

    std::string Read(int64_t k) override {
        m_population.Make(k, &m_record);
        m_key.set_id(m_record.id());
        m_key.set_name(m_record.name());
        m_key.set_stamp(m_record.stamp());
        const Status s = m_table->Get(m_key, {}, &m_out, nullptr);
        if (!s.ok()) return OkOr(s);
        return m_out.level() == m_record.level() && m_out.score() == m_record.score() ? "" : "Get read another record";
    }
    std::string Update(int64_t k) override {
        m_population.Make(k, &m_record);
        return OkOr(m_table->Update(m_record, kUpdatePaths));
    }
    std::string Insert(int64_t k) override {
        m_population.Make(k, &m_record);
        return OkOr(m_table->Put(m_record));
    }
    std::string Scan(int64_t k, size_t limit) override {
        m_shard.set_id(static_cast<int32_t>(m_population.ShardOf(k) + 1));
        corvida::store::Page page;
        page.limit = limit;
        size_t seen = 0;
        const Status s = m_table->ScanEach(&m_shard, page, [&seen](corvida::store::Record&) {
            ++seen;
            return true;
        }, nullptr);
        if (!s.ok()) return OkOr(s);
        return seen > 0 ? "" : "a shard scan found no record";
    }

private:
    Table* m_table;
    const Population& m_population;
    BenchRecord m_record;
    BenchRecord m_key;
    BenchRecord m_out;
    BenchRecord m_shard;
};

class StoreEngine : public Engine {
public:
    std::string Open(const std::string& dir, const Population& population) {
        m_population = population;
        Status s = TableStore::Open(dir, corvida::store::StoreOptions(), &m_store);
        if (s.ok()) s = m_store->OpenTable(BenchRecord::default_instance(), nullptr, &m_table);
        return OkOr(s);
    }
    std::unique_ptr<Worker> NewWorker() override { return std::make_unique<StoreWorker>(m_table.get(), m_population); }

private:
    Population m_population{0};
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
};

// The keys and bytes the store writes for a BenchRecord, for raw RocksDB.
struct RawModel {
    uint32_t table = 0;
    std::vector<std::pair<std::string, std::string>> fields;  // tag path and bytes, in key order (level: of 0)
    std::vector<std::string> level_bytes;  // the stored bytes of level v
    std::vector<std::string> level_keys;   // the index value of level v
    std::vector<std::string> shard_keys;   // the sharding value of shard s
    std::string update_bytes[2];           // of score and balance

    std::string IndexEntry(const BenchRecord& record, const std::string& pk) const {
        return keys::SecondaryKey(keys::kIndex, table, kIndex, level_keys[static_cast<size_t>(record.level())], pk);
    }
    std::string ShardPrefix(int64_t shard) const {
        return keys::SecondaryPrefix(keys::kShard, table, "", shard_keys[static_cast<size_t>(shard)]);
    }
    std::string ShardEntry(const BenchRecord& record, const std::string& pk) const {
        return keys::SecondaryKey(keys::kShard, table, "", shard_keys[static_cast<size_t>(record.id() - 1)], pk);
    }
};

// Every key and value of the row at row_key, copied out, as the store reads
// a row.
rocksdb::Status ReadRawRow(rocksdb::Iterator* it, const std::string& row_key,
                           std::vector<std::pair<std::string, std::string>>* row) {
    for (it->Seek(row_key); it->Valid() && it->key().starts_with(row_key); it->Next()) {
        row->emplace_back(std::string(it->key().data() + row_key.size(), it->key().size() - row_key.size()),
                          it->value().ToString());
    }
    return it->status();
}

class RawWorker : public Worker {
public:
    RawWorker(rocksdb::DB* db, const RawModel& model, const Population& population)
        : m_db(db), m_model(model), m_population(population) {
        FillRecord(&m_record);
    }

    std::string Read(int64_t k) override {
        m_population.Make(k, &m_record);
        const std::string row_key = RowKeyOf(m_model.table, m_record);
        const std::string end = keys::EscapedEnd(row_key);
        const rocksdb::Slice upper(end);
        rocksdb::ReadOptions options;
        options.iterate_upper_bound = &upper;
        std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(options));
        std::vector<std::pair<std::string, std::string>> row;
        const rocksdb::Status s = ReadRawRow(it.get(), row_key, &row);
        if (!s.ok()) return OkOr(s);
        return row.size() == m_model.fields.size() + 1 ? "" : "a raw row has other keys than the store's";
    }
    std::string Update(int64_t k) override {
        m_population.Make(k, &m_record);
        const std::string row_key = RowKeyOf(m_model.table, m_record);
        std::string marker;
        rocksdb::Status s = m_db->Get(rocksdb::ReadOptions(), row_key, &marker);
        if (!s.ok()) return OkOr(s);
        rocksdb::WriteBatch batch;
        batch.Put(row_key, keys::NewStamp());
        for (int i = 0; i < 2; ++i) batch.Put(row_key + kUpdateTags[i], m_model.update_bytes[i]);
        return OkOr(m_db->Write(rocksdb::WriteOptions(), &batch));
    }
    std::string Insert(int64_t k) override {
        m_population.Make(k, &m_record);
        const std::string pk = PrimaryKeyOf(m_record);
        const std::string row_key = keys::RowKey(m_model.table, pk);
        std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(rocksdb::ReadOptions()));
        std::vector<std::pair<std::string, std::string>> old;
        rocksdb::Status s = ReadRawRow(it.get(), row_key, &old);
        if (!s.ok()) return OkOr(s);
        rocksdb::WriteBatch batch;
        batch.Put(row_key, keys::NewStamp());
        for (const auto& field : m_model.fields) {
            const bool level = field.first == "6";
            batch.Put(row_key + field.first,
                      level ? m_model.level_bytes[static_cast<size_t>(m_record.level())] : field.second);
        }
        batch.Put(m_model.IndexEntry(m_record, pk), "");
        batch.Put(m_model.ShardEntry(m_record, pk), "");
        return OkOr(m_db->Write(rocksdb::WriteOptions(), &batch));
    }
    std::string Scan(int64_t k, size_t limit) override {
        const std::string prefix = m_model.ShardPrefix(m_population.ShardOf(k));
        const std::string end = corvida::store::PrefixEnd(prefix);
        const rocksdb::Slice upper(end);
        const rocksdb::Snapshot* snapshot = m_db->GetSnapshot();
        rocksdb::ReadOptions options;
        options.snapshot = snapshot;
        options.iterate_upper_bound = &upper;
        std::vector<std::string> pks;
        std::unique_ptr<rocksdb::Iterator> entries(m_db->NewIterator(options));
        rocksdb::Status s;
        for (entries->Seek(prefix); entries->Valid() && pks.size() < limit; entries->Next()) {
            // After the prefix (space and value): the escaped primary key.
            std::string_view rest(entries->key().data() + prefix.size(), entries->key().size() - prefix.size());
            pks.emplace_back();
            if (!keys::ReadEscaped(&rest, &pks.back())) s = rocksdb::Status::Corruption("a shard entry does not split");
            if (!s.ok()) break;
        }
        if (s.ok()) s = entries->status();
        size_t rows = 0;
        if (s.ok()) {
            rocksdb::ReadOptions at;
            at.snapshot = snapshot;
            std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(at));
            for (const std::string& pk : pks) {
                std::vector<std::pair<std::string, std::string>> row;
                s = ReadRawRow(it.get(), keys::RowKey(m_model.table, pk), &row);
                if (!s.ok()) break;
                rows += row.empty() ? 0 : 1;
            }
        }
        m_db->ReleaseSnapshot(snapshot);
        if (!s.ok()) return OkOr(s);
        return rows == pks.size() && rows > 0 ? "" : "a raw shard scan found no record or an entry without a row";
    }

private:
    rocksdb::DB* m_db;
    const RawModel& m_model;
    const Population& m_population;
    BenchRecord m_record;
};

class RawEngine : public Engine {
public:
    // Opens the copy of the store's database in dir and learns the store's
    // keys and bytes from it; fails unless they are the keys computed here.
    std::string Open(const std::string& dir, const Population& population) {
        m_population = population;
        if (population.records < kLevels) return "raw RocksDB needs a store of at least 100 records";
        // The store's own options, as its options file records them.
        rocksdb::DBOptions options;
        std::vector<rocksdb::ColumnFamilyDescriptor> families;
        std::shared_ptr<rocksdb::Cache> cache = corvida::store::NewStoreBlockCache();  // a cache as large as the store's
        rocksdb::Status s = rocksdb::LoadLatestOptions(rocksdb::ConfigOptions(), dir, &options, &families, &cache);
        rocksdb::DB* db = nullptr;
        std::vector<rocksdb::ColumnFamilyHandle*> handles;
        if (s.ok()) s = rocksdb::DB::Open(options, dir, families, &handles, &db);
        if (!s.ok()) return OkOr(s);
        m_db.reset(db);
        for (rocksdb::ColumnFamilyHandle* handle : handles) {
            m_db->DestroyColumnFamilyHandle(handle).PermitUncheckedError();
        }
        std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(rocksdb::ReadOptions()));
        it->Seek(std::string(1, keys::kRow));
        if (!it->Valid() || it->key().size() < 5 || it->key()[0] != keys::kRow) return "the store holds no row";
        m_model.table = keys::ReadU32(std::string_view(it->key().data() + 1, 4));
        std::string why = LearnRows(it.get());
        if (why.empty()) why = LearnKeys();
        if (why.empty()) why = Check(it.get());
        return why;
    }
    std::unique_ptr<Worker> NewWorker() override {
        return std::make_unique<RawWorker>(m_db.get(), m_model, m_population);
    }

private:
    using Row = std::vector<std::pair<std::string, std::string>>;

    std::string ReadRow(rocksdb::Iterator* it, int64_t k, Row* row) const {
        BenchRecord record;
        FillRecord(&record);
        m_population.Make(k, &record);
        const rocksdb::Status s = ReadRawRow(it, RowKeyOf(m_model.table, record), row);
        if (!s.ok()) return OkOr(s);
        return row->empty() || !row->front().first.empty() ? "record " + std::to_string(k) + " has no row" : "";
    }

    // The fields of record 0 and the stored levels of records 0 to 99.
    std::string LearnRows(rocksdb::Iterator* it) {
        Row row;
        std::string why = ReadRow(it, 0, &row);
        if (!why.empty()) return why;
        m_model.fields.assign(row.begin() + 1, row.end());
        for (int i = 0; i < 2; ++i) {
            auto field = std::find_if(m_model.fields.begin(), m_model.fields.end(),
                                      [i](const auto& f) { return f.first == kUpdateTags[i]; });
            if (field == m_model.fields.end()) return "record 0 has no field " + std::string(kUpdateTags[i]);
            m_model.update_bytes[i] = field->second;
        }
        for (int64_t level = 0; level < kLevels; ++level) {
            row.clear();
            why = ReadRow(it, level, &row);
            if (!why.empty()) return why;
            auto field = std::find_if(row.begin(), row.end(), [](const auto& f) { return f.first == "6"; });
            if (field == row.end()) return "record " + std::to_string(level) + " has no level";
            m_model.level_bytes.push_back(field->second);
        }
        return "";
    }

    // The index values of the levels and the sharding values of the shards,
    // from the bridge.
    std::string LearnKeys() {
        std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);
        QuietLog log;
        BenchRecord record;
        FillRecord(&record);
        auto field_key = [&](int number, std::vector<std::string>* out) {
            uint8_t buf[1024];
            int32_t size = sizeof(buf);
            record.ByteSizeLong();
            const int ret = PROTOBUF_UTIL::ProtobufUtil::ExtractFieldKey(nullptr, record, {number}, buf, size,
                                                                         idl.get(), log.category());
            out->emplace_back(reinterpret_cast<const char*>(buf), ret == 0 ? static_cast<size_t>(size) : 0);
            return ret == 0;
        };
        for (int64_t level = 0; level < kLevels; ++level) {
            record.set_level(static_cast<int32_t>(level));
            if (!field_key(6, &m_model.level_keys)) return "ExtractFieldKey failed on a level";
        }
        for (int64_t shard = 0; shard < m_population.shards(); ++shard) {
            record.set_id(static_cast<int32_t>(shard + 1));
            if (!field_key(1, &m_model.shard_keys)) return "ExtractFieldKey failed on an id";
        }
        return "";
    }

    // Records spread over the store: their rows, index and shard entries are
    // what the model computes.
    std::string Check(rocksdb::Iterator* it) const {
        const int64_t n = m_population.records;
        for (int64_t k : {int64_t{0}, int64_t{1}, n / 3, n / 2 + 7, n - 1}) {
            Row row;
            std::string why = ReadRow(it, k, &row);
            if (!why.empty()) return why;
            BenchRecord record;
            FillRecord(&record);
            m_population.Make(k, &record);
            Row expected(m_model.fields);
            for (auto& field : expected) {
                if (field.first == "6") field.second = m_model.level_bytes[static_cast<size_t>(record.level())];
            }
            if (!std::equal(row.begin() + 1, row.end(), expected.begin(), expected.end())) {
                return "record " + std::to_string(k) + " holds other fields than the raw model's";
            }
            const std::string pk = PrimaryKeyOf(record);
            for (const std::string& entry : {m_model.IndexEntry(record, pk), m_model.ShardEntry(record, pk)}) {
                std::string value;
                if (!m_db->Get(rocksdb::ReadOptions(), entry, &value).ok()) {
                    return "record " + std::to_string(k) + " has no entry where the raw model puts it";
                }
            }
        }
        return "";
    }

    Population m_population{0};
    RawModel m_model;
    std::unique_ptr<rocksdb::DB> m_db;
};

// ---------------------------------------------------------------------------
// Running a mix.
// ---------------------------------------------------------------------------

struct RunResult {
    uint64_t ops = 0;
    double seconds = 0;
    Histogram latency;
    std::string error;
};

// A value of /proc/self/status in KiB ("VmRSS", "VmHWM"); 0 when unknown.
long StatusKiB(const char* name) {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return 0;
    char line[256];
    long kib = 0;
    const size_t length = std::strlen(name);
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        if (std::strncmp(line, name, length) == 0 && line[length] == ':') kib = std::atol(line + length + 1);
    }
    std::fclose(f);
    return kib;
}

// Runs mix on engine with `threads` threads: a warm-up, then `seconds` of
// operations counted and timed.
RunResult RunMix(Engine* engine, const Mix& mix, const Population& population, int threads, double seconds) {
    const ScrambledZipfian zipfian(population.records);
    std::atomic<bool> measuring{false};
    std::atomic<bool> stop{false};
    std::atomic<int64_t> next_insert{population.records};
    std::mutex mutex;
    RunResult result;

    auto body = [&](int thread) {
        std::unique_ptr<Worker> worker = engine->NewWorker();
        std::mt19937_64 random(0x9e3779b97f4a7c15ULL * static_cast<uint64_t>(thread + 1));
        Histogram latency;
        uint64_t ops = 0;
        std::string error;
        while (!stop.load(std::memory_order_relaxed) && error.empty()) {
            const Op op = mix.Pick(random);
            const Clock::time_point start = Clock::now();
            switch (op) {
                case Op::kRead: error = worker->Read(zipfian.Next(random)); break;
                case Op::kUpdate: error = worker->Update(zipfian.Next(random)); break;
                case Op::kInsert: error = worker->Insert(next_insert.fetch_add(1)); break;
                case Op::kScan:
                    error = worker->Scan(zipfian.Next(random), 1 + static_cast<size_t>(random() % kMaxScan));
                    break;
            }
            const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
            const uint64_t ns = static_cast<uint64_t>(elapsed.count());
            if (measuring.load(std::memory_order_relaxed)) {
                latency.Add(ns);
                ++ops;
            }
        }
        std::lock_guard<std::mutex> lock(mutex);
        result.ops += ops;
        result.latency.Merge(latency);
        if (!error.empty() && result.error.empty()) result.error = error;
    };

    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) workers.emplace_back(body, t);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds / 5));
    measuring = true;
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    measuring = false;
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stop = true;
    for (std::thread& worker : workers) worker.join();
    return result;
}

const Mix* FindMix(const std::string& name) {
    for (const Mix& mix : kMixes) {
        if (name.size() == 1 && name[0] == mix.name) return &mix;
    }
    return nullptr;
}

// The number of records DIR was loaded with (DIR/records).
int64_t LoadedRecords(const std::string& dir) {
    FILE* f = std::fopen((dir + "/records").c_str(), "r");
    if (f == nullptr) return 0;
    long long records = 0;
    if (std::fscanf(f, "%lld", &records) != 1) records = 0;
    std::fclose(f);
    return records;
}

// Opens ENGINE on DIR, runs one mix and prints its line. Returns the exit
// status.
int Run(const std::string& dir, const std::string& engine_name, const std::string& mix_name, int threads,
        double seconds, bool quiet) {
    const Mix* mix = FindMix(mix_name);
    const Population population{LoadedRecords(dir)};
    if (mix == nullptr || threads < 1 || seconds <= 0 || population.records == 0) {
        std::fprintf(stderr, "run: no loaded store in %s, or an unknown mix, thread count or time\n", dir.c_str());
        return 2;
    }
    StoreEngine store;
    RawEngine raw;
    Engine* engine = nullptr;
    std::string why;
    if (engine_name == "store") {
        why = store.Open(dir + "/store", population);
        engine = &store;
    } else if (engine_name == "raw") {
        why = raw.Open(dir + "/raw", population);
        engine = &raw;
    } else {
        why = "unknown engine " + engine_name;
    }
    if (!why.empty()) {
        std::fprintf(stderr, "run: %s\n", why.c_str());
        return 1;
    }
    const RunResult result = RunMix(engine, *mix, population, threads, seconds);
    if (!result.error.empty()) {
        std::fprintf(stderr, "run: %s %c: %s\n", engine_name.c_str(), mix->name, result.error.c_str());
        return 1;
    }
    if (!quiet) {
        std::printf("%s\t%c\t%d\t%.2f\t%llu\t%.0f\t%.1f\t%.1f\t%.1f\t%.0f\t%.0f\n", engine_name.c_str(), mix->name,
                    threads, result.seconds, static_cast<unsigned long long>(result.ops),
                    static_cast<double>(result.ops) / result.seconds, result.latency.Quantile(0.5) / 1e3,
                    result.latency.Quantile(0.99) / 1e3, result.latency.Quantile(0.999) / 1e3,
                    static_cast<double>(StatusKiB("VmRSS")) / 1024, static_cast<double>(StatusKiB("VmHWM")) / 1024);
    }
    return result.ops > 0 ? 0 : 1;
}

void PrintHeader() {
    std::printf("engine\tmix\tthreads\tseconds\tops\tops_per_s\tp50_us\tp99_us\tp999_us\trss_mib\thwm_mib\n");
}

// ---------------------------------------------------------------------------
// Loading.
// ---------------------------------------------------------------------------

int Load(const std::string& dir, int64_t records, int threads) {
    if (records < kLevels || threads < 1) {
        std::fprintf(stderr, "load: give at least 100 records and one thread\n");
        return 2;
    }
    const std::string store_dir = dir + "/store";
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    std::unique_ptr<TableStore> store;
    std::unique_ptr<Table> table;
    Status s = TableStore::Open(store_dir, options, &store);
    if (s.ok()) s = store->CreateTable(BenchBlob(), "BenchRecord");
    if (s.ok()) s = store->OpenTable(BenchRecord::default_instance(), nullptr, &table);
    if (!s.ok()) {
        std::fprintf(stderr, "load: %s\n", s.ToString().c_str());
        return 1;
    }
    const Population population{records};
    std::atomic<int64_t> next{0};
    std::mutex mutex;
    std::string error;
    auto body = [&] {
        BenchRecord record;
        FillRecord(&record);
        for (int64_t k = next++; k < records; k = next++) {
            population.Make(k, &record);
            const Status put = table->Put(record);
            if (!put.ok()) {
                std::lock_guard<std::mutex> lock(mutex);
                error = put.ToString();
                next = records;
            }
        }
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) workers.emplace_back(body);
    for (std::thread& worker : workers) worker.join();
    // Compacted, as a store is once its writes have settled: every record in
    // one sorted run, and no write-ahead log to replay at the next open.
    if (error.empty()) s = store->Compact();
    table.reset();
    store.reset();
    if (!error.empty() || !s.ok()) {
        std::fprintf(stderr, "load: %s\n", error.empty() ? s.ToString().c_str() : error.c_str());
        return 1;
    }
    std::error_code ec;
    fs::copy(store_dir, dir + "/raw", fs::copy_options::recursive, ec);
    FILE* f = std::fopen((dir + "/records").c_str(), "w");
    if (ec || f == nullptr) {
        std::fprintf(stderr, "load: copying %s: %s\n", store_dir.c_str(), ec ? ec.message().c_str() : "records");
        if (f != nullptr) std::fclose(f);
        return 1;
    }
    std::fprintf(f, "%lld\n", static_cast<long long>(records));
    std::fclose(f);
    return 0;
}

// What bench/process_bench.sh needs of record k of a loaded store of
// `records` records: the key of its row marker in hex (for ldb; the store's
// first table is number 1), its key fields and the whole record in protobuf
// text format (for corvida-pb), one per line.
int PrintRecord(int64_t records, int64_t k) {
    if (records < 1 || k < 0) return 2;
    const Population population{records};
    BenchRecord record;
    FillRecord(&record);
    population.Make(k, &record);
    BenchRecord key;
    key.set_id(record.id());
    key.set_name(record.name());
    key.set_stamp(record.stamp());
    google::protobuf::TextFormat::Printer printer;
    printer.SetSingleLineMode(true);
    std::string key_text;
    std::string record_text;
    printer.PrintToString(key, &key_text);
    printer.PrintToString(record, &record_text);
    std::string hex = "0x";
    for (unsigned char c : RowKeyOf(1, record)) {
        static const char kDigits[] = "0123456789ABCDEF";
        hex += kDigits[c >> 4];
        hex += kDigits[c & 15];
    }
    std::printf("%s\n%s\n%s\n", hex.c_str(), key_text.c_str(), record_text.c_str());
    return 0;
}

// Every mix on both engines for a moment, over a small store in a temporary
// directory.
int Smoke() {
    char dir[] = "/tmp/corvida-workload-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    int status = Load(dir, 1000, 2);
    for (const Mix& mix : kMixes) {
        for (const char* engine : {"store", "raw"}) {
            if (status == 0) status = Run(dir, engine, std::string(1, mix.name), 2, 0.05, true);
        }
    }
    std::error_code ec;
    fs::remove_all(dir, ec);
    std::printf("%s\n", status == 0 ? "smoke: every mix ran on both engines" : "smoke: failed");
    return status;
}

}  // namespace
}  // namespace corvida_bench

int main(int argc, char** argv) {
    using corvida_bench::Load;
    using corvida_bench::Run;
    const std::vector<std::string> args(argv + 1, argv + argc);
    int status = 2;
    if (args.size() == 1 && args[0] == "smoke") {
        status = corvida_bench::Smoke();
    } else if (args.size() == 1 && args[0] == "--header") {
        corvida_bench::PrintHeader();
        status = 0;
    } else if ((args.size() == 3 || args.size() == 4) && args[0] == "load") {
        status = Load(args[1], std::atoll(args[2].c_str()), args.size() == 4 ? std::atoi(args[3].c_str()) : 2);
    } else if (args.size() == 3 && args[0] == "record") {
        status = corvida_bench::PrintRecord(std::atoll(args[1].c_str()), std::atoll(args[2].c_str()));
    } else if (args.size() == 6 && args[0] == "run") {
        status = Run(args[1], args[2], args[3], std::atoi(args[4].c_str()), std::atof(args[5].c_str()), false);
    } else {
        std::fprintf(stderr,
                     "usage: corvida_workload_bench load DIR RECORDS [THREADS]\n"
                     "       corvida_workload_bench run DIR store|raw A|B|C|E THREADS SECONDS\n"
                     "       corvida_workload_bench record RECORDS K\n"
                     "       corvida_workload_bench --header | smoke\n");
    }
    return status;
}
