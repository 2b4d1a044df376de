// corvida_etcd_bench: the table store on an etcd cluster next to raw etcd
// doing the same key-value work, and the throughput of client processes.
//
//   corvida_etcd_bench [--records=N] [--processes=1,2,4,8] [--process-seconds=S]
//                      [Google Benchmark flags]
//
// It starts its own cluster of three etcd members on loopback ports, in a
// temporary directory (tests/support/etcd_cluster.h), puts N BenchRecords
// (default 1000; etcd_bench_records.h) into a store in the namespace
// "bench", and copies every key and value of that namespace into the
// namespace "raw". Each baseline then makes, on the copy, the calls that the
// same work takes on raw etcd, through the engine's own client
// (store/etcd_client.h: the same channels, deadlines and gRPC calls), so
// that each pair differs only by what the store does. A read of the moment
// is linearizable; a read at the revision of an earlier one is served by the
// member alone (serializable), as the engine reads at a view:
//
//   Get          store: Get by primary key          raw: one Range of the row
//   FindByIndex  store: one record by by_level      raw: Range of the index value's entries,
//                                                        then Range of the row at that revision
//   ScanShard    store: Scan of one shard           raw: Range of the shard's entries, then a
//                (10 records)                            Range of each row at that revision
//   Update2      store: Update of score, balance    raw: Range of the row marker, then a Txn
//                                                        conditioned on it (and on the table's
//                                                        schema stamp) writing marker + 2 fields
//   Put          store: Put of a whole record       raw: Range of the row, then that Txn writing
//                                                        marker + 18 fields
//
// BM_Baseline_StubGet makes the Range of Baseline_EtcdGet through a blocking
// call of the generated stub instead, to show what the client layer costs.
// Times are of the wall clock (a call waits for the network and the
// members); the CPU column is the whole process's (gRPC's threads too).
//
// Then BM_EtcdProcesses{Put,Get}/N: N processes of corvida_etcd_bench_client
// put (or get) disjoint records through the store at once for S seconds
// (default 3); the counters are the calls per second of all of them and the
// mean time of one call.
//
// At the end it prints one Markdown table of the pairs (median real time of
// the repetitions, or the single run's) and one of the rounds, after a line
// naming the machine. The exit status is 1 when a call failed.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "bench_support.h"
#include "etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h"
#include "etcd_bench_records.h"
#include "store/engine.h"
#include "store/etcd_client.h"
#include "store/etcd_locator.h"
#include "store/key_format.h"
#include "support/etcd_cluster.h"

extern char** environ;

namespace corvida_bench {
namespace {

namespace keys = corvida::store::keys;

using corvida::bench::BenchRecord;
using corvida::store::EtcdClient;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using KeyValues = std::vector<std::pair<std::string, std::string>>;

// What the command line sets beside Google Benchmark's flags.
struct Settings {
    int records = 1000;
    std::vector<int> processes = {1, 2, 4, 8};
    double process_seconds = 3;
};

Settings g_settings;

constexpr char kStoreSpace[] = "bench";
constexpr char kRawPrefix[] = "raw/";
constexpr int kFillThreads = 4;
constexpr size_t kCopyBatch = 100;  // puts per transaction of the copy: below etcd's default of 128

// The keys of one record in the store's layout (without a namespace), as
// the raw baselines address them.
struct RawRecord {
    std::string row_key;          // the row marker's key
    KeyValues fields;             // every stored field, in key order
    KeyValues update;             // the fields an Update of score, balance writes
    std::string index_prefix;     // the prefix of its by_level value's entries
};

// The cluster, the store filled with the records, its raw copy, and the
// clients of both.
class Fixture {
public:
    // Starts everything; false with *error when something did not come up.
    bool Start(std::string* error);

    Table* table() { return m_table.get(); }
    EtcdClient* raw() { return m_raw.get(); }
    etcdserverpb::KV::Stub* stub() { return m_stub.get(); }
    const RawRecord& record(int i) const { return m_records[static_cast<size_t>(i)]; }
    const std::string& shard_prefix(int shard) const { return m_shard_prefixes[static_cast<size_t>(shard)]; }
    int shards() const { return static_cast<int>(m_shard_prefixes.size()); }
    const std::string& store_locator() const { return m_store_locator; }
    // The table's schema stamp: the store conditions every write on it
    // (absent: the table was never altered).
    const std::string& schema_key() const { return m_schema_key; }
    bool schema_stamped() const { return m_schema_stamped; }
    const std::string& schema_stamp() const { return m_schema_stamp; }

