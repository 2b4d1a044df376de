// corvida_index_build_bench: what an index built online costs, next to what
// writing the records it indexes cost.
//
//   corvida_index_build_bench [RECORDS]      (default 1000000)
//
// Puts RECORDS BenchRecords (21 fields, as corvida_store_bench writes them)
// one call each into a new store in a temporary directory (sync off); alters
// the table to add the index by_score(score) and builds it with BuildIndex;
// then drops the index and removes its entries. Prints the records (or
// entries) per second of each step and how the back-fill compares with the
// puts. Exits non-zero when a step fails or the built index does not find
// what it should. CTest runs it once on a tiny table.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include "bench_support.h"
#include "bench_tables.pb.h"
#include "corvidaservice.optionv1.pb.h"
#include "store/table_store.h"

namespace {

using corvida::bench::BenchRecord;
using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using Clock = std::chrono::steady_clock;

// The schema blob of BenchRecord's file, with extra_index declared besides
// its own (none when empty).
std::string Blob(const std::string& extra_index) {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = BenchRecord::descriptor()->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    google::protobuf::FileDescriptorProto* proto = set.add_file();
    file->CopyTo(proto);
    for (auto& message : *proto->mutable_message_type()) {
        if (message.name() == "BenchRecord" && !extra_index.empty()) {
            message.mutable_options()->AddExtension(corvidaservice::corvida_index, extra_index);
        }
    }
    return set.SerializeAsString();
}

BenchRecord RecordNumber(uint64_t i) {
    BenchRecord record;
    corvida_bench::FillRecord(&record);
    record.set_id(static_cast<int32_t>(i + 1));
    record.set_level(static_cast<int32_t>(i % 100));
    record.set_score(static_cast<int64_t>(i % 1000));
    record.ByteSizeLong();
    return record;
}

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void Report(const char* what, uint64_t n, const char* things, double seconds) {
    std::printf("%-32s %10llu %s in %8.2f s  %10.0f %s/s  (%.2f us each)\n", what, static_cast<unsigned long long>(n),
                things, seconds, n / seconds, things, seconds * 1e6 / n);
}

bool Check(const Status& s, const char* what) {
    if (s.ok()) return true;
    std::fprintf(stderr, "corvida_index_build_bench: %s: %s\n", what, s.ToString().c_str());
    return false;
}

int Run(const std::string& dir, uint64_t records) {
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    std::unique_ptr<TableStore> store;
    if (!Check(TableStore::Open(dir, options, &store), "open") ||
        !Check(store->CreateTable(Blob(""), "BenchRecord"), "create")) {
        return 1;
    }
    std::unique_ptr<Table> table;
    if (!Check(store->OpenTable(BenchRecord::default_instance(), nullptr, &table), "open table")) return 1;
    std::printf("corvida_index_build_bench: %llu BenchRecords, sync off\n", static_cast<unsigned long long>(records));

    Clock::time_point start = Clock::now();
    for (uint64_t i = 0; i < records; ++i) {
        if (!Check(table->Put(RecordNumber(i)), "put")) return 1;
    }
    const double put_seconds = Since(start);
    Report("put, one record per call", records, "records", put_seconds);

    AlterPlan plan;
    start = Clock::now();
    if (!Check(store->AlterTable(Blob("by_score(score)"), "BenchRecord", AlterOptions(), &plan), "alter")) return 1;
    Report("alter (decide and count)", records, "records", Since(start));
    start = Clock::now();
    if (!Check(store->BuildIndex("BenchRecord", "by_score", nullptr, nullptr), "build")) return 1;
    const double build_seconds = Since(start);
    Report("back-fill of the new index", records, "records", build_seconds);

    // The index finds every record of a score, for a client that declares it.
    table.reset();
    google::protobuf::DescriptorPool pool;
    google::protobuf::FileDescriptorProto descriptor_proto;  // which the option file imports
    google::protobuf::FileDescriptorProto::descriptor()->file()->CopyTo(&descriptor_proto);
    pool.BuildFile(descriptor_proto);
    google::protobuf::FileDescriptorSet files;
    files.ParseFromString(Blob("by_score(score)"));
    for (const auto& file : files.file()) pool.BuildFile(file);
    google::protobuf::DynamicMessageFactory factory(&pool);
    const google::protobuf::Message* altered =
        factory.GetPrototype(pool.FindMessageTypeByName(BenchRecord::descriptor()->full_name()));
    if (!Check(store->OpenTable(*altered, nullptr, &table), "open the altered table")) return 1;
    std::unique_ptr<google::protobuf::Message> wanted(altered->New());
    wanted->GetReflection()->SetInt64(wanted.get(), wanted->GetDescriptor()->FindFieldByName("score"), 7);
    uint64_t found = 0;
    if (!Check(table->CountIndex("by_score", *wanted, &found), "lookup")) return 1;
    table.reset();
    const uint64_t expected = records / 1000 + (records % 1000 > 7 ? 1 : 0);
    if (found != expected) {
        std::fprintf(stderr, "corvida_index_build_bench: by_score finds %llu records of score 7, not %llu\n",
                     static_cast<unsigned long long>(found), static_cast<unsigned long long>(expected));
        return 1;
    }

    start = Clock::now();
    if (!Check(store->AlterTable(Blob(""), "BenchRecord", AlterOptions(), &plan), "alter back") ||
        !Check(store->BuildIndex("BenchRecord", "by_score", nullptr, nullptr), "removal")) {
        return 1;
    }
    Report("removal of the dropped index", records, "entries", Since(start));
    std::printf("the back-fill indexes a record in %.2f of the time a put of it takes\n",
                build_seconds / put_seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each step's line as soon as it is done
    const uint64_t records = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
    if (argc > 2 || records == 0) {
        std::fprintf(stderr, "usage: corvida_index_build_bench [RECORDS]\n");
        return 2;
    }
    char dir[] = "/tmp/corvida-index-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    const int status = Run(std::string(dir) + "/store", records);
    std::filesystem::remove_all(dir);
    return status;
}
