// Record keys: ExtractMsgKey, ExtractFieldKey and GetMsgKeyNames.
//
// The binary replaces the global allocation functions with counting ones, so
// that the key encoders' promise of no heap allocation on the plain path can
// be checked.
#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <gtest/gtest.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"
#include "support/allocation_counter.h"
#include "support/hex.h"
#include "support/log_capture.h"
#include "support/random_message.h"
#include "support/records.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using corvida_test::LogCapture;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using PROTOBUF_UTIL::CorvidaKVApi;
using PROTOBUF_UTIL::ProtobufUtil;

namespace t2 = corvida::test;
namespace t3 = corvida::test3;

constexpr int kError = PLOG_PRIORITY_ERROR;
constexpr int kTrace = PLOG_PRIORITY_TRACE;

constexpr char kAesKeyHex[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr char kAesMd5[] = "b4ffcb23737cec315a4a4d1aa2a620ce";

// Size of the key buffers, and the value `size` starts with.
constexpr int32_t kCapacity = 1024;
// Bytes after the usable buffer that must never be written.
constexpr int kGuard = 64;
constexpr uint8_t kUntouched = 0xee;

using corvida_test::Hex;

// The scratch record shared by every call: ten megabytes, allocated once and
// never initialised.
tagtbl_idl* Idl() {
    static const std::unique_ptr<tagtbl_idl> idl = corvida_test::NewIdl();
    return idl.get();
}

// One call of a key encoder and what it left behind.
struct Key {
    int ret = 0;
    int32_t size = 0;
    std::vector<uint8_t> buffer;  // capacity usable bytes, then kGuard guard bytes

    // The key bytes: the first `size` bytes of the buffer.
    std::string bytes() const {
        const size_t n = size > 0 ? std::min<size_t>(size, buffer.size()) : 0;
        return std::string(buffer.begin(), buffer.begin() + n);
    }
    std::string hex() const { return Hex(bytes()); }

    bool GuardIntact(int32_t capacity) const {
        return std::all_of(buffer.begin() + capacity, buffer.end(), [](uint8_t b) { return b == kUntouched; });
    }
};

struct Call {
    CorvidaKVApi* api = nullptr;
    int32_t capacity = kCapacity;
    tagtbl_idl* idl = Idl();
};

Key MsgKey(const Message& msg, bool bCheck, LPPLOGCATEGORYINST log, const Call& call = {}) {
    Key key;
    key.buffer.assign(call.capacity + kGuard, kUntouched);
    key.size = call.capacity;
    key.ret = ProtobufUtil::ExtractMsgKey(call.api, msg, key.buffer.data(), key.size, call.idl, log, bCheck);
    return key;
}

Key FieldKey(const Message& msg, const std::vector<int>& fields, LPPLOGCATEGORYINST log, const Call& call = {}) {
    Key key;
    key.buffer.assign(call.capacity + kGuard, kUntouched);
    key.size = call.capacity;
    key.ret = ProtobufUtil::ExtractFieldKey(call.api, msg, fields, key.buffer.data(), key.size, call.idl, log);
    return key;
}

// A KV API with the suite "aes128" over the key 00 01 ... 1f.
std::unique_ptr<CorvidaKVApi> AesApi() {
    auto api = std::make_unique<CorvidaKVApi>();
    auto suite = std::make_unique<AesSivCipherSuite>("aes128");
    EXPECT_EQ(suite->Init(kAesKeyHex), 0);
    EXPECT_EQ(api->AddCipherSuite(std::move(suite)), 0);
    return api;
}

// A suite named "aes128" with the right digest whose Encrypt fails or, with
// bogus_length, succeeds with an output length beyond the capacity.
class BrokenSuite : public CipherSuite {
public:
    explicit BrokenSuite(bool bogus_length = false) : m_bogus_length(bogus_length) {}
    const char* GetName() override { return "aes128"; }
    int Init(const std::string&) override { return 0; }
    int Encrypt(const unsigned char*, int, unsigned char*, int& outlen) override {
        if (!m_bogus_length) return -1;
        outlen += 1;
        return 0;
    }
    int Decrypt(const unsigned char*, int, unsigned char*, int&) override { return -1; }
    const std::string GetCipherKeyMD5() override { return kAesMd5; }
    const std::string GetErrMsg() override { return "broken on purpose"; }

private:
    bool m_bogus_length;
};

std::unique_ptr<CorvidaKVApi> BrokenApi(bool bogus_length = false) {
    auto api = std::make_unique<CorvidaKVApi>();
    EXPECT_EQ(api->AddCipherSuite(std::make_unique<BrokenSuite>(bogus_length)), 0);
    return api;
}

// A message whose metadata lacks its descriptor or its reflection.
class HollowMessage : public Message {
public:
    HollowMessage(const Descriptor* descriptor, const Reflection* reflection) : m_metadata{descriptor, reflection} {}
    Message* New(google::protobuf::Arena*) const override { return nullptr; }
    google::protobuf::Metadata GetMetadata() const override { return m_metadata; }
    int GetCachedSize() const override { return 0; }

private:
    google::protobuf::Metadata m_metadata;
};

std::string Decrypt(const std::string& ciphertext) {
    AesSivCipherSuite suite("aes128");
    EXPECT_EQ(suite.Init(kAesKeyHex), 0);
    std::string plain(ciphertext.size(), '\0');
    int len = static_cast<int>(plain.size());
    EXPECT_EQ(suite.Decrypt(reinterpret_cast<const unsigned char*>(ciphertext.data()),
                            static_cast<int>(ciphertext.size()), reinterpret_cast<unsigned char*>(&plain[0]), len),
              0);
    plain.resize(len > 0 ? len : 0);
    return plain;
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: field selection and order.
// ---------------------------------------------------------------------------

TEST(ExtractMsgKey, NamesListedBeforeTheirNumbersComeInNumberOrder) {
    LogCapture log;
    t2::KeyOrder2 msg;  // option "b, a"; b is field 1, a is field 3
    msg.set_a(5);
    msg.set_b(6);
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0806" "1805");
    EXPECT_EQ(key.size, 4);
}

TEST(ExtractMsgKey, OptionOrderDoesNotMatter) {
    LogCapture log;
    t2::MixedKeys2 msg;  // option "pos, blob, kind, name": numbers 9, 7, 3, 4
    msg.set_name("n");
    msg.set_kind(t2::KIND2_HERO);
    msg.set_blob("b");
    msg.mutable_pos()->set_x(1);
    msg.set_score(2.5);
    msg.ByteSizeLong();
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "1801" "22016e" "3a0162" "4a020801");
}

TEST(ExtractMsgKey, ManyKeyFieldsAreSortedToo) {
    LogCapture log;
    t2::ManyKeys2 msg;  // 20 key fields named in descending order
    const Reflection* r = msg.GetReflection();
    const Descriptor* d = msg.GetDescriptor();
    std::mt19937_64 rng(7);
    corvida_test::FillAllSingularNonDefault(&msg, rng);
    r->ClearField(&msg, d->FindFieldByName("extra"));
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), Hex(msg.SerializeAsString()));
}

