// The other process of the store's tests.
//
//   store_writer write WHERE START opens (creating) the store at WHERE (a
//                                  directory or an etcd locator) with sync
//                                  on, and runs the crash test's operations
//                                  from number START on, writing "N\n" to
//                                  standard output once operation N returned;
//                                  runs until it is killed
//   store_writer bulk DIR START    the same operations in Write calls of
//                                  kBulkCall each, writing "N\n" once the
//                                  call that ends with operation N returned
//   store_writer open DIR          opens the store in DIR and prints the
//                                  result; exit status 0 when it opened, 3
//                                  when the store was busy, 1 otherwise
//   store_writer race DIR N        N times: opens the store in DIR for
//                                  writing without waiting, puts a record
//                                  when it opened, closes it; prints "ok" or
//                                  "busy" per attempt, and any other answer
//                                  with exit status 1
//   store_writer upgrade DIR       upgrades the store in DIR to the current
//                                  layout; prints "upgraded", "current" or
//                                  the error (exit status 1)
//   store_writer shared WHERE W N SECONDS
//                                  opens (creating) the store at WHERE (a
//                                  directory or an etcd locator) with a
//                                  deadline of SECONDS per etcd call, creates
//                                  the table Task unless another process did,
//                                  and makes writes 0 to N-1 of writer W
//                                  (shared_writes.h), printing the line of
//                                  each once it returned, failed or not
//   store_writer read WHERE ROUNDS ROUNDS times: opens the store at WHERE for
//                                  reading, and reads the table Player3 of
//                                  "write" by key, whole, by index and by
//                                  shard, counts and verifies it; prints
//                                  "read ROUNDS rounds, last saw N records",
//                                  or the first failure (exit status 1)
//   store_writer build DIR         opens the store in DIR with sync on and runs
//                                  the pending work of the index-build crash
//                                  test's index (its back-fill, or the removal
//                                  of its entries) while another thread writes
//                                  records of the table; writes "done total\n"
//                                  after each batch and "finished\n" at the
//                                  end, then writes on until it is killed
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "crash_ops.h"
#include "index_build_ops.h"
#include "schema_versions.h"
#include "shared_writes.h"
#include "store/table_store.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace {

using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::test3::Player3;

int Fail(const char* what, const Status& s) {
    std::fprintf(stderr, "store_writer: %s: %s\n", what, s.ToString().c_str());
    return 1;
}

// Opens (creating) the store in dir with sync on, and its Player3 table.
Status OpenTable(const std::string& dir, std::unique_ptr<TableStore>* store, std::unique_ptr<Table>* table) {
    Status s = corvida_store_test::OpenStore(dir, store, true);
    if (!s.ok()) return s;
    s = (*store)->CreateTable(corvida_store_test::SchemaBlob(Player3::descriptor()), "Player3");
    if (!s.ok() && !s.IsAlreadyExists()) return s;
    return (*store)->OpenTable(Player3::default_instance(), nullptr, table);
}

int WriteInCalls(const std::string& dir, uint64_t start) {
    std::unique_ptr<TableStore> store;
    std::unique_ptr<Table> table;
    Status s = OpenTable(dir, &store, &table);
    if (!s.ok()) return Fail("open", s);
    for (uint64_t first = start;; first += corvida_store_test::kBulkCall) {
        std::vector<corvida_store_test::CrashOp> ops;
        for (uint64_t i = first; i < first + corvida_store_test::kBulkCall; ++i) ops.push_back(corvida_store_test::MakeCrashOp(i));
        std::vector<corvida::store::WriteOp> writes;
        for (const corvida_store_test::CrashOp& op : ops) {
            corvida::store::WriteOp write;
            write.message = &op.record;
            write.paths = op.paths;
            write.kind = op.kind == corvida_store_test::CrashOp::kPut      ? corvida::store::WriteOp::Kind::kPut
                         : op.kind == corvida_store_test::CrashOp::kDelete ? corvida::store::WriteOp::Kind::kDelete
                                                                           : corvida::store::WriteOp::Kind::kUpdate;
            writes.push_back(write);
        }
        corvida::store::WriteReport report;
        s = table->Write(writes, &report);
        if (!s.ok()) return Fail("write", s);
        std::printf("%llu\n", static_cast<unsigned long long>(first + corvida_store_test::kBulkCall - 1));
        std::fflush(stdout);
    }
}

