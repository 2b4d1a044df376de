// Cutting message fields into a value set (FillValueSetWithMsg) and merging
// value-set fields back into a message (FillMsgFromField): every limit and
// failure, hostile field bytes, and round trips through both set layouts and
// a packed network hop.
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/message_differencer.h>
#include <google/protobuf/wire_format.h>
#include <gtest/gtest.h>

#include "all_types2.pb.h"
#include "all_types3.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "support/log_capture.h"
#include "support/random_message.h"
#include "support/records.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE;
using CorvErrCode::GEN_ERR_ERR;
using CorvErrCode::GEN_ERR_INVALID_ARGUMENTS;
using corvida::test::AllTypes2;
using corvida::test::AllTypes3;
using corvida::test::PathNames2;
using corvida::test::Player2;
using corvida::test::Secret2;
using corvida::test::TreeNode2;
using corvida::test3::Player3;
using corvida_test::LogCapture;
using corvida_test::NewValueSet;
using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::WireFormat;
using google::protobuf::util::MessageDifferencer;
using PROTOBUF_UTIL::FillMsgFromField;
using PROTOBUF_UTIL::FillValueSetWithMsg;

using Field = PbValueSetBuffer::Field;
using Paths = std::set<std::string>;
using Texts = std::vector<std::string>;

constexpr int kError = PLOG_PRIORITY_ERROR;
constexpr int kDebug = PLOG_PRIORITY_DEBUG;

// ---------------------------------------------------------------------------
// Helpers.
// ---------------------------------------------------------------------------

// A message whose metadata lacks a descriptor or a reflection, which no
// generated message does: the only way to reach those checks.
class BrokenMessage : public Message {
public:
    BrokenMessage(const Descriptor* descriptor, const Reflection* reflection) : m_metadata{descriptor, reflection} {}

    Message* New(google::protobuf::Arena* /*arena*/) const override {
        return new BrokenMessage(m_metadata.descriptor, m_metadata.reflection);
    }
    int GetCachedSize() const override { return 0; }

protected:
    google::protobuf::Metadata GetMetadata() const override { return m_metadata; }

private:
    google::protobuf::Metadata m_metadata;
};

// One record of a value set, copied out of it.
struct Record {
    std::string path;
    std::string bytes;
    int wire_type;

    bool operator==(const Record& o) const { return path == o.path && bytes == o.bytes && wire_type == o.wire_type; }
};

std::vector<Record> Records(const ProtobufValueSet_& set, int version = 1) {
    std::vector<Field> fields;
    EXPECT_EQ(PbValueSetBuffer(&set, version, nullptr).GetFields(fields), 0);
    std::vector<Record> records;
    for (const Field& f : fields) records.push_back({f.path, std::string(f.buf, f.buf_len), f.wire_type});
    return records;
}

std::vector<std::string> RecordPaths(const ProtobufValueSet_& set) {
    std::vector<std::string> paths;
    for (const Record& r : Records(set)) paths.push_back(r.path);
    return paths;
}

int FieldNum(const ProtobufValueSet_& set) { return PbValueSetBuffer(&set, 1, nullptr).GetFieldNum(); }

// What protobuf's field serializer writes for field `name` of msg.
std::string FieldEncoding(const Message& msg, const std::string& name) {
    const FieldDescriptor* field = msg.GetDescriptor()->FindFieldByName(name);
    EXPECT_NE(field, nullptr) << name;
    std::string out;
    {
        google::protobuf::io::StringOutputStream sink(&out);
        google::protobuf::io::CodedOutputStream output(&sink);
        WireFormat::SerializeFieldWithCachedSizes(field, msg, &output);
    }
    return out;
}

// Every line the module writes names the operation, whichever internal
// helper wrote it; only VerifyTagPath's own line names VerifyTagPath. (The
// value-set builder's lines carry the builder's own file and names.)
void ExpectLinesNameTheOperation(LPPLOGCATEGORYINST log, const std::string& operation) {
    if (log == nullptr || log->pfnWrite == nullptr) return;
    const auto* capture = static_cast<const LogCapture*>(log->pvWriteCtx);
    for (const auto& line : capture->lines()) {
        if (line.file != "corvida/src/protobuf_api/protobuf_util") continue;
        const bool verify = line.text.find(" at the beginning") != std::string::npos;
        EXPECT_EQ(line.func, verify ? "VerifyTagPath" : operation) << line.text;
    }
}

int Cut(Message* msg, const Paths& paths, ProtobufValueSet_& set, LPPLOGCATEGORYINST log, const Paths& keys = {}) {
    if (msg != nullptr) msg->ByteSizeLong();
    const int result = FillValueSetWithMsg(msg, keys, paths, set, log);
    ExpectLinesNameTheOperation(log, "FillValueSetWithMsg");
    return result;
}

// One value-set field handed to FillMsgFromField.
struct Input {
    std::string path;
    std::string bytes;
};

std::vector<Field> AsFields(const std::vector<Input>& inputs) {
    std::vector<Field> fields;
    for (size_t i = 0; i < inputs.size(); ++i) {
        fields.push_back(Field{static_cast<int>(i), inputs[i].path.c_str(), inputs[i].bytes.data(),
                               static_cast<int>(inputs[i].bytes.size()), -1});
    }
    return fields;
}

int Merge(const std::vector<Input>& inputs, Message* msg, Paths& failed, LPPLOGCATEGORYINST log) {
    std::vector<Field> fields = AsFields(inputs);
    const int result = FillMsgFromField(fields, failed, msg, nullptr, 0, log);
    ExpectLinesNameTheOperation(log, "FillMsgFromField");
    return result;
}

std::string Bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values) s.push_back(static_cast<char>(v));
    return s;
}

std::string Pointer(const void* p) {
    char text[64];
    std::snprintf(text, sizeof(text), "%p", p);
    return text;
}

// The log line of a field whose bytes do not merge.
std::string MergeFailed(size_t i, const Input& input, unsigned lastnumber, const std::string& name) {
    return "ParseAndMergeField failed i:" + std::to_string(i) + " buf:" + Pointer(input.bytes.data()) +
           ", len:" + std::to_string(input.bytes.size()) + ", lasternumber:" + std::to_string(lastnumber) +
           ", msg:" + name + " dotpath:" + input.path;
}

std::string NotExist(const std::string& component, unsigned lastnumber, const Descriptor* desc) {
    return "field " + component + " not exist, lastnumber:" + std::to_string(lastnumber) +
           ", lastDesc:" + desc->DebugString() + ".";
}

// An Item2 element of Player2.items (field 8) with the given id.
std::string ItemElement(int id) { return Bytes({0x42, 0x02, 0x08, id}); }

