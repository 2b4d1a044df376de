// Value sets: FillValueSetWithMsg and FillMsgFromField over 1, 8 and 32 paths
// of a BenchRecord, next to protobuf doing the same work on the same fields:
//   - BM_Baseline_SerializeFields: protobuf's field serializer writing those
//     fields, found beforehand, one after another into one buffer;
//   - BM_Baseline_ParseFromArray: generated code parsing a message that holds
//     exactly those fields;
// and next to what an application would write without this library:
//   - BM_Peer_TrimAndSerialize: a FieldMask of the same paths (built once),
//     FieldMaskUtil::TrimMessage on a copy of the record, one serialization;
//   - BM_Peer_ParseAndMergeTo: the fields' bytes parsed into a scratch message
//     and FieldMaskUtil::MergeMessageTo with replace options into the target.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <google/protobuf/field_mask.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/util/field_mask_util.h>
#include <google/protobuf/wire_format.h>

#include "bench_support.h"
#include "bench_tables.pb.h"
#include "bench_tables2.pb.h"
#include "common/pb_value_set_buffer.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_bench {
namespace {

using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::FieldDescriptor;
using google::protobuf::FieldMask;
using google::protobuf::Message;
using google::protobuf::internal::WireFormat;
using google::protobuf::io::ArrayOutputStream;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::util::FieldMaskUtil;

namespace b2 = corvida::bench2;
namespace b3 = corvida::bench;

// Room for every field of a BenchRecord.
constexpr int kFieldBufferSize = 64 * 1024;

// The value-set layout FillValueSetWithMsg writes.
constexpr int kValueSetVersion = 1;

// One requested field: the message that holds it and its descriptor.
using FieldRef = std::pair<const Message*, const FieldDescriptor*>;

// The fields named by the dotted paths, in the set's order, found the way an
// application that knows its fields would find them: once.
std::vector<FieldRef> Resolve(const Message& msg, const std::set<std::string>& paths) {
    std::vector<FieldRef> refs;
    for (const std::string& path : paths) {
        const Message* holder = &msg;
        size_t begin = 0;
        for (size_t dot = path.find('.'); dot != std::string::npos; dot = path.find('.', begin)) {
            const FieldDescriptor* field = holder->GetDescriptor()->FindFieldByName(path.substr(begin, dot - begin));
            holder = &holder->GetReflection()->GetMessage(*holder, field);
            begin = dot + 1;
        }
        refs.emplace_back(holder, holder->GetDescriptor()->FindFieldByName(path.substr(begin)));
    }
    return refs;
}

// Protobuf's field serializer writing the fields one after another into buf.
// Returns the number of bytes written.
int SerializeFields(const std::vector<FieldRef>& refs, uint8_t* buf, int size) {
    ArrayOutputStream array(buf, size);
    CodedOutputStream output(&array);
    for (const FieldRef& ref : refs) WireFormat::SerializeFieldWithCachedSizes(ref.second, *ref.first, &output);
    output.Trim();
    return static_cast<int>(output.ByteCount());
}

// The records of a value set, read back.
std::vector<PbValueSetBuffer::Field> FieldsOf(const ProtobufValueSet_& set) {
    std::vector<PbValueSetBuffer::Field> fields;
    PbValueSetBuffer reader(&set, kValueSetVersion, nullptr);
    reader.GetFields(fields);
    return fields;
}

// The bytes of all records of a value set, concatenated in record order.
std::string RecordBytes(const std::vector<PbValueSetBuffer::Field>& fields) {
    std::string bytes;
    for (const PbValueSetBuffer::Field& field : fields) bytes.append(field.buf, field.buf_len);
    return bytes;
}

std::set<std::string> KeyNames(const Message& msg) {
    std::set<std::string> names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(msg, names);
    return names;
}

template <typename Record>
void BM_FillValueSetWithMsg(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    Record msg;
    FillRecord(&msg);
    const std::set<std::string> keys = KeyNames(msg);
    const std::set<std::string> paths = RecordPaths(count);
    const std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
    QuietLog log;
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        ret |= PROTOBUF_UTIL::FillValueSetWithMsg(&msg, keys, paths, *set, log.category());
        benchmark::DoNotOptimize(set.get());
    }
    ReportAllocations(state, before);

