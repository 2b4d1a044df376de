// The library's record keys, value sets and cipher suite against the
// straightforward implementation kept in tests/reference, on the same random
// and hostile inputs: every result, every output byte (key buffers and the
// bytes after them, the cipher scratch area, value sets, merged messages,
// failed paths), every log line the module writes at the priority the case
// runs with (trace, unless the case tries another filter) and every line
// protobuf itself logs must be the same.
//
// The inputs cover every type of the test tables, as generated messages, as
// dynamic messages over the generated descriptors and as dynamic messages of
// a separate pool that is destroyed and rebuilt (at the same address, with
// other field numbers) while the cases run; key buffers of 0 to 1100 bytes;
// dotted and tag paths valid, overlapping, malformed and oversized; field
// bytes cut by the library, serialized by protobuf (repeated, packed, map and
// oneof fields), truncated, retagged, overlong, invalid UTF-8 or random.
//
// CORVIDA_DIFFERENTIAL_ROUNDS multiplies the number of cases (default 1; the
// default run takes a few seconds). CORVIDA_DIFFERENTIAL_SEED changes the
// seeds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/field_comparator.h>
#include <google/protobuf/util/message_differencer.h>
#include <google/protobuf/wire_format.h>
#include <gtest/gtest.h>

#include "all_types2.pb.h"
#include "all_types3.pb.h"
#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_plans.h"
#include "reference/reference.h"
#include "reference/reference_aes_siv_cipher_suite.h"
#include "support/hex.h"
#include "support/log_capture.h"
#include "support/plan_filler.h"
#include "support/random_message.h"
#include "support/records.h"
#include "tables2.pb.h"
#include "tables3.pb.h"
#include "wide2.pb.h"
#include "wide3.pb.h"

namespace {

using corvida_test::CapturedLine;
using corvida_test::Hex;
using corvida_test::LogCapture;
using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::DynamicMessageFactory;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::WireFormat;
using PROTOBUF_UTIL::CorvidaKVApi;

using Rng = std::mt19937_64;
using Paths = std::set<std::string>;

constexpr char kAes128Hex[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr char kAesMd5[] = "b4ffcb23737cec315a4a4d1aa2a620ce";

// ---------------------------------------------------------------------------
// Run sizes.
// ---------------------------------------------------------------------------

int Rounds() {
    const char* text = std::getenv("CORVIDA_DIFFERENTIAL_ROUNDS");
    const int n = text != nullptr ? std::atoi(text) : 0;
    return n > 0 ? n : 1;
}

uint64_t Seed(uint64_t base) {
    const char* text = std::getenv("CORVIDA_DIFFERENTIAL_SEED");
    return base + (text != nullptr ? std::strtoull(text, nullptr, 10) * 1000003 : 0);
}

size_t Pick(Rng& rng, size_t n) { return static_cast<size_t>(rng() % n); }
bool Chance(Rng& rng, int percent) { return static_cast<int>(rng() % 100) < percent; }

// ---------------------------------------------------------------------------
// What a call leaves behind that the two implementations must share.
// ---------------------------------------------------------------------------

// Lines protobuf logs itself (UTF-8 complaints and the like), captured while
// an instance lives. The test runs on one thread.
class ProtobufLog {
public:
    ProtobufLog() : m_previous(google::protobuf::SetLogHandler(&Handler)) { s_lines = &m_lines; }
    ~ProtobufLog() {
        google::protobuf::SetLogHandler(m_previous);
        s_lines = nullptr;
    }
    ProtobufLog(const ProtobufLog&) = delete;
    ProtobufLog& operator=(const ProtobufLog&) = delete;

    const std::vector<std::string>& lines() const { return m_lines; }

private:
    static void Handler(google::protobuf::LogLevel level, const char* /*file*/, int /*line*/,
                        const std::string& message) {
        if (s_lines != nullptr) s_lines->push_back(std::to_string(level) + " " + message);
    }

    static std::vector<std::string>* s_lines;
    google::protobuf::LogHandler* m_previous;
    std::vector<std::string> m_lines;
};

std::vector<std::string>* ProtobufLog::s_lines = nullptr;

// How a case sets up its log category: a threshold and optional bounds. Most
// cases take every line; some try the filters, under which the fast paths
// must still make the same decisions.
struct LogSetup {
    int threshold = PLOG_PRIORITY_TRACE;
    int low = -1;   // -1: unset
    int high = -1;  // -1: unset
    bool null = false;
    // When not 0: after every flip_every-th line it receives, the sink turns
    // the category's threshold from debug and trace lines to errors only, or
    // back, as a sink may.
    int flip_every = 0;
};

LogSetup RandomLogSetup(Rng& rng) {
    LogSetup setup;
    switch (Pick(rng, 12)) {
        case 0: setup.threshold = PLOG_PRIORITY_ERROR; break;
        case 1: setup.threshold = PLOG_PRIORITY_DEBUG; break;
        case 2: setup.threshold = PLOG_PRIORITY_FATAL; break;
        case 3: setup.low = PLOG_PRIORITY_ERROR; break;
        case 4: setup.high = PLOG_PRIORITY_TRACE; break;
        case 5: setup.null = Chance(rng, 50); break;
        case 6: setup.flip_every = 1 + static_cast<int>(Pick(rng, 3)); break;
        default: break;
    }
    return setup;
}

// One log category as LogSetup says, with its bounds.
class Log {
public:
    explicit Log(const LogSetup& setup) : m_capture(setup.threshold), m_setup(setup) {
        LPPLOGCATEGORYINST category = m_capture.category();
        if (setup.low != -1) category->piPriorityLow = &m_setup.low;
        if (setup.high != -1) category->piPriorityHigh = &m_setup.high;
        m_capture_sink = category->pfnWrite;
        m_capture_ctx = category->pvWriteCtx;
        category->pfnWrite = &Log::Sink;
        category->pvWriteCtx = this;
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    LPPLOGCATEGORYINST category() { return m_setup.null ? nullptr : m_capture.category(); }
    const std::vector<CapturedLine>& lines() const { return m_capture.lines(); }

private:
    static void Sink(void* ctx, const PLOGEVENT* event, const char* msg, size_t len) {
        Log* self = static_cast<Log*>(ctx);
        self->m_capture_sink(self->m_capture_ctx, event, msg, len);
        if (self->m_setup.flip_every != 0 && self->lines().size() % self->m_setup.flip_every == 0) {
            int& threshold = self->m_capture.category()->iPriority;
            threshold = threshold == PLOG_PRIORITY_ERROR ? PLOG_PRIORITY_TRACE : PLOG_PRIORITY_ERROR;
        }
    }

    LogCapture m_capture;
    LogSetup m_setup;
    PLOGWRITEFN m_capture_sink;
    void* m_capture_ctx;
};

std::string Describe(const std::vector<CapturedLine>& lines) {
    std::string out;
    for (const CapturedLine& line : lines) {
        out += std::to_string(line.priority) + " " + line.file + " " + line.func + ": " + line.text + "\n";
    }
    return out;
}

std::string ProtobufLogDiff(const std::vector<std::string>& reference, const std::vector<std::string>& fast) {
    std::string out = "protobuf's log differs:\n--- reference\n";
    for (const std::string& line : reference) out += line + "\n";
    out += "--- fast\n";
    for (const std::string& line : fast) out += line + "\n";
    return out;
}

// Compares everything but the line numbers, which are the source's own.
bool SameLines(const std::vector<CapturedLine>& a, const std::vector<CapturedLine>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].priority != b[i].priority || a[i].file != b[i].file || a[i].func != b[i].func ||
            a[i].text != b[i].text) {
            return false;
        }
    }
    return true;
}

class Side;

// Collects the differences of one case; the loop stops at the first case
// that has any, and the test fails with its description.
class Diff {
public:
    explicit Diff(std::string context) : m_context(std::move(context)) {}

    template <typename T>
    void Same(const char* what, const T& reference, const T& fast) {
        if (!(reference == fast)) m_text += std::string(what) + " differs\n";
    }
    void SameBytes(const char* what, const std::string& reference, const std::string& fast) {
        if (reference != fast) {
            m_text += std::string(what) + " differs:\n  reference " + Hex(reference.substr(0, 200)) + "\n  fast      " +
                      Hex(fast.substr(0, 200)) + "\n";
        }
    }
    void SameLog(const Log& reference, const Log& fast) {
        if (!SameLines(reference.lines(), fast.lines())) {
            m_text +=
                "log differs:\n--- reference\n" + Describe(reference.lines()) + "--- fast\n" + Describe(fast.lines());
        }
    }
    // The lines of both categories and of protobuf.
    void SameLogs(const Side& reference, const Side& fast);
    void Note(const std::string& text) { m_text += text + "\n"; }

    // True when the case passed; otherwise records a test failure.
    bool Check() const {
        if (m_text.empty()) return true;
        ADD_FAILURE() << m_context << "\n" << m_text;
        return false;
    }

private:
    std::string m_context;
    std::string m_text;
};

// One implementation's run of a case: its result, the lines its category
// took and the lines protobuf itself logged meanwhile.
class Side {
public:
    explicit Side(const LogSetup& setup) : m_log(setup) {}

    // Runs call(category), which returns the result.
    template <typename Call>
    void Run(Call call) {
        ProtobufLog protobuf;
        m_ret = call(m_log.category());
        m_protobuf = protobuf.lines();
    }

    int ret() const { return m_ret; }
    const Log& log() const { return m_log; }
    const std::vector<std::string>& protobuf() const { return m_protobuf; }

private:
    Log m_log;
    int m_ret = 0;
    std::vector<std::string> m_protobuf;
};

void Diff::SameLogs(const Side& reference, const Side& fast) {
    SameLog(reference.log(), fast.log());
    if (reference.protobuf() != fast.protobuf()) Note(ProtobufLogDiff(reference.protobuf(), fast.protobuf()));
}

// How often each result came up, so that a run shows (and the test
// requires) that the random inputs reach the failure paths too.
class Tally {
public:
    void Add(int result) { ++m_counts[result]; }

    // Fails unless every result of `expected` came up at least once; prints
    // the counts.
    void ExpectSeen(const std::string& what, std::initializer_list<int> expected) const {
        std::string counts;
        for (const auto& entry : m_counts)
            counts += " " + std::to_string(entry.first) + ":" + std::to_string(entry.second);
        std::printf("%s results:%s\n", what.c_str(), counts.c_str());
        for (int result : expected) EXPECT_GT(m_counts.count(result), 0u) << what << " never gave " << result;
    }

private:
    std::map<int, long> m_counts;
};

// ---------------------------------------------------------------------------
// Message types: generated, dynamic over the generated descriptors, and
// dynamic from a separate pool that is rebuilt while the cases run.
// ---------------------------------------------------------------------------

std::vector<const FileDescriptor*> TestFiles() {
    return {corvida::test::Player2::descriptor()->file(),   corvida::test3::Player3::descriptor()->file(),
            corvida::test::AllTypes2::descriptor()->file(), corvida::test::AllTypes3::descriptor()->file(),
            corvida::test::Wide2::descriptor()->file(),     corvida::test3::Wide3::descriptor()->file()};
}