TEST(ExtractMsgKey, AbsentOptionGivesEmptyKey) {
    LogCapture log;
    t2::NoKey2 msg;
    msg.set_a(1);
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, 0);
    EXPECT_EQ(key.size, 0);
    EXPECT_TRUE(key.GuardIntact(0));
    EXPECT_EQ(log.Texts(kTrace), (std::vector<std::string>{"msg key len(0)", ""}));
}

TEST(ExtractMsgKey, EmptyNameBetweenCommasFailsWithoutLog) {
    LogCapture log;
    t2::BadKeyEmptyToken2 msg;  // "a,,b"
    msg.set_a(1);
    msg.set_b(2);
    const Key key = MsgKey(msg, false, log.category());
    EXPECT_EQ(key.ret, -5);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(ExtractMsgKey, OptionOfWhiteSpaceIsOneEmptyName) {
    LogCapture log;
    t2::BlankKey2 msg;
    msg.set_a(1);
    const Key key = MsgKey(msg, false, log.category());
    EXPECT_EQ(key.ret, -5);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(ExtractMsgKey, UnknownNameFailsWithoutLog) {
    LogCapture log;
    t2::UnknownKeyName2 msg;  // "a, x"
    msg.set_a(1);
    const Key key = MsgKey(msg, false, log.category());
    EXPECT_EQ(key.ret, -5);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(ExtractMsgKey, TrailingCommaAddsNoName) {
    LogCapture log;
    t2::TrailingComma2 msg;  // "a,"
    msg.set_a(5);
    msg.set_b(6);
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0805");
}

TEST(ExtractMsgKey, NamesAreTrimmedOfBlanksAndTabs) {
    LogCapture log;
    t2::SpacedKeys2 msg;  // "\t a ,b\t"; b is field 1, a field 2
    msg.set_a(3);
    msg.set_b("x");
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0a0178" "1003");
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: default values and the zero-growth check.
// ---------------------------------------------------------------------------

TEST(ExtractMsgKey, Proto3DefaultKeyFieldsContributeTagAndValue) {
    LogCapture log;
    t3::MixedKeys3 msg;  // id 1, name 2, kind 3, pos 4: all default
    msg.set_value(9);
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0800" "1200" "1800" "2200");
}

TEST(ExtractMsgKey, Proto3SetKeyFieldsAreWrittenAsProtobufWritesThem) {
    LogCapture log;
    t3::Player3 msg;
    msg.set_uid(300);
    msg.set_name("ignored");
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0800" "10ac02");
}

TEST(ExtractMsgKey, Proto3SetMessageKeyFieldUsesItsCachedSize) {
    LogCapture log;
    t3::MixedKeys3 msg;
    msg.set_id(1);
    msg.set_name("ab");
    msg.set_kind(t3::KIND3_VILLAIN);
    msg.mutable_pos()->set_y(3);
    msg.ByteSizeLong();
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0801" "12026162" "1802" "22021003");
}

TEST(ExtractMsgKey, UnsetProto2KeyFieldFailsTheCheck) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, -9);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"key uid serialize bCheck:1 count:2 <= before:2"}));
    EXPECT_TRUE(log.Has(kTrace, "field:uid bCheck:1 byte count before:2, after:2")) << log.Dump();
    EXPECT_FALSE(log.Has(kTrace, "msg key len(2)"));
}

TEST(ExtractMsgKey, UnsetProto2KeyFieldIsLeftOutWithoutTheCheck) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    const Key key = MsgKey(msg, false, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0801");
    EXPECT_TRUE(log.Has(kTrace, "field:uid bCheck:0 byte count before:2, after:2")) << log.Dump();
    EXPECT_TRUE(log.Texts(kError).empty());
}

TEST(ExtractMsgKey, ExplicitProto2ZeroIsWritten) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(0);
    msg.set_uid(0);
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "0800" "1000");
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: log lines of a success.
// ---------------------------------------------------------------------------

TEST(ExtractMsgKey, SuccessTracesEveryFieldThenTheKey) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    msg.set_uid(2);
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0);
    EXPECT_EQ(key.size, 4);
    EXPECT_TRUE(key.GuardIntact(4));
    ASSERT_EQ(log.lines().size(), 4u) << log.Dump();
    const std::vector<std::string> expected = {"field:zone bCheck:1 byte count before:0, after:2",
                                               "field:uid bCheck:1 byte count before:2, after:4", "msg key len(4)",
                                               "0000: 08 01 10 02"};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(log.lines()[i].priority, kTrace);
        EXPECT_EQ(log.lines()[i].text, expected[i]);
        EXPECT_EQ(log.lines()[i].file, "corvida/src/protobuf_api/protobuf_util");
    }
}

TEST(ExtractMsgKey, HexDumpCoversTheWholeKey) {
    LogCapture log;
    t2::LongKey2 msg;
    msg.set_data(std::string(20, 'A'));
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0);
    EXPECT_EQ(log.Texts(kTrace).back(),
              "0000: 0a 14 41 41 41 41 41 41 41 41 41 41 41 41 41 41\n"
              "0010: 41 41 41 41 41 41");
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: the length limit.
// ---------------------------------------------------------------------------

TEST(ExtractMsgKey, KeyOfExactly1022BytesSucceeds) {
    LogCapture log;
    t2::LongKey2 msg;
    msg.set_data(std::string(1019, 'x'));  // tag, two length bytes, 1019 bytes
    const Key key = MsgKey(msg, true, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.size, 1022);
    EXPECT_EQ(key.bytes(), msg.SerializeAsString());
    EXPECT_TRUE(log.Has(kTrace, "msg key len(1022)"));
}

TEST(ExtractMsgKey, KeyOf1023BytesFailsWithItsLength) {
    LogCapture log;
    t2::LongKey2 msg;
    msg.set_data(std::string(1020, 'x'));
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, -10);
    EXPECT_EQ(key.size, 1023);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"key byte count:1023 exceed max:1022"}));
    EXPECT_FALSE(log.Has(kTrace, "msg key len(1023)"));
}

TEST(ExtractMsgKey, LimitIsTestedOnlyAfterTheWholeKey) {
    LogCapture log;
    t2::MixedKeys2 msg;  // kind (3), name (4), blob (7), pos (9): name alone passes the limit
    msg.set_kind(t2::KIND2_HERO);
    msg.set_name(std::string(1500, 'n'));
    msg.set_blob("b");
    msg.mutable_pos()->set_x(1);
    msg.ByteSizeLong();
    const Key key = MsgKey(msg, true, log.category(), Call{nullptr, 4096});
    EXPECT_EQ(key.ret, -10);
    EXPECT_EQ(key.size, 2 + 3 + 1500 + 3 + 4);
    EXPECT_EQ(log.Count(kTrace, "field:pos bCheck:1 byte count before:1508, after:1512"), 1) << log.Dump();
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"key byte count:1512 exceed max:1022"}));
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: cipher suites and encrypted fields.
// ---------------------------------------------------------------------------