    // Each record holds exactly what protobuf's field serializer writes.
    const std::vector<PbValueSetBuffer::Field> fields = FieldsOf(*set);
    std::string expected(kFieldBufferSize, '\0');
    expected.resize(SerializeFields(Resolve(msg, paths), reinterpret_cast<uint8_t*>(&expected[0]), kFieldBufferSize));
    if (ret != 0) {
        Fail(state, "result " + std::to_string(ret));
    } else if (static_cast<int>(fields.size()) != count || RecordBytes(fields) != expected) {
        Fail(state, "the value set differs from protobuf's serialization of the fields");
    } else if (log.lines() != 0) {
        Fail(state, "a line was logged");
    }
}

template <typename Record>
void BM_Baseline_SerializeFields(benchmark::State& state) {
    Record msg;
    FillRecord(&msg);
    const std::vector<FieldRef> refs = Resolve(msg, RecordPaths(static_cast<int>(state.range(0))));
    std::vector<uint8_t> buf(kFieldBufferSize);
    const long before = Allocations();
    for (auto _ : state) {
        benchmark::DoNotOptimize(SerializeFields(refs, buf.data(), kFieldBufferSize));
    }
    ReportAllocations(state, before);
}

// The records that FillMsgFromField merges come from a value set that
// FillValueSetWithMsg cut out of a full record; the target starts empty and is
// reused, as the baseline's message is.
template <typename Record>
void BM_FillMsgFromField(benchmark::State& state) {
    Record source;
    FillRecord(&source);
    const std::set<std::string> paths = RecordPaths(static_cast<int>(state.range(0)));
    const std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
    QuietLog log;
    if (PROTOBUF_UTIL::FillValueSetWithMsg(&source, KeyNames(source), paths, *set, log.category()) != 0) {
        Fail(state, "cannot cut the value set");
        return;
    }
    std::vector<PbValueSetBuffer::Field> fields = FieldsOf(*set);
    Record msg;
    std::set<std::string> failed;
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        ret |= PROTOBUF_UTIL::FillMsgFromField(fields, failed, &msg, nullptr, 0, log.category());
        benchmark::DoNotOptimize(&msg);
    }
    ReportAllocations(state, before);

    if (ret != 0 || !failed.empty()) {
        Fail(state, "result " + std::to_string(ret) + ", failed paths " + std::to_string(failed.size()));
    } else if (msg.SerializeAsString() != SubsetOf(source, paths)->SerializeAsString()) {
        Fail(state, "the merged message differs from the fields cut");
    } else if (log.lines() != 0) {
        Fail(state, "a line was logged");
    }
}

template <typename Record>
void BM_Baseline_ParseFromArray(benchmark::State& state) {
    Record source;
    FillRecord(&source);
    const std::string bytes = SubsetOf(source, RecordPaths(static_cast<int>(state.range(0))))->SerializeAsString();
    Record msg;
    bool ok = true;
    const long before = Allocations();
    for (auto _ : state) {
        ok &= msg.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
        benchmark::DoNotOptimize(&msg);
    }
    ReportAllocations(state, before);
    if (!ok || msg.SerializeAsString() != bytes) Fail(state, "ParseFromArray failed");
}

// The field mask of the dotted paths.
FieldMask MaskOf(const std::set<std::string>& paths) {
    FieldMask mask;
    for (const std::string& path : paths) mask.add_paths(path);
    return mask;
}

