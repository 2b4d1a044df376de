// Loading a table's schema blob: ParseErrorCollector, MsgDescGroup,
// FetchShardingKey, FillMessageGroup and GetMetaAndCompare.
//
// Blobs are serialized FileDescriptorSets made from the compiled-in files of
// the test tables and of protobuf's well-known types, edited where a test
// needs a different server schema.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <google/protobuf/compiler/plugin.pb.h>
#include <google/protobuf/any.pb.h>
#include <google/protobuf/api.pb.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/empty.pb.h>
#include <google/protobuf/field_mask.pb.h>
#include <google/protobuf/source_context.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/timestamp.pb.h>
#include <google/protobuf/type.pb.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "support/log_capture.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

// ---------------------------------------------------------------------------
// Allocation failures: the module allocates its descriptor database and pool
// with non-throwing new, and nothing else in a schema load does. A test arms
// the countdown to let that many such allocations succeed and fail the rest.
// ---------------------------------------------------------------------------

namespace {
std::atomic<int> g_nothrow_new_successes_left{-1};  // -1: never fail
}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    int left = g_nothrow_new_successes_left.load();
    if (left == 0) return nullptr;
    if (left > 0) g_nothrow_new_successes_left.store(left - 1);
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

namespace {

using corvida_test::LogCapture;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;
using google::protobuf::SimpleDescriptorDatabase;
using PROTOBUF_UTIL::CompareMessageMeta;
using PROTOBUF_UTIL::FetchShardingKey;
using PROTOBUF_UTIL::FillMessageGroup;
using PROTOBUF_UTIL::GetMetaAndCompare;
using PROTOBUF_UTIL::MsgDescGroup;
using PROTOBUF_UTIL::ParseErrorCollector;
using Strings = std::vector<std::string>;

constexpr int kError = PLOG_PRIORITY_ERROR;
constexpr int kDebug = PLOG_PRIORITY_DEBUG;

// Lets `successes` non-throwing allocations succeed, then fails the others,
// until it goes out of scope.
class FailNothrowNew {
public:
    explicit FailNothrowNew(int successes) { g_nothrow_new_successes_left.store(successes); }
    ~FailNothrowNew() { g_nothrow_new_successes_left.store(-1); }
    FailNothrowNew(const FailNothrowNew&) = delete;
    FailNothrowNew& operator=(const FailNothrowNew&) = delete;
};

// ---------------------------------------------------------------------------
// Schema files and blobs.
// ---------------------------------------------------------------------------

FileDescriptorProto FileOf(const FileDescriptor* file) {
    FileDescriptorProto proto;
    file->CopyTo(&proto);
    return proto;
}

FileDescriptorProto FileOf(const Descriptor* type) { return FileOf(type->file()); }

FileDescriptorProto OptionFile() {
    return FileOf(DescriptorPool::generated_pool()->FindFileByName("corvidaservice.optionv1.proto"));
}

FileDescriptorProto Tables2() { return FileOf(corvida::test::Player2::descriptor()); }

DescriptorProto* MessageIn(FileDescriptorProto& file, const std::string& name) {
    for (DescriptorProto& message : *file.mutable_message_type()) {
        if (message.name() == name) return &message;
    }
    throw std::invalid_argument("no message " + name + " in " + file.name());
}

google::protobuf::MessageOptions* OptionsOf(FileDescriptorProto& file, const std::string& message) {
    return MessageIn(file, message)->mutable_options();
}

// The test tables without Player2, which no other type refers to.
FileDescriptorProto Tables2WithoutPlayer2() {
    FileDescriptorProto file = Tables2();
    auto* messages = file.mutable_message_type();
    for (int i = 0; i < messages->size(); ++i) {
        if (messages->Get(i).name() == "Player2") messages->DeleteSubrange(i, 1);
    }
    return file;
}

// A file of one message `message` with one int32 field, importing `imports`.
FileDescriptorProto SmallFile(const std::string& name, const std::string& package, const std::string& message,
                              const Strings& imports = {}) {
    FileDescriptorProto file;
    file.set_name(name);
    file.set_package(package);
    for (const std::string& import : imports) file.add_dependency(import);
    DescriptorProto* type = file.add_message_type();
    type->set_name(message);
    FieldDescriptorProto* field = type->add_field();
    field->set_name("a");
    field->set_number(1);
    field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
    field->set_type(FieldDescriptorProto::TYPE_INT32);
    return file;
}

std::string Blob(const std::vector<FileDescriptorProto>& files) {
    FileDescriptorSet set;
    for (const FileDescriptorProto& file : files) *set.add_file() = file;
    return set.SerializeAsString();
}

// The option file and the test tables as the client compiled them.
std::string Tables2Blob() { return Blob({OptionFile(), Tables2()}); }

// file and everything it imports, imports first.
void AddWithImports(const FileDescriptor* file, std::set<std::string>& seen, std::vector<FileDescriptorProto>& out) {
    if (!seen.insert(file->name()).second) return;
    for (int i = 0; i < file->dependency_count(); ++i) AddWithImports(file->dependency(i), seen, out);
    out.push_back(FileOf(file));
}

std::vector<FileDescriptorProto> WithImports(const FileDescriptor* file) {
    std::set<std::string> seen;
    std::vector<FileDescriptorProto> files;
    AddWithImports(file, seen, files);
    return files;
}

std::vector<int> Tags(std::initializer_list<int> tags) { return tags; }

// ---------------------------------------------------------------------------
// ParseErrorCollector.
// ---------------------------------------------------------------------------

void Report(ParseErrorCollector& collector, const std::string& file, const std::string& element,
            const std::string& message) {
    collector.AddError(file, element, nullptr, DescriptorPool::ErrorCollector::NAME, message);
}

std::string Line(const std::string& file, const std::string& element, const std::string& message) {
    return "AddError() called unexpectedly: " + file + " [" + element + "]: " + message + "\n";
}

TEST(ParseErrorCollector, StartsEmptyAndDropsWarnings) {
    ParseErrorCollector collector;
    EXPECT_EQ(collector.m_strMsg, "");
    collector.AddWarning("a.proto", "pkg.M", nullptr, DescriptorPool::ErrorCollector::NAME, "careful");
    EXPECT_EQ(collector.m_strMsg, "");
}

TEST(ParseErrorCollector, FirstErrorIsOneLine) {
    ParseErrorCollector collector;
    Report(collector, "a.proto", "pkg.M", "boom");
    EXPECT_EQ(collector.m_strMsg, "AddError() called unexpectedly: a.proto [pkg.M]: boom\n");
}

TEST(ParseErrorCollector, EachErrorDoublesTheTextAndAddsItsLine) {
    ParseErrorCollector collector;
    const std::string one = Line("a.proto", "A", "first");
    const std::string two = Line("b.proto", "B", "second");
    const std::string three = Line("c.proto", "C", "third");
    Report(collector, "a.proto", "A", "first");
    Report(collector, "b.proto", "B", "second");
    EXPECT_EQ(collector.m_strMsg, one + one + two);
    Report(collector, "c.proto", "C", "third");
    EXPECT_EQ(collector.m_strMsg, one + one + two + one + one + two + three);
}

size_t CountLines(const std::string& text) {
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

TEST(ParseErrorCollector, ThreeBuildErrorsOfAPoolLeaveSevenLines) {
    FileDescriptorProto file = SmallFile("three.proto", "bad", "M");
    for (const char* name : {"b", "c", "d"}) {
        FieldDescriptorProto* field = MessageIn(file, "M")->add_field();
        field->set_name(name);
        field->set_number(static_cast<int>(MessageIn(file, "M")->field_size()) + 1);
        field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
        field->set_type_name(std::string("Missing") + name);
    }
    DescriptorPool pool;
    ParseErrorCollector collector;
    EXPECT_EQ(pool.BuildFileCollectingErrors(file, &collector), nullptr);
    EXPECT_EQ(CountLines(collector.m_strMsg), 7u) << collector.m_strMsg;
}

TEST(ParseErrorCollector, WorksThroughTheBaseClass) {
    std::unique_ptr<DescriptorPool::ErrorCollector> collector(new ParseErrorCollector);
    collector->AddError("a.proto", "A", nullptr, DescriptorPool::ErrorCollector::NAME, "x");
    EXPECT_EQ(static_cast<ParseErrorCollector*>(collector.get())->m_strMsg, Line("a.proto", "A", "x"));
}

// The collector's text never reaches 64 MiB: enough for the doubling of
// any real build (2^20 lines of 60 bytes), bounded against hostile blobs.
constexpr size_t kBound = size_t{64} << 20;

// An error message that makes its line exactly `line_size` bytes long.
std::string MessageForLine(size_t line_size) { return std::string(line_size - Line("f", "e", "").size(), 'x'); }

TEST(ParseErrorCollector, DoublesForTwentyErrors) {
    ParseErrorCollector collector;
    for (int i = 0; i < 20; ++i) Report(collector, "f.proto", "M", "error " + std::to_string(i % 10));
    const std::string& text = collector.m_strMsg;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), (1 << 20) - 1);
    EXPECT_EQ(text.size(), ((size_t{1} << 20) - 1) * Line("f.proto", "M", "error 0").size());
}