TEST(ExtractMsgKey, EncryptedFieldHoldsCiphertextUnderItsOwnTag) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_uid(7);
    msg.set_token("hello");
    msg.set_plain("not in the key");
    const Key key = MsgKey(msg, true, log.category(), Call{api.get()});
    ASSERT_EQ(key.ret, 0) << log.Dump();
    const std::string bytes = key.bytes();
    ASSERT_EQ(bytes.size(), 2u + 2u + 16u + 5u);
    EXPECT_EQ(Hex(bytes.substr(0, 4)), "0807" "1215");
    const std::string ciphertext = bytes.substr(4);
    EXPECT_EQ(Decrypt(ciphertext), "hello");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(Idl()->szValue), ciphertext.size()), ciphertext);
    EXPECT_EQ(ciphertext.find("hello"), std::string::npos);
}

// A suite that, as it encrypts, opens the trace of a category (as a sink of
// another library could): the lines of the fields after it, and of the key,
// are written, with the counts of a key written from the start with the
// trace open.
class TraceOpeningSuite : public CipherSuite {
public:
    explicit TraceOpeningSuite(LPPLOGCATEGORYINST category) : m_category(category) {
        EXPECT_EQ(m_aes.Init(kAesKeyHex), 0);
    }
    const char* GetName() override { return "aes128"; }
    int Init(const std::string&) override { return 0; }
    int Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override {
        m_category->iPriority = PLOG_PRIORITY_TRACE;
        return m_aes.Encrypt(in, inlen, out, outlen);
    }
    int Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override {
        return m_aes.Decrypt(in, inlen, out, outlen);
    }
    const std::string GetCipherKeyMD5() override { return m_aes.GetCipherKeyMD5(); }
    const std::string GetErrMsg() override { return m_aes.GetErrMsg(); }

private:
    LPPLOGCATEGORYINST m_category;
    AesSivCipherSuite m_aes{"aes128"};
};

TEST(ExtractMsgKey, SuiteThatOpensTheTraceGetsTheLinesAfterIt) {
    t2::Secret2 msg;  // key uid, token (encrypted)
    msg.set_uid(7);
    msg.set_token("hello");
    LogCapture from_start;
    const auto api = AesApi();
    const Key expected = MsgKey(msg, true, from_start.category(), Call{api.get()});
    ASSERT_EQ(expected.ret, 0) << from_start.Dump();

    LogCapture log(kError);
    CorvidaKVApi opening;
    ASSERT_EQ(opening.AddCipherSuite(std::make_unique<TraceOpeningSuite>(log.category())), 0);
    const Key key = MsgKey(msg, true, log.category(), Call{&opening});
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), expected.hex());
    // The uid's line went by with the trace closed; the rest are the lines of
    // a key written with the trace open.
    std::vector<std::string> lines = from_start.Texts(kTrace);
    ASSERT_FALSE(lines.empty());
    lines.erase(lines.begin());
    EXPECT_EQ(log.Texts(kTrace), lines) << log.Dump();
}

TEST(ExtractMsgKey, EncryptedKeyIsTheSameEveryTime) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_uid(7);
    msg.set_token("hello");
    const Key first = MsgKey(msg, true, log.category(), Call{api.get()});
    const Key second = MsgKey(msg, true, log.category(), Call{api.get()});
    ASSERT_EQ(first.ret, 0);
    ASSERT_EQ(second.ret, 0);
    EXPECT_EQ(first.hex(), second.hex());
}

TEST(ExtractMsgKey, DifferentPlaintextGivesDifferentKey) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 a;
    a.set_uid(7);
    a.set_token("hello");
    t2::Secret2 b = a;
    b.set_token("hellp");
    const Key ka = MsgKey(a, true, log.category(), Call{api.get()});
    const Key kb = MsgKey(b, true, log.category(), Call{api.get()});
    ASSERT_EQ(ka.ret, 0);
    ASSERT_EQ(kb.ret, 0);
    EXPECT_EQ(ka.size, kb.size);
    EXPECT_NE(ka.hex(), kb.hex());
    EXPECT_EQ(Decrypt(kb.bytes().substr(4)), "hellp");
}

// The encrypted path reads the value whether or not the field is set, so an
// unset encrypted key field contributes the ciphertext of the empty string.
TEST(ExtractMsgKey, UnsetEncryptedFieldIsTheCiphertextOfItsDefault) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_uid(1);
    const Key key = MsgKey(msg, true, log.category(), Call{api.get()});
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(Hex(key.bytes().substr(0, 4)), "0801" "1210");
    EXPECT_EQ(Decrypt(key.bytes().substr(4)), "");
}

TEST(ExtractMsgKey, Proto3EncryptedTableWithDefaults) {
    LogCapture log;
    const auto api = AesApi();
    t3::Secret3 msg;
    const Key key = MsgKey(msg, true, log.category(), Call{api.get()});
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(Hex(key.bytes().substr(0, 4)), "0800" "1210");
    EXPECT_EQ(Decrypt(key.bytes().substr(4)), "");
}

TEST(ExtractMsgKey, UnknownSuiteFails) {
    LogCapture log;
    const auto api = AesApi();
    t2::UnknownSuite2 msg;
    msg.set_uid(1);
    const Key key = MsgKey(msg, true, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -3);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"suite:no-such-suite not found."}));
    EXPECT_TRUE(log.Texts(kTrace).empty());
}

TEST(ExtractMsgKey, NamedSuiteWithoutKvApiIsNotFound) {
    LogCapture log;
    t2::Secret2 msg;
    msg.set_uid(1);
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, -3);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"suite:aes128 not found."}));
}

TEST(ExtractMsgKey, TableWithoutSuiteNeverAsksTheKvApi) {
    LogCapture log;
    CorvidaKVApi empty_api;
    t2::Player2 msg;
    msg.set_zone(1);
    msg.set_uid(1);
    EXPECT_EQ(MsgKey(msg, true, log.category(), Call{&empty_api}).ret, 0);
    EXPECT_EQ(MsgKey(msg, true, log.category(), Call{nullptr}).ret, 0);
}

TEST(ExtractMsgKey, WrongDigestFailsBeforeAnyField) {
    LogCapture log;
    const auto api = AesApi();
    t2::WrongMd52 msg;  // no field is encrypted; uid is unset and would fail the check
    const Key key = MsgKey(msg, true, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -4);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError),
              (std::vector<std::string>{"suite:aes128 md5sum:b4ffcb23737cec315a4a4d1aa2a620ce "
                                        "meta md5:00000000000000000000000000000000 not match."}));
    EXPECT_TRUE(log.Texts(kTrace).empty()) << log.Dump();
}

// A one-field table (int64 uid = 1) built at run time with the given
// options, for combinations no compiled test table has.
class RuntimeTable {
public:
    explicit RuntimeTable(const google::protobuf::MessageOptions& options)
        : m_pool(google::protobuf::DescriptorPool::generated_pool()) {
        google::protobuf::FileDescriptorProto file;
        file.set_name("runtime_table.proto");
        file.set_package("corvida.runtime");
        file.add_dependency("corvidaservice.optionv1.proto");
        google::protobuf::DescriptorProto* type = file.add_message_type();
        type->set_name("Table");
        *type->mutable_options() = options;
        google::protobuf::FieldDescriptorProto* uid = type->add_field();
        uid->set_name("uid");
        uid->set_number(1);
        uid->set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
        uid->set_type(google::protobuf::FieldDescriptorProto::TYPE_INT64);
        const google::protobuf::FileDescriptor* built = m_pool.BuildFile(file);
        EXPECT_NE(built, nullptr);
        m_message.reset(m_factory.GetPrototype(built->message_type(0))->New());
        m_message->GetReflection()->SetInt64(m_message.get(), built->message_type(0)->field(0), 7);
    }