int Write(const std::string& dir, uint64_t start) {
    std::unique_ptr<TableStore> store;
    std::unique_ptr<Table> table;
    Status s = OpenTable(dir, &store, &table);
    if (!s.ok()) return Fail("open", s);
    for (uint64_t i = start;; ++i) {
        const corvida_store_test::CrashOp op = corvida_store_test::MakeCrashOp(i);
        switch (op.kind) {
            case corvida_store_test::CrashOp::kPut: s = table->Put(op.record); break;
            case corvida_store_test::CrashOp::kDelete:
                s = table->Delete(op.record);
                if (s.IsNotFound()) s = Status::OK();
                break;
            default: s = table->Update(op.record, op.paths); break;
        }
        if (!s.ok()) return Fail("write", s);
        std::printf("%llu\n", static_cast<unsigned long long>(i));
        std::fflush(stdout);
    }
}

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int Shared(const std::string& where, int writer, uint64_t count, double timeout_seconds) {
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    options.timeout_seconds = timeout_seconds;
    std::unique_ptr<TableStore> store;
    Status s = TableStore::Open(where, options, &store);
    if (!s.ok()) return Fail("open", s);
    s = store->CreateTable(corvida_store_test::SchemaBlob(corvida::storetest::Task::descriptor()), "Task");
    if (!s.ok() && !s.IsAlreadyExists()) return Fail("create", s);
    std::unique_ptr<Table> table;
    s = store->OpenTable(corvida::storetest::Task::default_instance(), nullptr, &table);
    if (!s.ok()) return Fail("open table", s);
    for (uint64_t n = 0; n < count; ++n) {
        const corvida_store_test::SharedWrite write = corvida_store_test::MakeSharedWrite(writer, n);
        corvida_store_test::SharedWriteOutcome outcome;
        outcome.n = n;
        outcome.begin_ns = NowNs();
        switch (write.kind) {
            case corvida_store_test::SharedWrite::kPut: s = table->Put(write.record); break;
            case corvida_store_test::SharedWrite::kDelete:
                s = table->Delete(write.record);
                if (s.IsNotFound()) s = Status::OK();
                break;
            default: s = table->Update(write.record, write.paths); break;
        }
        outcome.end_ns = NowNs();
        outcome.acknowledged = s.ok();
        outcome.error = s.ToString();
        std::printf("%s\n", corvida_store_test::SharedWriteLine(outcome).c_str());
        std::fflush(stdout);
    }
    return 0;
}

// One round of Read: every kind of read of the table, each of which must
// succeed; *records is what the scan saw.
Status ReadRound(const std::string& where, size_t* records) {
    corvida::store::StoreOptions options;
    options.read_only = true;
    std::unique_ptr<TableStore> store;
    Status s = TableStore::Open(where, options, &store);
    std::unique_ptr<Table> table;
    if (s.ok()) s = store->OpenTable(Player3::default_instance(), nullptr, &table);
    for (uint64_t i = 0; s.ok() && i < 4; ++i) {
        const corvida_store_test::CrashOp op = corvida_store_test::MakeCrashOp(i);
        Player3 out;
        s = table->Get(op.record, {}, &out, nullptr);
        if (s.IsNotFound()) s = Status::OK();
    }
    std::vector<corvida::store::Record> found;
    if (s.ok()) s = table->Scan(nullptr, 0, &found);
    *records = found.size();
    Player3 probe;
    probe.set_level(2);
    probe.set_uid(3);
    if (s.ok()) s = table->FindByIndex("by_level", probe, &found);
    if (s.ok()) s = table->Scan(&probe, 0, &found);
    uint64_t count = 0;
    if (s.ok()) s = table->Count(nullptr, &count);
    if (s.ok()) s = table->Verify();
    return s;
}

int Read(const std::string& where, int rounds) {
    size_t records = 0;
    for (int round = 0; round < rounds; ++round) {
        const Status s = ReadRound(where, &records);
        if (!s.ok()) return Fail(("read round " + std::to_string(round)).c_str(), s);
    }
    std::printf("read %d rounds, last saw %zu records\n", rounds, records);
    return 0;
}

int Race(const std::string& dir, int attempts) {
    for (int i = 0; i < attempts; ++i) {
        std::unique_ptr<TableStore> store;
        Status s = TableStore::Open(dir, corvida::store::StoreOptions(), &store);
        if (s.IsBusy()) {
            std::printf("busy\n");
            continue;
        }
        std::unique_ptr<Table> table;
        if (s.ok()) s = store->OpenTable(Player3::default_instance(), nullptr, &table);
        if (s.ok()) {
            Player3 player;
            player.set_zone(static_cast<int32_t>(getpid() % 1000));
            player.set_uid(static_cast<uint64_t>(i));
            player.set_level(i % 5);
            s = table->Put(player);
        }
        if (!s.ok()) return Fail("race", s);
        std::printf("ok\n");
    }
    return 0;
}