// TreeNode2 paths: (left|right)^d.id for d = 0 .. 7 (255 paths), then `extra`
// more of depth 8.
Paths TreePaths(int extra) {
    Paths paths;
    for (int d = 0; d <= 7; ++d) {
        for (int bits = 0; bits < (1 << d); ++bits) {
            std::string p;
            for (int k = 0; k < d; ++k) p += (bits >> k) & 1 ? "right." : "left.";
            paths.insert(p + "id");
        }
    }
    for (int k = 0; k < extra; ++k) {
        std::string p;
        for (int level = 0; level < 8; ++level) p += (k >> level) & 1 ? "right." : "left.";
        paths.insert(p + "id");
    }
    return paths;
}

std::string Repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

// ---------------------------------------------------------------------------
// FillValueSetWithMsg: emptying, limits and path checks.
// ---------------------------------------------------------------------------

class FillValueSet : public ::testing::Test {
protected:
    void SetUp() override {
        m_set = NewValueSet();
        // Leave an old field in the set: every call must start from empty.
        Player2 old;
        old.set_level(1);
        ASSERT_EQ(Cut(&old, {"level"}, *m_set, nullptr), 0);
        ASSERT_EQ(FieldNum(*m_set), 1);
    }

    std::unique_ptr<ProtobufValueSet_> m_set;
    LogCapture m_log;
};

TEST_F(FillValueSet, NullMessageEmptiesTheSet) {
    EXPECT_EQ(FillValueSetWithMsg(nullptr, {}, {"level"}, *m_set, m_log.category()), 0);
    EXPECT_EQ(FieldNum(*m_set), 0);
    EXPECT_EQ(m_set->iVersion_, 1);
    EXPECT_TRUE(m_log.lines().empty()) << m_log.Dump();
}

TEST_F(FillValueSet, NoPathsEmptiesTheSet) {
    Player2 msg;
    msg.set_level(3);
    EXPECT_EQ(Cut(&msg, {}, *m_set, m_log.category()), 0);
    EXPECT_EQ(FieldNum(*m_set), 0);
    EXPECT_TRUE(m_log.lines().empty()) << m_log.Dump();
}

TEST_F(FillValueSet, PreviousFieldsAreDiscarded) {
    Player2 msg;
    msg.set_name("n");
    EXPECT_EQ(Cut(&msg, {"name"}, *m_set, nullptr), 0);
    EXPECT_EQ(RecordPaths(*m_set), Texts{"3"});
}

TEST_F(FillValueSet, MessageWithoutDescriptor) {
    BrokenMessage msg(nullptr, nullptr);
    EXPECT_EQ(FillValueSetWithMsg(&msg, {}, {"level"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"NULL == descriptor, probably msg invalid"});
    EXPECT_EQ(FieldNum(*m_set), 0);
}

TEST_F(FillValueSet, TwoHundredFiftySixPathsPass) {
    TreeNode2 tree;
    const Paths paths = TreePaths(1);
    ASSERT_EQ(paths.size(), 256u);
    EXPECT_EQ(Cut(&tree, paths, *m_set, m_log.category()), 0) << m_log.Dump();
    EXPECT_EQ(FieldNum(*m_set), 256);
    EXPECT_TRUE(m_log.Texts(kError).empty()) << m_log.Dump();
}

TEST_F(FillValueSet, TwoHundredFiftySevenPathsFailBeforeAnyCut) {
    TreeNode2 tree;
    const Paths paths = TreePaths(2);
    ASSERT_EQ(paths.size(), 257u);
    EXPECT_EQ(Cut(&tree, paths, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"invalid dottedpaths, size[257] exceed max(256)"});
    EXPECT_EQ(FieldNum(*m_set), 0);
    EXPECT_FALSE(tree.has_left());
}

TEST_F(FillValueSet, PathOf1023CharactersPasses) {
    // Names are trimmed, so blanks make a valid path of any length.
    TreeNode2 tree;
    tree.set_id(5);
    const std::string path = "id" + std::string(1021, ' ');
    ASSERT_EQ(path.size(), 1023u);
    EXPECT_EQ(Cut(&tree, {path}, *m_set, m_log.category()), 0) << m_log.Dump();
    EXPECT_EQ(RecordPaths(*m_set), Texts{"1"});
}

TEST_F(FillValueSet, PathOf1024CharactersFails) {
    TreeNode2 tree;
    const std::string path = "id" + std::string(1022, ' ');
    EXPECT_EQ(Cut(&tree, {path}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"size of dottedpath:" + path + " exceed max:1024."});
    EXPECT_EQ(FieldNum(*m_set), 0);
}

TEST_F(FillValueSet, LeadingPartOfAnotherPathIsDuplicated) {
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {"stats", "stats.hp"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError),
              (Texts{"path:stats contained in stats.hp at the beginning", "dottedpath:stats duplicated."}));
    EXPECT_EQ(FieldNum(*m_set), 0);
}

TEST_F(FillValueSet, FieldsCutBeforeAFailureStay) {
    Player2 msg;
    msg.set_level(4);
    // "level" is cut first; "pos" is then found to lead "pos.x".
    EXPECT_EQ(Cut(&msg, {"level", "pos", "pos.x"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_TRUE(m_log.Has(kError, "dottedpath:pos duplicated.")) << m_log.Dump();
    EXPECT_EQ(RecordPaths(*m_set), Texts{"4"});
}

TEST_F(FillValueSet, PrefixWithoutComponentBoundaryIsAccepted) {
    PathNames2 msg;
    msg.set_ab(3);
    msg.mutable_a()->set_x(1);
    EXPECT_EQ(Cut(&msg, {"ab", "a"}, *m_set, m_log.category()), 0) << m_log.Dump();
    EXPECT_EQ(RecordPaths(*m_set), (Texts{"1", "2"}));
}

TEST_F(FillValueSet, EmptyPathHasNoNames) {
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {""}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"dottedpath: pathsize[0] invalid."});
}

TEST_F(FillValueSet, ThirtyTwoNamesPass) {
    TreeNode2 tree;
    const std::string path = Repeat("left.", 31) + "id";
    EXPECT_EQ(Cut(&tree, {path}, *m_set, m_log.category()), 0) << m_log.Dump();
    EXPECT_EQ(RecordPaths(*m_set), Texts{Repeat("2.", 31) + "1"});
}

TEST_F(FillValueSet, ThirtyThreeNamesFail) {
    TreeNode2 tree;
    const std::string path = Repeat("left.", 32) + "id";
    EXPECT_EQ(Cut(&tree, {path}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"dottedpath:" + path + " pathsize[33] exceed max(32) invalid."});
    EXPECT_FALSE(tree.has_left());
}

TEST_F(FillValueSet, KeyFieldsAndPathsUnderThemAreSkipped) {
    Player2 msg;
    msg.set_zone(1);
    msg.set_uid(2);
    msg.set_name("n");
    msg.mutable_pos()->set_x(3);
    EXPECT_EQ(Cut(&msg, {"zone", "uid", "name", "pos.x"}, *m_set, m_log.category(), {"zone", "uid", "pos"}), 0);
    EXPECT_EQ(RecordPaths(*m_set), Texts{"3"});
    EXPECT_TRUE(m_log.Has(kDebug, "dottedpath:zone , zone is a key field, that's not allowed.")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(kDebug, "dottedpath:uid , uid is a key field, that's not allowed."));
    EXPECT_TRUE(m_log.Has(kDebug, "dottedpath:pos.x , pos is a key field, that's not allowed."));
    EXPECT_TRUE(m_log.Texts(kError).empty()) << m_log.Dump();
}

TEST_F(FillValueSet, UnsetSubMessageOnThePathIsCreated) {
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {"stats.deep.v", "pos"}, *m_set, m_log.category()), 0);
    EXPECT_TRUE(msg.has_stats());
    EXPECT_TRUE(msg.stats().has_deep());
    // A requested message field that is not set is not created.
    EXPECT_FALSE(msg.has_pos());
    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].path, "6");
    EXPECT_EQ(records[0].bytes, "");
    EXPECT_EQ(records[1].path, "5.3.1");
    EXPECT_EQ(records[1].bytes, "");
}