TEST(ParseErrorCollector, TextStaysBelowTheBound) {
    const size_t first = kBound / 4 + 1000;
    ParseErrorCollector collector;
    Report(collector, "f", "e", MessageForLine(first));
    ASSERT_EQ(collector.m_strMsg.size(), first);

    // 2 * first + a line reaching the bound exactly: dropped.
    Report(collector, "f", "e", MessageForLine(kBound - 2 * first));
    EXPECT_EQ(collector.m_strMsg.size(), first);

    // One byte less: kept, doubling as ever.
    const std::string message = MessageForLine(kBound - 2 * first - 1);
    const std::string before = collector.m_strMsg;
    Report(collector, "f", "e", message);
    EXPECT_TRUE(collector.m_strMsg == before + before + Line("f", "e", message));
    EXPECT_EQ(collector.m_strMsg.size(), kBound - 1);

    // Every further error would double past the bound.
    Report(collector, "f", "e", "small");
    EXPECT_EQ(collector.m_strMsg.size(), kBound - 1);
}

TEST(ParseErrorCollector, ManyErrorsNeverExhaustMemory) {
    ParseErrorCollector collector;
    for (int i = 0; i < 200; ++i) Report(collector, "many.proto", "M", "error " + std::to_string(i));
    EXPECT_LT(collector.m_strMsg.size(), kBound);
    EXPECT_GT(collector.m_strMsg.size(), kBound / 4);
}

TEST(ParseErrorCollector, ALineAsLongAsTheBoundIsDropped) {
    ParseErrorCollector collector;
    Report(collector, "f", "e", MessageForLine(kBound));
    EXPECT_EQ(collector.m_strMsg, "");
    Report(collector, "f", "e", MessageForLine(kBound - 1));
    EXPECT_EQ(collector.m_strMsg.size(), kBound - 1);
}

// ---------------------------------------------------------------------------
// MsgDescGroup.
// ---------------------------------------------------------------------------

