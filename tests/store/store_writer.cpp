// The other process of the store's tests.
//
//   store_writer write DIR START   opens (creating) the store in DIR with sync
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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crash_ops.h"
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

}  // namespace

int main(int argc, char** argv) {
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
    std::fprintf(stderr, "usage: store_writer write DIR START | bulk DIR START | open DIR\n");
    return 2;
}