int Upgrade(const std::string& dir) {
    bool upgraded = false;
    const Status s = corvida::store::UpgradeStore(dir, corvida::store::StoreOptions(), &upgraded);
    if (!s.ok()) return Fail("upgrade", s);
    std::printf(upgraded ? "upgraded\n" : "current\n");
    return 0;
}

// Writes records of the table until stop is set: puts, updates of the level
// and deletes of random records, so that the back-fill meets them.
void WriteBeside(Table* table, corvida_store_test::SchemaVersion* version, const std::atomic<bool>* stop) {
    std::mt19937_64 rng(std::random_device{}());
    for (uint64_t n = 0; !*stop; ++n) {
        const uint64_t id = rng() % (corvida_store_test::kBuildRecords + 500) + 1;
        const std::string text = corvida_store_test::BuildRowText(id, rng());
        Status s;
        switch (rng() % 4) {
            case 0: s = table->Delete(*version->Parse(corvida_store_test::kBuildTable, text)); break;
            case 1: s = table->Update(*version->Parse(corvida_store_test::kBuildTable, text), {"level"}); break;
            default: s = table->Put(*version->Parse(corvida_store_test::kBuildTable, text)); break;
        }
        if (!s.ok() && !s.IsNotFound()) {
            Fail("write beside the build", s);
            std::exit(1);
        }
    }
}

int Build(const std::string& dir) {
    std::unique_ptr<TableStore> store;
    Status s = corvida_store_test::OpenStore(dir, &store, true);
    if (!s.ok()) return Fail("open", s);
    corvida::store::TableDescription described;
    s = store->DescribeTable(corvida_store_test::kBuildTable, &described);
    if (!s.ok()) return Fail("describe", s);
    bool with_index = false;
    for (const corvida::store::IndexDescription& index : described.indexes) {
        with_index = with_index || (index.name == corvida_store_test::kBuildIndex &&
                                    index.state != corvida::store::IndexState::kDropping);
    }
    corvida_store_test::SchemaVersion version(corvida_store_test::BuildTableProto(with_index));
    std::unique_ptr<Table> table;
    s = store->OpenTable(version.Prototype(corvida_store_test::kBuildTable), nullptr, &table);
    if (!s.ok()) return Fail("open table", s);
    std::atomic<bool> stop{false};
    std::thread writer(WriteBeside, table.get(), &version, &stop);
    s = store->BuildIndex(corvida_store_test::kBuildTable, corvida_store_test::kBuildIndex, nullptr,
                          [](uint64_t done, uint64_t total) {
                              std::printf("%llu %llu\n", static_cast<unsigned long long>(done),
                                          static_cast<unsigned long long>(total));
                              std::fflush(stdout);
                              return true;
                          });
    if (!s.ok()) {
        Fail("build", s);
        std::exit(1);
    }
    std::printf("finished\n");
    std::fflush(stdout);
    writer.join();  // never returns: the process is killed
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "race") == 0) return Race(argv[2], std::atoi(argv[3]));
    if (argc == 3 && std::strcmp(argv[1], "upgrade") == 0) return Upgrade(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "write") == 0) return Write(argv[2], std::strtoull(argv[3], nullptr, 10));
    if (argc == 4 && std::strcmp(argv[1], "bulk") == 0) {
        return WriteInCalls(argv[2], std::strtoull(argv[3], nullptr, 10));
    }
    if (argc == 3 && std::strcmp(argv[1], "open") == 0) {
        std::unique_ptr<TableStore> store;
        const Status s = TableStore::Open(argv[2], corvida::store::StoreOptions(), &store);
        std::printf("%s\n", s.ToString().c_str());
        return s.ok() ? 0 : s.IsBusy() ? 3 : 1;
    }
    if (argc == 3 && std::strcmp(argv[1], "build") == 0) return Build(argv[2]);
    if (argc == 6 && std::strcmp(argv[1], "shared") == 0) {
        return Shared(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10), std::atof(argv[5]));
    }
    if (argc == 4 && std::strcmp(argv[1], "read") == 0) return Read(argv[2], std::atoi(argv[3]));
    std::fprintf(stderr,
                 "usage: store_writer write DIR START | bulk DIR START | open DIR | race DIR N | upgrade DIR | build DIR | "
                 "shared WHERE W N SECONDS | read WHERE ROUNDS\n");
    return 2;
}