TEST(MsgDescGroup, StartsEmpty) {
    MsgDescGroup group;
    EXPECT_EQ(group.m_sdb, nullptr);
    EXPECT_EQ(group.m_pool, nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_TRUE(group.vecKeyTag.empty());
    EXPECT_TRUE(group.vecSplitKeyTag.empty());
    EXPECT_TRUE(group.m_mapIndex.empty());
    EXPECT_EQ(group.m_check, 0);
    EXPECT_TRUE(group.m_collectors.empty());
}

TEST(MsgDescGroup, KeepsTheCollectorForLaterBuildErrors) {
    // broken.proto comes after the table's file, so loading never builds it;
    // a later lookup does, and its error lands in the group's collector.
    const std::string blob =
        Blob({OptionFile(), Tables2(), SmallFile("broken.proto", "bad", "Broken", {"missing.proto"})});
    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", blob, &group, nullptr), nullptr);
    ASSERT_EQ(group.m_collectors.size(), 1u);
    EXPECT_EQ(group.m_collectors[0]->m_strMsg, "");
    EXPECT_EQ(group.m_pool->FindFileByName("broken.proto"), nullptr);
    EXPECT_NE(group.m_collectors[0]->m_strMsg.find("broken.proto"), std::string::npos);
    EXPECT_EQ(group.m_pool->FindMessageTypeByName("bad.Broken"), nullptr);
}

TEST(MsgDescGroup, DescriptorsLiveAsLongAsTheGroup) {
    auto group = std::make_unique<MsgDescGroup>();
    const Descriptor* type = FillMessageGroup("Player2", Tables2Blob(), group.get(), nullptr);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->FindFieldByName("stats")->message_type()->full_name(), "corvida.test.Stats2");
    EXPECT_EQ(group->m_pool->FindMessageTypeByName("corvida.test.Player2"), type);
    group.reset();  // pool, database and collector go; sanitizer builds check the order
}

// ---------------------------------------------------------------------------
// FetchShardingKey.
// ---------------------------------------------------------------------------

TEST(FetchShardingKey, NullLogOrTypeIsRefusedWithoutTouchingTheList) {
    LogCapture log;
    Strings keys = {"keep"};
    EXPECT_EQ(FetchShardingKey(corvida::test::Player2::descriptor(), keys, nullptr), -1);
    EXPECT_EQ(FetchShardingKey(nullptr, keys, log.category()), -1);
    EXPECT_EQ(keys, Strings{"keep"});
    EXPECT_TRUE(log.lines().empty());
}

TEST(FetchShardingKey, ReadsTheOptionIntoTheList) {
    LogCapture log;
    Strings keys = {"old"};
    EXPECT_EQ(FetchShardingKey(corvida::test::Player2::descriptor(), keys, log.category()), 0);
    EXPECT_EQ(keys, Strings{"uid"});
    EXPECT_EQ(log.Texts(kDebug), (Strings{"svr sharding key:uid", "fetch sharding key set, size: 1"}));
}

TEST(FetchShardingKey, EmptyOptionClearsTheList) {
    LogCapture log;
    Strings keys = {"old"};
    EXPECT_EQ(FetchShardingKey(corvida::test::IntKeys2::descriptor(), keys, log.category()), 0);
    EXPECT_TRUE(keys.empty());
    EXPECT_EQ(log.Texts(kDebug), (Strings{"svr sharding key:", "empty sharding key set"}));
}

TEST(FetchShardingKey, SplitsAndTrimsSeveralNames) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_sharding_key, " zone , uid,");
    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, nullptr), nullptr);
    LogCapture log;
    Strings keys;
    EXPECT_EQ(FetchShardingKey(group.m_desc, keys, log.category()), 0);
    EXPECT_EQ(keys, (Strings{"zone", "uid"}));
    EXPECT_TRUE(log.Has(kDebug, "fetch sharding key set, size: 2"));
}

// ---------------------------------------------------------------------------
// FillMessageGroup.
// ---------------------------------------------------------------------------

TEST(FillMessageGroup, NullGroupIsRefused) {
    LogCapture log;
    EXPECT_EQ(FillMessageGroup("Player2", Tables2Blob(), nullptr, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"group param is null."});
}

TEST(FillMessageGroup, BlobThatDoesNotParseLeavesTheGroupUntouched) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", std::string("\xff\xff\xff", 3), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"ParseFromArray idl_content failed,idl size:3."});
    EXPECT_EQ(group.m_sdb, nullptr);
    EXPECT_EQ(group.m_pool, nullptr);
    EXPECT_TRUE(group.m_collectors.empty());
}

TEST(FillMessageGroup, EmptyBlobFindsNothingAndSaysNothing) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", "", &group, log.category()), nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_NE(group.m_pool, nullptr);
}

TEST(FillMessageGroup, LoadsKeysShardingKeyAndIndexes) {
    LogCapture log;
    MsgDescGroup group;
    const Descriptor* type = FillMessageGroup("Player2", Tables2Blob(), &group, log.category());
    ASSERT_NE(type, nullptr) << log.Dump();
    EXPECT_EQ(type, group.m_desc);
    EXPECT_EQ(type->full_name(), "corvida.test.Player2");
    EXPECT_NE(type, corvida::test::Player2::descriptor());  // the group's own pool
    EXPECT_EQ(type->file()->pool(), group.m_pool);
    EXPECT_EQ(group.vecKeyTag, Tags({1, 2}));
    EXPECT_EQ(group.vecSplitKeyTag, Tags({2}));
    EXPECT_EQ(group.m_mapIndex, (std::map<std::string, std::vector<int>>{{"by_level", {4}}, {"by_name", {1, 3}}}));
    EXPECT_EQ(log.Texts(kDebug), (Strings{"pkg name corvida.test, filename: tables2.proto",
                                          "FindFileByName tables2.proto ok, not null.",
                                          "key name zone, number: 1",
                                          "key name uid, number: 2",
                                          "svr sharding key:uid",
                                          "fetch sharding key set, size: 1",
                                          "split key name uid, number: 2",
                                          "index name by_name",
                                          "index key name zone, number: 1",
                                          "index key name name, number: 3",
                                          "index name by_level",
                                          "index key name level, number: 4"}));
    EXPECT_TRUE(log.Texts(kError).empty());
    // Every line names the operation; FetchShardingKey's lines name it.
    for (const auto& line : log.lines()) {
        const bool sharding = line.text.rfind("svr sharding key:", 0) == 0 || line.text.rfind("fetch sharding", 0) == 0;
        EXPECT_EQ(line.func, sharding ? "FetchShardingKey" : "FillMessageGroup") << line.text;
        EXPECT_EQ(line.file, "corvida/src/protobuf_api/protobuf_util") << line.text;
    }
}