TEST_F(FillValueSet, Proto3DefaultGivesAnEmptyRecord) {
    Player3 msg;
    msg.set_level(0);
    msg.set_opt_level(0);  // explicit presence: written although 0
    EXPECT_EQ(Cut(&msg, {"level", "opt_level", "stats.hp"}, *m_set, m_log.category()), 0);
    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].path, "4");
    EXPECT_EQ(records[0].bytes, "");
    EXPECT_EQ(records[1].path, "16");
    EXPECT_EQ(records[1].bytes, Bytes({0x80, 0x01, 0x00}));
    EXPECT_EQ(records[2].path, "5.1");
    EXPECT_EQ(records[2].bytes, "");
}

TEST_F(FillValueSet, RepeatedFieldsAreRefusedAtEveryLevel) {
    const struct {
        std::string path;
        std::string name;
    } cases[] = {{"items.id", "items"},
                 {"tags", "tags"},
                 {"attrs", "attrs"},
                 {"scores", "scores"},
                 {"stats.history", "history"}};
    for (const auto& c : cases) {
        Player2 msg;
        m_log.Clear();
        EXPECT_EQ(Cut(&msg, {c.path}, *m_set, m_log.category()), API_ERR_UNSUPPORT_FIELD_TYPE) << c.path;
        EXPECT_EQ(m_log.Texts(kError), Texts{"field " + c.name + " is repeated type, unsupported."}) << c.path;
    }
}