    const Message& message() const { return *m_message; }

private:
    google::protobuf::DescriptorPool m_pool;
    google::protobuf::DynamicMessageFactory m_factory;
    std::unique_ptr<Message> m_message;
};

google::protobuf::MessageOptions KeyOptions(const std::string& primary_key, const std::string& suite,
                                            const std::string& md5) {
    google::protobuf::MessageOptions options;
    options.SetExtension(corvidaservice::corvida_primary_key, primary_key);
    if (!suite.empty()) options.SetExtension(corvidaservice::corvida_field_cipher_suite, suite);
    if (!md5.empty()) options.SetExtension(corvidaservice::corvida_cipher_md5, md5);
    return options;
}

TEST(ExtractMsgKey, UnknownSuiteWinsOverAnUnknownKeyName) {
    LogCapture log;
    const auto api = AesApi();
    const RuntimeTable table(KeyOptions("uid, x", "no-such-suite", ""));
    const Key key = MsgKey(table.message(), true, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -3);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"suite:no-such-suite not found."}));
}

TEST(ExtractMsgKey, WrongDigestWinsOverAnUnknownKeyName) {
    LogCapture log;
    const auto api = AesApi();
    const RuntimeTable table(KeyOptions("uid, x", "aes128", "0123"));
    const Key key = MsgKey(table.message(), true, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -4);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"suite:aes128 md5sum:" + std::string(kAesMd5) +
                                                           " meta md5:0123 not match."}));
}

TEST(ExtractMsgKey, UnknownKeyNameAfterGoodSuiteChecksIsMinus5) {
    LogCapture log;
    const auto api = AesApi();
    const RuntimeTable table(KeyOptions("uid, x", "aes128", kAesMd5));
    const Key key = MsgKey(table.message(), true, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -5);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(ExtractMsgKey, OptionSetToEmptyGivesAnEmptyKey) {
    LogCapture log;
    const RuntimeTable table(KeyOptions("", "", ""));
    const Key key = MsgKey(table.message(), true, log.category());
    EXPECT_EQ(key.ret, 0);
    EXPECT_EQ(key.size, 0);
    EXPECT_TRUE(key.GuardIntact(0));
}

TEST(ExtractMsgKey, EncryptedFieldWithoutSuiteFails) {
    LogCapture log;
    t2::CryptoNoSuite2 msg;
    msg.set_token("t");
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, -6);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(ExtractMsgKey, FailedEncryptionFailsWithoutLog) {
    LogCapture log;
    const auto api = BrokenApi();
    t2::Secret2 msg;
    msg.set_uid(1);
    msg.set_token("t");
    const Key key = MsgKey(msg, true, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -7);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
    // uid (field 1) was written before token failed.
    EXPECT_EQ(log.Texts(kTrace), (std::vector<std::string>{"field:uid bCheck:1 byte count before:0, after:2"}));
}

TEST(ExtractMsgKey, OutputLengthBeyondTheCapacityCountsAsFailedEncryption) {
    LogCapture log;
    const auto api = BrokenApi(true);
    t2::Secret2 msg;
    msg.set_uid(1);
    msg.set_token("t");
    EXPECT_EQ(MsgKey(msg, true, log.category(), Call{api.get()}).ret, -7);
}

// A suite named "aes128" with the right digest that only counts its calls.
class CountingSuite : public CipherSuite {
public:
    const char* GetName() override { return "aes128"; }
    int Init(const std::string&) override { return 0; }
    int Encrypt(const unsigned char*, int, unsigned char*, int& outlen) override {
        ++calls;
        outlen = 0;
        return 0;
    }
    int Decrypt(const unsigned char*, int, unsigned char*, int&) override { return -1; }
    const std::string GetCipherKeyMD5() override { return kAesMd5; }
    const std::string GetErrMsg() override { return ""; }

    int calls = 0;
};

// The suite takes the value's length as an int: a value of 2^32 + 5 bytes
// must not reach it as 5 bytes, or two records would share one key.
TEST(ExtractMsgKey, EncryptedValueLongerThanAnIntFailsWithoutCallingTheSuite) {
    LogCapture log;
    CorvidaKVApi api;
    auto owned = std::make_unique<CountingSuite>();
    CountingSuite* suite = owned.get();
    ASSERT_EQ(api.AddCipherSuite(std::move(owned)), 0);
    t2::Secret2 msg;
    msg.set_uid(1);
    std::string huge;
    huge.resize((size_t{1} << 32) + 5, 'x');
    msg.set_token(std::move(huge));

    const Key by_key = MsgKey(msg, true, log.category(), Call{&api});
    EXPECT_EQ(by_key.ret, -7);
    EXPECT_EQ(by_key.size, kCapacity);
    const Key by_fields = FieldKey(msg, {2}, log.category(), Call{&api});
    EXPECT_EQ(by_fields.ret, -7);
    EXPECT_EQ(by_fields.size, kCapacity);
    EXPECT_EQ(suite->calls, 0);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
}

TEST(ExtractMsgKey, CryptoMarkOnIntegerFieldIsIgnored) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_pin(9);
    const Key key = FieldKey(msg, {4}, log.category(), Call{api.get()});
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "2009");
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: argument checks.
// ---------------------------------------------------------------------------

TEST(ExtractMsgKey, NullIdlFails) {
    LogCapture log;
    t2::Player2 msg;
    const Key key = MsgKey(msg, true, log.category(), Call{nullptr, kCapacity, nullptr});
    EXPECT_EQ(key.ret, -1);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty());
}

TEST(ExtractMsgKey, NullLogFails) {
    t2::Player2 msg;
    msg.set_zone(1);
    msg.set_uid(1);
    const Key key = MsgKey(msg, true, nullptr);
    EXPECT_EQ(key.ret, -1);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(key.GuardIntact(0));
}

TEST(ExtractMsgKey, NullDescriptorFails) {
    LogCapture log;
    const HollowMessage msg(nullptr, nullptr);
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, -1);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_TRUE(log.lines().empty());
}

TEST(ExtractMsgKey, NullReflectionFails) {
    LogCapture log;
    const HollowMessage msg(t2::Player2::descriptor(), nullptr);
    const Key key = MsgKey(msg, true, log.category());
    EXPECT_EQ(key.ret, -2);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"reflection param is null."}));
    EXPECT_EQ(log.lines().size(), 1u);
}

// ---------------------------------------------------------------------------
// ExtractMsgKey: a buffer shorter than the key. The coded stream stops at the
// end of buf without an error of its own; its byte count then no longer
// tracks what was written.
// ---------------------------------------------------------------------------

// Each byte of a hex dump line is written as " hh".
size_t BytesInHexDump(const std::string& dump) {
    return static_cast<size_t>(std::count(dump.begin(), dump.end(), ' '));
}