TEST(FillMessageGroup, KeyTagsAscendWhateverTheOptionOrder) {
    MsgDescGroup ints;
    ASSERT_NE(FillMessageGroup("IntKeys2", Tables2Blob(), &ints, nullptr), nullptr);
    EXPECT_EQ(ints.vecKeyTag, Tags({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    MsgDescGroup mixed;
    ASSERT_NE(FillMessageGroup("MixedKeys2", Tables2Blob(), &mixed, nullptr), nullptr);
    EXPECT_EQ(mixed.vecKeyTag, Tags({3, 4, 7, 9}));
}

TEST(FillMessageGroup, KeyNamedBAndAGivesTagsOneTwo) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "uid,zone");
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_sharding_key, "uid, zone");
    LogCapture log;
    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_EQ(group.vecKeyTag, Tags({1, 2}));
    EXPECT_EQ(group.vecSplitKeyTag, Tags({1, 2}));
    EXPECT_TRUE(log.Has(kDebug, "split key name zone, number: 1"));
}

TEST(FillMessageGroup, TypeInTheSecondFileIsFoundAfterTheFirst) {
    LogCapture log;
    MsgDescGroup group;
    const std::string blob = Blob({OptionFile(), SmallFile("other.proto", "corvida.other", "Other"), Tables2()});
    ASSERT_NE(FillMessageGroup("Player2", blob, &group, log.category()), nullptr) << log.Dump();
    const Strings debug = log.Texts(kDebug);
    ASSERT_GE(debug.size(), 3u);
    EXPECT_EQ(debug[0], "pkg name corvida.other, filename: other.proto");
    EXPECT_EQ(debug[1], "pkg name corvida.test, filename: tables2.proto");
    EXPECT_EQ(debug[2], "FindFileByName tables2.proto ok, not null.");
}

TEST(FillMessageGroup, NestedTypeIsNotFound) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("AttrsEntry", Tables2Blob(), &group, log.category()), nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
}

TEST(FillMessageGroup, UnknownTypeIsNotFoundSilently) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("NoSuchTable", Tables2Blob(), &group, log.category()), nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
    EXPECT_EQ(log.Texts(kDebug), Strings{"pkg name corvida.test, filename: tables2.proto"});
}

TEST(FillMessageGroup, MissingPrimaryKeyFailsWithTheTypeSet) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("NoKey2", Tables2Blob(), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"primary key not set"});
    ASSERT_NE(group.m_desc, nullptr);
    EXPECT_EQ(group.m_desc->full_name(), "corvida.test.NoKey2");
}

TEST(FillMessageGroup, EmptyPrimaryKeyOptionFailsLikeAMissingOne) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "");
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"primary key not set"});
    EXPECT_NE(group.m_desc, nullptr);
}

TEST(FillMessageGroup, BlankPrimaryKeyNamesAnEmptyField) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "  ");
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"field: not found"});
    EXPECT_NE(group.m_desc, nullptr);
    EXPECT_TRUE(group.vecKeyTag.empty());
}

TEST(FillMessageGroup, UnknownKeyNameFails) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("UnknownKeyName2", Tables2Blob(), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"field:x not found"});
    ASSERT_NE(group.m_desc, nullptr);
    EXPECT_EQ(group.m_desc->name(), "UnknownKeyName2");
    EXPECT_TRUE(group.vecKeyTag.empty());
}

TEST(FillMessageGroup, UnknownShardingKeyNameFailsKeepingTheKeyTags) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_sharding_key, "uid,nope");
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"field:nope not found"});
    EXPECT_EQ(group.vecKeyTag, Tags({1, 2}));
    EXPECT_TRUE(group.vecSplitKeyTag.empty());
}

TEST(FillMessageGroup, UnknownIndexKeyNameFailsKeepingEarlierIndexes) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->AddExtension(corvidaservice::corvida_index, "by_x(zone,nope)");
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"field:nope not found"});
    EXPECT_EQ(group.m_mapIndex.size(), 2u);
    EXPECT_EQ(group.m_mapIndex.count("by_x"), 0u);
}

TEST(FillMessageGroup, MalformedIndexIsLoggedEmptyAndSkipped) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->AddExtension(corvidaservice::corvida_index, "broken");
    OptionsOf(file, "Player2")->AddExtension(corvidaservice::corvida_index, "nokeys()");
    LogCapture log;
    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_TRUE(log.Has(kDebug, "index name "));
    EXPECT_TRUE(log.Has(kDebug, "index name nokeys"));
    EXPECT_EQ(group.m_mapIndex.count(""), 0u);
    EXPECT_EQ(group.m_mapIndex.count("nokeys"), 0u);
    EXPECT_EQ(group.m_mapIndex.size(), 2u);
}

TEST(FillMessageGroup, IndexesOfOneNameShareTheirEntry) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->AddExtension(corvidaservice::corvida_index, "by_name(level)");
    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, nullptr), nullptr);
    EXPECT_EQ(group.m_mapIndex["by_name"], Tags({1, 3, 4}));
}