TEST_F(FillValueSet, UnknownName) {
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {"nosuch"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field nosuch not exist."});
    m_log.Clear();
    EXPECT_EQ(Cut(&msg, {"stats.label"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field label not exist."});
    m_log.Clear();
    EXPECT_EQ(Cut(&msg, {"stats..hp"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field  not exist."});
}

TEST_F(FillValueSet, NonMessageFieldBeforeTheLastName) {
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {"name.x"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field name message not exist."});
}

TEST_F(FillValueSet, MessageWithoutReflection) {
    BrokenMessage msg(Player2::descriptor(), nullptr);
    EXPECT_EQ(FillValueSetWithMsg(&msg, {}, {"stats.hp"}, *m_set, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field stats lastmsg reflection not exist."});
    EXPECT_EQ(FieldNum(*m_set), 0);
}

TEST_F(FillValueSet, RecordsFollowTheOrderOfDottedPaths) {
    Player2 msg;
    msg.set_level(4);
    msg.set_delta(-2);
    msg.set_name("n");
    msg.set_avatar("a");
    EXPECT_EQ(Cut(&msg, {"level", "delta", "name", "avatar"}, *m_set, m_log.category()), 0);
    EXPECT_EQ(RecordPaths(*m_set), (Texts{"10", "15", "4", "3"}));
    EXPECT_EQ(m_log.Texts(kDebug), (Texts{"field #1, tagpath:10.", "field #2, tagpath:15.", "field #3, tagpath:4.",
                                          "field #4, tagpath:3."}));
}

TEST_F(FillValueSet, RecordHoldsTheFieldsOwnEncoding) {
    Player2 msg;
    msg.set_name("hero");
    msg.set_rating(2.5);
    msg.set_flags(0x0102030405060708u);
    msg.mutable_stats()->set_hp(100);
    msg.mutable_stats()->mutable_deep()->set_text("deep");
    msg.mutable_pos()->set_label("here");
    EXPECT_EQ(Cut(&msg, {"name", "rating", "flags", "stats", "pos.label"}, *m_set, nullptr), 0);
    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0], (Record{"14", FieldEncoding(msg, "flags"), 1}));
    EXPECT_EQ(records[1], (Record{"3", FieldEncoding(msg, "name"), 2}));
    EXPECT_EQ(records[2], (Record{"6.3", FieldEncoding(msg.pos(), "label"), 2}));
    EXPECT_EQ(records[3], (Record{"13", FieldEncoding(msg, "rating"), 1}));
    EXPECT_EQ(records[4], (Record{"5", FieldEncoding(msg, "stats"), 2}));
    EXPECT_EQ(records[1].bytes, Bytes({0x1a, 0x04, 'h', 'e', 'r', 'o'}));
}

TEST_F(FillValueSet, ResultDoesNotDependOnLogging) {
    LogCapture silent(PLOG_PRIORITY_FATAL);
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {"stats", "stats.hp"}, *m_set, silent.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(Cut(&msg, {"stats", "stats.hp"}, *m_set, nullptr), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(Cut(&msg, {"level", "name"}, *m_set, silent.category()), 0);
    EXPECT_EQ(FieldNum(*m_set), 2);
    EXPECT_TRUE(silent.lines().empty());
}

// ---------------------------------------------------------------------------
// FillValueSetWithMsg: fields that do not fit.
// ---------------------------------------------------------------------------

// The version-1 region of the first field is the value buffer less the tag
// path "10" and its NUL; an avatar of n bytes takes 1 + 4 + n bytes there
// (key, a four-byte length, the bytes).
constexpr int kFirstRegion = CORVIDA_PROTOBUF_MAX_VALUE_BUF - 3;
constexpr int kAvatarOverhead = 5;

TEST_F(FillValueSet, LargestFieldThatFitsIsCut) {
    Player2 msg;
    msg.set_avatar(std::string(kFirstRegion - 1 - kAvatarOverhead, 'a'));
    EXPECT_EQ(Cut(&msg, {"avatar"}, *m_set, m_log.category()), 0) << m_log.Dump();
    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].bytes.size(), static_cast<size_t>(kFirstRegion - 1));
    EXPECT_EQ(records[0].bytes, FieldEncoding(msg, "avatar"));
}

TEST_F(FillValueSet, FieldFillingItsRegionExactlyIsCut) {
    Player2 msg;
    msg.set_avatar(std::string(kFirstRegion - kAvatarOverhead, 'a'));
    EXPECT_EQ(Cut(&msg, {"avatar"}, *m_set, m_log.category()), 0) << m_log.Dump();
    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].bytes.size(), static_cast<size_t>(kFirstRegion));
    EXPECT_TRUE(records[0].bytes == FieldEncoding(msg, "avatar"));
    EXPECT_EQ(m_set->stCompactValueSet.iValueBufLen, CORVIDA_PROTOBUF_MAX_VALUE_BUF);
}

// The stream is not checked for overflow: the record keeps what the stream
// wrote of the field, closed with the stream's count.
TEST_F(FillValueSet, FieldLargerThanItsRegionIsCutShort) {
    Player2 msg;
    msg.set_avatar(std::string(CORVIDA_PROTOBUF_MAX_VALUE_BUF + 100, 'a'));
    EXPECT_EQ(Cut(&msg, {"avatar"}, *m_set, m_log.category()), 0) << m_log.Dump();
    EXPECT_TRUE(m_log.Texts(kError).empty()) << m_log.Dump();
    EXPECT_EQ(m_log.Texts(kDebug), (Texts{"field #1, tagpath:10."}));

    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 1u);
    ASSERT_LT(records[0].bytes.size(), static_cast<size_t>(kFirstRegion));
    EXPECT_GT(records[0].bytes.size(), static_cast<size_t>(kFirstRegion) - 64);
    EXPECT_TRUE(records[0].bytes == FieldEncoding(msg, "avatar").substr(0, records[0].bytes.size()));

    // Merged back, the cut-short field does not parse and is reported.
    std::vector<PbValueSetBuffer::Field> fields;
    ASSERT_EQ(PbValueSetBuffer(m_set.get(), 1, nullptr).GetFields(fields), 0);
    Player2 merged;
    std::set<std::string> failed;
    EXPECT_EQ(FillMsgFromField(fields, failed, &merged, nullptr, 0, m_log.category()), 0);
    EXPECT_EQ(failed, std::set<std::string>{"10"});
    EXPECT_FALSE(merged.has_avatar());
}

// A field in a region smaller than the stream's own buffer is counted whole
// though only what fits reaches the region: the builder cannot close it.
TEST_F(FillValueSet, FieldCountedPastItsRegionIsRefusedByTheBuilder) {
    Player2 msg;
    msg.set_avatar(std::string(CORVIDA_PROTOBUF_MAX_VALUE_BUF + 100, 'a'));
    msg.set_rating(1);  // a double: 9 bytes, after the avatar has taken all but a few
    EXPECT_EQ(Cut(&msg, {"avatar", "rating"}, *m_set, m_log.category()), GEN_ERR_ERR);
    const Texts errors = m_log.Texts(kError);
    ASSERT_FALSE(errors.empty()) << m_log.Dump();
    EXPECT_EQ(errors.back(),
              "vsb.FinishCutField() failed, ret=" + std::to_string(CorvidaCommon::PBVSB_ERR_BAD_LENGTH) + ", path=13");
    EXPECT_EQ(m_log.Texts(kDebug), (Texts{"field #1, tagpath:10."}));
}

TEST_F(FillValueSet, BuilderWithoutRoomRefusesTheNextField) {
    // The first field leaves two bytes of the value buffer: too few for the
    // next tag path "13" and its NUL.
    Player2 msg;
    msg.set_avatar(std::string(kFirstRegion - 2 - kAvatarOverhead, 'a'));
    msg.set_rating(1);
    EXPECT_EQ(Cut(&msg, {"avatar", "rating"}, *m_set, m_log.category()), GEN_ERR_ERR);
    EXPECT_TRUE(m_log.Has(
        kError, "vsb.InsertCutField() failed, ret=" + std::to_string(CorvidaCommon::PBVSB_ERR_NO_ROOM) + ", path=13"))
        << m_log.Dump();
    EXPECT_EQ(RecordPaths(*m_set), Texts{"10"});
}

// ---------------------------------------------------------------------------
// FillMsgFromField.
// ---------------------------------------------------------------------------

class FillMsg : public ::testing::Test {
protected:
    Paths m_failed;
    LogCapture m_log;
};

TEST_F(FillMsg, NoFieldsLeaveTheMessageUntouched) {
    Player2 msg;
    msg.set_level(3);
    msg.mutable_stats()->set_hp(1);
    const Player2 before = msg;
    EXPECT_EQ(Merge({}, &msg, m_failed, m_log.category()), 0);
    EXPECT_TRUE(MessageDifferencer::Equals(msg, before));
    EXPECT_TRUE(m_failed.empty());
    EXPECT_EQ(m_log.Texts(kDebug), Texts{"suite name:, lastDesc:" + Player2::descriptor()->DebugString()});
}

TEST_F(FillMsg, SuiteNameIsLogged) {
    Secret2 msg;
    EXPECT_EQ(Merge({}, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(m_log.Texts(kDebug), Texts{"suite name:aes128, lastDesc:" + Secret2::descriptor()->DebugString()});
}

TEST_F(FillMsg, ZeroLengthFieldClearsTheField) {
    Player2 msg;
    msg.set_level(7);
    msg.mutable_pos()->set_x(1);
    EXPECT_EQ(Merge({{"4", ""}, {"6", ""}}, &msg, m_failed, m_log.category()), 0);
    EXPECT_FALSE(msg.has_level());
    EXPECT_FALSE(msg.has_pos());
    EXPECT_TRUE(m_failed.empty());
    EXPECT_TRUE(m_log.Texts(kError).empty()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(kDebug, "tag:4 field name:level corvida_crypto:0"));
}

TEST_F(FillMsg, Proto3ZeroLengthFieldClearsTheField) {
    Player3 msg;
    msg.set_level(5);
    EXPECT_EQ(Merge({{"4", ""}}, &msg, m_failed, nullptr), 0);
    EXPECT_EQ(msg.level(), 0);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, BytesOfAnotherFieldAreReported) {
    Player2 msg;
    msg.set_level(7);
    const std::vector<Input> inputs = {{"4", Bytes({0x10, 0x05})}};  // the key of uid (2)
    EXPECT_EQ(Merge(inputs, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(m_failed, Paths{"4"});
    EXPECT_FALSE(msg.has_level());
    EXPECT_FALSE(msg.has_uid());
    EXPECT_EQ(m_log.Texts(kError), Texts{MergeFailed(0, inputs[0], 4, "level")});
    // A failed field skips the encryption check.
    EXPECT_FALSE(m_log.Has(kDebug, "tag:4 field name:level corvida_crypto:0"));
}

TEST_F(FillMsg, WrongWireTypeIsReported) {
    Player2 msg;
    const std::vector<Input> inputs = {{"4", Bytes({0x22, 0x01, 0x05})}};  // field 4, length-delimited
    EXPECT_EQ(Merge(inputs, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(m_failed, Paths{"4"});
    EXPECT_FALSE(msg.has_level());
    EXPECT_EQ(m_log.Texts(kError), Texts{MergeFailed(0, inputs[0], 4, "level")});
}

TEST_F(FillMsg, TruncatedBytesAreReported) {
    Player2 msg;
    msg.set_name("old");
    msg.mutable_stats()->set_hp(3);
    const std::vector<Input> inputs = {
        {"4", Bytes({0x20, 0x80})},               // varint cut off
        {"3", Bytes({0x1a, 0x05, 'a', 'b'})},     // length past the end
        {"5", Bytes({0x2a, 0x10, 0x08})},         // sub-message cut inside a value
        {"13", Bytes({0x69, 0x00, 0x00, 0x00})},  // fixed64 cut off
        {"14", Bytes({0x71})},                    // key alone
    };
    EXPECT_EQ(Merge(inputs, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(m_failed, (Paths{"4", "3", "5", "13", "14"}));
    EXPECT_FALSE(msg.has_level());
    EXPECT_FALSE(msg.has_name());
    EXPECT_FALSE(msg.has_stats());
    EXPECT_FALSE(msg.has_rating());
    EXPECT_FALSE(msg.has_flags());
    EXPECT_EQ(m_log.Texts(kError),
              (Texts{MergeFailed(0, inputs[0], 4, "level"), MergeFailed(1, inputs[1], 3, "name"),
                     MergeFailed(2, inputs[2], 5, "stats"), MergeFailed(3, inputs[3], 13, "rating"),
                     MergeFailed(4, inputs[4], 14, "flags")}));
}

TEST_F(FillMsg, SubMessageEndingWithTheBytesIsMergedAsFarAsItGoes) {
    // protobuf's parser takes the end of the input for the end of a
    // sub-message whose length runs past it, as long as no value is cut.
    Player2 msg;
    EXPECT_EQ(Merge({{"5", Bytes({0x2a, 0x10, 0x08, 0x01})}}, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(msg.stats().hp(), 1);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, KeyZeroStillMergesWithTheExpectedKey) {
    Player2 msg;
    EXPECT_EQ(Merge({{"4", Bytes({0x00, 0x05})}}, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(msg.level(), 5);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, BytesAfterTheFirstValueAreNotRead) {
    Player2 msg;
    EXPECT_EQ(Merge({{"4", Bytes({0x20, 0x05, 0xff, 0xff, 0xff})}}, &msg, m_failed, nullptr), 0);
    EXPECT_EQ(msg.level(), 5);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, PathThroughAnUnsetSubMessageCreatesIt) {
    Player2 msg;
    EXPECT_EQ(Merge({{"4", Bytes({0x20, 0x01})}, {"5.1", Bytes({0x08, 0x2a})}}, &msg, m_failed, m_log.category()), 0);
    EXPECT_TRUE(msg.has_stats());
    EXPECT_EQ(msg.stats().hp(), 42);
    EXPECT_EQ(msg.level(), 1);
    // Component lines carry the index of the field, not of the component.
    EXPECT_EQ(m_log.Texts(kDebug), (Texts{"suite name:, lastDesc:" + Player2::descriptor()->DebugString(), "dotpath:4",
                                          "dotpath[0]:4", "tag:4 field name:level corvida_crypto:0", "dotpath:5.1",
                                          "dotpath[1]:5", "dotpath[1]:1", "tag:1 field name:hp corvida_crypto:0"}));
}

TEST_F(FillMsg, ValueIsReplacedNotMerged) {
    Player2 msg;
    msg.mutable_pos()->set_x(1);
    msg.mutable_pos()->set_y(2);
    EXPECT_EQ(Merge({{"6", Bytes({0x32, 0x02, 0x08, 0x05})}}, &msg, m_failed, nullptr), 0);
    EXPECT_EQ(msg.pos().x(), 5);
    EXPECT_FALSE(msg.pos().has_y());
}

TEST_F(FillMsg, UnknownNumberStopsTheMerge) {
    Player2 msg;
    const std::vector<Input> inputs = {
        {"4", Bytes({0x20, 0x09})}, {"99", Bytes({0x01})}, {"3", Bytes({0x1a, 0x01, 'x'})}};
    EXPECT_EQ(Merge(inputs, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(msg.level(), 9);
    EXPECT_FALSE(msg.has_name());
    EXPECT_EQ(m_log.Texts(kError), Texts{NotExist("99", 99, Player2::descriptor())});
}

TEST_F(FillMsg, UnknownNumberInASubMessage) {
    Player2 msg;
    EXPECT_EQ(Merge({{"5.9", ""}}, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{NotExist("9", 9, corvida::test::Stats2::descriptor())});
}

TEST_F(FillMsg, NonNumericComponents) {
    const struct {
        std::string component;
        unsigned number;
    } unknown[] = {{"abc", 0}, {"-4", 0}, {"+4", 0}, {"99999999999", 4294967295u}, {"4294967300", 4294967295u}};
    for (const auto& c : unknown) {
        Player2 msg;
        m_log.Clear();
        EXPECT_EQ(Merge({{c.component, Bytes({0x20, 0x01})}}, &msg, m_failed, m_log.category()),
                  GEN_ERR_INVALID_ARGUMENTS);
        EXPECT_EQ(m_log.Texts(kError), Texts{NotExist(c.component, c.number, Player2::descriptor())}) << c.component;
    }
    // Leading digits count; components are trimmed.
    Player2 msg;
    EXPECT_EQ(Merge({{"4abc", Bytes({0x20, 0x03})}, {" 5 . 2x ", Bytes({0x10, 0x04})}}, &msg, m_failed, nullptr), 0);
    EXPECT_EQ(msg.level(), 3);
    EXPECT_EQ(msg.stats().mp(), 4);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, EmptyPathIsNotFound) {
    Player2 msg;
    EXPECT_EQ(Merge({{"", Bytes({0x20, 0x01})}}, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field  not found."});

    m_log.Clear();
    std::vector<Field> fields = {Field{0, nullptr, nullptr, 0, -1}};
    EXPECT_EQ(FillMsgFromField(fields, m_failed, &msg, nullptr, 0, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field  not found."});
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, NoTargetMessage) {
    EXPECT_EQ(Merge({}, nullptr, m_failed, m_log.category()), 0);
    EXPECT_EQ(Merge({{"4", Bytes({0x20, 0x01})}}, nullptr, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field 4 not found."});

    m_log.Clear();
    BrokenMessage msg(nullptr, nullptr);
    EXPECT_EQ(Merge({{"4", Bytes({0x20, 0x01})}}, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field 4 not found."});
}

TEST_F(FillMsg, PathThroughAFieldWithoutASingleMessageBelow) {
    const struct {
        std::string path;
        std::string name;
    } cases[] = {{"3.1", "name"}, {"8.1", "items"}, {"9.1", "attrs"}, {"5.4.1", "history"}};
    for (const auto& c : cases) {
        Player2 msg;
        m_log.Clear();
        EXPECT_EQ(Merge({{c.path, Bytes({0x08, 0x01})}}, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
        EXPECT_EQ(m_log.Texts(kError), Texts{"field " + c.name + " lastmsg not exist."}) << c.path;
    }
}

TEST_F(FillMsg, MessageWithoutReflection) {
    BrokenMessage msg(Player2::descriptor(), nullptr);
    EXPECT_EQ(Merge({{"5.1", Bytes({0x08, 0x01})}}, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field stats lastmsg reflection not exist."});
    m_log.Clear();
    EXPECT_EQ(Merge({{"4", Bytes({0x20, 0x01})}}, &msg, m_failed, m_log.category()), GEN_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(m_log.Texts(kError), Texts{"field level lastmsg reflection not exist."});
}

TEST_F(FillMsg, RepeatedMessageElementsAreAllMerged) {
    Player2 msg;
    msg.add_items()->set_id(70);
    msg.add_items()->set_id(71);
    EXPECT_EQ(Merge({{"8", ItemElement(1) + ItemElement(2) + ItemElement(3)}}, &msg, m_failed, m_log.category()), 0);
    ASSERT_EQ(msg.items_size(), 3);
    EXPECT_EQ(msg.items(0).id(), 1);
    EXPECT_EQ(msg.items(1).id(), 2);
    EXPECT_EQ(msg.items(2).id(), 3);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, FailingRepeatedMessageElement) {
    Player2 msg;
    msg.add_items()->set_id(70);
    const std::string bad = Bytes({0x42, 0x05, 0x08});  // length past the end
    const std::vector<Input> inputs = {
        {"8", ItemElement(1) + ItemElement(2) + bad}, {"8", ItemElement(1) + Bytes({0x20, 0x01})}, {"8", bad}};
    EXPECT_EQ(Merge(inputs, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(msg.items_size(), 0);
    EXPECT_EQ(m_failed, Paths{"8"});
    EXPECT_EQ(m_log.Texts(kError),
              (Texts{MergeFailed(0, inputs[0], 8, "items") + ", index:1",
                     MergeFailed(1, inputs[1], 8, "items") + ", index:0", MergeFailed(2, inputs[2], 8, "items")}));
}

TEST_F(FillMsg, MapEntriesAreAllMerged) {
    Player2 msg;
    (*msg.mutable_attrs())["old"] = 9;
    // Entries {"a": 1} and {"b": 2}.
    const std::string bytes = Bytes({0x4a, 0x05, 0x0a, 0x01, 'a', 0x10, 0x01, 0x4a, 0x05, 0x0a, 0x01, 'b', 0x10, 0x02});
    EXPECT_EQ(Merge({{"9", bytes}}, &msg, m_failed, nullptr), 0);
    ASSERT_EQ(msg.attrs_size(), 2);
    EXPECT_EQ(msg.attrs().at("a"), 1);
    EXPECT_EQ(msg.attrs().at("b"), 2);
}

TEST_F(FillMsg, OnlyTheFirstElementOfANonPackedRepeatedScalar) {
    Player2 msg;
    msg.mutable_stats()->add_history(9);
    EXPECT_EQ(Merge({{"5.4", Bytes({0x20, 0x01, 0x20, 0x02, 0x20, 0x03})}}, &msg, m_failed, nullptr), 0);
    ASSERT_EQ(msg.stats().history_size(), 1);
    EXPECT_EQ(msg.stats().history(0), 1);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, PackedRepeatedScalar) {
    Player2 msg2;
    msg2.add_scores(9);
    EXPECT_EQ(Merge({{"12", Bytes({0x62, 0x03, 0x01, 0x02, 0x03})}}, &msg2, m_failed, nullptr), 0);
    EXPECT_EQ(std::vector<int>(msg2.scores().begin(), msg2.scores().end()), (std::vector<int>{1, 2, 3}));

    Player3 msg3;  // proto3 repeated scalars are packed by default
    EXPECT_EQ(Merge({{"12", Bytes({0x62, 0x02, 0x07, 0x08})}}, &msg3, m_failed, nullptr), 0);
    EXPECT_EQ(std::vector<int>(msg3.scores().begin(), msg3.scores().end()), (std::vector<int>{7, 8}));
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, GroupField) {
    AllTypes2 msg;
    // Start group 18, g_a (19) = 7, end group 18.
    EXPECT_EQ(Merge({{"18", Bytes({0x93, 0x01, 0x98, 0x01, 0x07, 0x94, 0x01})}}, &msg, m_failed, nullptr), 0);
    EXPECT_EQ(msg.fgroup().g_a(), 7);
    EXPECT_TRUE(m_failed.empty());
}

TEST_F(FillMsg, EncryptedStringAndBytesAreMergedAndReported) {
    Secret2 msg;
    const std::vector<Input> inputs = {{"2", Bytes({0x12, 0x03, 'c', 'i', 'p'})},
                                       {"3", Bytes({0x1a, 0x02, 0x00, 0xff})},
                                       {"4", Bytes({0x20, 0x07})},
                                       {"5", Bytes({0x2a, 0x01, 'p'})}};
    EXPECT_EQ(Merge(inputs, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(msg.token(), "cip");
    EXPECT_EQ(msg.sealed(), Bytes({0x00, 0xff}));
    EXPECT_EQ(msg.pin(), 7);
    EXPECT_EQ(msg.plain(), "p");
    EXPECT_EQ(m_failed, (Paths{"2", "3"}));
    EXPECT_EQ(m_log.Texts(kError), (Texts{"suite name not valid", "suite name not valid"}));
    EXPECT_TRUE(m_log.Has(kDebug, "tag:2 field name:token corvida_crypto:1"));
    EXPECT_TRUE(m_log.Has(kDebug, "tag:3 field name:sealed corvida_crypto:1"));
    EXPECT_TRUE(m_log.Has(kDebug, "tag:4 field name:pin corvida_crypto:1"));
    EXPECT_TRUE(m_log.Has(kDebug, "tag:5 field name:plain corvida_crypto:0"));
}

TEST_F(FillMsg, EmptyEncryptedStringIsReportedToo) {
    Secret2 msg;
    msg.set_token("old");
    EXPECT_EQ(Merge({{"2", ""}}, &msg, m_failed, m_log.category()), 0);
    EXPECT_FALSE(msg.has_token());
    EXPECT_EQ(m_failed, Paths{"2"});
    EXPECT_EQ(m_log.Texts(kError), Texts{"suite name not valid"});
}

TEST_F(FillMsg, SameFailingPathIsListedOnce) {
    Player2 msg;
    EXPECT_EQ(Merge({{"4", Bytes({0x10, 0x01})}, {"4", Bytes({0x10, 0x02})}}, &msg, m_failed, m_log.category()), 0);
    EXPECT_EQ(m_failed, Paths{"4"});
    EXPECT_EQ(m_log.Texts(kError).size(), 2u);
}

TEST_F(FillMsg, FailedPathsAreNeverCleared) {
    m_failed.insert("earlier");
    Player2 msg;
    EXPECT_EQ(Merge({{"4", Bytes({0x10, 0x01})}}, &msg, m_failed, nullptr), 0);
    EXPECT_EQ(m_failed, (Paths{"4", "earlier"}));
}

TEST_F(FillMsg, ResultDoesNotDependOnLogging) {
    LogCapture silent(PLOG_PRIORITY_FATAL);
    for (LPPLOGCATEGORYINST log : {silent.category(), static_cast<LPPLOGCATEGORYINST>(nullptr)}) {
        Player2 msg;
        Paths failed;
        EXPECT_EQ(Merge({{"4", Bytes({0x10, 0x01})}, {"5.1", Bytes({0x08, 0x02})}}, &msg, failed, log), 0);
        EXPECT_EQ(failed, Paths{"4"});
        EXPECT_EQ(msg.stats().hp(), 2);
        EXPECT_EQ(Merge({{"99", ""}}, &msg, failed, log), GEN_ERR_INVALID_ARGUMENTS);
    }
    EXPECT_TRUE(silent.lines().empty());
}

// The key protobuf writes first for the field at tag path `path` of desc.
std::string ExpectedKey(const Descriptor* desc, const std::string& path) {
    std::vector<std::string> numbers;
    PROTOBUF_UTIL::TokenSplit(path, ".", numbers);
    const FieldDescriptor* field = nullptr;
    for (const std::string& number : numbers) {
        field = desc->FindFieldByNumber(std::stoi(number));
        desc = field->message_type();
    }
    std::string key;
    for (uint32_t tag = WireFormat::MakeTag(field);; tag >>= 7) {
        if (tag < 0x80) {
            key.push_back(static_cast<char>(tag));
            return key;
        }
        key.push_back(static_cast<char>((tag & 0x7f) | 0x80));
    }
}

// Arbitrary bytes under every tag path of Player2: whatever they hold, the
// merge returns 0 and reads nothing outside them (checked under the
// sanitizers).
TEST_F(FillMsg, ArbitraryBytesNeverCrash) {
    google::protobuf::LogSilencer silencer;  // protobuf's own complaints about non-UTF-8 strings
    std::mt19937_64 rng(11);
    const char* const kPaths[] = {"1", "3", "4", "5",  "5.3", "5.3.2", "5.4", "6",
                                  "7", "8", "9", "10", "12",  "13",    "14",  "15"};
    for (int round = 0; round < 3000; ++round) {
        std::vector<Input> inputs;
        for (const char* path : kPaths) {
            std::string bytes(rng() % 12, '\0');
            for (char& c : bytes) c = static_cast<char>(rng());
            // Half of the time the bytes start with the expected key, so that
            // the value parsers see them too.
            if (rng() % 2 == 0) bytes = ExpectedKey(Player2::descriptor(), path) + bytes;
            inputs.push_back({path, std::move(bytes)});
        }
        Player2 msg;
        Paths failed;
        ASSERT_EQ(Merge(inputs, &msg, failed, nullptr), 0);
        msg.ByteSizeLong();  // the result is a well-formed message
    }
}

// ---------------------------------------------------------------------------
// Round trips: cut, (copy to version 0,) pack, unpack, merge.
// ---------------------------------------------------------------------------

// Every non-repeated path of desc, through singular sub-messages down to
// `levels` names.
void CollectPaths(const Descriptor* desc, const std::string& prefix, int levels, std::vector<std::string>& out) {
    for (int i = 0; i < desc->field_count(); ++i) {
        const FieldDescriptor* field = desc->field(i);
        if (field->is_repeated()) continue;
        const std::string path = prefix.empty() ? field->name() : prefix + "." + field->name();
        out.push_back(path);
        if (field->message_type() != nullptr && levels > 1) CollectPaths(field->message_type(), path, levels - 1, out);
    }
}

bool Leads(const std::string& a, const std::string& b) {
    return b.size() > a.size() && b.compare(0, a.size(), a) == 0 && b[a.size()] == '.';
}

// A random set of candidates, none the leading part of another.
Paths RandomPaths(const std::vector<std::string>& candidates, std::mt19937_64& rng) {
    Paths chosen;
    for (const std::string& c : candidates) {
        if (rng() % 3 != 0) continue;
        bool overlaps = false;
        for (const std::string& other : chosen) overlaps = overlaps || Leads(c, other) || Leads(other, c);
        if (!overlaps) chosen.insert(c);
    }
    return chosen;
}

std::vector<std::string> Names(const std::string& path) {
    std::vector<std::string> names;
    PROTOBUF_UTIL::TokenSplit(path, ".", names);
    return names;
}

// Copies the field at path from src into dst, creating the sub-messages on
// the way in dst.
void CopyPath(const Message& src, const std::vector<std::string>& names, Message* dst) {
    const Message* from = &src;
    Message* to = dst;
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        const FieldDescriptor* field = from->GetDescriptor()->FindFieldByName(names[i]);
        from = &from->GetReflection()->GetMessage(*from, field);
        to = to->GetReflection()->MutableMessage(to, field);
    }
    const FieldDescriptor* last = from->GetDescriptor()->FindFieldByName(names.back());
    std::unique_ptr<Message> only(from->New());
    only->CopyFrom(*from);
    std::vector<const FieldDescriptor*> present;
    only->GetReflection()->ListFields(*only, &present);
    for (const FieldDescriptor* field : present) {
        if (field != last) only->GetReflection()->ClearField(only.get(), field);
    }
    to->MergeFrom(*only);
}

// Copies the records of a version-1 set into a version-0 set through a
// version-0 builder.
void CopyToVersion0(const ProtobufValueSet_& from, ProtobufValueSet_& to) {
    std::vector<Field> fields;
    ASSERT_EQ(PbValueSetBuffer(&from, 1, nullptr).GetFields(fields), 0);
    PbValueSetBuffer builder(&to, 0, nullptr);
    ASSERT_EQ(builder.ResetFieldNum(), 0);
    for (const Field& f : fields) {
        Field copy = {-1, f.path, nullptr, 0, f.wire_type};
        ASSERT_EQ(builder.InsertCutField(copy), 0);
        ASSERT_LT(f.buf_len, copy.buf_len);
        std::memcpy(const_cast<char*>(copy.buf), f.buf, static_cast<size_t>(f.buf_len));
        ASSERT_EQ(builder.FinishCutField(copy.idx, f.buf_len), 0);
    }
}

// Packs `from` and unpacks it into `to`, as the network hop does.
void Hop(const ProtobufValueSet_& from, ProtobufValueSet_& to, std::vector<char>& wire) {
    wire.resize(from.packedSize());
    size_t used = 0;
    ASSERT_EQ(from.pack(wire.data(), wire.size(), &used), 0);
    size_t read = 0;
    ASSERT_EQ(to.unpack(wire.data(), used, &read), 0);
    ASSERT_EQ(read, used);
}

void RoundTrip(const Message& prototype, const Paths& keys, int version, int rounds, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<std::string> candidates;
    CollectPaths(prototype.GetDescriptor(), "", 4, candidates);
    std::unique_ptr<ProtobufValueSet_> cut = NewValueSet();
    std::unique_ptr<ProtobufValueSet_> v0 = NewValueSet();
    std::unique_ptr<ProtobufValueSet_> received = NewValueSet();
    std::vector<char> wire;
    int with_bytes = 0;  // records that carried a value
    int nested = 0;      // records below the top message

    for (int round = 0; round < rounds; ++round) {
        std::unique_ptr<Message> original(prototype.New());
        corvida_test::FillRandom(original.get(), rng);
        original->ByteSizeLong();
        const Paths paths = RandomPaths(candidates, rng);
        ASSERT_EQ(FillValueSetWithMsg(original.get(), keys, paths, *cut, nullptr), 0);

        // The records are the non-key paths in order, under their tag paths.
        std::vector<std::string> expected_paths;
        for (const std::string& p : paths) {
            std::vector<std::string> names = Names(p);
            if (keys.count(names[0]) != 0) continue;
            std::string tagpath;
            int depth = 0;
            ASSERT_EQ(PROTOBUF_UTIL::TransFieldNameToTagPath(names, tagpath, prototype.GetDescriptor(), depth, nullptr),
                      0);
            expected_paths.push_back(tagpath);
        }
        ASSERT_EQ(RecordPaths(*cut), expected_paths);

        const ProtobufValueSet_* sent = cut.get();
        if (version == 0) {
            CopyToVersion0(*cut, *v0);
            sent = v0.get();
        }
        Hop(*sent, *received, wire);
        ASSERT_EQ(Records(*received, version), Records(*cut, 1));

        std::vector<Field> fields;
        ASSERT_EQ(PbValueSetBuffer(received.get(), version, nullptr).GetFields(fields), 0);
        for (const Field& f : fields) {
            with_bytes += f.buf_len > 0;
            nested += std::strchr(f.path, '.') != nullptr;
        }
        std::unique_ptr<Message> merged(prototype.New());
        Paths failed;
        ASSERT_EQ(FillMsgFromField(fields, failed, merged.get(), nullptr, 0, nullptr), 0);
        EXPECT_TRUE(failed.empty());

        std::unique_ptr<Message> expected(prototype.New());
        for (const std::string& p : paths) {
            const std::vector<std::string> names = Names(p);
            if (keys.count(names[0]) == 0) CopyPath(*original, names, expected.get());
        }
        MessageDifferencer differencer;
        std::string report;
        differencer.ReportDifferencesToString(&report);
        ASSERT_TRUE(differencer.Compare(*expected, *merged)) << report << "\nround " << round;
    }
    // The random paths reached values, and values inside sub-messages.
    EXPECT_GT(with_bytes, rounds);
    EXPECT_GT(nested, rounds / 2);
}

const Paths kPlayerKeys = {"zone", "uid"};

TEST(RoundTrip, Player2Version1) { RoundTrip(Player2::default_instance(), kPlayerKeys, 1, 300, 21); }
TEST(RoundTrip, Player2Version0) { RoundTrip(Player2::default_instance(), kPlayerKeys, 0, 300, 22); }
TEST(RoundTrip, Player3Version1) { RoundTrip(Player3::default_instance(), kPlayerKeys, 1, 300, 31); }
TEST(RoundTrip, Player3Version0) { RoundTrip(Player3::default_instance(), kPlayerKeys, 0, 300, 32); }
TEST(RoundTrip, AllTypes2SingularFields) { RoundTrip(AllTypes2::default_instance(), {}, 1, 200, 41); }
TEST(RoundTrip, AllTypes3SingularFields) { RoundTrip(AllTypes3::default_instance(), {}, 0, 200, 42); }

// The overlap test reads the path text: "stats." (one name; a trailing "."
// adds none) is not a leading part of "stats.hp" at a component boundary, so
// both are cut. The first records stats as it stood (absent, zero bytes); the
// walk of the second then creates it. Found by text_path_fuzzer; the result
// is as documented and stays so.
TEST_F(FillValueSet, TrailingDotPathIsNotTheLeadingPartOfAFieldUnderIt) {
    Player2 msg;
    EXPECT_EQ(Cut(&msg, {"stats.", "stats.hp"}, *m_set, m_log.category()), 0) << m_log.Dump();
    const std::vector<Record> records = Records(*m_set);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].path, "5");
    EXPECT_EQ(records[0].bytes, "");
    EXPECT_EQ(records[1].path, "5.1");
    EXPECT_EQ(records[1].bytes, "");
    EXPECT_TRUE(msg.has_stats());
}

}  // namespace