TEST(ExtractMsgKey, ShortBufferIsNeverOverrun) {
    t2::LongKey2 msg;
    msg.set_data(std::string(100, 'd'));
    const std::string full = msg.SerializeAsString();
    for (int32_t capacity : {0, 1, 5, 16, 40, 102}) {
        for (bool check : {false, true}) {
            LogCapture log;
            const Key key = MsgKey(msg, check, log.category(), Call{nullptr, capacity});
            EXPECT_TRUE(key.GuardIntact(capacity)) << capacity;
            EXPECT_EQ(std::string(key.buffer.begin(), key.buffer.begin() + capacity), full.substr(0, capacity))
                << capacity;
            // size may claim bytes beyond the buffer; the dump never reads them.
            if (key.ret == 0) {
                EXPECT_LE(BytesInHexDump(log.Texts(kTrace).back()), static_cast<size_t>(capacity)) << capacity;
            }
        }
    }
}

TEST(ExtractMsgKey, ShortBufferIsNoticedByTheZeroGrowthCheck) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    msg.set_uid(2);
    const Key checked = MsgKey(msg, true, log.category(), Call{nullptr, 0});
    EXPECT_EQ(checked.ret, -9);
    EXPECT_EQ(checked.size, 0);
    EXPECT_EQ(log.Texts(kError).size(), 1u) << log.Dump();
    EXPECT_EQ(log.Texts(kError)[0].rfind("key zone serialize bCheck:1 count:", 0), 0u) << log.Dump();
}

TEST(ExtractMsgKey, ShortBufferWithoutTheCheckReportsTheWholeLength) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    msg.set_uid(2);
    const Key whole = MsgKey(msg, false, log.category());
    ASSERT_EQ(whole.ret, 0);
    ASSERT_GT(whole.size, 3);
    log.Clear();
    const Key key = MsgKey(msg, false, log.category(), Call{nullptr, 3});
    EXPECT_EQ(key.ret, 0);
    // size is what the fields wrote, the whole key, though buf holds 3 bytes
    // of it; the dump shows only those.
    EXPECT_EQ(key.size, whole.size);
    EXPECT_EQ(Hex(std::string(key.buffer.begin(), key.buffer.begin() + 3)), "080110");
    EXPECT_TRUE(key.GuardIntact(3));
    EXPECT_EQ(log.Texts(kTrace).back(), "0000: 08 01 10") << log.Dump();
}

// Far past the end of buf the stream's own count means nothing; the key's
// length is still the whole length, so a key over the limit is refused.
TEST(ExtractMsgKey, KeyOverTheLimitPastTheBufferFailsWithItsFullLength) {
    t2::LongKey2 msg;
    for (const size_t data : {1020u, 1021u, 1025u, 1100u, 5000u, 100000u}) {
        msg.set_data(std::string(data, 'x'));
        const int32_t whole = static_cast<int32_t>(msg.ByteSizeLong());
        for (const int32_t capacity : {0, 16, 512, 1022, 1024}) {
            LogCapture log;
            const Key key = MsgKey(msg, false, log.category(), Call{nullptr, capacity});
            EXPECT_EQ(key.ret, -10) << data << " " << capacity;
            EXPECT_EQ(key.size, whole) << data << " " << capacity;
            EXPECT_EQ(log.Texts(kError),
                      (std::vector<std::string>{"key byte count:" + std::to_string(whole) + " exceed max:1022"}));
            EXPECT_TRUE(key.GuardIntact(capacity));
        }
    }
}

TEST(ExtractMsgKey, OverflowedKeyCountsEveryLaterField) {
    t2::MixedKeys2 msg;  // kind (3), name (4), blob (7), pos (9)
    msg.set_kind(t2::KIND2_HERO);
    msg.set_name(std::string(600, 'n'));
    msg.set_blob(std::string(700, 'b'));
    msg.mutable_pos()->set_x(3);
    msg.ByteSizeLong();
    LogCapture roomy_log;
    const Key roomy = MsgKey(msg, true, roomy_log.category(), Call{nullptr, 4096});
    ASSERT_EQ(roomy.ret, -10);
    LogCapture log;
    const Key key = MsgKey(msg, false, log.category(), Call{nullptr, 100});
    EXPECT_EQ(key.ret, -10);
    EXPECT_EQ(key.size, roomy.size);
    EXPECT_TRUE(key.GuardIntact(100));
}

TEST(ExtractMsgKey, OverflowedEncryptedKeyCountsTheCiphertext) {
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_uid(1);
    msg.set_token(std::string(1500, 't'));
    LogCapture roomy_log;
    const Key roomy = MsgKey(msg, true, roomy_log.category(), Call{api.get(), 4096});
    ASSERT_EQ(roomy.ret, -10) << roomy_log.Dump();
    LogCapture log;
    const Key key = MsgKey(msg, false, log.category(), Call{api.get(), 64});
    EXPECT_EQ(key.ret, -10);
    EXPECT_EQ(key.size, roomy.size);
    EXPECT_TRUE(key.GuardIntact(64));
}

// ---------------------------------------------------------------------------
// Log filtering never changes a result.
// ---------------------------------------------------------------------------

struct Outcome {
    int ret;
    int32_t size;
    std::string key;
    bool operator==(const Outcome& o) const { return ret == o.ret && size == o.size && key == o.key; }
};

template <typename Extract>
void ExpectSameOutcomeUnderEveryFilter(Extract extract) {
    LogCapture all(kTrace);
    const Key reference = extract(all.category());
    const Outcome expected{reference.ret, reference.size, reference.hex()};

    LogCapture errors_only(kError);
    LogCapture nothing(PLOG_PRIORITY_FATAL);
    LogCapture bounded(kTrace);
    int low = kError;
    bounded.category()->piPriorityLow = &low;
    LogCapture unset_bounds(kTrace);
    int unset = -1;
    unset_bounds.category()->piPriorityLow = &unset;
    unset_bounds.category()->piPriorityHigh = &unset;

    for (LogCapture* log : {&errors_only, &nothing, &bounded, &unset_bounds}) {
        const Key key = extract(log->category());
        EXPECT_TRUE((Outcome{key.ret, key.size, key.hex()} == expected)) << key.ret << " " << key.size;
    }
    EXPECT_TRUE(nothing.lines().empty());
    EXPECT_TRUE(errors_only.Texts(kTrace).empty());
    EXPECT_TRUE(bounded.Texts(kTrace).empty());
    EXPECT_EQ(bounded.Texts(kError), all.Texts(kError));
    EXPECT_EQ(unset_bounds.lines().size(), all.lines().size());
}

// Every line names the operation and the module's file, whichever internal
// helper wrote it.
void ExpectLinesCarry(const LogCapture& log, const std::string& func) {
    ASSERT_FALSE(log.lines().empty());
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.func, func) << line.text;
        EXPECT_EQ(line.file, "corvida/src/protobuf_api/protobuf_util") << line.text;
    }
}