TEST(FillMessageGroup, NullLogLoadsWithoutShardingKeyTags) {
    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", Tables2Blob(), &group, nullptr), nullptr);
    EXPECT_EQ(group.vecKeyTag, Tags({1, 2}));
    EXPECT_TRUE(group.vecSplitKeyTag.empty());
    EXPECT_EQ(group.m_mapIndex.size(), 2u);
}

TEST(FillMessageGroup, SearchStopsAtTheFirstFileThatFailsToBuild) {
    LogCapture log;
    MsgDescGroup group;
    const std::string blob =
        Blob({OptionFile(), SmallFile("first.proto", "corvida.other", "First", {"missing.proto"}), Tables2()});
    EXPECT_EQ(FillMessageGroup("Player2", blob, &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"FindFileByName first.proto failed."});
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_NE(group.m_sdb, nullptr);
    EXPECT_NE(group.m_pool, nullptr);
}

// A group whose m_desc already points somewhere tells "left as it was"
// apart from "reset to null".
TEST(FillMessageGroup, FileThatFailsToBuildLeavesTheTypeAsItWas) {
    LogCapture log;
    MsgDescGroup group;
    group.m_desc = corvida::test::Player2::descriptor();
    const std::string blob = Blob({OptionFile(), SmallFile("first.proto", "corvida.other", "First", {"missing.proto"})});
    EXPECT_EQ(FillMessageGroup("Player2", blob, &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"FindFileByName first.proto failed."});
    EXPECT_EQ(group.m_desc, corvida::test::Player2::descriptor());
}