    // Stops the cluster; before static destruction, so that nothing of gRPC
    // outlives it.
    void Stop();

private:
    bool Fill(std::string* error);
    bool CopyToRaw(std::string* error);
    void Note(const std::string& key, const std::string& value, uint32_t* table);

    std::unique_ptr<corvida_test::EtcdCluster> m_cluster;
    std::string m_store_locator;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
    std::unique_ptr<EtcdClient> m_raw;
    std::unique_ptr<etcdserverpb::KV::Stub> m_stub;
    std::vector<RawRecord> m_records;
    std::vector<std::string> m_shard_prefixes;
    std::string m_schema_key;
    bool m_schema_stamped = false;
    std::string m_schema_stamp;
};

Fixture g_fixture;
bool g_ready = false;

bool Fixture::Start(std::string* error) {
    m_cluster = corvida_test::EtcdCluster::Start(corvida_test::EtcdClusterOptions(), error);
    if (m_cluster == nullptr) return false;
    m_store_locator = m_cluster->Locator(kStoreSpace);
    Status s = OpenBenchTable(m_store_locator, true, &m_store, &m_table);
    corvida::store::EtcdLocator raw_locator;
    raw_locator.endpoints = m_cluster->Endpoints();
    if (s.ok()) s = EtcdClient::Open(raw_locator, corvida::store::StoreOptions(), &m_raw);
    if (!s.ok()) {
        *error = "opening the store: " + s.ToString();
        return false;
    }
    m_stub = etcdserverpb::KV::NewStub(
        grpc::CreateChannel(m_cluster->Endpoints().front(), grpc::InsecureChannelCredentials()));
    return Fill(error) && CopyToRaw(error);
}

void Fixture::Stop() {
    m_table.reset();
    m_store.reset();
    m_raw.reset();
    m_stub.reset();
    m_cluster.reset();
}

// Puts every record through the store, from a few threads at once.
bool Fixture::Fill(std::string* error) {
    std::vector<std::thread> threads;
    std::vector<Status> results(kFillThreads);
    for (int t = 0; t < kFillThreads; ++t) {
        threads.emplace_back([this, t, &results] {
            for (int i = t; i < g_settings.records && results[static_cast<size_t>(t)].ok(); i += kFillThreads) {
                results[static_cast<size_t>(t)] = m_table->Put(EtcdBenchRecord(i));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Status& s : results) {
        if (!s.ok()) {
            *error = "filling the store: " + s.ToString();
            return false;
        }
    }
    return true;
}

// Copies the namespace of the store into the raw one, and notes where each
// record's keys are.
bool Fixture::CopyToRaw(std::string* error) {
    const std::string store_prefix = std::string(kStoreSpace) + "/";
    etcdserverpb::RangeRequest range;
    range.set_key(store_prefix);
    range.set_range_end(corvida::store::PrefixEnd(store_prefix));
    etcdserverpb::RangeResponse all;
    Status s = m_raw->Range(range, &all, "reading the store");
    uint32_t table = 0;
    m_records.assign(static_cast<size_t>(g_settings.records), RawRecord());
    for (int i = 0; s.ok() && i < all.kvs_size();) {
        etcdserverpb::TxnRequest txn;
        for (size_t n = 0; n < kCopyBatch && i < all.kvs_size(); ++n, ++i) {
            const std::string key = all.kvs(i).key().substr(store_prefix.size());
            etcdserverpb::PutRequest* put = txn.add_success()->mutable_request_put();
            put->set_key(kRawPrefix + key);
            put->set_value(all.kvs(i).value());
            Note(key, all.kvs(i).value(), &table);
        }
        etcdserverpb::TxnResponse done;
        s = m_raw->Txn(txn, &done, "copying the store");
    }
    if (!s.ok()) {
        *error = "copying the store: " + s.ToString();
        return false;
    }
    m_schema_key = keys::SchemaStampKey(table);
    for (const auto& kv : all.kvs()) {
        if (kv.key() == store_prefix + m_schema_key) {
            m_schema_stamped = true;
            m_schema_stamp = kv.value();
        }
    }
    for (int i = 0; i < g_settings.records; ++i) {
        const RawRecord& record = m_records[static_cast<size_t>(i)];
        if (record.row_key.empty() || record.index_prefix.empty() || record.update.size() != 2) {
            *error = "record " + std::to_string(i) + " is not in the store as expected";
            return false;
        }
    }
    return true;
}

// The record a primary key is of: its name field holds the number.
int RecordOf(const std::string& pk) {
    BenchRecord key_fields;  // a primary key is the encoding of the key fields
    if (!key_fields.ParseFromString(pk) || key_fields.name().size() <= std::strlen("player-")) return -1;
    const int i = std::atoi(key_fields.name().c_str() + std::strlen("player-"));
    return i < g_settings.records ? i : -1;
}

// Files key (of the store's layout) under its record, or its shard.
void Fixture::Note(const std::string& key, const std::string& value, uint32_t* table) {
    if (key[0] != keys::kRow && key[0] != keys::kIndex && key[0] != keys::kShard) return;
    *table = keys::ReadU32(key.substr(1, 4));
    std::string_view rest = std::string_view(key).substr(5);
    std::string name;
    std::string field_key;
    std::string pk;
    std::string_view tag;
    if (key[0] == keys::kShard) {
        if (!keys::SplitSecondaryKey(rest, &field_key, &pk)) return;
        const std::string prefix = keys::SecondaryPrefix(keys::kShard, *table, "", field_key);
        if (m_shard_prefixes.empty() || m_shard_prefixes.back() != prefix) m_shard_prefixes.push_back(prefix);
    } else if (key[0] == keys::kIndex) {
        if (!keys::ReadEscaped(&rest, &name) || !keys::SplitSecondaryKey(rest, &field_key, &pk)) return;
        const int i = RecordOf(pk);
        if (i >= 0) m_records[static_cast<size_t>(i)].index_prefix = keys::SecondaryPrefix(keys::kIndex, *table, name, field_key);
    } else if (keys::SplitRowKey(rest, &pk, &tag) && RecordOf(pk) >= 0) {
        RawRecord& record = m_records[static_cast<size_t>(RecordOf(pk))];
        if (tag.empty()) {
            record.row_key = key;
        } else {
            record.fields.emplace_back(key, value);
            if (tag == "7" || tag == "8") record.update.emplace_back(key, value);
        }
    }
}

bool Ready(benchmark::State& state) {
    if (g_ready) return true;
    Fail(state, "the cluster or the store could not be set up");
    return false;
}

// Runs op(i) for i = 0, 1, ... below count in turn while the benchmark runs;
// op returns a Status, and a failed one fails the benchmark.
template <typename Op>
void Cycle(benchmark::State& state, int count, Op op) {
    int i = 0;
    for (auto _ : state) {
        const Status s = op(i);
        if (!s.ok()) {
            Fail(state, s.ToString());
            return;
        }
        i = (i + 1) % count;
    }
}

// ---------------------------------------------------------------------------
// Raw etcd: the calls each store operation's work takes.
// ---------------------------------------------------------------------------

// Reads [begin, end) of the raw copy at revision (0: now), handing each key
// (without the namespace) and value to visit; *revision is the revision read.
template <typename Visit>
Status RawRange(const std::string& begin, const std::string& end, int64_t* revision, Visit visit) {
    etcdserverpb::RangeRequest request;
    request.set_key(kRawPrefix + begin);
    request.set_range_end(kRawPrefix + end);
    request.set_revision(*revision);
    // At a known revision, from the member's own copy, as the engine reads.
    request.set_serializable(*revision != 0);
    etcdserverpb::RangeResponse response;
    Status s = g_fixture.raw()->Range(request, &response, "reading");
    if (!s.ok()) return s;
    *revision = response.header().revision();
    for (const mvccpb::KeyValue& kv : response.kvs()) {
        visit(std::string_view(kv.key()).substr(std::strlen(kRawPrefix)), kv.value());
    }
    return Status::OK();
}

// Reads a row at revision, each value copied out as a reader would.
Status RawReadRow(const std::string& row_key, int64_t* revision, size_t* keys_read) {
    *keys_read = 0;
    return RawRange(row_key, keys::EscapedEnd(row_key), revision, [&](std::string_view, const std::string& value) {
        std::string copy = value;
        benchmark::DoNotOptimize(copy);
        ++*keys_read;
    });
}

// The entries of [prefix, EscapedEnd(prefix)) (of one index value or one
// shard), then each entry's row at the revision of the entries: a lookup's
// work. *rows is the rows read.
Status RawLookup(const std::string& prefix, size_t* rows) {
    int64_t revision = 0;
    std::vector<std::string> row_keys;
    Status s = RawRange(prefix, keys::EscapedEnd(prefix), &revision, [&](std::string_view key, const std::string&) {
        std::string_view rest = key.substr(5);
        std::string name;
        std::string value;
        std::string pk;
        if ((key[0] == keys::kShard || keys::ReadEscaped(&rest, &name)) && keys::SplitSecondaryKey(rest, &value, &pk)) {
            row_keys.push_back(keys::RowKey(keys::ReadU32(key.substr(1, 4)), pk));
        }
    });
    *rows = 0;
    for (const std::string& row_key : row_keys) {
        size_t keys_read = 0;
        if (s.ok()) s = RawReadRow(row_key, &revision, &keys_read);
        if (s.ok() && keys_read == 0) s = Status::Corruption("an entry without its row");
        ++*rows;
    }
    return s;
}

// The write of a record: the marker as read, then one transaction
// conditioned on it and on the table's schema stamp that writes a new
// marker and the fields.
Status RawWrite(const std::string& row_key, const std::string& marker, const KeyValues& fields) {
    etcdserverpb::TxnRequest txn;
    etcdserverpb::Compare* row = txn.add_compare();
    row->set_key(kRawPrefix + row_key);
    row->set_result(etcdserverpb::Compare::EQUAL);
    row->set_target(etcdserverpb::Compare::VALUE);
    row->set_value(marker);
    etcdserverpb::Compare* schema = txn.add_compare();
    schema->set_key(kRawPrefix + g_fixture.schema_key());
    schema->set_result(etcdserverpb::Compare::EQUAL);
    if (g_fixture.schema_stamped()) {
        schema->set_target(etcdserverpb::Compare::VALUE);
        schema->set_value(g_fixture.schema_stamp());
    } else {
        schema->set_target(etcdserverpb::Compare::VERSION);
        schema->set_version(0);
    }
    etcdserverpb::PutRequest* stamp = txn.add_success()->mutable_request_put();
    stamp->set_key(kRawPrefix + row_key);
    stamp->set_value(keys::NewStamp());
    for (const auto& field : fields) {
        etcdserverpb::PutRequest* put = txn.add_success()->mutable_request_put();
        put->set_key(kRawPrefix + field.first);
        put->set_value(field.second);
    }
    etcdserverpb::TxnResponse response;
    Status s = g_fixture.raw()->Txn(txn, &response, "committing");
    if (s.ok() && !response.succeeded()) s = Status::Corruption("a raw write's condition did not hold");
    return s;
}

// ---------------------------------------------------------------------------
// The pairs.
// ---------------------------------------------------------------------------

void BM_EtcdStoreGet(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<BenchRecord> keys;
    for (int i = 0; i < g_settings.records; ++i) keys.push_back(EtcdBenchKey(i));
    BenchRecord out;
    Cycle(state, g_settings.records, [&](int i) {
        const Status s = g_fixture.table()->Get(keys[static_cast<size_t>(i)], {}, &out, nullptr);
        return s.ok() && out.level() != i ? Status::Corruption("Get read another record") : s;
    });
}

void BM_Baseline_EtcdGet(benchmark::State& state) {
    if (!Ready(state)) return;
    Cycle(state, g_settings.records, [](int i) {
        int64_t revision = 0;
        size_t keys_read = 0;
        const RawRecord& record = g_fixture.record(i);
        const Status s = RawReadRow(record.row_key, &revision, &keys_read);
        return s.ok() && keys_read != record.fields.size() + 1 ? Status::Corruption("not the whole row") : s;
    });
}

void BM_Baseline_StubGet(benchmark::State& state) {
    if (!Ready(state)) return;
    Cycle(state, g_settings.records, [](int i) {
        const RawRecord& record = g_fixture.record(i);
        etcdserverpb::RangeRequest request;
        request.set_key(kRawPrefix + record.row_key);
        request.set_range_end(kRawPrefix + keys::EscapedEnd(record.row_key));
        etcdserverpb::RangeResponse response;
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(5));
        const grpc::Status s = g_fixture.stub()->Range(&context, request, &response);
        if (!s.ok()) return Status::IOError(s.error_message());
        for (const mvccpb::KeyValue& kv : response.kvs()) {
            std::string copy = kv.value();
            benchmark::DoNotOptimize(copy);
        }
        return static_cast<size_t>(response.kvs_size()) != record.fields.size() + 1
                   ? Status::Corruption("not the whole row")
                   : Status::OK();
    });
}

void BM_EtcdStoreFindByIndex(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<BenchRecord> levels(static_cast<size_t>(g_settings.records));
    for (int i = 0; i < g_settings.records; ++i) levels[static_cast<size_t>(i)].set_level(i);
    std::vector<Record> found;
    Cycle(state, g_settings.records, [&](int i) {
        found.clear();
        const Status s = g_fixture.table()->FindByIndex("by_level", levels[static_cast<size_t>(i)], &found);
        return s.ok() && found.size() != 1 ? Status::Corruption("FindByIndex did not find one record") : s;
    });
}

void BM_Baseline_EtcdFindByIndex(benchmark::State& state) {
    if (!Ready(state)) return;
    Cycle(state, g_settings.records, [](int i) {
        size_t rows = 0;
        const Status s = RawLookup(g_fixture.record(i).index_prefix, &rows);
        return s.ok() && rows != 1 ? Status::Corruption("not one entry") : s;
    });
}

// The records of shard i (id i + 1), as Scan lists them.
size_t ShardSize(int shard) {
    return static_cast<size_t>(std::min(kShardRecords, g_settings.records - shard * kShardRecords));
}

void BM_EtcdStoreScanShard(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<Record> listed;
    BenchRecord shard;
    Cycle(state, g_fixture.shards(), [&](int i) {
        listed.clear();
        shard.set_id(i + 1);
        const Status s = g_fixture.table()->Scan(&shard, 0, &listed);
        return s.ok() && listed.size() != ShardSize(i) ? Status::Corruption("Scan did not list the shard") : s;
    });
}

void BM_Baseline_EtcdScanShard(benchmark::State& state) {
    if (!Ready(state)) return;
    Cycle(state, g_fixture.shards(), [](int i) {
        size_t rows = 0;
        const Status s = RawLookup(g_fixture.shard_prefix(i), &rows);
        return s.ok() && rows != ShardSize(i) ? Status::Corruption("not the shard's entries") : s;
    });
}

void BM_EtcdStoreUpdate2(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<BenchRecord> records;
    for (int i = 0; i < g_settings.records; ++i) records.push_back(EtcdBenchRecord(i));
    const std::vector<std::string> paths = {"score", "balance"};
    Cycle(state, g_settings.records,
          [&](int i) { return g_fixture.table()->Update(records[static_cast<size_t>(i)], paths); });
}

void BM_Baseline_EtcdUpdate2(benchmark::State& state) {
    if (!Ready(state)) return;
    Cycle(state, g_settings.records, [](int i) {
        const RawRecord& record = g_fixture.record(i);
        int64_t revision = 0;
        std::string marker;
        Status s = RawRange(record.row_key, record.row_key + '\0', &revision,
                            [&](std::string_view, const std::string& value) { marker = value; });
        return s.ok() ? RawWrite(record.row_key, marker, record.update) : s;
    });
}

void BM_EtcdStorePut(benchmark::State& state) {
    if (!Ready(state)) return;
    std::vector<BenchRecord> records;
    for (int i = 0; i < g_settings.records; ++i) records.push_back(EtcdBenchRecord(i));
    Cycle(state, g_settings.records, [&](int i) { return g_fixture.table()->Put(records[static_cast<size_t>(i)]); });
}

void BM_Baseline_EtcdPut(benchmark::State& state) {
    if (!Ready(state)) return;
    Cycle(state, g_settings.records, [](int i) {
        const RawRecord& record = g_fixture.record(i);
        int64_t revision = 0;
        std::string marker;
        Status s = RawRange(record.row_key, keys::EscapedEnd(record.row_key), &revision,
                            [&](std::string_view key, const std::string& value) {
                                if (key == record.row_key) marker = value;
                            });
        return s.ok() ? RawWrite(record.row_key, marker, record.fields) : s;
    });
}

// ---------------------------------------------------------------------------
// Client processes.
// ---------------------------------------------------------------------------

// One corvida_etcd_bench_client, its standard input and output on pipes.
class ClientProcess {
public:
    ~ClientProcess() {
        if (m_in != nullptr) std::fclose(m_in);
        if (m_out != nullptr) std::fclose(m_out);
        if (m_pid > 0) ::waitpid(m_pid, nullptr, 0);
    }

    bool Start(const std::vector<std::string>& args) {
        int to_child[2];
        int from_child[2];
        if (::pipe2(to_child, O_CLOEXEC) != 0) return false;
        if (::pipe2(from_child, O_CLOEXEC) != 0) {
            ::close(to_child[0]);
            ::close(to_child[1]);
            return false;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
        posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
        std::vector<std::string> argv = args;
        std::vector<char*> pointers;
        for (std::string& arg : argv) pointers.push_back(&arg[0]);
        pointers.push_back(nullptr);
        const int spawned = ::posix_spawn(&m_pid, pointers[0], &actions, nullptr, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(to_child[0]);
        ::close(from_child[1]);
        m_in = ::fdopen(to_child[1], "w");
        m_out = ::fdopen(from_child[0], "r");
        if (spawned != 0) m_pid = -1;
        return spawned == 0 && m_in != nullptr && m_out != nullptr;
    }

    // The next line the child prints, without its end; empty at its end.
    std::string ReadLine() {
        char line[256];
        if (std::fgets(line, sizeof line, m_out) == nullptr) return "";
        line[std::strcspn(line, "\n")] = '\0';
        return line;
    }

    bool Go() { return std::fputs("go\n", m_in) >= 0 && std::fflush(m_in) == 0; }

    // Waits for the child; true when it exited with status 0.
    bool Succeeded() {
        int status = 0;
        const bool ended = m_pid > 0 && ::waitpid(m_pid, &status, 0) == m_pid;
        m_pid = -1;
        return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t m_pid = -1;
    FILE* m_in = nullptr;
    FILE* m_out = nullptr;
};

// One round: state.range(0) processes putting (or getting) at once.
void ProcessRound(benchmark::State& state, const char* mode) {
    if (!Ready(state)) return;
    const int count = static_cast<int>(state.range(0));
    double calls = 0;
    double busy = 0;  // the seconds the processes spent in their calls, summed
    for (auto _ : state) {
        std::vector<std::unique_ptr<ClientProcess>> clients;
        std::string why;
        for (int w = 0; w < count && why.empty(); ++w) {
            clients.push_back(std::make_unique<ClientProcess>());
            if (!clients.back()->Start({CORVIDA_ETCD_BENCH_CLIENT, g_fixture.store_locator(), mode, std::to_string(w),
                                        std::to_string(count), std::to_string(g_settings.records),
                                        std::to_string(g_settings.process_seconds)})) {
                why = "cannot start corvida_etcd_bench_client";
            }
        }
        for (auto& client : clients) {
            if (why.empty() && client->ReadLine() != "ready") why = "a client process did not open the store";
        }
        for (auto& client : clients) {
            if (why.empty() && !client->Go()) why = "a client process went away";
        }
        double longest = 0;
        for (auto& client : clients) {
            double made = 0;
            double seconds = 0;
            const std::string result = client->ReadLine();
            if (std::sscanf(result.c_str(), "%lf %lf", &made, &seconds) != 2 || !client->Succeeded()) {
                if (why.empty()) why = "a client process failed (its message is above)";
                continue;
            }
            calls += made;
            busy += seconds;
            longest = std::max(longest, seconds);
        }
        if (!why.empty()) {
            Fail(state, why);
            return;
        }
        state.SetIterationTime(longest);
        state.counters["calls_per_s"] = calls / longest;
        state.counters["ms_per_call"] = calls > 0 ? 1000 * busy / calls : 0;
    }
}

void BM_EtcdProcessesPut(benchmark::State& state) { ProcessRound(state, "put"); }
void BM_EtcdProcessesGet(benchmark::State& state) { ProcessRound(state, "get"); }

// ---------------------------------------------------------------------------
// The tables.
// ---------------------------------------------------------------------------

// Passes every run on to the console and keeps, for the tables, each
// benchmark's median (or single) real time and CPU time in µs, and its
// counters.
class TableReporter : public benchmark::ConsoleReporter {
public:
    struct Figures {
        double real_us = 0;
        double cpu_us = 0;
        std::map<std::string, double> counters;
    };

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // The function and its argument, without the suffixes of the
            // time kinds ("/real_time").
            const std::string name =
                run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
            if (run.error_occurred) m_failed.insert(name);
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!median && (run.run_type != Run::RT_Iteration || m_medians.count(name) != 0)) continue;
            const double scale = 1e6 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            Figures& figures = m_figures[name];
            figures.real_us = run.GetAdjustedRealTime() * scale;
            figures.cpu_us = run.GetAdjustedCPUTime() * scale;
            for (const auto& counter : run.counters) figures.counters[counter.first] = counter.second.value;
            if (median) m_medians.insert(name);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Figures of name, or null when it did not run or failed.
    const Figures* Find(const std::string& name) const {
        const auto it = m_figures.find(name);
        return it == m_figures.end() || m_failed.count(name) != 0 ? nullptr : &it->second;
    }

private:
    std::map<std::string, Figures> m_figures;
    std::set<std::string> m_medians;
    std::set<std::string> m_failed;
};

std::string Fixed(double value, int decimals) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string FirstLineOf(const char* command) {
    std::string line;
    if (FILE* pipe = ::popen(command, "r")) {
        char text[256];
        if (std::fgets(text, sizeof text, pipe) != nullptr) line = text;
        ::pclose(pipe);
    }
    line.erase(line.find_last_not_of(" \n") + 1);
    return line;
}

void PrintMachine() {
    std::string cpu;
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; cpu.empty() && std::getline(cpuinfo, line);) {
        if (line.rfind("model name", 0) == 0) cpu = line.substr(line.find(':') + 2);
    }
    char date[16];
    const std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d", std::gmtime(&now));
    std::printf("\nMachine: %s, %ld cores; %s; 3 members on loopback, data in %s; %d records; %s\n", cpu.c_str(),
                ::sysconf(_SC_NPROCESSORS_ONLN), FirstLineOf(CORVIDA_ETCD_PROGRAM " --version").c_str(),
                std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "/tmp", g_settings.records, date);
}

void PrintTables(const TableReporter& reporter) {
    PrintMachine();
    const char* const pairs[][2] = {{"EtcdStoreGet", "Baseline_EtcdGet"},
                                    {"Baseline_EtcdGet", "Baseline_StubGet"},
                                    {"EtcdStoreFindByIndex", "Baseline_EtcdFindByIndex"},
                                    {"EtcdStoreScanShard", "Baseline_EtcdScanShard"},
                                    {"EtcdStoreUpdate2", "Baseline_EtcdUpdate2"},
                                    {"EtcdStorePut", "Baseline_EtcdPut"}};
    std::printf("\n| operation | µs/call | CPU µs | baseline | baseline µs | CPU µs | ratio |\n");
    std::printf("|---|---:|---:|---|---:|---:|---:|\n");
    for (const auto& pair : pairs) {
        const TableReporter::Figures* op = reporter.Find(std::string("BM_") + pair[0]);
        const TableReporter::Figures* base = reporter.Find(std::string("BM_") + pair[1]);
        if (op == nullptr && base == nullptr) continue;
        auto shown = [](const TableReporter::Figures* f, bool cpu) {
            return f == nullptr ? std::string("-") : Fixed(cpu ? f->cpu_us : f->real_us, 0);
        };
        const std::string ratio = op != nullptr && base != nullptr && base->real_us > 0
                                      ? Fixed(op->real_us / base->real_us, 2)
                                      : std::string("-");
        std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", pair[0], shown(op, false).c_str(),
                    shown(op, true).c_str(), pair[1], shown(base, false).c_str(), shown(base, true).c_str(),
                    ratio.c_str());
    }
    std::printf("\n| processes | puts/s | ms per put | gets/s | ms per get |\n|---:|---:|---:|---:|---:|\n");
    for (int n : g_settings.processes) {
        const std::string suffix = "/" + std::to_string(n);
        const TableReporter::Figures* put = reporter.Find("BM_EtcdProcessesPut" + suffix);
        const TableReporter::Figures* get = reporter.Find("BM_EtcdProcessesGet" + suffix);
        if (put == nullptr && get == nullptr) continue;
        auto counter = [](const TableReporter::Figures* f, const char* name, int decimals) {
            return f == nullptr ? std::string("-") : Fixed(f->counters.at(name), decimals);
        };
        std::printf("| %d | %s | %s | %s | %s |\n", n, counter(put, "calls_per_s", 0).c_str(),
                    counter(put, "ms_per_call", 2).c_str(), counter(get, "calls_per_s", 0).c_str(),
                    counter(get, "ms_per_call", 2).c_str());
    }
}

void Register() {
    auto timed = [](const char* name, void (*fn)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, fn)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();
    };
    // Reads first, while every record is as the fill left it.
    timed("BM_EtcdStoreGet", BM_EtcdStoreGet);
    timed("BM_Baseline_EtcdGet", BM_Baseline_EtcdGet);
    timed("BM_Baseline_StubGet", BM_Baseline_StubGet);
    timed("BM_EtcdStoreFindByIndex", BM_EtcdStoreFindByIndex);
    timed("BM_Baseline_EtcdFindByIndex", BM_Baseline_EtcdFindByIndex);
    timed("BM_EtcdStoreScanShard", BM_EtcdStoreScanShard);
    timed("BM_Baseline_EtcdScanShard", BM_Baseline_EtcdScanShard);
    timed("BM_EtcdStoreUpdate2", BM_EtcdStoreUpdate2);
    timed("BM_Baseline_EtcdUpdate2", BM_Baseline_EtcdUpdate2);
    timed("BM_EtcdStorePut", BM_EtcdStorePut);
    timed("BM_Baseline_EtcdPut", BM_Baseline_EtcdPut);
    for (const char* mode : {"Put", "Get"}) {
        auto* round = benchmark::RegisterBenchmark((std::string("BM_EtcdProcesses") + mode).c_str(),
                                                   mode[0] == 'P' ? BM_EtcdProcessesPut : BM_EtcdProcessesGet);
        for (int n : g_settings.processes) round->Arg(n);
        round->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
}

// Takes this program's own flags out of argv; false on a bad one.
bool ParseSettings(int* argc, char** argv) {
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&arg](const char* flag) -> const char* {
            const size_t n = std::strlen(flag);
            return arg.compare(0, n, flag) == 0 ? arg.c_str() + n : nullptr;
        };
        if (const char* records = value("--records=")) {
            g_settings.records = std::atoi(records);
            if (g_settings.records < 1) return false;
        } else if (const char* seconds = value("--process-seconds=")) {
            g_settings.process_seconds = std::atof(seconds);
            if (!(g_settings.process_seconds > 0)) return false;
        } else if (const char* list = value("--processes=")) {
            g_settings.processes.clear();
            for (const char* at = list; *at != '\0';) {
                char* end = nullptr;
                const long n = std::strtol(at, &end, 10);
                if (end == at || n < 1 || n > 64 || (*end != ',' && *end != '\0')) return false;
                g_settings.processes.push_back(static_cast<int>(n));
                at = *end == ',' ? end + 1 : end;
            }
        } else {
            argv[kept++] = argv[i];
        }
    }
    *argc = kept;
    return true;
}

}  // namespace
}  // namespace corvida_bench

int main(int argc, char** argv) {
    using namespace corvida_bench;
    if (!ParseSettings(&argc, argv)) {
        std::fprintf(stderr,
                     "usage: corvida_etcd_bench [--records=N] [--processes=N,N,...] [--process-seconds=S] "
                     "[benchmark flags]\n");
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    std::string error;
    g_ready = g_fixture.Start(&error);
    if (!g_ready) std::fprintf(stderr, "corvida_etcd_bench: %s\n", error.c_str());
    Register();
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    g_fixture.Stop();
    PrintTables(reporter);
    return Failures() == 0 ? 0 : 1;
}
