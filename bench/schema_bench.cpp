// Schema loading: FillMessageGroup and GetMetaAndCompare over the blob a
// server sends for a BenchRecord table (the option file and the table file),
// next to building the same descriptor pool directly from the
// FileDescriptorSet (BM_Baseline_BuildPool).
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include "bench_support.h"
#include "bench_tables.pb.h"
#include "bench_tables2.pb.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_bench {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;

namespace b2 = corvida::bench2;
namespace b3 = corvida::bench;

constexpr char kTableName[] = "BenchRecord";

// The server's schema blob of a table: the option file and the table's own
// file, as a serialized FileDescriptorSet. The built-in descriptor.proto,
// which the option file imports, is not sent.
std::string SchemaBlob(const Descriptor* table) {
    FileDescriptorSet set;
    const FileDescriptor* file = table->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

template <typename Record>
void BM_FillMessageGroup(benchmark::State& state) {
    const std::string blob = SchemaBlob(Record::descriptor());
    QuietLog log;
    bool ok = true;
    std::vector<int> keyTags;
    const long before = Allocations();
    for (auto _ : state) {
        PROTOBUF_UTIL::MsgDescGroup group;
        ok &= PROTOBUF_UTIL::FillMessageGroup(kTableName, blob, &group, log.category()) != nullptr;
        keyTags.swap(group.vecKeyTag);
    }
    ReportAllocations(state, before);
    if (!ok || keyTags != std::vector<int>{1, 2, 3}) {
        Fail(state, "the table was not loaded");
    } else if (log.lines() != 0) {
        Fail(state, "a line was logged");
    }
}

template <typename Record>
void BM_GetMetaAndCompare(benchmark::State& state) {
    const std::string blob = SchemaBlob(Record::descriptor());
    QuietLog log;
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        ret |= PROTOBUF_UTIL::GetMetaAndCompare(kTableName, blob, Record::descriptor(), log.category());
    }
    ReportAllocations(state, before);
    if (ret != 0) {
        Fail(state, "result " + std::to_string(ret));
    } else if (log.lines() != 0) {
        Fail(state, "a line was logged");
    }
}

// The pool an application would build itself: parse the set, build
// descriptor.proto (copied from the runtime, as the server does not send it)
// and then the blob's files in order, and find the table's type.
template <typename Record>
void BM_Baseline_BuildPool(benchmark::State& state) {
    const std::string blob = SchemaBlob(Record::descriptor());
    const std::string& full_name = Record::descriptor()->full_name();
    bool ok = true;
    const long before = Allocations();
    for (auto _ : state) {
        FileDescriptorSet set;
        ok &= set.ParseFromString(blob);
        FileDescriptorProto base;
        FileDescriptorProto::descriptor()->file()->CopyTo(&base);
        DescriptorPool pool;
        ok &= pool.BuildFile(base) != nullptr;
        for (const FileDescriptorProto& file : set.file()) ok &= pool.BuildFile(file) != nullptr;
        ok &= pool.FindMessageTypeByName(full_name) != nullptr;
    }
    ReportAllocations(state, before);
    if (!ok) Fail(state, "the pool was not built");
}

}  // namespace

void RegisterSchemaBenchmarks() {
    Register("BM_FillMessageGroup/proto3", BM_FillMessageGroup<b3::BenchRecord>);
    Register("BM_FillMessageGroup/proto2", BM_FillMessageGroup<b2::BenchRecord>);
    Register("BM_GetMetaAndCompare/proto3", BM_GetMetaAndCompare<b3::BenchRecord>);
    Register("BM_GetMetaAndCompare/proto2", BM_GetMetaAndCompare<b2::BenchRecord>);
    Register("BM_Baseline_BuildPool/proto3", BM_Baseline_BuildPool<b3::BenchRecord>);
    Register("BM_Baseline_BuildPool/proto2", BM_Baseline_BuildPool<b2::BenchRecord>);
}

}  // namespace corvida_bench
