#include "bench_support.h"

#include "support/allocation_counter.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <google/protobuf/descriptor.h>

namespace corvida_bench {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

int g_failures = 0;

// Sets the scalar field `name` of msg from an integer, whatever its integer
// type (enum values by number).
void SetInteger(Message* msg, const char* name, int64_t value) {
    const FieldDescriptor* field = msg->GetDescriptor()->FindFieldByName(name);
    const Reflection* r = msg->GetReflection();
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: r->SetInt32(msg, field, static_cast<int32_t>(value)); break;
        case FieldDescriptor::CPPTYPE_INT64: r->SetInt64(msg, field, value); break;
        case FieldDescriptor::CPPTYPE_UINT32: r->SetUInt32(msg, field, static_cast<uint32_t>(value)); break;
        case FieldDescriptor::CPPTYPE_UINT64: r->SetUInt64(msg, field, static_cast<uint64_t>(value)); break;
        case FieldDescriptor::CPPTYPE_BOOL: r->SetBool(msg, field, value != 0); break;
        case FieldDescriptor::CPPTYPE_ENUM: r->SetEnumValue(msg, field, static_cast<int>(value)); break;
        default: std::abort();  // the tables have no other integer fields
    }
}

void SetReal(Message* msg, const char* name, double value) {
    const FieldDescriptor* field = msg->GetDescriptor()->FindFieldByName(name);
    const Reflection* r = msg->GetReflection();
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_FLOAT) {
        r->SetFloat(msg, field, static_cast<float>(value));
    } else {
        r->SetDouble(msg, field, value);
    }
}

void SetText(Message* msg, const char* name, const std::string& value) {
    msg->GetReflection()->SetString(msg, msg->GetDescriptor()->FindFieldByName(name), value);
}

Message* Sub(Message* msg, const char* name) {
    return msg->GetReflection()->MutableMessage(msg, msg->GetDescriptor()->FindFieldByName(name));
}

// Bytes 0, 1, 2, ... of the given length, standing for an image or a hash.
std::string Blob(size_t n) {
    std::string blob(n, '\0');
    for (size_t i = 0; i < n; ++i) blob[i] = static_cast<char>(i * 7);
    return blob;
}

}  // namespace

QuietLog::QuietLog() {
    plog_category_init(&m_category, "corvida_bench", PLOG_PRIORITY_ERROR);
    m_category.pfnWrite = &QuietLog::Sink;
    m_category.pvWriteCtx = this;
}

void QuietLog::Sink(void* ctx, const PLOGEVENT* /*event*/, const char* /*msg*/, size_t /*len*/) {
    ++static_cast<QuietLog*>(ctx)->m_lines;
}

benchmark::internal::Benchmark* FixIterations(benchmark::internal::Benchmark* b) {
    const char* text = std::getenv("CORVIDA_BENCH_ITERATIONS");
    const long iterations = text != nullptr ? std::atol(text) : 0;
    return iterations > 0 ? b->Iterations(iterations) : b;
}

long Allocations() { return corvida_test::AllocationCount(); }

void Fail(benchmark::State& state, const std::string& why) {
    ++g_failures;
    state.SkipWithError(why.c_str());
}

int Failures() { return g_failures; }

void ReportAllocations(benchmark::State& state, long before) {
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(Allocations() - before), benchmark::Counter::kAvgIterations);
}

long ResidentKiB() {
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0;
    long size = 0;
    long resident = 0;
    const int n = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    return n == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : 0;
}

tagtbl_idl* SharedIdl() {
    static tagtbl_idl* const idl = new tagtbl_idl;  // lives as long as the process
    return idl;
}

std::unique_ptr<ProtobufValueSet_> NewValueSet() {
    std::unique_ptr<ProtobufValueSet_> set(new ProtobufValueSet_);
    set->construct();
    return set;
}