TEST(KeyLogging, LinesCarryTheOperationsName) {
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_uid(7);
    msg.set_token("t");
    LogCapture ok_log;
    EXPECT_EQ(MsgKey(msg, true, ok_log.category(), Call{api.get()}).ret, 0);
    ExpectLinesCarry(ok_log, "ExtractMsgKey");
    LogCapture field_log;
    EXPECT_EQ(FieldKey(msg, {2, 99, 1}, field_log.category(), Call{api.get()}).ret, 0);
    ExpectLinesCarry(field_log, "ExtractFieldKey");

    LogCapture suite_log;
    EXPECT_EQ(MsgKey(msg, true, suite_log.category()).ret, -3);
    ExpectLinesCarry(suite_log, "ExtractMsgKey");
    LogCapture md5_log;
    t2::WrongMd52 wrong;
    EXPECT_EQ(FieldKey(wrong, {1}, md5_log.category(), Call{api.get()}).ret, -4);
    ExpectLinesCarry(md5_log, "ExtractFieldKey");
    LogCapture long_log;
    t2::LongKey2 long_key;
    long_key.set_data(std::string(1100, 'x'));
    EXPECT_EQ(MsgKey(long_key, true, long_log.category(), Call{nullptr, 2048}).ret, -10);
    ExpectLinesCarry(long_log, "ExtractMsgKey");
}

TEST(KeyLogging, FilteredLinesDoNotChangeResults) {
    t2::Player2 full;
    full.set_zone(3);
    full.set_uid(4);
    t2::Player2 partial;
    partial.set_zone(3);
    t2::LongKey2 long_key;
    long_key.set_data(std::string(1100, 'l'));
    const auto api = AesApi();
    t2::Secret2 secret;
    secret.set_uid(1);
    secret.set_token("s");
    t2::UnknownSuite2 unknown_suite;

    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return MsgKey(full, true, log); });
    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return MsgKey(partial, true, log); });
    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return MsgKey(partial, false, log); });
    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return MsgKey(long_key, true, log); });
    ExpectSameOutcomeUnderEveryFilter(
        [&](LPPLOGCATEGORYINST log) { return MsgKey(secret, true, log, Call{api.get()}); });
    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return MsgKey(unknown_suite, true, log); });
    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return FieldKey(full, {2, 99, 1}, log); });
    ExpectSameOutcomeUnderEveryFilter([&](LPPLOGCATEGORYINST log) { return FieldKey(partial, {1, 2}, log); });
}

// ---------------------------------------------------------------------------
// GetMsgKeyNames.
// ---------------------------------------------------------------------------

TEST(GetMsgKeyNames, InsertsTheTrimmedNames) {
    std::set<std::string> names;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::Player2(), names), 0);  // "zone, uid"
    EXPECT_EQ(names, (std::set<std::string>{"zone", "uid"}));
    std::set<std::string> spaced;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::SpacedKeys2(), spaced), 0);
    EXPECT_EQ(spaced, (std::set<std::string>{"a", "b"}));
}

TEST(GetMsgKeyNames, KeepsWhatTheSetHeld) {
    std::set<std::string> names = {"zz"};
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::KeyOrder2(), names), 0);
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "zz"}));
}

TEST(GetMsgKeyNames, UnknownNameStopsAfterTheNamesBeforeIt) {
    std::set<std::string> names;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::UnknownKeyName2(), names), -2);  // "a, x"
    EXPECT_EQ(names, (std::set<std::string>{"a"}));
}

TEST(GetMsgKeyNames, EmptyNameIsNotAField) {
    std::set<std::string> names;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::BadKeyEmptyToken2(), names), -2);  // "a,,b"
    EXPECT_EQ(names, (std::set<std::string>{"a"}));
    std::set<std::string> blank;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::BlankKey2(), blank), -2);
    EXPECT_TRUE(blank.empty());
}

TEST(GetMsgKeyNames, TrailingCommaAndAbsentOption) {
    std::set<std::string> names;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::TrailingComma2(), names), 0);
    EXPECT_EQ(names, (std::set<std::string>{"a"}));
    std::set<std::string> none;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(t2::NoKey2(), none), 0);
    EXPECT_TRUE(none.empty());
}

TEST(GetMsgKeyNames, NullDescriptorFails) {
    std::set<std::string> names;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(HollowMessage(nullptr, nullptr), names), -1);
    EXPECT_TRUE(names.empty());
}

// ---------------------------------------------------------------------------
// ExtractFieldKey.
// ---------------------------------------------------------------------------

TEST(ExtractFieldKey, WritesFieldsInTheCallersOrder) {
    LogCapture log;
    t2::FloatKeys2 msg;
    msg.set_k_double(1.0);
    msg.set_other(5);
    const Key key = FieldKey(msg, {3, 1}, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "1805" "09000000000000f03f");
}

TEST(ExtractFieldKey, EmptyListGivesEmptyKey) {
    LogCapture log;
    t2::Player2 msg;
    const Key key = FieldKey(msg, {}, log.category());
    EXPECT_EQ(key.ret, 0);
    EXPECT_EQ(key.size, 0);
    EXPECT_EQ(log.Texts(kTrace), (std::vector<std::string>{"msg key len(0)", ""}));
}

TEST(ExtractFieldKey, UnknownNumberIsLoggedAndSkipped) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    const Key key = FieldKey(msg, {1, 99}, log.category());
    ASSERT_EQ(key.ret, 0);
    EXPECT_EQ(key.hex(), "0801");
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"field num:99 not found."}));
    EXPECT_EQ(log.Texts(kTrace), (std::vector<std::string>{"field:zone byte count before:0, after:2",
                                                           "msg key len(2)", "0000: 08 01"}));
}

TEST(ExtractFieldKey, NegativeNumberIsPrintedUnsigned) {
    LogCapture log;
    t2::Player2 msg;
    const Key key = FieldKey(msg, {-1}, log.category());
    EXPECT_EQ(key.ret, 0);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"field num:4294967295 not found."}));
}

TEST(ExtractFieldKey, RepeatedNumberIsWrittenEachTime) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    const Key key = FieldKey(msg, {1, 1}, log.category());
    ASSERT_EQ(key.ret, 0);
    EXPECT_EQ(key.hex(), "0801" "0801");
}

TEST(ExtractFieldKey, UnsetProto2FieldAlwaysFails) {
    LogCapture log;
    t2::Player2 msg;
    msg.set_zone(1);
    const Key key = FieldKey(msg, {1, 3}, log.category());
    EXPECT_EQ(key.ret, -9);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"key name serialize count:2 <= before:2"}));
    EXPECT_TRUE(log.Has(kTrace, "field:name byte count before:2, after:2"));
}

TEST(ExtractFieldKey, Proto3DefaultsContribute) {
    LogCapture log;
    t3::Player3 msg;
    // name (string 3), opt_level (unset proto3 optional 16), kind (enum 11).
    const Key key = FieldKey(msg, {3, 16, 11}, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "1a00" "800100" "5800");
}