TEST(FillMessageGroup, TypeNotFoundResetsAnEarlierType) {
    LogCapture log;
    MsgDescGroup group;
    group.m_desc = corvida::test::Player2::descriptor();
    EXPECT_EQ(FillMessageGroup("NoSuchTable", Tables2Blob(), &group, log.category()), nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
}

TEST(FillMessageGroup, EmptySetResetsAnEarlierType) {
    LogCapture log;
    MsgDescGroup group;
    group.m_desc = corvida::test::Player2::descriptor();
    EXPECT_EQ(FillMessageGroup("Player2", "", &group, log.category()), nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(FillMessageGroup, FileReferringToAMissingTypeFailsToBuild) {
    FileDescriptorProto file = Tables2();
    FieldDescriptorProto* field = MessageIn(file, "Player2")->add_field();
    field->set_name("ghost");
    field->set_number(99);
    field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
    field->set_type_name(".corvida.test.Ghost");
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", Blob({OptionFile(), file}), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"FindFileByName tables2.proto failed."});
}

TEST(GetMetaAndCompare, FileReferringToAMissingTypeIsMinus2) {
    FileDescriptorProto file = Tables2();
    FieldDescriptorProto* field = MessageIn(file, "Player2")->add_field();
    field->set_name("ghost");
    field->set_number(99);
    field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
    field->set_type_name(".corvida.test.Ghost");
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", Blob({OptionFile(), file}), corvida::test::Player2::descriptor(),
                                log.category()),
              -2);
    EXPECT_EQ(log.Texts(kError), Strings{"FindFileByName tables2.proto failed."});
}

TEST(FillMessageGroup, TablesWithoutTheOptionFileFailToBuild) {
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", Blob({Tables2()}), &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"FindFileByName tables2.proto failed."});
}

// Fails the test if protobuf's own process-wide logger writes a line while
// it lives.
class ProtobufStaysSilent {
public:
    ProtobufStaysSilent() : m_previous(google::protobuf::SetLogHandler(&Count)) { s_lines = 0; }
    ~ProtobufStaysSilent() {
        google::protobuf::SetLogHandler(m_previous);
        EXPECT_EQ(s_lines, 0) << "protobuf logged " << s_lines << " line(s)";
    }

private:
    static void Count(google::protobuf::LogLevel, const char*, int, const std::string&) { ++s_lines; }
    static int s_lines;
    google::protobuf::LogHandler* m_previous;
};

int ProtobufStaysSilent::s_lines = 0;

// A copy of descriptor.proto with one more message, as a server might send.
FileDescriptorProto MarkedDescriptorFile(const std::string& marker) {
    FileDescriptorProto file = FileOf(FileDescriptorProto::descriptor()->file());
    file.add_message_type()->set_name(marker);
    return file;
}

TEST(FillMessageGroup, BlobsOwnDescriptorFileWinsAndIsNeverSearched) {
    ProtobufStaysSilent silent;  // duplicate files are never offered to the database
    const std::string blob = Blob({MarkedDescriptorFile("Marker2"), OptionFile(), Tables2()});
    MsgDescGroup marker;
    EXPECT_EQ(FillMessageGroup("Marker2", blob, &marker, nullptr), nullptr);
    EXPECT_EQ(marker.m_desc, nullptr);

    MsgDescGroup group;
    ASSERT_NE(FillMessageGroup("Player2", blob, &group, nullptr), nullptr);
    EXPECT_NE(group.m_pool->FindMessageTypeByName("google.protobuf.Marker2"), nullptr);
}

TEST(FillMessageGroup, DuplicateFileNamesKeepTheFirstCopy) {
    ProtobufStaysSilent silent;  // duplicate files are never offered to the database
    const std::string blob = Blob({OptionFile(), Tables2WithoutPlayer2(), Tables2()});
    LogCapture log;
    MsgDescGroup group;
    EXPECT_EQ(FillMessageGroup("Player2", blob, &group, log.category()), nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
    // Both entries named tables2.proto were searched, and both were the first.
    EXPECT_EQ(log.Texts(kDebug), (Strings{"pkg name corvida.test, filename: tables2.proto",
                                          "pkg name corvida.test, filename: tables2.proto"}));
    EXPECT_NE(group.m_pool->FindMessageTypeByName("corvida.test.Item2"), nullptr);
    EXPECT_EQ(group.m_pool->FindMessageTypeByName("corvida.test.Player2"), nullptr);
}

TEST(FillMessageGroup, DatabaseAllocationFailureIsReported) {
    LogCapture log;
    MsgDescGroup group;
    {
        FailNothrowNew fail(0);
        EXPECT_EQ(FillMessageGroup("Player2", Tables2Blob(), &group, log.category()), nullptr);
    }
    EXPECT_EQ(log.Texts(kError), Strings{"new m_sdb failed."});
    EXPECT_EQ(group.m_sdb, nullptr);
    EXPECT_EQ(group.m_pool, nullptr);
}

TEST(FillMessageGroup, PoolAllocationFailureIsReportedKeepingTheDatabase) {
    LogCapture log;
    MsgDescGroup group;
    {
        FailNothrowNew fail(1);
        EXPECT_EQ(FillMessageGroup("Player2", Tables2Blob(), &group, log.category()), nullptr);
    }
    EXPECT_EQ(log.Texts(kError), Strings{"new m_pool failed."});
    EXPECT_NE(group.m_sdb, nullptr);
    EXPECT_EQ(group.m_pool, nullptr);
    EXPECT_EQ(group.m_desc, nullptr);
}

// ---------------------------------------------------------------------------
// GetMetaAndCompare.
// ---------------------------------------------------------------------------

TEST(GetMetaAndCompare, CompatibleSchemaPasses) {
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", Tables2Blob(), corvida::test::Player2::descriptor(), log.category()), 0);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
    EXPECT_TRUE(log.Has(kDebug, "pkg name corvida.test, filename: tables2.proto"));
    EXPECT_TRUE(log.Has(kDebug, "FindFileByName tables2.proto ok, not null."));
}

TEST(GetMetaAndCompare, EveryTestTablePasses) {
    for (const FileDescriptor* file :
         {corvida::test::Player2::descriptor()->file(), corvida::test3::Player3::descriptor()->file()}) {
        const std::string blob = Blob({OptionFile(), FileOf(file)});
        for (int i = 0; i < file->message_type_count(); ++i) {
            const Descriptor* client = file->message_type(i);
            LogCapture log;
            EXPECT_EQ(GetMetaAndCompare(client->name(), blob, client, log.category()), 0)
                << client->full_name() << "\n" << log.Dump();
        }
    }
}

TEST(GetMetaAndCompare, BlobThatDoesNotParseIsMinus1) {
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", "garbage", corvida::test::Player2::descriptor(), log.category()), -1);
    EXPECT_EQ(log.Texts(kError), Strings{"ParseFromArray idl_content failed,idl size:7."});
}

TEST(GetMetaAndCompare, EmptyBlobFindsNothing) {
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", "", corvida::test::Player2::descriptor(), log.category()), -1);
    EXPECT_EQ(log.Texts(kError), Strings{"CompareMessageMeta failed:-1."});
    EXPECT_TRUE(log.Texts(kDebug).empty()) << log.Dump();
}

TEST(GetMetaAndCompare, BrokenFirstFileIsMinus2EvenWithAHealthyLaterOne) {
    LogCapture log;
    const std::string blob =
        Blob({OptionFile(), SmallFile("first.proto", "corvida.other", "First", {"missing.proto"}), Tables2()});
    EXPECT_EQ(GetMetaAndCompare("Player2", blob, corvida::test::Player2::descriptor(), log.category()), -2);
    EXPECT_EQ(log.Texts(kError), Strings{"FindFileByName first.proto failed."});
}

TEST(GetMetaAndCompare, NestedTypeIsNotFound) {
    LogCapture log;
    const Descriptor* entry = corvida::test::Player2::descriptor()->FindNestedTypeByName("AttrsEntry");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(GetMetaAndCompare("AttrsEntry", Tables2Blob(), entry, log.category()), -1);
    EXPECT_EQ(log.Texts(kError), Strings{"CompareMessageMeta failed:-1."});
}

TEST(GetMetaAndCompare, TypeFoundInTheSecondFile) {
    LogCapture log;
    const std::string blob = Blob({OptionFile(), SmallFile("other.proto", "corvida.other", "Other"), Tables2()});
    EXPECT_EQ(GetMetaAndCompare("Player2", blob, corvida::test::Player2::descriptor(), log.category()), 0);
    const Strings debug = log.Texts(kDebug);
    ASSERT_GE(debug.size(), 3u) << log.Dump();
    EXPECT_EQ(debug[0], "pkg name corvida.other, filename: other.proto");
    EXPECT_EQ(debug[1], "pkg name corvida.test, filename: tables2.proto");
    EXPECT_EQ(debug[2], "FindFileByName tables2.proto ok, not null.");
}

TEST(GetMetaAndCompare, NullLogFailsEvenForACompatibleSchema) {
    EXPECT_EQ(GetMetaAndCompare("Player2", Tables2Blob(), corvida::test::Player2::descriptor(), nullptr), -1);
}

TEST(GetMetaAndCompare, NullClientIsMinus1) {
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", Tables2Blob(), nullptr, log.category()), -1);
    EXPECT_EQ(log.Texts(kError), Strings{"CompareMessageMeta failed:-1."});
}

TEST(GetMetaAndCompare, ComparisonCodeIsPassedUpAfterItsOwnLine) {
    FileDescriptorProto file = Tables2();
    OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_sharding_key, "zone");
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", Blob({OptionFile(), file}), corvida::test::Player2::descriptor(),
                                log.category()),
              -20);
    EXPECT_EQ(log.Texts(kError), (Strings{"strSvrShardingKey:zone strClientShardingKey:uid not match.",
                                          "CompareMessageMeta failed:-20."}));
    for (const auto& line : log.lines()) {
        const bool own = line.text.rfind("pkg name", 0) == 0 || line.text.rfind("FindFileByName", 0) == 0 ||
                         line.text.rfind("CompareMessageMeta failed", 0) == 0;
        EXPECT_EQ(line.func, own ? "GetMetaAndCompare" : "CompareMessageMeta") << line.text;
    }
}