// Field numbers of every message field moved by 100 (map entries keep theirs;
// the largest numbers move down): the rebuilt pool's types have the names and
// options of the first but other bytes, so whatever survived the first pool
// would show.
void Renumber(FileDescriptorProto* file) {
    constexpr int kLargest = FieldDescriptor::kMaxNumber;
    std::function<void(google::protobuf::DescriptorProto*)> renumber = [&](google::protobuf::DescriptorProto* type) {
        if (type->options().map_entry()) return;
        for (auto& field : *type->mutable_field()) {
            field.set_number(field.number() <= kLargest - 100 ? field.number() + 100 : field.number() - 100);
        }
        for (auto& nested : *type->mutable_nested_type()) renumber(&nested);
    };
    for (auto& type : *file->mutable_message_type()) renumber(&type);
}

// A pool of its own holding the test files (and what they import), with a
// factory of dynamic messages over it. Rebuild() destroys both and builds
// them again in the same storage, so the new descriptors may well reuse the
// old addresses.
class SeparatePool {
public:
    SeparatePool() { Rebuild(false); }

    void Rebuild(bool renumbered) {
        m_types.clear();
        m_factory.reset();
        m_pool.reset();
        m_pool.emplace();
        std::set<std::string> built;
        for (const FileDescriptor* file : TestFiles()) Build(file, renumbered, built);
        m_factory.emplace(&*m_pool);
        for (const FileDescriptor* file : TestFiles()) {
            const FileDescriptor* mine = m_pool->FindFileByName(file->name());
            for (int i = 0; i < mine->message_type_count(); ++i) m_types.push_back(mine->message_type(i));
        }
    }

    const std::vector<const Descriptor*>& types() const { return m_types; }
    const Message* Prototype(const Descriptor* type) { return m_factory->GetPrototype(type); }

private:
    void Build(const FileDescriptor* file, bool renumbered, std::set<std::string>& built) {
        if (!built.insert(file->name()).second) return;
        for (int i = 0; i < file->dependency_count(); ++i) Build(file->dependency(i), renumbered, built);
        FileDescriptorProto proto;
        file->CopyTo(&proto);
        const bool test_file = file->package().rfind("corvida.test", 0) == 0;
        if (renumbered && test_file) Renumber(&proto);
        ASSERT_NE(m_pool->BuildFile(proto), nullptr) << file->name();
    }

    std::optional<DescriptorPool> m_pool;
    std::optional<DynamicMessageFactory> m_factory;
    std::vector<const Descriptor*> m_types;
};

enum class Kind { kGenerated, kDynamic, kSeparatePool };

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::kGenerated: return "generated";
        case Kind::kDynamic: return "dynamic";
        case Kind::kSeparatePool: return "separate pool";
    }
    return "";
}

std::string KindTestName(const ::testing::TestParamInfo<Kind>& info) {
    switch (info.param) {
        case Kind::kGenerated: return "Generated";
        case Kind::kDynamic: return "Dynamic";
        case Kind::kSeparatePool: return "SeparatePool";
    }
    return "";
}

// Hands out prototypes of every top-level type of the test files in one kind.
class Types {
public:
    explicit Types(Kind kind) : m_kind(kind) {
        for (const FileDescriptor* file : TestFiles()) {
            for (int i = 0; i < file->message_type_count(); ++i) m_generated.push_back(file->message_type(i));
        }
    }

    Kind kind() const { return m_kind; }

    // Every rebuild_every picks of a separate-pool type, the pool is rebuilt,
    // alternately renumbered.
    const Message* Random(Rng& rng) {
        if (m_kind == Kind::kSeparatePool) {
            if (++m_picks % kRebuildEvery == 0) m_separate.Rebuild(++m_rebuilds % 2 == 1);
            const auto& types = m_separate.types();
            return m_separate.Prototype(types[Pick(rng, types.size())]);
        }
        const Descriptor* type = m_generated[Pick(rng, m_generated.size())];
        if (m_kind == Kind::kGenerated)
            return google::protobuf::MessageFactory::generated_factory()->GetPrototype(type);
        return m_dynamic.GetPrototype(type);
    }

    // A prototype of the named type, in this kind.
    const Message* Named(const std::string& full_name) {
        for (const Descriptor* type : m_kind == Kind::kSeparatePool ? m_separate.types() : m_generated) {
            if (type->full_name() != full_name) continue;
            if (m_kind == Kind::kGenerated) {
                return google::protobuf::MessageFactory::generated_factory()->GetPrototype(type);
            }
            return m_kind == Kind::kDynamic ? m_dynamic.GetPrototype(type) : m_separate.Prototype(type);
        }
        return nullptr;
    }

private:
    static constexpr int kRebuildEvery = 40;

    Kind m_kind;
    std::vector<const Descriptor*> m_generated;
    DynamicMessageFactory m_dynamic;
    SeparatePool m_separate;
    int m_picks = 0;
    int m_rebuilds = 0;
};

// A string or bytes value that is not valid UTF-8.
std::string BrokenUtf8(Rng& rng) {
    std::string s = "ok";
    s += static_cast<char>(0xc0 | Pick(rng, 2));
    s += static_cast<char>(0xff - Pick(rng, 8));
    return s;
}

// A random message of prototype's type. Some strings are not valid UTF-8 and
// some are long, so that keys reach the limit and beyond.
std::unique_ptr<Message> RandomMessage(const Message& prototype, Rng& rng) {
    std::unique_ptr<Message> msg(prototype.New());
    corvida_test::RandomFillOptions options;
    options.set_probability = 0.2 + 0.2 * static_cast<double>(Pick(rng, 5));
    options.max_depth = 1 + static_cast<int>(Pick(rng, 3));
    options.max_repeated = static_cast<int>(Pick(rng, 5));
    options.max_string = Chance(rng, 10) ? 700 : 30;
    corvida_test::FillRandom(msg.get(), rng, options);
    const Descriptor* desc = msg->GetDescriptor();
    const Reflection* r = msg->GetReflection();
    for (int i = 0; i < desc->field_count(); ++i) {
        const FieldDescriptor* field = desc->field(i);
        if (field->cpp_type() != FieldDescriptor::CPPTYPE_STRING || field->is_repeated()) continue;
        if (Chance(rng, 8)) r->SetString(msg.get(), field, BrokenUtf8(rng));
    }
    return msg;
}

// Calls test(prototype, n) for every filler type, twice over, in a child
// process: the filler types outnumber the plans the library keeps, so the
// first round keeps the plans of the types that find room and the second
// finds them kept or, for the others, still no room. Stops at the first
// case for which test returns false. Only generated classes have plans
// kept, so the suites that call it run on generated types alone.
template <typename Test>
void ForEachFillerType(Test test) {
    const std::vector<const Message*>& types = corvida_test::PlanFillerTypes();
    ASSERT_GT(types.size(), PROTOBUF_UTIL::internal::PlanCache<int>::kSlots);
    corvida_test::InChildProcess([&] {
        int n = 0;
        for (int round = 0; round < 2; ++round) {
            for (const Message* prototype : types) {
                if (!test(*prototype, n++)) return;
            }
        }
    });
}

std::unique_ptr<Message> Copy(const Message& msg) {
    std::unique_ptr<Message> copy(msg.New());
    copy->CopyFrom(msg);
    return copy;
}

// The serialized bytes with maps in key order, so that equal messages give
// equal bytes; unknown fields included.
std::string Bytes(const Message& msg) {
    std::string out;
    google::protobuf::io::StringOutputStream sink(&out);
    google::protobuf::io::CodedOutputStream output(&sink);
    output.SetSerializationDeterministic(true);
    msg.SerializePartialToCodedStream(&output);
    output.Trim();
    return out;
}

// Same contents, field presence included, and the same bytes.
bool SameMessage(const Message& a, const Message& b) {
    google::protobuf::util::DefaultFieldComparator comparator;
    comparator.set_treat_nan_as_equal(true);  // the bytes compare NaNs exactly
    google::protobuf::util::MessageDifferencer differencer;
    differencer.set_field_comparator(&comparator);
    return differencer.Compare(a, b) && Bytes(a) == Bytes(b);
}

// ---------------------------------------------------------------------------
// Cipher suites: the library's, the reference's, and suites that fail or
// record how they are called.
// ---------------------------------------------------------------------------

// A suite named "aes128" with the tables' digest that records every call
// (operation and arguments) before handing it on, so that both sides must
// call their suites alike.
class RecordingSuite : public CipherSuite {
public:
    enum class Mode { kAes, kFail, kBogusLength };

    RecordingSuite(std::unique_ptr<CipherSuite> aes, Mode mode) : m_aes(std::move(aes)), m_mode(mode) {}

    const char* GetName() override { return "aes128"; }
    int Init(const std::string&) override { return 0; }
    int Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override {
        m_calls.push_back("Encrypt " + Hex(in, inlen > 0 ? static_cast<size_t>(inlen) : 0) + " capacity " +
                          std::to_string(outlen));
        switch (m_mode) {
            case Mode::kAes: return m_aes->Encrypt(in, inlen, out, outlen);
            case Mode::kFail: return -1;
            case Mode::kBogusLength: outlen += 1; return 0;
        }
        return -1;
    }
    int Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override {
        return m_aes->Decrypt(in, inlen, out, outlen);
    }
    const std::string GetCipherKeyMD5() override {
        m_calls.push_back("GetCipherKeyMD5");
        return kAesMd5;
    }
    const std::string GetErrMsg() override { return m_aes->GetErrMsg(); }

    const std::vector<std::string>& calls() const { return m_calls; }
    void Clear() { m_calls.clear(); }

private:
    std::unique_ptr<CipherSuite> m_aes;
    Mode m_mode;
    std::vector<std::string> m_calls;
};

// The KV APIs of one side: none, or one whose "aes128" suite encrypts with
// that side's AES-SIV, fails, or claims an output longer than its capacity.
class Apis {
public:
    explicit Apis(bool reference) {
        for (RecordingSuite::Mode mode :
             {RecordingSuite::Mode::kAes, RecordingSuite::Mode::kFail, RecordingSuite::Mode::kBogusLength}) {
            std::unique_ptr<CipherSuite> aes;
            if (reference) {
                aes = std::make_unique<ReferenceAesSivCipherSuite>("aes128");
            } else {
                aes = std::make_unique<AesSivCipherSuite>("aes128");
            }
            EXPECT_EQ(aes->Init(kAes128Hex), 0);
            auto suite = std::make_unique<RecordingSuite>(std::move(aes), mode);
            m_suites.push_back(suite.get());
            auto api = std::make_unique<CorvidaKVApi>();
            EXPECT_EQ(api->AddCipherSuite(std::move(suite)), 0);
            m_apis.push_back(std::move(api));
        }
        // A plain AES-SIV suite, not wrapped: the library may take its own
        // suite's fast way.
        auto api = std::make_unique<CorvidaKVApi>();
        std::unique_ptr<CipherSuite> aes;
        if (reference) {
            aes = std::make_unique<ReferenceAesSivCipherSuite>("aes128");
        } else {
            aes = std::make_unique<AesSivCipherSuite>("aes128");
        }
        EXPECT_EQ(aes->Init(kAes128Hex), 0);
        EXPECT_EQ(api->AddCipherSuite(std::move(aes)), 0);
        m_apis.push_back(std::move(api));
    }