TEST(ExtractFieldKey, RepeatedFieldIsWrittenAsProtobufWritesIt) {
    LogCapture log;
    t3::Player3 msg;
    msg.add_tags("a");
    msg.add_tags("b");
    msg.add_scores(1);
    msg.add_scores(2);
    Key key = FieldKey(msg, {7, 12}, log.category());
    ASSERT_EQ(key.ret, 0) << log.Dump();
    EXPECT_EQ(key.hex(), "3a0161" "3a0162" "62020102");
    t3::Player3 empty;
    key = FieldKey(empty, {7}, log.category());
    EXPECT_EQ(key.ret, -9);
}

TEST(ExtractFieldKey, KeyOfExactly1022BytesSucceeds) {
    LogCapture log;
    t2::LongKey2 msg;
    msg.set_data(std::string(1019, 'x'));
    const Key key = FieldKey(msg, {1}, log.category());
    EXPECT_EQ(key.ret, 0);
    EXPECT_EQ(key.size, 1022);
}

TEST(ExtractFieldKey, KeyOf1023BytesFailsWithItsLength) {
    LogCapture log;
    t2::LongKey2 msg;
    msg.set_data(std::string(1019, 'x'));
    msg.set_other(-1);  // 11 more bytes
    const Key key = FieldKey(msg, {1, 2}, log.category(), Call{nullptr, 2048});
    EXPECT_EQ(key.ret, -10);
    EXPECT_EQ(key.size, 1033);
    EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"key byte count:1033 exceed max:1022"}));
    EXPECT_TRUE(log.Has(kTrace, "field:other byte count before:1022, after:1033")) << log.Dump();
    EXPECT_FALSE(log.Has(kTrace, "msg key len(1033)")) << log.Dump();
}

// Past the end of buf the key's whole length is still counted: just past it
// (the stream's own buffer holds the tail) and far past it.
TEST(ExtractFieldKey, KeyOverTheLimitPastTheBufferFailsWithItsFullLength) {
    struct Case {
        size_t data;
        int32_t capacity;
    };
    for (const Case c : {Case{1020, 1022}, Case{1100, 1024}}) {
        LogCapture log;
        t2::LongKey2 msg;
        msg.set_data(std::string(c.data, 'x'));
        const int32_t whole = static_cast<int32_t>(msg.ByteSizeLong());
        const Key key = FieldKey(msg, {1}, log.category(), Call{nullptr, c.capacity});
        EXPECT_EQ(key.ret, -10) << c.data;
        EXPECT_EQ(key.size, whole) << c.data;
        EXPECT_EQ(log.Texts(kError),
                  (std::vector<std::string>{"key byte count:" + std::to_string(whole) + " exceed max:1022"}));
        EXPECT_FALSE(log.Has(kTrace, "msg key len(" + std::to_string(whole) + ")"));
        EXPECT_TRUE(key.GuardIntact(c.capacity));
    }
}

// The field list is the caller's: the table's primary key option is never
// read, so one that ExtractMsgKey refuses does not matter.
TEST(ExtractFieldKey, IgnoresTheTablesPrimaryKeyOption) {
    LogCapture log;
    t2::BadKeyEmptyToken2 msg;  // "a,,b"
    msg.set_a(5);
    const Key key = FieldKey(msg, {1}, log.category());
    EXPECT_EQ(key.ret, 0);
    EXPECT_EQ(key.hex(), "0805");
    EXPECT_EQ(MsgKey(msg, true, log.category()).ret, -5);
}

TEST(ExtractFieldKey, EncryptsMarkedStringAndBytesFields) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_sealed(std::string("\x00\xff", 2));
    msg.set_token("tok");
    const Key key = FieldKey(msg, {3, 2}, log.category(), Call{api.get()});
    ASSERT_EQ(key.ret, 0) << log.Dump();
    const std::string bytes = key.bytes();
    ASSERT_EQ(bytes.size(), 2u + 18u + 2u + 19u);
    EXPECT_EQ(Hex(bytes.substr(0, 2)), "1a12");
    EXPECT_EQ(Decrypt(bytes.substr(2, 18)), std::string("\x00\xff", 2));
    EXPECT_EQ(Hex(bytes.substr(20, 2)), "1213");
    EXPECT_EQ(Decrypt(bytes.substr(22)), "tok");
}

TEST(ExtractFieldKey, MatchesExtractMsgKeyOnEncryptedTable) {
    LogCapture log;
    const auto api = AesApi();
    t2::Secret2 msg;
    msg.set_uid(99);
    msg.set_token("same");
    const Key by_fields = FieldKey(msg, {1, 2}, log.category(), Call{api.get()});
    const Key by_key = MsgKey(msg, true, log.category(), Call{api.get()});
    ASSERT_EQ(by_fields.ret, 0);
    EXPECT_EQ(by_fields.hex(), by_key.hex());
}

TEST(ExtractFieldKey, EncryptedRepeatedFieldIsRefused) {
    LogCapture log;
    const auto api = AesApi();
    t2::CryptoRepeated2 msg;
    msg.add_tokens("a");
    const Key key = FieldKey(msg, {1}, log.category(), Call{api.get()});
    EXPECT_EQ(key.ret, -7);
    EXPECT_EQ(key.size, kCapacity);
    EXPECT_EQ(key.bytes().find('a'), std::string::npos);
}

TEST(ExtractFieldKey, FailureRows) {
    const auto aes = AesApi();
    const auto broken = BrokenApi();
    t2::Player2 player;
    player.set_zone(1);

    {  // -1: null idl, descriptor or log; nothing logged.
        LogCapture log;
        for (const Key& key : {FieldKey(player, {1}, log.category(), Call{nullptr, kCapacity, nullptr}),
                               FieldKey(HollowMessage(nullptr, nullptr), {1}, log.category()),
                               FieldKey(player, {1}, nullptr)}) {
            EXPECT_EQ(key.ret, -1);
            EXPECT_EQ(key.size, kCapacity);
            EXPECT_TRUE(key.GuardIntact(0));
        }
        EXPECT_TRUE(log.lines().empty());
    }
    {  // -2: no reflection.
        LogCapture log;
        const Key key = FieldKey(HollowMessage(t2::Player2::descriptor(), nullptr), {1}, log.category());
        EXPECT_EQ(key.ret, -2);
        EXPECT_EQ(key.size, kCapacity);
        EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"reflection param is null."}));
    }
    {  // -3: unknown suite.
        LogCapture log;
        t2::UnknownSuite2 msg;
        const Key key = FieldKey(msg, {1}, log.category(), Call{aes.get()});
        EXPECT_EQ(key.ret, -3);
        EXPECT_EQ(key.size, kCapacity);
        EXPECT_EQ(log.Texts(kError), (std::vector<std::string>{"suite:no-such-suite not found."}));
    }
    {  // -4: digest mismatch, before any field.
        LogCapture log;
        t2::WrongMd52 msg;
        const Key key = FieldKey(msg, {99}, log.category(), Call{aes.get()});
        EXPECT_EQ(key.ret, -4);
        EXPECT_EQ(key.size, kCapacity);
        EXPECT_EQ(log.Texts(kError),
                  (std::vector<std::string>{"suite:aes128 md5sum:b4ffcb23737cec315a4a4d1aa2a620ce "
                                            "meta md5:00000000000000000000000000000000 not match."}));
    }
    {  // -6: encrypted field, no suite named; nothing logged.
        LogCapture log;
        t2::CryptoNoSuite2 msg;
        msg.set_token("t");
        const Key key = FieldKey(msg, {1}, log.category());
        EXPECT_EQ(key.ret, -6);
        EXPECT_EQ(key.size, kCapacity);
        EXPECT_TRUE(log.lines().empty()) << log.Dump();
    }
    {  // -7: Encrypt failed; nothing logged.
        LogCapture log;
        t2::Secret2 msg;
        msg.set_token("t");
        const Key key = FieldKey(msg, {2}, log.category(), Call{broken.get()});
        EXPECT_EQ(key.ret, -7);
        EXPECT_EQ(key.size, kCapacity);
        EXPECT_TRUE(log.lines().empty()) << log.Dump();
    }
}