TEST(GetMetaAndCompare, BlobsOwnDescriptorFileWinsAndIsNeverSearched) {
    ProtobufStaysSilent silent;  // duplicate files are never offered to the database
    // The blob's descriptor.proto declares google.protobuf.Player2; it is
    // never searched, or the comparison would fail on the type's name.
    LogCapture log;
    const std::string blob = Blob({MarkedDescriptorFile("Player2"), OptionFile(), Tables2()});
    EXPECT_EQ(GetMetaAndCompare("Player2", blob, corvida::test::Player2::descriptor(), log.category()), 0)
        << log.Dump();
    LogCapture skipped;
    EXPECT_EQ(GetMetaAndCompare("Player2", Blob({MarkedDescriptorFile("Player2")}),
                                corvida::test::Player2::descriptor(), skipped.category()),
              -1);
    EXPECT_EQ(skipped.Texts(kError), Strings{"CompareMessageMeta failed:-1."});

    // A descriptor.proto without MessageOptions: kept, so the option file
    // cannot extend it and the tables fail to build.
    FileDescriptorProto stripped = FileOf(FileDescriptorProto::descriptor()->file());
    stripped.clear_message_type();
    LogCapture failed;
    EXPECT_EQ(GetMetaAndCompare("Player2", Blob({stripped, OptionFile(), Tables2()}),
                                corvida::test::Player2::descriptor(), failed.category()),
              -2);
    EXPECT_EQ(failed.Texts(kError), Strings{"FindFileByName tables2.proto failed."});
}

TEST(GetMetaAndCompare, DuplicateFileNamesKeepTheFirstCopy) {
    ProtobufStaysSilent silent;  // duplicate files are never offered to the database
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", Blob({OptionFile(), Tables2WithoutPlayer2(), Tables2()}),
                                corvida::test::Player2::descriptor(), log.category()),
              -1);
    EXPECT_EQ(log.Texts(kError), Strings{"CompareMessageMeta failed:-1."});
}

TEST(GetMetaAndCompare, BuiltInFilesNeedNotBeSent) {
    // Any comes from the runtime's own copy.
    FileDescriptorProto file = SmallFile("holder.proto", "corvida.other", "Holder", {"google/protobuf/any.proto"});
    FieldDescriptorProto* any = MessageIn(file, "Holder")->add_field();
    any->set_name("payload");
    any->set_number(2);
    any->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
    any->set_type_name(".google.protobuf.Any");
    const std::string blob = Blob({file});
    MsgDescGroup group;
    LogCapture log;
    EXPECT_EQ(FillMessageGroup("Holder", blob, &group, log.category()), nullptr);
    EXPECT_EQ(log.Texts(kError), Strings{"primary key not set"});
    ASSERT_NE(group.m_desc, nullptr);
    EXPECT_EQ(group.m_desc->FindFieldByName("payload")->message_type()->full_name(), "google.protobuf.Any");
}

// ---------------------------------------------------------------------------
// Protobuf's own schemas, which nobody here wrote.
// ---------------------------------------------------------------------------

std::vector<const FileDescriptor*> WellKnownFiles() {
    std::vector<const FileDescriptor*> files = {
        google::protobuf::Any::descriptor()->file(),           google::protobuf::Api::descriptor()->file(),
        google::protobuf::Duration::descriptor()->file(),      google::protobuf::Empty::descriptor()->file(),
        google::protobuf::FieldMask::descriptor()->file(),     google::protobuf::SourceContext::descriptor()->file(),
        google::protobuf::Struct::descriptor()->file(),        google::protobuf::Timestamp::descriptor()->file(),
        google::protobuf::Type::descriptor()->file(),          google::protobuf::DoubleValue::descriptor()->file(),
        google::protobuf::FileDescriptorProto::descriptor()->file()};
    return files;
}

void CollectTypes(const Descriptor* type, std::vector<const Descriptor*>& types) {
    types.push_back(type);
    for (int i = 0; i < type->nested_type_count(); ++i) CollectTypes(type->nested_type(i), types);
}

bool IsBuiltIn(const FileDescriptor* file) {
    return file->name() == "google/protobuf/descriptor.proto" || file->name() == "google/protobuf/any.proto";
}