    // 0: null; 1..3: recording suites; 4: the plain suite.
    static constexpr size_t kCount = 5;
    CorvidaKVApi* Get(size_t i) { return i == 0 ? nullptr : m_apis[i - 1].get(); }
    std::vector<std::string> Calls(size_t i) const {
        return i >= 1 && i <= 3 ? m_suites[i - 1]->calls() : std::vector<std::string>{};
    }
    void ClearCalls() {
        for (RecordingSuite* suite : m_suites) suite->Clear();
    }

private:
    std::vector<std::unique_ptr<CorvidaKVApi>> m_apis;
    std::vector<RecordingSuite*> m_suites;
};

size_t RandomApi(Rng& rng) {
    const size_t pick = Pick(rng, 10);
    if (pick < 4) return 4;  // the plain suite
    if (pick < 6) return 1;
    if (pick < 7) return 2;
    if (pick < 8) return 3;
    return 0;
}

// Sets a singular field to boundary value `which` of its type (zero,
// negative zero, NaN, extremes, empty and invalid strings).
void SetEdgeValue(Message* msg, const FieldDescriptor* field, int which) {
    const Reflection* r = msg->GetReflection();
    const double kReals[] = {
        0.0, -0.0, 1.5, -1e300, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()};
    const int64_t kInts[] = {0, -1, 1, 127, 128, INT64_MIN, INT64_MAX};
    const uint64_t kUints[] = {0, 1, 127, 128, UINT64_MAX};
    const std::string kStrings[] = {"", "a", std::string(200, 'x'), "ok\xc3", std::string("\0\0", 2)};
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: r->SetInt32(msg, field, static_cast<int32_t>(kInts[which % 7])); break;
        case FieldDescriptor::CPPTYPE_INT64: r->SetInt64(msg, field, kInts[which % 7]); break;
        case FieldDescriptor::CPPTYPE_UINT32: r->SetUInt32(msg, field, static_cast<uint32_t>(kUints[which % 5])); break;
        case FieldDescriptor::CPPTYPE_UINT64: r->SetUInt64(msg, field, kUints[which % 5]); break;
        case FieldDescriptor::CPPTYPE_FLOAT: r->SetFloat(msg, field, static_cast<float>(kReals[which % 6])); break;
        case FieldDescriptor::CPPTYPE_DOUBLE: r->SetDouble(msg, field, kReals[which % 6]); break;
        case FieldDescriptor::CPPTYPE_BOOL: r->SetBool(msg, field, which % 2 == 1); break;
        case FieldDescriptor::CPPTYPE_ENUM: r->SetEnumValue(msg, field, which % 2 == 0 ? 0 : 1); break;
        case FieldDescriptor::CPPTYPE_STRING: r->SetString(msg, field, kStrings[which % 5]); break;
        case FieldDescriptor::CPPTYPE_MESSAGE: r->MutableMessage(msg, field); break;
    }
}

// The tables whose every singular field the edge-value cases try.
const char* const kEdgeTables[] = {"corvida.test.AllTypes2", "corvida.test.AllTypes3", "corvida.test3.Player3",
                                   "corvida.test.Defaults2", "corvida.test.Wide2",     "corvida.test.WideInner2",
                                   "corvida.test3.Wide3"};
constexpr int kEdgeValues = 7;

