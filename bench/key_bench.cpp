// Record keys: ExtractMsgKey and ExtractFieldKey next to
//   - the floor, generated code serializing a message that holds only the key
//     fields (BM_Baseline_KeyOnlySerialize);
//   - what an application would write without this library: copy the key
//     fields with reflection into a fresh message of the table's type and
//     serialize that (BM_Baseline_ReflectionKeyCopy);
// and ExtractMsgKey over a table whose string key field is encrypted with
// AES-SIV, next to the same key in plain.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "bench_tables.pb.h"
#include "bench_tables2.pb.h"
#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_bench {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using PROTOBUF_UTIL::CorvidaKVApi;
using PROTOBUF_UTIL::ProtobufUtil;

namespace b2 = corvida::bench2;
namespace b3 = corvida::bench;

// The key buffer: the service's szKey.
constexpr int32_t kKeyCapacity = 1024;

// The key field numbers of every bench table, for ExtractFieldKey.
const std::vector<int> kKeyNumbers = {1, 2, 3};

// The key as generated code writes it: a BenchKey with the record's key
// fields, which are all set, so both syntaxes write every one.
template <typename Key, typename Record>
Key KeyOf(const Record& msg) {
    Key key;
    key.set_id(msg.id());
    key.set_name(msg.name());
    key.set_stamp(msg.stamp());
    return key;
}

// Fails the benchmark unless every call succeeded with the floor's bytes and
// logged nothing.
void CheckKey(benchmark::State& state, int ret, const uint8_t* buf, int32_t size, const std::string& expected,
              const QuietLog& log) {
    if (ret != 0) {
        Fail(state, "result " + std::to_string(ret));
    } else if (std::string(reinterpret_cast<const char*>(buf), size) != expected) {
        Fail(state, "key bytes differ from generated code's");
    } else if (log.lines() != 0) {
        Fail(state, "a line was logged");
    }
}

// The timed loop of the key encoders: extract(buf, size) with size set to the
// key buffer's capacity before each call. Returns the results ORed together;
// buf and size hold the last key.
template <typename Extract>
int TimeKeyCalls(benchmark::State& state, uint8_t* buf, int32_t& size, Extract extract) {
    int ret = 0;
    const long before = Allocations();
    for (auto _ : state) {
        size = kKeyCapacity;
        ret |= extract(buf, size);
        benchmark::DoNotOptimize(buf);
    }
    ReportAllocations(state, before);
    return ret;
}

template <typename Record, typename Key>
void BM_ExtractMsgKey(benchmark::State& state) {
    Record msg;
    FillRecord(&msg);
    QuietLog log;
    uint8_t buf[kKeyCapacity];
    int32_t size = 0;
    const int ret = TimeKeyCalls(state, buf, size, [&](uint8_t* out, int32_t& len) {
        return ProtobufUtil::ExtractMsgKey(nullptr, msg, out, len, SharedIdl(), log.category(), true);
    });
    CheckKey(state, ret, buf, size, KeyOf<Key>(msg).SerializeAsString(), log);
}

template <typename Record, typename Key>
void BM_ExtractFieldKey(benchmark::State& state) {
    Record msg;
    FillRecord(&msg);
    QuietLog log;
    uint8_t buf[kKeyCapacity];
    int32_t size = 0;
    const int ret = TimeKeyCalls(state, buf, size, [&](uint8_t* out, int32_t& len) {
        return ProtobufUtil::ExtractFieldKey(nullptr, msg, kKeyNumbers, out, len, SharedIdl(), log.category());
    });
    CheckKey(state, ret, buf, size, KeyOf<Key>(msg).SerializeAsString(), log);
}

template <typename Record, typename Key>
void BM_Baseline_KeyOnlySerialize(benchmark::State& state) {
    Record msg;
    FillRecord(&msg);
    const Key key = KeyOf<Key>(msg);
    uint8_t buf[kKeyCapacity];
    bool ok = true;
    const long before = Allocations();
    for (auto _ : state) {
        ok &= key.SerializeToArray(buf, kKeyCapacity);
        benchmark::DoNotOptimize(buf);
    }
    ReportAllocations(state, before);
    if (!ok) Fail(state, "SerializeToArray failed");
}

// The key fields named by the table's primary-key option, in field-number
// order. The application finds them once; only the copy is timed.
std::vector<const FieldDescriptor*> KeyFields(const Descriptor* desc) {
    const std::string& names = desc->options().GetExtension(corvidaservice::corvida_primary_key);
    std::vector<const FieldDescriptor*> fields;
    size_t begin = 0;
    while (begin <= names.size()) {
        size_t end = names.find(',', begin);
        if (end == std::string::npos) end = names.size();
        std::string name = names.substr(begin, end - begin);
        name.erase(0, name.find_first_not_of(' '));
        fields.push_back(desc->FindFieldByName(name));
        begin = end + 1;
    }
    std::sort(fields.begin(), fields.end(),
              [](const FieldDescriptor* a, const FieldDescriptor* b) { return a->number() < b->number(); });
    return fields;
}