// Loads file's blob (the file and its imports) and checks each of its types
// against the compiled-in one.
void CheckWellKnownFile(const FileDescriptor* file) {
    SCOPED_TRACE(file->name());
    // The database reports, on protobuf's own log, the blob's descriptor.proto
    // refusing the runtime's copy.
    google::protobuf::LogSilencer quiet;
    const std::vector<FileDescriptorProto> files = WithImports(file);
    const std::string blob = Blob(files);

    // Every type, nested ones included, through a pool of the blob's files.
    SimpleDescriptorDatabase sdb;
    for (const FileDescriptorProto& proto : files) ASSERT_TRUE(sdb.Add(proto));
    DescriptorPool pool(&sdb);
    ASSERT_NE(pool.FindFileByName(file->name()), nullptr);
    for (int i = 0; i < file->message_type_count(); ++i) {
        std::vector<const Descriptor*> types;
        CollectTypes(file->message_type(i), types);
        for (const Descriptor* client : types) {
            LogCapture log;
            EXPECT_EQ(CompareMessageMeta(pool.FindMessageTypeByName(client->full_name()), client, log.category()), 0)
                << client->full_name() << "\n" << log.Dump();
        }
    }

    // Top-level types through the search of the two loaders; the built-in
    // files are never searched.
    for (int i = 0; i < file->message_type_count(); ++i) {
        const Descriptor* client = file->message_type(i);
        LogCapture log;
        const int expected = IsBuiltIn(file) ? -1 : 0;
        EXPECT_EQ(GetMetaAndCompare(client->name(), blob, client, log.category()), expected)
            << client->full_name() << "\n" << log.Dump();

        LogCapture load;
        MsgDescGroup group;
        EXPECT_EQ(FillMessageGroup(client->name(), blob, &group, load.category()), nullptr);
        if (IsBuiltIn(file)) {
            EXPECT_EQ(group.m_desc, nullptr);
            EXPECT_TRUE(load.Texts(kError).empty()) << load.Dump();
        } else {
            ASSERT_NE(group.m_desc, nullptr) << client->full_name();
            EXPECT_EQ(group.m_desc->full_name(), client->full_name());
            EXPECT_EQ(load.Texts(kError), Strings{"primary key not set"});
        }
    }
}

TEST(WellKnownTypes, LoadAndMatchTheirCompiledTypes) {
    const auto start = std::chrono::steady_clock::now();
    for (const FileDescriptor* file : WellKnownFiles()) CheckWellKnownFile(file);
    // Struct's Value refers to itself through Struct and ListValue.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST(WellKnownTypes, PluginProtocol) {
    CheckWellKnownFile(google::protobuf::compiler::CodeGeneratorRequest::descriptor()->file());
}

TEST(WellKnownTypes, SelfReferencingValueComparesInBoundedTime) {
    const std::string blob = Blob(WithImports(google::protobuf::Value::descriptor()->file()));
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Value", blob, google::protobuf::Value::descriptor(), log.category()), 0)
        << log.Dump();
    EXPECT_EQ(GetMetaAndCompare("ListValue", blob, google::protobuf::ListValue::descriptor(), log.category()), 0);
}

// ---------------------------------------------------------------------------
// Hostile blobs: each gives a documented result and never crashes.
// ---------------------------------------------------------------------------

// Loads blob both ways and checks the results against the documented ones.
void LoadHostile(const std::string& blob) {
    google::protobuf::LogSilencer quiet;  // protobuf reports broken strings itself
    LogCapture log;
    const int result = GetMetaAndCompare("Player2", blob, corvida::test::Player2::descriptor(), log.category());
    EXPECT_TRUE(result <= 0 && result >= -22 && result != -5) << result;
    if (result == -2) {
        ASSERT_EQ(log.Texts(kError).size(), 1u) << log.Dump();
        EXPECT_EQ(log.Texts(kError)[0].rfind("FindFileByName ", 0), 0u);
    } else if (result != 0) {
        EXPECT_FALSE(log.Texts(kError).empty());
    }

    LogCapture load;
    MsgDescGroup group;
    const Descriptor* type = FillMessageGroup("Player2", blob, &group, load.category());
    if (type != nullptr) {
        EXPECT_EQ(type->full_name(), "corvida.test.Player2");
        EXPECT_EQ(type, group.m_desc);
        EXPECT_FALSE(group.vecKeyTag.empty());
    }
}

// Random bytes, every other blob framed as one file entry of a set so that
// the parser reaches the file's own fields.
std::string RandomBlob(std::mt19937_64& rng, bool framed) {
    std::string bytes(rng() % 120, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    if (!framed) return bytes;
    return std::string(1, '\x0a') + static_cast<char>(bytes.size()) + bytes;
}

TEST(HostileBlobs, RandomBytes) {
    google::protobuf::LogSilencer quiet;  // protobuf reports broken strings itself
    std::mt19937_64 rng(20240601);
    for (int i = 0; i < 300; ++i) {
        const std::string blob = RandomBlob(rng, i % 2 == 1);
        SCOPED_TRACE(i);
        LoadHostile(blob);
        LogCapture log;
        const int result = GetMetaAndCompare("Player2", blob, corvida::test::Player2::descriptor(), log.category());
        EXPECT_TRUE(result == -1 || result == -2) << result;
    }
}

TEST(HostileBlobs, TruncatedBlobs) {
    const std::string blob = Tables2Blob();
    const size_t step = blob.size() / 120 + 1;
    for (size_t size = 0; size < blob.size(); size += step) {
        SCOPED_TRACE(size);
        LoadHostile(blob.substr(0, size));
    }
}

TEST(HostileBlobs, BitFlippedBlobs) {
    const std::string blob = Tables2Blob();
    std::mt19937_64 rng(7);
    for (int i = 0; i < 150; ++i) {
        std::string flipped = blob;
        for (int flips = 1 + static_cast<int>(rng() % 3); flips > 0; --flips) {
            flipped[rng() % flipped.size()] ^= static_cast<char>(1u << (rng() % 8));
        }
        SCOPED_TRACE(i);
        LoadHostile(flipped);
    }
}

TEST(HostileBlobs, OversizedLengthPrefixes) {
    // A file entry that claims more bytes than the blob holds.
    std::string blob = Tables2Blob();
    blob += std::string("\x0a\xff\xff\xff\xff\x07", 6);
    LoadHostile(blob);
    google::protobuf::LogSilencer quiet;
    LogCapture log;
    EXPECT_EQ(GetMetaAndCompare("Player2", blob, corvida::test::Player2::descriptor(), log.category()), -1);
}

}  // namespace