// ---------------------------------------------------------------------------
// Differential: for proto2 tables whose key fields are all set, the key is
// what protobuf writes for a message holding only the key fields.
// ---------------------------------------------------------------------------

std::vector<const FieldDescriptor*> KeyFields(const Message& msg) {
    std::set<std::string> names;
    EXPECT_EQ(ProtobufUtil::GetMsgKeyNames(msg, names), 0);
    std::vector<const FieldDescriptor*> fields;
    for (const std::string& name : names) fields.push_back(msg.GetDescriptor()->FindFieldByName(name));
    return fields;
}

std::string SerializedKeyOnly(const Message& msg, const std::vector<const FieldDescriptor*>& keys) {
    std::unique_ptr<Message> copy(msg.New());
    copy->CopyFrom(msg);
    const Descriptor* d = copy->GetDescriptor();
    for (int i = 0; i < d->field_count(); ++i) {
        if (std::find(keys.begin(), keys.end(), d->field(i)) == keys.end()) {
            copy->GetReflection()->ClearField(copy.get(), d->field(i));
        }
    }
    return copy->SerializeAsString();
}

template <typename T>
void ExpectKeyIsProtobufsEncodingOfTheKeyFields(uint64_t seed, int rounds) {
    std::mt19937_64 rng(seed);
    corvida_test::RandomFillOptions options;
    options.set_probability = 0.8;
    const std::vector<const FieldDescriptor*> keys = KeyFields(T());
    std::vector<int> numbers;
    for (const FieldDescriptor* f : keys) numbers.push_back(f->number());
    std::sort(numbers.begin(), numbers.end());

    for (int round = 0; round < rounds; ++round) {
        T msg;
        const auto all_set = [&] {
            return std::all_of(keys.begin(), keys.end(),
                               [&](const FieldDescriptor* f) { return msg.GetReflection()->HasField(msg, f); });
        };
        do {
            msg.Clear();
            corvida_test::FillRandom(&msg, rng, options);
        } while (!all_set());
        msg.ByteSizeLong();

        const std::string expected = Hex(SerializedKeyOnly(msg, keys));
        LogCapture log;
        const Key key = MsgKey(msg, true, log.category());
        ASSERT_EQ(key.ret, 0) << log.Dump() << msg.DebugString();
        EXPECT_EQ(key.hex(), expected) << msg.DebugString();
        const Key by_fields = FieldKey(msg, numbers, log.category());
        ASSERT_EQ(by_fields.ret, 0) << log.Dump();
        EXPECT_EQ(by_fields.hex(), expected);
    }
}

TEST(KeyDifferential, IntKeys2) { ExpectKeyIsProtobufsEncodingOfTheKeyFields<t2::IntKeys2>(11, 300); }
TEST(KeyDifferential, MixedKeys2) { ExpectKeyIsProtobufsEncodingOfTheKeyFields<t2::MixedKeys2>(12, 300); }
TEST(KeyDifferential, FloatKeys2) { ExpectKeyIsProtobufsEncodingOfTheKeyFields<t2::FloatKeys2>(13, 300); }
TEST(KeyDifferential, Player2) { ExpectKeyIsProtobufsEncodingOfTheKeyFields<t2::Player2>(14, 300); }
TEST(KeyDifferential, ManyKeys2) { ExpectKeyIsProtobufsEncodingOfTheKeyFields<t2::ManyKeys2>(15, 100); }

// ---------------------------------------------------------------------------
// No heap allocation per key.
// ---------------------------------------------------------------------------

using corvida_test::AllocationsOf;

TEST(KeyAllocations, NoneWhenNothingIsEncrypted) {
    LogCapture log(kError);  // rejects the trace lines
    t2::CompositeKey2 msg;   // int32, string and int64 key fields
    msg.set_region(3);
    msg.set_name("a name longer than sixteen bytes");
    msg.set_account_identifier(123456789);
    msg.set_note("not a key field");
    t3::Player3 player;
    player.set_uid(8);
    player.set_name("proto3 name");

    std::vector<uint8_t> buf(kCapacity);
    const std::vector<int> fields = {3, 1, 2};
    const std::vector<int> player_fields = {1, 2, 3, 16};
    int32_t size = 0;
    int results = 0;
    const auto run = [&] {
        size = kCapacity;
        results |= ProtobufUtil::ExtractMsgKey(nullptr, msg, buf.data(), size, Idl(), log.category(), true);
        size = kCapacity;
        results |= ProtobufUtil::ExtractFieldKey(nullptr, msg, fields, buf.data(), size, Idl(), log.category());
        size = kCapacity;
        results |= ProtobufUtil::ExtractMsgKey(nullptr, player, buf.data(), size, Idl(), log.category(), true);
        size = kCapacity;
        results |= ProtobufUtil::ExtractFieldKey(nullptr, player, player_fields, buf.data(), size, Idl(),
                                                 log.category());
    };
    run();  // first use of per-thread scratch space
    EXPECT_EQ(AllocationsOf([&] {
                  for (int i = 0; i < 100; ++i) run();
              }),
              0);
    EXPECT_EQ(results, 0);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

// The library's own suite encrypts with contexts it keeps, and shows its key
// digest without a copy.
TEST(KeyAllocations, NoneWhenTheLibrarysSuiteEncrypts) {
    LogCapture log(kError);
    const auto api = AesApi();
    t2::Secret2 msg;  // uid, token (encrypted)
    msg.set_uid(7);
    msg.set_token("a token longer than sixteen bytes");
    std::vector<uint8_t> buf(kCapacity);
    const std::vector<int> fields = {2, 1};
    int32_t size = 0;
    int results = 0;
    const auto run = [&] {
        size = kCapacity;
        results |= ProtobufUtil::ExtractMsgKey(api.get(), msg, buf.data(), size, Idl(), log.category(), true);
        size = kCapacity;
        results |= ProtobufUtil::ExtractFieldKey(api.get(), msg, fields, buf.data(), size, Idl(), log.category());
    };
    run();
    EXPECT_EQ(AllocationsOf([&] {
                  for (int i = 0; i < 100; ++i) run();
              }),
              0);
    EXPECT_EQ(results, 0);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(KeyAllocations, CounterSeesAllocations) {
    std::string* s = nullptr;
    EXPECT_GE(AllocationsOf([&] { s = new std::string(100, 'x'); }), 1);
    delete s;
}

}  // namespace