void FillRecord(Message* msg) {
    SetInteger(msg, "id", 42);
    SetText(msg, "name", "player-00042");
    SetInteger(msg, "stamp", 1732240000123);

    Message* profile = Sub(msg, "profile");
    SetInteger(profile, "age", 29);
    SetText(profile, "nickname", "north_keeper");
    SetText(profile, "country", "SE");
    SetInteger(profile, "verified", 1);
    SetInteger(profile, "friends", 311);
    SetReal(profile, "height", 1.83);
    SetInteger(profile, "created", 1600000000);
    SetText(profile, "portrait", Blob(32));

    Message* counters = Sub(msg, "counters");
    SetInteger(counters, "logins", 1234);
    SetInteger(counters, "purchases", 56);
    SetReal(counters, "win_rate", 0.61);
    SetInteger(counters, "streak", -3);
    SetInteger(counters, "rank", 17);
    SetInteger(counters, "experience", 9876543210);
    SetInteger(counters, "playtime", 360000);
    SetInteger(counters, "tier", 1);

    SetInteger(msg, "level", 57);
    SetInteger(msg, "score", 98231);
    SetReal(msg, "balance", 1234.5);
    SetReal(msg, "ratio", 0.75);
    SetInteger(msg, "active", 1);
    SetInteger(msg, "flags", 0x15);
    SetInteger(msg, "visits", 8123);
    SetInteger(msg, "tier", 2);
    SetText(msg, "title", "Keeper of the Northern Gate");
    SetText(msg, "motto", "Fortune favours the bold");
    SetText(msg, "avatar", Blob(64));
    SetInteger(msg, "region", -12);
    SetInteger(msg, "delta", -99999);
    SetInteger(msg, "checksum", 0x1234567890abcdefLL);
    SetInteger(msg, "version", 7);
    SetInteger(msg, "updated", 1732240100456);
    // Value sets are cut with cached sizes.
    msg->ByteSizeLong();
}

std::set<std::string> RecordPaths(int count) {
    // The first eight are the 8-path set: a typical partial update.
    static const char* const kPaths[] = {
        "level",
        "score",
        "balance",
        "title",
        "profile.nickname",
        "profile.age",
        "counters.logins",
        "counters.tier",
        "ratio",
        "active",
        "flags",
        "visits",
        "tier",
        "motto",
        "avatar",
        "region",
        "delta",
        "checksum",
        "version",
        "updated",
        "profile.country",
        "profile.verified",
        "profile.friends",
        "profile.height",
        "profile.created",
        "profile.portrait",
        "counters.purchases",
        "counters.win_rate",
        "counters.streak",
        "counters.rank",
        "counters.experience",
        "counters.playtime",
    };
    static_assert(sizeof(kPaths) / sizeof(kPaths[0]) == 32, "a BenchRecord has 32 non-key leaf paths");
    std::set<std::string> paths;
    for (int i = 0; i < count && i < 32; ++i) paths.insert(kPaths[i]);
    return paths;
}

void CopyField(const Message& from, const FieldDescriptor* field, Message* to) {
    const Reflection* src = from.GetReflection();
    const Reflection* dst = to->GetReflection();
    if (!src->HasField(from, field)) return;
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: dst->SetInt32(to, field, src->GetInt32(from, field)); break;
        case FieldDescriptor::CPPTYPE_INT64: dst->SetInt64(to, field, src->GetInt64(from, field)); break;
        case FieldDescriptor::CPPTYPE_UINT32: dst->SetUInt32(to, field, src->GetUInt32(from, field)); break;
        case FieldDescriptor::CPPTYPE_UINT64: dst->SetUInt64(to, field, src->GetUInt64(from, field)); break;
        case FieldDescriptor::CPPTYPE_DOUBLE: dst->SetDouble(to, field, src->GetDouble(from, field)); break;
        case FieldDescriptor::CPPTYPE_FLOAT: dst->SetFloat(to, field, src->GetFloat(from, field)); break;
        case FieldDescriptor::CPPTYPE_BOOL: dst->SetBool(to, field, src->GetBool(from, field)); break;
        case FieldDescriptor::CPPTYPE_ENUM: dst->SetEnumValue(to, field, src->GetEnumValue(from, field)); break;
        case FieldDescriptor::CPPTYPE_STRING: dst->SetString(to, field, src->GetString(from, field)); break;
        case FieldDescriptor::CPPTYPE_MESSAGE:
            dst->MutableMessage(to, field)->CopyFrom(src->GetMessage(from, field));
            break;
    }
}

std::unique_ptr<Message> SubsetOf(const Message& msg, const std::set<std::string>& paths) {
    std::unique_ptr<Message> subset(msg.New());
    for (const std::string& path : paths) {
        const Message* from = &msg;
        Message* to = subset.get();
        size_t begin = 0;
        for (size_t dot = path.find('.'); dot != std::string::npos; dot = path.find('.', begin)) {
            const FieldDescriptor* field = from->GetDescriptor()->FindFieldByName(path.substr(begin, dot - begin));
            from = &from->GetReflection()->GetMessage(*from, field);
            to = to->GetReflection()->MutableMessage(to, field);
            begin = dot + 1;
        }
        CopyField(*from, from->GetDescriptor()->FindFieldByName(path.substr(begin)), to);
    }
    return subset;
}

}  // namespace corvida_bench