// The record cut down to the paths' fields, then serialized once.
template <typename Record>
void BM_Peer_TrimAndSerialize(benchmark::State& state) {
    Record msg;
    FillRecord(&msg);
    const std::set<std::string> paths = RecordPaths(static_cast<int>(state.range(0)));
    const FieldMask mask = MaskOf(paths);
    std::vector<uint8_t> buf(kFieldBufferSize);
    int size = 0;
    const long before = Allocations();
    for (auto _ : state) {
        Record copy(msg);
        FieldMaskUtil::TrimMessage(mask, &copy);
        size = static_cast<int>(copy.ByteSizeLong());
        copy.SerializeWithCachedSizesToArray(buf.data());
        benchmark::DoNotOptimize(buf.data());
    }
    ReportAllocations(state, before);
    if (std::string(reinterpret_cast<const char*>(buf.data()), static_cast<size_t>(size)) !=
        SubsetOf(msg, paths)->SerializeAsString()) {
        Fail(state, "the trimmed record differs from the fields cut");
    }
}

// The fields' bytes parsed into a scratch message and merged into the target,
// each field of the mask replacing the target's.
template <typename Record>
void BM_Peer_ParseAndMergeTo(benchmark::State& state) {
    Record source;
    FillRecord(&source);
    const std::set<std::string> paths = RecordPaths(static_cast<int>(state.range(0)));
    const std::string bytes = SubsetOf(source, paths)->SerializeAsString();
    const FieldMask mask = MaskOf(paths);
    FieldMaskUtil::MergeOptions options;
    options.set_replace_message_fields(true);
    options.set_replace_repeated_fields(true);
    Record scratch;
    Record msg;
    bool ok = true;
    const long before = Allocations();
    for (auto _ : state) {
        ok &= scratch.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
        FieldMaskUtil::MergeMessageTo(scratch, mask, options, &msg);
        benchmark::DoNotOptimize(&msg);
    }
    ReportAllocations(state, before);
    if (!ok || msg.SerializeAsString() != bytes) Fail(state, "the merged message differs from the fields cut");
}

void PathCounts(benchmark::internal::Benchmark* b) { b->Arg(1)->Arg(8)->Arg(32); }

}  // namespace

void RegisterValueSetBenchmarks() {
    Register("BM_FillValueSetWithMsg/proto3", BM_FillValueSetWithMsg<b3::BenchRecord>)->Apply(PathCounts);
    Register("BM_FillValueSetWithMsg/proto2", BM_FillValueSetWithMsg<b2::BenchRecord>)->Apply(PathCounts);
    Register("BM_Baseline_SerializeFields/proto3", BM_Baseline_SerializeFields<b3::BenchRecord>)->Apply(PathCounts);
    Register("BM_Baseline_SerializeFields/proto2", BM_Baseline_SerializeFields<b2::BenchRecord>)->Apply(PathCounts);
    Register("BM_FillMsgFromField/proto3", BM_FillMsgFromField<b3::BenchRecord>)->Apply(PathCounts);
    Register("BM_FillMsgFromField/proto2", BM_FillMsgFromField<b2::BenchRecord>)->Apply(PathCounts);
    Register("BM_Baseline_ParseFromArray/proto3", BM_Baseline_ParseFromArray<b3::BenchRecord>)->Apply(PathCounts);
    Register("BM_Baseline_ParseFromArray/proto2", BM_Baseline_ParseFromArray<b2::BenchRecord>)->Apply(PathCounts);
    Register("BM_Peer_TrimAndSerialize/proto3", BM_Peer_TrimAndSerialize<b3::BenchRecord>)->Apply(PathCounts);
    Register("BM_Peer_TrimAndSerialize/proto2", BM_Peer_TrimAndSerialize<b2::BenchRecord>)->Apply(PathCounts);
    Register("BM_Peer_ParseAndMergeTo/proto3", BM_Peer_ParseAndMergeTo<b3::BenchRecord>)->Apply(PathCounts);
    Register("BM_Peer_ParseAndMergeTo/proto2", BM_Peer_ParseAndMergeTo<b2::BenchRecord>)->Apply(PathCounts);
}

}  // namespace corvida_bench