// Calls test(msg, field, n) with a message of each edge table (of the kind
// types hands out) holding each boundary value of one singular field in
// turn, its declared default, and with that field unset; its sizes are
// cached. Stops at the first case for which test returns false.
template <typename Test>
void ForEachEdgeValue(Types& types, Test test) {
    int n = 0;
    for (const char* name : kEdgeTables) {
        const Message* prototype = types.Named(name);
        ASSERT_NE(prototype, nullptr);
        const Descriptor* desc = prototype->GetDescriptor();
        for (int i = 0; i < desc->field_count(); ++i) {
            const FieldDescriptor* field = desc->field(i);
            if (field->is_repeated()) continue;
            for (int which = -1; which <= kEdgeValues; ++which) {
                std::unique_ptr<Message> msg(prototype->New());
                if (which == kEdgeValues) {
                    corvida_test::SetToDefault(msg.get(), field);
                } else if (which >= 0) {
                    SetEdgeValue(msg.get(), field, which);
                }
                msg->ByteSizeLong();
                if (!test(*msg, field, n++)) return;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Record keys.
// ---------------------------------------------------------------------------

constexpr int kGuard = 64;
constexpr uint8_t kGuardByte = 0xee;
// The part of idl->szValue compared: ciphertext of values up to 700 bytes.
constexpr size_t kIdlCompared = 2048;

struct KeyRun {
    int ret = 0;
    int32_t size = 0;
    std::string buffer;  // the capacity and kGuard bytes after it
    std::string idl;     // the first kIdlCompared bytes of szValue
};

// The same for both sides: one buffer of capacity + kGuard bytes and the
// scratch record, filled with known bytes before the call.
template <typename Call>
KeyRun RunKey(int32_t capacity, tagtbl_idl* idl, Call call) {
    KeyRun run;
    std::vector<uint8_t> buffer(static_cast<size_t>(capacity) + kGuard, kGuardByte);
    std::memset(idl->szValue, 0x5a, kIdlCompared);
    run.size = capacity;
    run.ret = call(buffer.data(), run.size);
    run.buffer.assign(buffer.begin(), buffer.end());
    run.idl.assign(reinterpret_cast<const char*>(idl->szValue), kIdlCompared);
    return run;
}

int32_t RandomCapacity(Rng& rng) {
    switch (Pick(rng, 6)) {
        case 0: return static_cast<int32_t>(Pick(rng, 20));
        case 1: return static_cast<int32_t>(Pick(rng, 120));
        case 2: return 1020 + static_cast<int32_t>(Pick(rng, 6));
        default: return static_cast<int32_t>(Pick(rng, 1101));
    }
}

// Field numbers for ExtractFieldKey: fields of the type in any order, some
// twice, and numbers that name no field.
std::vector<int> RandomFieldNumbers(const Descriptor* desc, Rng& rng) {
    std::vector<int> numbers;
    const size_t count = Pick(rng, 6);
    for (size_t i = 0; i < count; ++i) {
        if (desc->field_count() > 0 && !Chance(rng, 12)) {
            numbers.push_back(desc->field(static_cast<int>(Pick(rng, desc->field_count())))->number());
        } else {
            static const int kStrange[] = {0, -1, 999, 536870911, 19000, INT32_MIN};
            numbers.push_back(kStrange[Pick(rng, sizeof(kStrange) / sizeof(kStrange[0]))]);
        }
    }
    return numbers;
}

class KeyDifferential : public ::testing::TestWithParam<Kind> {
protected:
    void Run(int cases, uint64_t seed) {
        Rng rng(Seed(seed));
        Types types(GetParam());
        for (int n = 0; n < cases; ++n) {
            const Message& prototype = *types.Random(rng);
            std::unique_ptr<Message> msg = RandomMessage(prototype, rng);
            // Keys use cached sizes as they stand; now and then they are stale.
            if (!Chance(rng, 10)) msg->ByteSizeLong();
            const bool field_key = Chance(rng, 40);
            if (!Case(*msg, field_key, rng, n)) return;
        }
    }

    bool Case(const Message& msg, bool field_key, Rng& rng, int n) {
        const size_t api = RandomApi(rng);
        const int32_t capacity = RandomCapacity(rng);
        const LogSetup setup = RandomLogSetup(rng);
        const bool check = Chance(rng, 60);
        const bool null_idl = Chance(rng, 1);
        const std::vector<int> numbers = RandomFieldNumbers(msg.GetDescriptor(), rng);
        m_reference_apis.ClearCalls();
        m_fast_apis.ClearCalls();

        KeyRun reference;
        Side reference_side(setup);
        reference_side.Run([&](LPPLOGCATEGORYINST log) {
            reference = RunKey(capacity, m_reference_idl.get(), [&](uint8_t* buf, int32_t& size) {
                tagtbl_idl* idl = null_idl ? nullptr : m_reference_idl.get();
                CorvidaKVApi* kv = m_reference_apis.Get(api);
                return field_key
                           ? corvida_reference::ProtobufUtil::ExtractFieldKey(kv, msg, numbers, buf, size, idl, log)
                           : corvida_reference::ProtobufUtil::ExtractMsgKey(kv, msg, buf, size, idl, log, check);
            });
            return reference.ret;
        });
        KeyRun fast;
        Side fast_side(setup);
        fast_side.Run([&](LPPLOGCATEGORYINST log) {
            fast = RunKey(capacity, m_fast_idl.get(), [&](uint8_t* buf, int32_t& size) {
                tagtbl_idl* idl = null_idl ? nullptr : m_fast_idl.get();
                CorvidaKVApi* kv = m_fast_apis.Get(api);
                return field_key ? PROTOBUF_UTIL::ProtobufUtil::ExtractFieldKey(kv, msg, numbers, buf, size, idl, log)
                                 : PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(kv, msg, buf, size, idl, log, check);
            });
            return fast.ret;
        });

        Diff diff(std::string("key case ") + std::to_string(n) + " (" + KindName(GetParam()) + "): " +
                  (field_key ? "ExtractFieldKey" : "ExtractMsgKey") + " of " + msg.GetDescriptor()->full_name() +
                  ", api " + std::to_string(api) + ", capacity " + std::to_string(capacity) + ", bCheck " +
                  std::to_string(check) + ", threshold " + std::to_string(setup.threshold) + "\n" + msg.DebugString());
        m_tally.Add(reference.ret);
        diff.Same("result", reference.ret, fast.ret);
        diff.Same("size", reference.size, fast.size);
        diff.SameBytes("key buffer", reference.buffer, fast.buffer);
        diff.SameBytes("cipher scratch", reference.idl, fast.idl);
        diff.SameLogs(reference_side, fast_side);
        diff.Same("suite calls", m_reference_apis.Calls(api), m_fast_apis.Calls(api));
        return diff.Check();
    }

    // ExtractFieldKey of numbers of msg into a roomy buffer, every line taken.
    bool FieldKeyCase(const Message& msg, const std::vector<int>& numbers, int n) {
        KeyRun reference;
        Side reference_side(LogSetup{});
        reference_side.Run([&](LPPLOGCATEGORYINST log) {
            reference = RunKey(1024, m_reference_idl.get(), [&](uint8_t* buf, int32_t& size) {
                return corvida_reference::ProtobufUtil::ExtractFieldKey(nullptr, msg, numbers, buf, size,
                                                                        m_reference_idl.get(), log);
            });
            return reference.ret;
        });
        KeyRun fast;
        Side fast_side(LogSetup{});
        fast_side.Run([&](LPPLOGCATEGORYINST log) {
            fast = RunKey(1024, m_fast_idl.get(), [&](uint8_t* buf, int32_t& size) {
                return PROTOBUF_UTIL::ProtobufUtil::ExtractFieldKey(nullptr, msg, numbers, buf, size, m_fast_idl.get(),
                                                                    log);
            });
            return fast.ret;
        });
        Diff diff("edge key case " + std::to_string(n) + " (" + KindName(GetParam()) + ") of " +
                  msg.GetDescriptor()->full_name() + "\n" + msg.DebugString());
        diff.Same("result", reference.ret, fast.ret);
        diff.Same("size", reference.size, fast.size);
        diff.SameBytes("key buffer", reference.buffer, fast.buffer);
        diff.SameLogs(reference_side, fast_side);
        return diff.Check();
    }

    Tally m_tally;
    Apis m_reference_apis{true};
    Apis m_fast_apis{false};
    std::unique_ptr<tagtbl_idl> m_reference_idl = corvida_test::NewIdl();
    std::unique_ptr<tagtbl_idl> m_fast_idl = corvida_test::NewIdl();
};

TEST_P(KeyDifferential, RandomMessagesOfEveryTable) {
    Run(4000 * Rounds(), 1);
    m_tally.ExpectSeen("keys", {0, -1, -3, -4, -5, -6, -7, -9});
}

// Tables whose keys are long, encrypted, or of many fields, more often.
TEST_P(KeyDifferential, KeyTables) {
    Rng rng(Seed(2));
    Types types(GetParam());
    const char* const kNames[] = {
        "corvida.test.LongKey2",        "corvida.test.Secret2",     "corvida.test3.Secret3",
        "corvida.test.ManyKeys2",       "corvida.test.MixedKeys2",  "corvida.test3.MixedKeys3",
        "corvida.test.IntKeys2",        "corvida.test.FloatKeys2",  "corvida.test.CompositeKey2",
        "corvida.test.CryptoRepeated2", "corvida.test.SpacedKeys2", "corvida.test3.Player3",
        "corvida.test.Defaults2",       "corvida.test.Wide2",       "corvida.test3.Wide3"};
    const int cases = 3000 * Rounds();
    for (int n = 0; n < cases; ++n) {
        const Message* prototype = types.Named(kNames[Pick(rng, sizeof(kNames) / sizeof(kNames[0]))]);
        ASSERT_NE(prototype, nullptr);
        std::unique_ptr<Message> msg = RandomMessage(*prototype, rng);
        if (prototype->GetDescriptor()->name() == "LongKey2") {
            const std::string data(Pick(rng, 1100), 'd');
            msg->GetReflection()->SetString(msg.get(), msg->GetDescriptor()->FindFieldByName("data"), data);
        }
        msg->ByteSizeLong();
        if (!Case(*msg, Chance(rng, 30), rng, n)) return;
    }
    m_tally.ExpectSeen("keys of the key tables", {0, -7, -9, -10});
}

// Every singular field of the all-types tables as a key field, set to each
// boundary value of its type in turn and left unset.
TEST_P(KeyDifferential, EdgeValuesOfEverySingularField) {
    Types types(GetParam());
    ForEachEdgeValue(types, [this](const Message& msg, const FieldDescriptor* field, int n) {
        return FieldKeyCase(msg, {field->number()}, n);
    });
}

// More generated types than the library keeps plans of.
class KeyPlanDifferential : public KeyDifferential {};

TEST_P(KeyPlanDifferential, TypesBeyondTheKeptPlans) {
    Rng rng(Seed(10));
    ForEachFillerType([&](const Message& prototype, int n) {
        std::unique_ptr<Message> msg = RandomMessage(prototype, rng);
        msg->ByteSizeLong();
        return Case(*msg, Chance(rng, 30), rng, n);
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, KeyDifferential,
                         ::testing::Values(Kind::kGenerated, Kind::kDynamic, Kind::kSeparatePool), KindTestName);
INSTANTIATE_TEST_SUITE_P(Kinds, KeyPlanDifferential, ::testing::Values(Kind::kGenerated), KindTestName);

// ---------------------------------------------------------------------------
// Paths.
// ---------------------------------------------------------------------------

// Dotted paths of every field down to `levels` levels of sub-messages.
void CollectNamePaths(const Descriptor* desc, const std::string& prefix, int levels, std::vector<std::string>& out) {
    for (int i = 0; i < desc->field_count(); ++i) {
        const FieldDescriptor* field = desc->field(i);
        const std::string path = prefix + field->name();
        out.push_back(path);
        if (levels > 0 && field->message_type() != nullptr && !field->is_map()) {
            CollectNamePaths(field->message_type(), path + ".", levels - 1, out);
        }
    }
}

// Tag paths of the same fields, with the field that each ends at.
void CollectTagPaths(const Descriptor* desc, const std::string& prefix, int levels,
                     std::vector<std::pair<std::string, const FieldDescriptor*>>& out) {
    for (int i = 0; i < desc->field_count(); ++i) {
        const FieldDescriptor* field = desc->field(i);
        const std::string path = prefix + std::to_string(field->number());
        out.emplace_back(path, field);
        if (levels > 0 && field->message_type() != nullptr && !field->is_map()) {
            CollectTagPaths(field->message_type(), path + ".", levels - 1, out);
        }
    }
}

std::string Repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

// A dotted path: mostly a real one, else one of the ways a path goes wrong.
std::string HostileNamePath(const std::vector<std::string>& real, Rng& rng) {
    const std::string& base = real.empty() ? std::string("x") : real[Pick(rng, real.size())];
    switch (Pick(rng, 40)) {
        case 0: return base + ".";
        case 1: return "." + base;
        case 2: return " " + base + "\t";
        case 3: return base + ".nope";
        case 4: return "";
        case 5: return ".";
        case 6: return "..";
        case 7: return base + std::string(1023 - std::min<size_t>(base.size(), 1023), ' ');
        case 8: return base + std::string(1024 - std::min<size_t>(base.size(), 1024), ' ');
        case 9: return Repeat("left.", 31) + "id";
        case 10: return Repeat("left.", 32) + "id";
        case 11: return std::string(base.c_str(), base.size()) + std::string("\0x", 2);
        case 12: {
            std::string p = base;
            const size_t dot = p.find('.');
            if (dot != std::string::npos) p.replace(dot, 1, " . ");
            return p;
        }
        case 13: return base + "." + base;
        case 14: return "nope";
        default: return base;
    }
}

// ---------------------------------------------------------------------------
// FillValueSetWithMsg.
// ---------------------------------------------------------------------------

// Value sets of both sides, reused from case to case. Before each call the
// used part and what follows it are overwritten with the same bytes, so that
// anything either side leaves behind compares.
class ValueSets {
public:
    // Bytes compared after the used part of a set.
    static constexpr size_t kTail = 64 * 1024;

    // Empties both sets, leaves one old field in each (which the call must
    // drop) and overwrites the first `bytes` bytes of their value buffers.
    void Scribble(size_t bytes) {
        for (ProtobufValueSet_* set : {m_reference.get(), m_fast.get()}) {
            std::memset(set->stCompactValueSet.szValueBuf, 0x33, std::min<size_t>(bytes, kValueBuf));
            PbValueSetBuffer builder(set, 1, nullptr);
            builder.ResetFieldNum();
            PbValueSetBuffer::Field old{-1, "77", nullptr, 0, -1};
            builder.InsertCutField(old);
            builder.FinishCutField(old.idx, 0);
        }
    }

    ProtobufValueSet_& reference() { return *m_reference; }
    ProtobufValueSet_& fast() { return *m_fast; }

    // Everything the set holds: counts, the index, the used bytes and kTail
    // bytes after them.
    static std::string Contents(const ProtobufValueSet_& set) {
        const CompactValueSet& compact = set.stCompactValueSet;
        std::string out = std::to_string(set.iVersion_) + " " + std::to_string(compact.iFieldIndexNum) + " " +
                          std::to_string(compact.iValueBufLen) + "\n";
        const int num = std::max(0, std::min<int>(compact.iFieldIndexNum, CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM));
        for (int i = 0; i < num; ++i) {
            const FieldIndex& index = compact.astFieldIndexs[i];
            out += std::to_string(index.iOffset) + " " + std::to_string(index.iSize) + " " +
                   std::to_string(index.iFlag) + "\n";
        }
        out.append(compact.szValueBuf, Compared(set));
        return out;
    }

    // True when Contents(a) == Contents(b), without copying the bytes.
    static bool SameContents(const ProtobufValueSet_& a, const ProtobufValueSet_& b) {
        const CompactValueSet& x = a.stCompactValueSet;
        const CompactValueSet& y = b.stCompactValueSet;
        if (a.iVersion_ != b.iVersion_ || x.iFieldIndexNum != y.iFieldIndexNum || x.iValueBufLen != y.iValueBufLen) {
            return false;
        }
        const int num = std::max(0, std::min<int>(x.iFieldIndexNum, CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM));
        for (int i = 0; i < num; ++i) {
            const FieldIndex& p = x.astFieldIndexs[i];
            const FieldIndex& q = y.astFieldIndexs[i];
            if (p.iOffset != q.iOffset || p.iSize != q.iSize || p.iFlag != q.iFlag) return false;
        }
        return std::memcmp(x.szValueBuf, y.szValueBuf, Compared(a)) == 0;
    }

    static constexpr size_t kValueBuf = CORVIDA_PROTOBUF_MAX_VALUE_BUF;

private:
    // The bytes of szValueBuf compared: the used ones and kTail after them.
    static size_t Compared(const ProtobufValueSet_& set) {
        const size_t used = static_cast<size_t>(std::max(set.stCompactValueSet.iValueBufLen, 0));
        return std::min(used + kTail, kValueBuf);
    }

    std::unique_ptr<ProtobufValueSet_> m_reference = corvida_test::NewValueSet();
    std::unique_ptr<ProtobufValueSet_> m_fast = corvida_test::NewValueSet();
};

class CutDifferential : public ::testing::TestWithParam<Kind> {
protected:
    // Cuts paths of a copy of msg on each side and compares.
    bool Case(const Message& msg, const Paths& keys, const Paths& paths, const LogSetup& setup, int n,
              size_t scribbled = 2 * ValueSets::kTail) {
        std::unique_ptr<Message> reference_msg = Copy(msg);
        std::unique_ptr<Message> fast_msg = Copy(msg);
        if (m_sizes) {
            reference_msg->ByteSizeLong();
            fast_msg->ByteSizeLong();
        }
        m_sets.Scribble(scribbled);
        return Cut(reference_msg.get(), fast_msg.get(), keys, paths, setup, n);
    }

    // Cuts paths of reference_msg with the reference and of fast_msg with the
    // library, into the value sets as they stand, and compares. The two may be
    // one message when no path leads into a sub-message (which a cut may
    // create): neither side then changes it.
    bool Cut(Message* reference_msg, Message* fast_msg, const Paths& keys, const Paths& paths, const LogSetup& setup,
             int n) {
        Side reference(setup);
        reference.Run([&](LPPLOGCATEGORYINST log) {
            return corvida_reference::FillValueSetWithMsg(reference_msg, keys, paths, m_sets.reference(), log);
        });
        Side fast(setup);
        fast.Run([&](LPPLOGCATEGORYINST log) {
            return PROTOBUF_UTIL::FillValueSetWithMsg(fast_msg, keys, paths, m_sets.fast(), log);
        });

        std::string context = "cut case " + std::to_string(n) + " (" + KindName(GetParam()) + ") of " +
                              reference_msg->GetDescriptor()->full_name() + ", threshold " +
                              std::to_string(setup.threshold) + "; paths:";
        for (const std::string& p : paths) context += " [" + p.substr(0, 80) + "]";
        context += "; keys:";
        for (const std::string& k : keys) context += " [" + k + "]";
        Diff diff(context);
        m_tally.Add(reference.ret());
        diff.Same("result", reference.ret(), fast.ret());
        if (!ValueSets::SameContents(m_sets.reference(), m_sets.fast())) {
            diff.SameBytes("value set", ValueSets::Contents(m_sets.reference()), ValueSets::Contents(m_sets.fast()));
        }
        if (reference_msg != fast_msg && !SameMessage(*reference_msg, *fast_msg)) {
            diff.Note("message after the cut differs");
        }
        diff.SameLogs(reference, fast);
        return diff.Check();
    }

    Paths RandomKeys(const Message& msg, const std::vector<std::string>& names, Rng& rng) {
        Paths keys;
        switch (Pick(rng, 4)) {
            case 0: break;
            case 1:
                for (size_t i = Pick(rng, 4); i > 0 && !names.empty(); --i) keys.insert(names[Pick(rng, names.size())]);
                break;
            default: PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(msg, keys); break;
        }
        return keys;
    }

    ValueSets m_sets;
    bool m_sizes = true;
    Tally m_tally;
};

TEST_P(CutDifferential, RandomPathsOfEveryTable) {
    Rng rng(Seed(3));
    Types types(GetParam());
    const int cases = 3000 * Rounds();
    for (int n = 0; n < cases; ++n) {
        const Message& prototype = *types.Random(rng);
        std::unique_ptr<Message> msg = RandomMessage(prototype, rng);
        std::vector<std::string> real;
        CollectNamePaths(msg->GetDescriptor(), "", 3, real);
        Paths paths;
        size_t count = Pick(rng, 12);
        if (Chance(rng, 2)) count = 256 + Pick(rng, 2);
        for (size_t i = 0; i < count * 3 && paths.size() < count; ++i) {
            paths.insert(Chance(rng, 85) ? real.empty() ? "x" : real[Pick(rng, real.size())]
                                         : HostileNamePath(real, rng));
        }
        if (count >= 256) {
            for (int i = 0; paths.size() < count; ++i) paths.insert("p" + std::to_string(i));
        }
        std::vector<std::string> names;
        CollectNamePaths(msg->GetDescriptor(), "", 0, names);
        m_sizes = !Chance(rng, 5);
        if (!Case(*msg, RandomKeys(*msg, names, rng), paths, RandomLogSetup(rng), n)) return;
    }
    m_tally.ExpectSeen("cuts", {0, CorvErrCode::GEN_ERR_INVALID_ARGUMENTS, CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE});
}

// Fields as large as the value buffer, so that cutting reaches its end: the
// last bytes of a region, a field cut short, a builder without room.
TEST_P(CutDifferential, FieldsAtTheEndOfTheValueBuffer) {
    Rng rng(Seed(4));
    Types types(GetParam());
    const int cases = 4 * Rounds();
    for (int n = 0; n < cases; ++n) {
        const bool proto3 = Chance(rng, 50);
        const Message* prototype = types.Named(proto3 ? "corvida.test3.Player3" : "corvida.test.Player2");
        ASSERT_NE(prototype, nullptr);
        std::unique_ptr<Message> msg = RandomMessage(*prototype, rng);
        const Descriptor* desc = msg->GetDescriptor();
        const Reflection* r = msg->GetReflection();
        // avatar: a key, a length of four bytes and the bytes; placed so that
        // the record ends within a few bytes of the end of the buffer.
        const int around = CORVIDA_PROTOBUF_MAX_VALUE_BUF - 3 - 5 - 40 + static_cast<int>(Pick(rng, 80));
        r->SetString(msg.get(), desc->FindFieldByName("avatar"), std::string(static_cast<size_t>(around), 'a'));
        r->SetString(msg.get(), desc->FindFieldByName("name"), std::string(Pick(rng, 40), 'n'));
        r->SetDouble(msg.get(), desc->FindFieldByName("rating"), 1.5);
        Paths paths = {"avatar"};
        const char* const kMore[] = {"rating", "name", "level", "stats.hp", "pos", "flags", "delta"};
        for (size_t i = Pick(rng, 4); i > 0; --i) paths.insert(kMore[Pick(rng, 7)]);
        if (!Case(*msg, {}, paths, RandomLogSetup(rng), n, CORVIDA_PROTOBUF_MAX_VALUE_BUF)) return;
    }
    m_tally.ExpectSeen("cuts at the end of the buffer", {0, CorvErrCode::GEN_ERR_ERR});
}

// The first name of a dotted path, as the key names are matched against it.
std::string FirstName(const std::string& path) {
    std::string name = path.substr(0, path.find('.'));
    return PROTOBUF_UTIL::trim(name);
}

// Records ending at every offset from 40 bytes before to 40 bytes past the
// end of the value buffer (cuts write version-1 sets, whose records share
// one buffer): a bytes field as large as the buffer, alone or followed by a
// field of another encoding that then ends there. Past the end a record is
// cut short, or finds no room. Each offset takes one of the cases in turn;
// CORVIDA_DIFFERENTIAL_ROUNDS runs more of them at each offset.
TEST_P(CutDifferential, RecordsEndingAroundTheEndOfTheValueBuffer) {
    struct Last {
        const char* table;
        const char* path;  // of the field cut after avatar; "": none
    };
    const Last kLast[] = {{"corvida.test.Player2", ""},       {"corvida.test3.Player3", "flags"},
                          {"corvida.test.Player2", "level"},  {"corvida.test3.Player3", "name"},
                          {"corvida.test.Player2", "rating"}, {"corvida.test3.Player3", ""},
                          {"corvida.test.Player2", "delta"},  {"corvida.test3.Player3", "kind"},
                          {"corvida.test.Player2", "pos"}};
    constexpr size_t kCases = sizeof(kLast) / sizeof(kLast[0]);
    constexpr int kAround = 40;
    const int end = static_cast<int>(ValueSets::kValueBuf);
    Rng rng(Seed(9));
    Types types(GetParam());
    // The messages are too large to copy for each case: both sides cut the
    // same one, through top-level fields only, which a cut leaves alone.
    std::unique_ptr<Message> msgs[kCases];
    int base[kCases];         // avatar's size at which the last record ends at the end
    int avatar_ends[kCases];  // where avatar's record ends when avatar has end - spare bytes
    const int spare = 4096;
    m_sets.Scribble(ValueSets::kValueBuf);
    int n = 0;
    for (size_t c = 0; c < kCases; ++c) {
        const Message* prototype = types.Named(kLast[c].table);
        ASSERT_NE(prototype, nullptr);
        msgs[c] = RandomMessage(*prototype, rng);
        const Descriptor* desc = msgs[c]->GetDescriptor();
        const Reflection* r = msgs[c]->GetReflection();
        r->SetString(msgs[c].get(), desc->FindFieldByName("name"), "a name");
        r->SetInt32(msgs[c].get(), desc->FindFieldByName("level"), 300);
        // Cut once with room to spare, to learn where the records end.
        r->SetString(msgs[c].get(), desc->FindFieldByName("avatar"), std::string(end - spare, 'a'));
        msgs[c]->ByteSizeLong();
        Paths paths = {"avatar"};
        if (*kLast[c].path != '\0') paths.insert(kLast[c].path);
        if (!Cut(msgs[c].get(), msgs[c].get(), {}, paths, LogSetup{}, n++)) return;
        ASSERT_EQ(m_sets.reference().stCompactValueSet.iFieldIndexNum, static_cast<int>(paths.size()));
        base[c] = end - spare + (end - m_sets.reference().stCompactValueSet.iValueBufLen);
        const FieldIndex& first = m_sets.reference().stCompactValueSet.astFieldIndexs[0];
        avatar_ends[c] = first.iOffset + first.iSize;
    }
    for (int round = 0; round < Rounds(); ++round) {
        for (int offset = -kAround; offset <= kAround; ++offset) {
            const size_t c = static_cast<size_t>(offset + kAround + round) % kCases;
            Message* msg = msgs[c].get();
            msg->GetReflection()->SetString(msg, msg->GetDescriptor()->FindFieldByName("avatar"),
                                            std::string(static_cast<size_t>(base[c] + offset), 'a'));
            msg->ByteSizeLong();
            Paths paths = {"avatar"};
            if (*kLast[c].path != '\0') paths.insert(kLast[c].path);
            if (!Cut(msg, msg, {}, paths, LogSetup{}, n++)) return;
            // avatar's record is where the case means it to be, unless it
            // ends within the last bytes, where a coded stream keeps them.
            const int avatar_end = avatar_ends[c] + base[c] + offset - (end - spare);
            const FieldIndex& first = m_sets.reference().stCompactValueSet.astFieldIndexs[0];
            if (avatar_end <= end - 16) {
                ASSERT_EQ(first.iOffset + first.iSize, avatar_end) << kLast[c].path << " " << offset;
            }
        }
    }
    m_tally.ExpectSeen("cuts around the end of the buffer", {0, CorvErrCode::GEN_ERR_ERR});
}

// The most paths a call takes, all beginning with one long name: each a
// prefix of many others ("p", "p_", "p__", ...), with characters that sort
// before and after "." and NUL bytes; in some cases trailing dots, or one
// path under another somewhere in the set. Most first names are key names,
// so that each path is checked against the others and then passed over.
TEST_P(CutDifferential, ManyPathsSharingALongPrefix) {
    Rng rng(Seed(7));
    Types types(GetParam());
    const Message* prototype = types.Named("corvida.test.Player2");
    ASSERT_NE(prototype, nullptr);
    std::unique_ptr<Message> msg = RandomMessage(*prototype, rng);
    const std::string prefix(600, 'p');
    static const char kTail[] = {'_', '_', '!', ' ', 'a', '-', '\0'};
    const int cases = 40 * Rounds();
    for (int n = 0; n < cases; ++n) {
        Paths paths;
        if (n == 0) {
            // Each path a prefix of all that follow it, none under another.
            for (size_t k = 0; paths.size() < MAX_DBFIELD_NUM; ++k) paths.insert(prefix + std::string(k, '_'));
        } else {
            const size_t longest = 4 + Pick(rng, 9);  // of 6 characters: room for many more than 256 paths
            const int trailing_dots = n % 4 == 2 ? 3 : 0;
            while (paths.size() < MAX_DBFIELD_NUM) {
                std::string p = prefix;
                for (size_t k = Pick(rng, longest + 1); k > 0; --k) p += kTail[Pick(rng, sizeof(kTail))];
                if (Chance(rng, trailing_dots)) p += Chance(rng, 50) ? "." : "..";
                paths.insert(p);
            }
            if (n % 4 == 3) {
                // One path replaced by one under another path of the set.
                paths.erase(std::next(paths.begin(), static_cast<long>(Pick(rng, paths.size()))));
                const std::string& above = *std::next(paths.begin(), static_cast<long>(Pick(rng, paths.size())));
                paths.insert(above + (Chance(rng, 50) ? ".x" : ".."));
            }
        }
        // Now and then a path that is no key names no field either.
        const int strays = n % 4 == 1 ? 1 : 0;
        Paths keys;
        for (const std::string& p : paths) {
            if (!Chance(rng, strays)) keys.insert(FirstName(p));
        }
        if (!Case(*msg, keys, paths, LogSetup{}, n)) return;
    }
    m_tally.ExpectSeen("cuts of paths sharing a prefix", {0, CorvErrCode::GEN_ERR_INVALID_ARGUMENTS});
}

// Every singular field of the all-types tables, set to each boundary value
// of its type in turn and left unset: presence and encoding of each value.
TEST_P(CutDifferential, EdgeValuesOfEverySingularField) {
    Types types(GetParam());
    ForEachEdgeValue(types, [this](const Message& msg, const FieldDescriptor* field, int n) {
        return Case(msg, {}, {field->name()}, LogSetup{}, n);
    });
}

// More generated types than the library keeps plans of.
class CutPlanDifferential : public CutDifferential {};

TEST_P(CutPlanDifferential, TypesBeyondTheKeptPlans) {
    Rng rng(Seed(11));
    ForEachFillerType([&](const Message& prototype, int n) {
        std::unique_ptr<Message> msg = RandomMessage(prototype, rng);
        std::vector<std::string> real;
        CollectNamePaths(msg->GetDescriptor(), "", 2, real);
        Paths paths;
        for (size_t i = 1 + Pick(rng, 4); i > 0; --i) {
            paths.insert(Chance(rng, 90) ? real[Pick(rng, real.size())] : HostileNamePath(real, rng));
        }
        const Paths keys = Chance(rng, 50) ? Paths{"id"} : Paths{};
        return Case(*msg, keys, paths, RandomLogSetup(rng), n);
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, CutDifferential,
                         ::testing::Values(Kind::kGenerated, Kind::kDynamic, Kind::kSeparatePool), KindTestName);
INSTANTIATE_TEST_SUITE_P(Kinds, CutPlanDifferential, ::testing::Values(Kind::kGenerated), KindTestName);

// ---------------------------------------------------------------------------
// FillMsgFromField.
// ---------------------------------------------------------------------------

// One record handed to FillMsgFromField, owning its path and bytes.
struct Record {
    std::string path;
    std::string bytes;
    bool null_path = false;
    bool null_buf = false;
    int length_delta = 0;  // buf_len = bytes.size() + length_delta (only ever made smaller)
};

std::string Varint(uint64_t v) {
    std::string out;
    while (v >= 0x80) {
        out += static_cast<char>(v | 0x80);
        v >>= 7;
    }
    out += static_cast<char>(v);
    return out;
}

// What protobuf's field serializer writes for field of msg (every element of
// a repeated field, a packed block, map entries).
std::string FieldBytes(const Message& msg, const FieldDescriptor* field) {
    std::string out;
    google::protobuf::io::StringOutputStream sink(&out);
    google::protobuf::io::CodedOutputStream output(&sink);
    WireFormat::SerializeFieldWithCachedSizes(field, msg, &output);
    output.Trim();
    return out;
}

// Bytes for `field`: protobuf's encoding of a random value, or one of the ways
// such bytes go wrong.
std::string RecordBytes(const Message& top, const FieldDescriptor* field, Rng& rng, bool hostile = true) {
    const Descriptor* holder = field->containing_type();
    std::unique_ptr<Message> source;
    if (holder == top.GetDescriptor()) {
        source.reset(top.New());
    } else {
        const Message* prototype = top.GetReflection()->GetMessageFactory()->GetPrototype(holder);
        source.reset(prototype->New());
    }
    corvida_test::RandomFillOptions options;
    options.set_probability = 0.9;
    options.max_depth = 2;
    options.max_repeated = 1 + static_cast<int>(Pick(rng, 3));
    corvida_test::FillRandom(source.get(), rng, options);
    source->ByteSizeLong();
    std::string bytes = FieldBytes(*source, field);
    const uint32_t key = WireFormat::MakeTag(field);
    switch (hostile ? Pick(rng, 30) : 30) {
        case 0: return bytes.substr(0, Pick(rng, bytes.size() + 1));                       // truncated
        case 1: return bytes + bytes;                                                      // twice
        case 2: return bytes + std::string(1 + Pick(rng, 4), static_cast<char>(rng()));    // trailing junk
        case 3: return Varint(key ^ 1) + bytes.substr(std::min<size_t>(bytes.size(), 1));  // another wire type
        case 4:
            return Varint((static_cast<uint64_t>(field->number()) + 1) << 3 | (key & 7)) +
                   bytes.substr(std::min<size_t>(bytes.size(), 1));
        case 5: return std::string(1, '\0') + bytes;  // a key of 0 before the value
        case 6: {
            std::string random(Pick(rng, 12), '\0');
            for (char& c : random) c = static_cast<char>(rng());
            return random;
        }
        case 7:
            if (field->type() == FieldDescriptor::TYPE_STRING) {
                const std::string value = BrokenUtf8(rng);
                return Varint(key) + Varint(value.size()) + value;
            }
            return bytes;
        case 8:
            if (field->type() == FieldDescriptor::TYPE_ENUM) return Varint(key) + Varint(12345 + Pick(rng, 3));
            return bytes;
        case 9: return Varint(key) + std::string(11, '\xff');  // overlong varint
        case 10:
            return Varint(static_cast<uint64_t>(field->number()) << 3 | 2) +
                   "\xff\xff\xff\xff\x0f";  // length beyond the bytes
        case 11: return std::string();
        case 12: return Varint(key) + Varint(uint64_t{1} << (7 * Pick(rng, 10)));  // wide varints
        case 13: return Varint(key) + std::string("\x80\x80\x80\x80\x80\x80\x80\x80\x80\x01", 1 + Pick(rng, 10));
        default: return bytes;
    }
}

// A tag path: mostly a real one, else one of the ways a path goes wrong.
std::string HostileTagPath(const std::string& real, Rng& rng) {
    switch (Pick(rng, 100)) {
        case 0: return "";
        case 1: return ".";
        case 2: return real + ".";
        case 3: return "." + real;
        case 4: return real + ".1";
        case 5: return "99999";
        case 6: return "4294967297";
        case 7: return "0" + real;
        case 8: return real + "x";
        case 9: return " " + real;
        case 10: return "1.1.1";
        case 11: return "abc";
        case 12: return real + ".." + real;
        case 13: {
            // Numbers around the ends of the ranges fields are looked up in.
            static const char* const kEdges[] = {"1022",      "1023",      "1024",       "1025",      "2047",
                                                 "65535",     "65536",     "536870910",  "536870911", "536870912",
                                                 "999999999", "1000000000", "2147483647", "2147483648"};
            const std::string number = kEdges[Pick(rng, sizeof(kEdges) / sizeof(kEdges[0]))];
            const size_t dot = real.rfind('.');
            return dot == std::string::npos ? number : real.substr(0, dot + 1) + number;
        }
        default: return real;
    }
}

class MergeDifferential : public ::testing::TestWithParam<Kind> {
protected:
    bool Case(const Message& target, std::vector<Record>& records, const LogSetup& setup, int n, bool null_msg) {
        std::vector<PbValueSetBuffer::Field> fields;
        for (size_t i = 0; i < records.size(); ++i) {
            const Record& record = records[i];
            fields.push_back(PbValueSetBuffer::Field{static_cast<int>(i),
                                                     record.null_path ? nullptr : record.path.c_str(),
                                                     record.null_buf ? nullptr : record.bytes.data(),
                                                     static_cast<int>(record.bytes.size()) + record.length_delta, -1});
        }
        Paths initial;
        if (Chance(m_rng, 20)) initial.insert(records.empty() ? "0" : records[0].path);
        std::string described;
        for (const Record& record : records) {
            described += "\n  [" + (record.null_path ? std::string("(null)") : record.path.substr(0, 60)) + "] " +
                         (record.null_buf ? std::string("(null)") : Hex(record.bytes.substr(0, 60))) + " " +
                         std::to_string(record.length_delta);
        }
        return Merge(target, fields, initial, setup, n, null_msg, described);
    }

    // Merges fields into a copy of target on each side, with failedpaths
    // holding `initial` before, and compares; `described` tells the records.
    bool Merge(const Message& target, const std::vector<PbValueSetBuffer::Field>& fields, const Paths& initial,
               const LogSetup& setup, int n, bool null_msg, const std::string& described) {
        std::unique_ptr<Message> reference_msg = Copy(target);
        std::unique_ptr<Message> fast_msg = Copy(target);
        Paths reference_failed = initial;
        Paths fast_failed = initial;
        std::vector<PbValueSetBuffer::Field> reference_fields = fields;
        std::vector<PbValueSetBuffer::Field> fast_fields = fields;
        unsigned char data[16];

        Side reference(setup);
        reference.Run([&](LPPLOGCATEGORYINST log) {
            return corvida_reference::FillMsgFromField(
                reference_fields, reference_failed, null_msg ? nullptr : reference_msg.get(), data, sizeof(data), log);
        });
        Side fast(setup);
        fast.Run([&](LPPLOGCATEGORYINST log) {
            return PROTOBUF_UTIL::FillMsgFromField(fast_fields, fast_failed, null_msg ? nullptr : fast_msg.get(), data,
                                                   sizeof(data), log);
        });

        std::string context = "merge case " + std::to_string(n) + " (" + KindName(GetParam()) + ") into " +
                              target.GetDescriptor()->full_name() + ", threshold " + std::to_string(setup.threshold) +
                              "; records:" + described;
        Diff diff(context);
        m_tally.Add(reference.ret());
        m_failed.Add(static_cast<int>(std::min<size_t>(reference_failed.size() - initial.size(), 3)));
        diff.Same("result", reference.ret(), fast.ret());
        diff.Same("failed paths", reference_failed, fast_failed);
        if (!SameMessage(*reference_msg, *fast_msg)) {
            diff.Note("merged message differs:\n--- reference\n" + reference_msg->DebugString() + "--- fast\n" +
                      fast_msg->DebugString());
        }
        diff.SameLogs(reference, fast);
        // The fields are the caller's: neither side may change them.
        for (size_t i = 0; i < fields.size(); ++i) {
            const auto& a = reference_fields[i];
            const auto& b = fast_fields[i];
            if (a.idx != b.idx || a.path != b.path || a.buf != b.buf || a.buf_len != b.buf_len ||
                a.wire_type != b.wire_type) {
                diff.Note("field " + std::to_string(i) + " changed");
            }
        }
        return diff.Check();
    }

    // Records of random fields of msg's type (and of the sub-messages it can
    // hold), each with a real or hostile path; some repeat a path, some name
    // a sub-message and a field inside it.
    std::vector<Record> RandomRecords(const Message& msg) {
        std::vector<std::pair<std::string, const FieldDescriptor*>> tags;
        CollectTagPaths(msg.GetDescriptor(), "", 2, tags);
        std::vector<Record> records;
        if (tags.empty()) return records;
        const size_t count = Pick(m_rng, 10);
        for (size_t i = 0; i < count; ++i) {
            if (!records.empty() && Chance(m_rng, 8)) {
                records.push_back(records[Pick(m_rng, records.size())]);  // the same path again
                continue;
            }
            const auto& tag = tags[Pick(m_rng, tags.size())];
            Record record;
            record.path = HostileTagPath(tag.first, m_rng);
            record.bytes = RecordBytes(msg, tag.second, m_rng);
            record.null_path = Chance(m_rng, 1);
            record.null_buf = Chance(m_rng, 1);
            if (Chance(m_rng, 2)) record.length_delta = -static_cast<int>(record.bytes.size()) - 1;
            records.push_back(std::move(record));
        }
        return records;
    }

    // The records of a value set the library cut out of source.
    std::vector<Record> CutRecords(Message* source) {
        std::vector<std::string> real;
        CollectNamePaths(source->GetDescriptor(), "", 3, real);
        Paths paths;
        for (size_t i = Pick(m_rng, 16); i > 0 && !real.empty(); --i) paths.insert(real[Pick(m_rng, real.size())]);
        source->ByteSizeLong();
        std::vector<Record> records;
        if (PROTOBUF_UTIL::FillValueSetWithMsg(source, {}, paths, *m_set, nullptr) != 0) return records;
        std::vector<PbValueSetBuffer::Field> fields;
        EXPECT_EQ(PbValueSetBuffer(m_set.get(), 1, nullptr).GetFields(fields), 0);
        for (const auto& field : fields) records.push_back(Record{field.path, std::string(field.buf, field.buf_len)});
        return records;
    }

    Rng m_rng{Seed(5)};
    Tally m_tally;
    Tally m_failed;  // paths added to failedpaths: 0, 1, 2, 3 or more
    std::unique_ptr<ProtobufValueSet_> m_set = corvida_test::NewValueSet();
};

TEST_P(MergeDifferential, RandomRecordsIntoEveryTable) {
    Types types(GetParam());
    const int cases = 4000 * Rounds();
    for (int n = 0; n < cases; ++n) {
        const Message& prototype = *types.Random(m_rng);
        std::unique_ptr<Message> target =
            Chance(m_rng, 50) ? RandomMessage(prototype, m_rng) : std::unique_ptr<Message>(prototype.New());
        std::vector<Record> records;
        if (Chance(m_rng, 35)) {
            std::unique_ptr<Message> source = RandomMessage(prototype, m_rng);
            records = CutRecords(source.get());
            if (Chance(m_rng, 30)) {
                for (Record& extra : RandomRecords(prototype)) records.push_back(std::move(extra));
            }
        } else {
            records = RandomRecords(prototype);
        }
        if (!Case(*target, records, RandomLogSetup(m_rng), n, Chance(m_rng, 1))) return;
    }
    m_tally.ExpectSeen("merges", {0, CorvErrCode::GEN_ERR_INVALID_ARGUMENTS});
    m_failed.ExpectSeen("failed paths per merge", {0, 1, 2, 3});
}

// The encoding of every singular field of the all-types tables, holding each
// boundary value of its type in turn, merged into an empty and into a full
// message.
TEST_P(MergeDifferential, EdgeValuesOfEverySingularField) {
    Types types(GetParam());
    std::unique_ptr<Message> full;
    ForEachEdgeValue(types, [&](const Message& source, const FieldDescriptor* field, int n) {
        if (full == nullptr || full->GetDescriptor() != source.GetDescriptor()) full = RandomMessage(source, m_rng);
        std::vector<Record> records = {Record{std::to_string(field->number()), FieldBytes(source, field)}};
        std::unique_ptr<Message> empty(source.New());
        return Case(*empty, records, LogSetup{}, 2 * n, false) && Case(*full, records, LogSetup{}, 2 * n + 1, false);
    });
}

// Long runs of records over nested messages and oneofs, mostly well formed:
// fields of one sub-message after another, whole sub-messages and fields
// inside them in either order, members of one oneof replacing each other,
// empty records, the same path again, and more records than are kept
// waiting at once.
TEST_P(MergeDifferential, RunsOverNestedMessagesAndOneofs) {
    Types types(GetParam());
    const char* const kTables[] = {"corvida.test.AllTypes2", "corvida.test.AllTypes3", "corvida.test.Player2",
                                   "corvida.test3.Player3",  "corvida.test.TreeNode2", "corvida.test.Secret2",
                                   "corvida.test.Choice2",   "corvida.test.Choice3",   "corvida.test.Wide2",
                                   "corvida.test3.Wide3",    "corvida.test.Defaults2"};
    const int cases = 400 * Rounds();
    for (int n = 0; n < cases; ++n) {
        const Message* prototype = types.Named(kTables[Pick(m_rng, sizeof(kTables) / sizeof(kTables[0]))]);
        ASSERT_NE(prototype, nullptr);
        std::vector<std::pair<std::string, const FieldDescriptor*>> tags;
        CollectTagPaths(prototype->GetDescriptor(), "", 3, tags);
        // A few paths of the table, used again and again.
        std::vector<std::pair<std::string, const FieldDescriptor*>> used;
        for (size_t k = 1 + Pick(m_rng, 12); k > 0; --k) used.push_back(tags[Pick(m_rng, tags.size())]);
        std::vector<Record> records;
        const size_t count = Chance(m_rng, 20) ? 60 + Pick(m_rng, 80) : Pick(m_rng, 24);
        for (size_t k = 0; k < count; ++k) {
            const auto& tag = used[Pick(m_rng, used.size())];
            Record record;
            record.path = tag.first;
            if (!Chance(m_rng, 8)) record.bytes = RecordBytes(*prototype, tag.second, m_rng, Chance(m_rng, 5));
            records.push_back(std::move(record));
        }
        std::unique_ptr<Message> target =
            Chance(m_rng, 50) ? RandomMessage(*prototype, m_rng) : std::unique_ptr<Message>(prototype->New());
        if (!Case(*target, records, RandomLogSetup(m_rng), n, false)) return;
    }
}

// Every order of up to four records among: a sub-message written whole,
// fields inside it at two depths (one under a path with a trailing dot,
// which is read another way), a field beside it and an empty record. A
// later record of a field wins over an earlier one, and a whole sub-message
// over everything merged under it before, whichever records wait together.
TEST_P(MergeDifferential, EveryOrderOfRecordsInAndAroundASubMessage) {
    Types types(GetParam());
    const std::vector<Record> kinds = {
        {"5", std::string("\x2a\x06\x08\x07\x10\x08\x1a\x00", 8)},  // stats { hp: 7 mp: 8 deep {} }
        {"5.1", "\x08\x05"},                                           // stats.hp: 5
        {"5.1.", "\x08\x01"},                                          // stats.hp: 1, a path read the long way
        {"5.2", "\x10\x09"},                                           // stats.mp: 9
        {"5.2", ""},                                                    // stats.mp absent
        {"5.3", "\x1a\x05\x08\x01\x1a\x01t"},                         // stats.deep { v: 1 text: "t" }
        {"5.3.1", "\x08\x02"},                                         // stats.deep.v: 2
        {"4", "\x20\x03"},                                             // level: 3
    };
    int n = 0;
    for (const char* table : {"corvida.test.Player2", "corvida.test3.Player3"}) {
        const Message* prototype = types.Named(table);
        ASSERT_NE(prototype, nullptr);
        // Orders of length 1 to 4, counted in base kinds.size().
        for (size_t length = 1; length <= 4; ++length) {
            size_t total = 1;
            for (size_t i = 0; i < length; ++i) total *= kinds.size();
            for (size_t code = 0; code < total; ++code) {
                std::vector<Record> records;
                for (size_t i = 0, rest = code; i < length; ++i, rest /= kinds.size()) {
                    records.push_back(kinds[rest % kinds.size()]);
                }
                std::unique_ptr<Message> target =
                    code % 2 == 0 ? RandomMessage(*prototype, m_rng) : std::unique_ptr<Message>(prototype->New());
                if (!Case(*target, records, RandomLogSetup(m_rng), n++, false)) return;
            }
        }
    }
}

// The bytes of one record of `size` bytes for field `number` (a key of one
// byte): a length-delimited value whose payload fills the rest, of the kind
// `kind` names: 'b' bytes, 's' ASCII text, 'm' a message whose field 3 is
// such text, 'p' packed varints. size must leave room for the key
// and length of each level.
std::string RecordOfSize(int number, char kind, size_t size) {
    // Byte patterns to take payloads from.
    static const std::string kBytes = [] {
        std::string bytes(CORVIDA_PROTOBUF_MAX_FIELD_BUFF + 64, '\0');
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
        return bytes;
    }();
    // Ten-byte varints (-1), so that a large record holds few elements.
    static const std::string kVarints = Repeat(std::string(9, '\xff') + '\x01', CORVIDA_PROTOBUF_MAX_FIELD_BUFF / 10 + 8);
    const std::string key = Varint(static_cast<uint64_t>(number) << 3 | 2);
    size_t payload = size - key.size();
    while (Varint(payload).size() + payload > size - key.size()) --payload;
    std::string inner;
    switch (kind) {
        case 'b': inner = kBytes.substr(0, payload); break;
        case 'm': inner = RecordOfSize(3, 's', payload); break;
        case 'p': inner = kVarints.substr(0, payload / 10 * 10) + std::string(payload % 10, '\x05'); break;
        default: inner.assign(payload, 's'); break;
    }
    std::string out = key + Varint(inner.size()) + inner;
    // A length that took fewer bytes than allowed for leaves a short record:
    // pad the payload once more.
    while (out.size() < size) out = RecordOfSize(number, kind, size + (size - out.size()));
    return out.substr(0, size);
}

// Records ending at every offset from 40 bytes before to 40 bytes past the
// end of a value set's buffer, in both layouts: version 0, where each record
// has a buffer of its own, and version 1, where records share one (a record
// that is not merged fills it up to the one that is). Past the end a record
// is cut short by the bytes that do not fit. The records: a bytes, a string,
// a message and a packed field as large as a version-0 buffer and, in
// version 1, small fields of each encoding. Each offset takes one record in
// turn; CORVIDA_DIFFERENTIAL_ROUNDS runs more of them at each offset.
TEST_P(MergeDifferential, RecordsEndingAroundTheEndOfTheValueBuffer) {
    struct Shape {
        const char* path;
        int number;  // of a record RecordOfSize makes; 0: `bytes` below
        char kind;
        const char* bytes;
        size_t size;
    };
    const Shape kLong[] = {{"10", 10, 'b', nullptr, 0}, {"3", 3, 's', nullptr, 0},
                          {"6", 6, 'm', nullptr, 0},  {"12", 12, 'p', nullptr, 0}};
    const Shape kSmall[] = {{"4", 0, 0, "\x20\xac\x02", 3},
                           {"14", 0, 0, "\x71\x01\x02\x03\x04\x05\x06\x07\x08", 9},
                           {"13", 0, 0, "\x69\x00\x00\x00\x00\x00\x00\xf8\x3f", 9},
                           {"15", 0, 0, "\x78\x03", 2},
                           {"11", 0, 0, "\x58\x02", 2},
                           {"5.1", 0, 0, "\x08\x96\x01", 3},
                           {"3", 0, 0, "\x1a\x03" "abc", 5},
                           {"10", 0, 0, "\x52\x00", 2}};
    constexpr int kAround = 40;
    const int own = CORVIDA_PROTOBUF_MAX_FIELD_BUFF;  // a version-0 record's buffer
    const size_t longs = sizeof(kLong) / sizeof(kLong[0]);
    const size_t smalls = sizeof(kSmall) / sizeof(kSmall[0]);
    Types types(GetParam());
    const char* const kTables[] = {"corvida.test.Player2", "corvida.test3.Player3"};
    int n = 0;
    for (int round = 0; round < Rounds(); ++round) {
        for (int version = 0; version <= 1; ++version) {
            for (int offset = -kAround; offset <= kAround; ++offset) {
                const size_t pick = static_cast<size_t>(offset + kAround + round);
                // Version 1 takes a small record every other offset.
                const bool small = version == 1 && pick % 2 == 1;
                const Shape& shape = small ? kSmall[pick / 2 % smalls] : kLong[pick % longs];
                const std::string record = shape.bytes != nullptr ? std::string(shape.bytes, shape.size)
                                                                 : RecordOfSize(shape.number, shape.kind, own + offset);
                // The record's region ends at the end of the buffer.
                const int region = static_cast<int>(record.size()) - offset;
                if (region < 1) continue;  // nothing of it would fit: a region has a byte at least
                PbValueSetBuffer builder(m_set.get(), version, nullptr);
                ASSERT_EQ(builder.ResetFieldNum(), 0);
                if (version == 1) {
                    // The filler takes what the record's region must not.
                    PbValueSetBuffer::Field probe{-1, shape.path, nullptr, 0, -1};
                    PbValueSetBuffer::Field filler{-1, "1", nullptr, 0, -1};
                    ASSERT_EQ(builder.InsertCutField(filler), 0);
                    ASSERT_EQ(builder.FinishCutField(filler.idx, 0), 0);
                    ASSERT_EQ(builder.InsertCutField(probe), 0);
                    const int room = probe.buf_len;
                    ASSERT_EQ(builder.ResetFieldNum(), 0);
                    ASSERT_EQ(builder.InsertCutField(filler), 0);
                    ASSERT_EQ(builder.FinishCutField(filler.idx, room - region), 0);
                }
                PbValueSetBuffer::Field field{-1, shape.path, nullptr, 0, -1};
                ASSERT_EQ(builder.InsertCutField(field), 0);
                ASSERT_EQ(field.buf_len, region) << "version " << version << " offset " << offset;
                const int kept = std::min(region, static_cast<int>(record.size()));
                std::memcpy(const_cast<char*>(field.buf), record.data(), static_cast<size_t>(kept));
                ASSERT_EQ(builder.FinishCutField(field.idx, kept), 0);
                std::vector<PbValueSetBuffer::Field> fields;
                ASSERT_EQ(builder.GetFields(fields), 0);
                fields.erase(fields.begin(), fields.end() - 1);  // the filler is not merged
                // The region ends with the buffer, the record offset bytes before.
                const ProtobufValueSet_& set = *m_set;
                const char* buffer_end = version == 0 ? set.astFields_[field.idx].szFieldBuff_ + own
                                                      : set.stCompactValueSet.szValueBuf + ValueSets::kValueBuf;
                ASSERT_EQ(field.buf + region, buffer_end);
                ASSERT_EQ(fields[0].buf + fields[0].buf_len, buffer_end + std::min(offset, 0));

                const Message* prototype = types.Named(kTables[pick / 3 % 2]);
                ASSERT_NE(prototype, nullptr);
                std::unique_ptr<Message> target =
                    pick % 5 < 2 ? RandomMessage(*prototype, m_rng) : std::unique_ptr<Message>(prototype->New());
                const std::string described = "\n  version " + std::to_string(version) + ", offset " +
                                              std::to_string(offset) + " [" + shape.path + "] " +
                                              std::to_string(kept) + " of " + std::to_string(record.size()) +
                                              " bytes: " + Hex(record.substr(0, 40));
                // Without debug lines now and then, which merges take a shorter way.
                LogSetup setup;
                if (pick % 3 == 0) setup.threshold = PLOG_PRIORITY_ERROR;
                if (!Merge(*target, fields, {}, setup, n++, false, described)) return;
            }
        }
    }
    m_failed.ExpectSeen("failed paths per merge around the end of the buffer", {0, 1});
}

// More generated types than the library keeps plans of.
class MergePlanDifferential : public MergeDifferential {};

TEST_P(MergePlanDifferential, TypesBeyondTheKeptPlans) {
    ForEachFillerType([&](const Message& prototype, int n) {
        std::unique_ptr<Message> source = RandomMessage(prototype, m_rng);
        std::vector<Record> records = Chance(m_rng, 60) ? CutRecords(source.get()) : RandomRecords(prototype);
        std::unique_ptr<Message> target =
            Chance(m_rng, 50) ? RandomMessage(prototype, m_rng) : std::unique_ptr<Message>(prototype.New());
        return Case(*target, records, RandomLogSetup(m_rng), n, false);
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, MergeDifferential,
                         ::testing::Values(Kind::kGenerated, Kind::kDynamic, Kind::kSeparatePool), KindTestName);
INSTANTIATE_TEST_SUITE_P(Kinds, MergePlanDifferential, ::testing::Values(Kind::kGenerated), KindTestName);

// ---------------------------------------------------------------------------
// The AES-SIV suite.
// ---------------------------------------------------------------------------

std::string RandomKeyText(Rng& rng) {
    static const char kDigits[] = "0123456789abcdefABCDEF";
    size_t digits = Chance(rng, 50) ? 64 : 128;
    switch (Pick(rng, 20)) {
        case 0: digits = Pick(rng, 130); break;
        case 1: return std::string(64, 'g');
        default: break;
    }
    std::string text(digits, '0');
    for (char& c : text) c = kDigits[Pick(rng, sizeof(kDigits) - 1)];
    return text;
}

struct CipherRun {
    int ret;
    int outlen;
    std::string out;
    std::string error;
};

template <typename Suite>
CipherRun Encrypt(Suite& suite, const std::string& in, int inlen, int capacity, bool null_in, bool null_out) {
    std::string out(static_cast<size_t>(std::max(capacity, 0)) + 32, '\x77');
    int outlen = capacity;
    const int ret = suite.Encrypt(null_in ? nullptr : reinterpret_cast<const unsigned char*>(in.data()), inlen,
                                  null_out ? nullptr : reinterpret_cast<unsigned char*>(&out[0]), outlen);
    return CipherRun{ret, outlen, out, suite.GetErrMsg()};
}

template <typename Suite>
CipherRun Decrypt(Suite& suite, const std::string& in, int capacity) {
    std::string out(static_cast<size_t>(std::max(capacity, 0)) + 32, '\x77');
    int outlen = capacity;
    const int ret = suite.Decrypt(reinterpret_cast<const unsigned char*>(in.data()), static_cast<int>(in.size()),
                                  reinterpret_cast<unsigned char*>(&out[0]), outlen);
    return CipherRun{ret, outlen, out, suite.GetErrMsg()};
}

bool operator==(const CipherRun& a, const CipherRun& b) {
    return a.ret == b.ret && a.outlen == b.outlen && a.out == b.out && a.error == b.error;
}

TEST(CipherDifferential, EncryptAndDecryptAsTheReferenceSuite) {
    Rng rng(Seed(6));
    const int suites = 60 * Rounds();
    for (int s = 0; s < suites; ++s) {
        ReferenceAesSivCipherSuite reference("aes");
        AesSivCipherSuite fast("aes");
        const int inits = 1 + static_cast<int>(Pick(rng, 2));
        for (int k = 0; k < inits; ++k) {
            const std::string key = RandomKeyText(rng);
            Diff init("suite " + std::to_string(s) + ": Init(" + key + ")");
            init.Same("Init", reference.Init(key), fast.Init(key));
            init.Same("MD5", reference.GetCipherKeyMD5(), fast.GetCipherKeyMD5());
            init.Same("error", reference.GetErrMsg(), fast.GetErrMsg());
            if (!init.Check()) return;
        }
        for (int n = 0; n < 40; ++n) {
            std::string plain(Chance(rng, 10) ? Pick(rng, 2000) : Pick(rng, 40), '\0');
            for (char& c : plain) c = static_cast<char>(rng());
            int inlen = static_cast<int>(plain.size());
            if (Chance(rng, 3)) inlen = -1 - static_cast<int>(Pick(rng, 3));
            int capacity = inlen + 16;
            if (Chance(rng, 15)) capacity = static_cast<int>(Pick(rng, plain.size() + 20)) - 2;
            const bool null_in = Chance(rng, 3);
            const bool null_out = Chance(rng, 3);
            Diff diff("suite " + std::to_string(s) + " Encrypt " + Hex(plain.substr(0, 80)) + " inlen " +
                      std::to_string(inlen) + " capacity " + std::to_string(capacity));
            const CipherRun expected = Encrypt(reference, plain, inlen, capacity, null_in, null_out);
            const CipherRun actual = Encrypt(fast, plain, inlen, capacity, null_in, null_out);
            diff.Same("result", expected.ret, actual.ret);
            diff.Same("outlen", expected.outlen, actual.outlen);
            diff.SameBytes("output", expected.out, actual.out);
            diff.Same("error", expected.error, actual.error);
            if (!diff.Check()) return;

            if (expected.ret != 0) continue;
            std::string sealed = expected.out.substr(0, static_cast<size_t>(expected.outlen));
            if (Chance(rng, 30) && !sealed.empty()) sealed[Pick(rng, sealed.size())] ^= 0x10;
            if (Chance(rng, 5)) sealed = sealed.substr(0, Pick(rng, sealed.size() + 1));
            const int plain_capacity = Chance(rng, 10) ? static_cast<int>(Pick(rng, 20)) : 4096;
            Diff open("suite " + std::to_string(s) + " Decrypt " + Hex(sealed.substr(0, 80)));
            open.Same("Decrypt", Decrypt(reference, sealed, plain_capacity), Decrypt(fast, sealed, plain_capacity));
            if (!open.Check()) return;
        }
    }
}

}  // namespace