template <typename Record, typename Key>
void BM_Baseline_ReflectionKeyCopy(benchmark::State& state) {
    Record msg;
    FillRecord(&msg);
    const std::vector<const FieldDescriptor*> fields = KeyFields(msg.GetDescriptor());
    uint8_t buf[kKeyCapacity];
    int32_t size = 0;
    bool ok = true;
    const long before = Allocations();
    for (auto _ : state) {
        std::unique_ptr<Message> key(msg.New());
        for (const FieldDescriptor* field : fields) CopyField(msg, field, key.get());
        ok &= key->SerializeToArray(buf, kKeyCapacity);
        size = key->GetCachedSize();
        benchmark::DoNotOptimize(buf);
    }
    ReportAllocations(state, before);
    CheckKey(state, ok ? 0 : -1, buf, size, KeyOf<Key>(msg).SerializeAsString(), QuietLog());
}

// The KV API of the encrypted tables: the suite "aes128" over the key
// 00 01 ... 1f, whose MD5 the tables record.
std::unique_ptr<CorvidaKVApi> AesApi() {
    auto suite = std::make_unique<AesSivCipherSuite>("aes128");
    if (suite->Init("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f") != 0) return nullptr;
    auto api = std::make_unique<CorvidaKVApi>();
    if (api->AddCipherSuite(std::move(suite)) != 0) return nullptr;
    return api;
}

// The key of a BenchSecretRecord has the layout of the plain key, with the
// name's 16-byte synthetic IV added in front of its (equally long) ciphertext.
template <typename SecretRecord, typename Record, typename Key>
void BM_ExtractMsgKeyEncrypted(benchmark::State& state) {
    const std::unique_ptr<CorvidaKVApi> api = AesApi();
    if (api == nullptr) {
        Fail(state, "cannot set up the cipher suite");
        return;
    }
    Record plain;
    FillRecord(&plain);
    SecretRecord msg;
    msg.set_id(plain.id());
    msg.set_name(plain.name());
    msg.set_stamp(plain.stamp());
    msg.set_level(plain.level());
    msg.set_title(plain.title());
    QuietLog log;
    uint8_t buf[kKeyCapacity];
    int32_t size = 0;
    const int ret = TimeKeyCalls(state, buf, size, [&](uint8_t* out, int32_t& len) {
        return ProtobufUtil::ExtractMsgKey(api.get(), msg, out, len, SharedIdl(), log.category(), true);
    });
    const size_t expected = KeyOf<Key>(plain).ByteSizeLong() + AesSivCipherSuite::kSivLength;
    if (ret != 0) {
        Fail(state, "result " + std::to_string(ret));
    } else if (static_cast<size_t>(size) != expected) {
        Fail(state, "unexpected key length " + std::to_string(size));
    }
}

}  // namespace

void RegisterKeyBenchmarks() {
    Register("BM_ExtractMsgKey/proto3", BM_ExtractMsgKey<b3::BenchRecord, b3::BenchKey>);
    Register("BM_ExtractMsgKey/proto2", BM_ExtractMsgKey<b2::BenchRecord, b2::BenchKey>);
    Register("BM_ExtractFieldKey/proto3", BM_ExtractFieldKey<b3::BenchRecord, b3::BenchKey>);
    Register("BM_ExtractFieldKey/proto2", BM_ExtractFieldKey<b2::BenchRecord, b2::BenchKey>);
    Register("BM_Baseline_KeyOnlySerialize/proto3", BM_Baseline_KeyOnlySerialize<b3::BenchRecord, b3::BenchKey>);
    Register("BM_Baseline_KeyOnlySerialize/proto2", BM_Baseline_KeyOnlySerialize<b2::BenchRecord, b2::BenchKey>);
    Register("BM_Baseline_ReflectionKeyCopy/proto3", BM_Baseline_ReflectionKeyCopy<b3::BenchRecord, b3::BenchKey>);
    Register("BM_Baseline_ReflectionKeyCopy/proto2", BM_Baseline_ReflectionKeyCopy<b2::BenchRecord, b2::BenchKey>);
    Register("BM_ExtractMsgKeyEncrypted/proto3",
             BM_ExtractMsgKeyEncrypted<b3::BenchSecretRecord, b3::BenchRecord, b3::BenchKey>);
    Register("BM_ExtractMsgKeyEncrypted/proto2",
             BM_ExtractMsgKeyEncrypted<b2::BenchSecretRecord, b2::BenchRecord, b2::BenchKey>);
}

}  // namespace corvida_bench
