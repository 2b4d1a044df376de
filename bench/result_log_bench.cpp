// The small per-call costs:
//   - FieldValue2GenericValue for an int64 and a string column, next to
//     reading the column with its getter (BM_Baseline_FieldGetter);
//   - a log line that the category rejects, whose arguments would cost
//     microseconds if they were evaluated, next to asking the logging
//     library once (BM_Baseline_CategoryTest);
//   - binding a PbValueSetBuffer to a 44 MB value set and emptying it, which
//     must cost the same whatever the set's size: the counter "rss_kib" shows
//     how much of the set became resident.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "bench_support.h"
#include "bench_tables.pb.h"
#include "common/corvida_service_field.h"
#include "common/pb_value_set_buffer.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_log.h"

namespace corvida_bench {
namespace {

using NS_CORVIDA_PROTOBUF_API::GenericValue;

constexpr int64_t kInt64Value = 1732240000123;
constexpr char kStringValue[] = "north_keeper@example.org";

// Size of tagtbl_idl::szValue, the buffer string values pass through.
constexpr int32_t kStringBufferSize = static_cast<int32_t>(sizeof(tagtbl_idl::szValue));

CorvidaService::Field ColumnOf(CorvidaService::FieldTypeEnum type) {
    CorvidaService::Field field;
    if (type == CorvidaService::TYPE_INT64) {
        field.SetInt64(kInt64Value);
    } else {
        field.SetString(kStringValue);
    }
    return field;
}

bool Holds(const GenericValue& value, CorvidaService::FieldTypeEnum type) {
    if (type == CorvidaService::TYPE_INT64) {
        return value.m_type == GenericValue::TYPE_INT64 && value.m_int64_ == kInt64Value;
    }
    // The whole buffer is kept; the value ends at its first NUL.
    return value.m_type == GenericValue::TYPE_STRING && value.m_string_.size() == sizeof(tagtbl_idl::szValue) &&
           std::strcmp(value.m_string_.c_str(), kStringValue) == 0;
}

void BM_FieldValue2GenericValue(benchmark::State& state, CorvidaService::FieldTypeEnum type) {
    CorvidaService::Field column = ColumnOf(type);
    GenericValue value;
    QuietLog log;
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        ret |= PROTOBUF_UTIL::FieldValue2GenericValue(SharedIdl(), &column, value, log.category());
        benchmark::DoNotOptimize(&value);
    }
    ReportAllocations(state, before);
    if (ret != 0 || !Holds(value, type)) {
        Fail(state, "result " + std::to_string(ret));
    } else if (log.lines() != 0) {
        Fail(state, "a line was logged");
    }
}

// What a caller pays to read the column itself: the virtual getter, and for
// a string the text copied into a std::string.
void BM_Baseline_FieldGetter(benchmark::State& state, CorvidaService::FieldTypeEnum type) {
    CorvidaService::Field column = ColumnOf(type);
    CorvidaService::Field* field = &column;
    benchmark::DoNotOptimize(field);
    char* text = reinterpret_cast<char*>(SharedIdl()->szValue);
    int64_t number = 0;
    std::string value;
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        if (type == CorvidaService::TYPE_INT64) {
            ret |= field->GetInt64(number);
            benchmark::DoNotOptimize(number);
        } else {
            ret |= field->GetString(text, kStringBufferSize);
            value.assign(text);
            benchmark::DoNotOptimize(&value);
        }
    }
    ReportAllocations(state, before);
    if (ret != 0) Fail(state, "getter failed");
}

void BM_DisabledLogLine(benchmark::State& state) {
    QuietLog log;
    const google::protobuf::Descriptor* desc = corvida::bench::BenchRecord::descriptor();
    long evaluated = 0;
    const long before = Allocations();
    for (auto _ : state) {
        PBU_LOG_TRACE(log.category(), "n:%ld lastDesc:%s", ++evaluated, desc->DebugString().c_str());
    }
    ReportAllocations(state, before);
    if (evaluated != 0 || log.lines() != 0) Fail(state, "the rejected line was evaluated");
}

void BM_Baseline_CategoryTest(benchmark::State& state) {
    QuietLog log;
    for (auto _ : state) {
        benchmark::DoNotOptimize(plog_category_can_write(log.category(), PLOG_PRIORITY_TRACE, 0, 0));
    }
}

void BM_ValueSetBufferReset(benchmark::State& state, int version) {
    const long resident_before = ResidentKiB();
    const std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
    QuietLog log;
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        CorvidaCommon::PbValueSetBuffer vsb(set.get(), version, log.category());
        ret |= vsb.ResetFieldNum();
        benchmark::DoNotOptimize(set.get());
    }
    ReportAllocations(state, before);
    state.counters["rss_kib"] = static_cast<double>(ResidentKiB() - resident_before);
    state.counters["set_kib"] = static_cast<double>(sizeof(ProtobufValueSet_) / 1024);
    if (ret != 0) Fail(state, "result " + std::to_string(ret));
}

}  // namespace

void RegisterResultAndLogBenchmarks() {
    Register("BM_FieldValue2GenericValue/int64", BM_FieldValue2GenericValue, CorvidaService::TYPE_INT64);
    Register("BM_FieldValue2GenericValue/string", BM_FieldValue2GenericValue, CorvidaService::TYPE_STRING);
    Register("BM_Baseline_FieldGetter/int64", BM_Baseline_FieldGetter, CorvidaService::TYPE_INT64);
    Register("BM_Baseline_FieldGetter/string", BM_Baseline_FieldGetter, CorvidaService::TYPE_STRING);
    Register("BM_DisabledLogLine", BM_DisabledLogLine);
    Register("BM_Baseline_CategoryTest", BM_Baseline_CategoryTest);
    Register("BM_ValueSetBufferReset/v0", BM_ValueSetBufferReset, 0);
    Register("BM_ValueSetBufferReset/v1", BM_ValueSetBufferReset, 1);
}

}  // namespace corvida_bench
