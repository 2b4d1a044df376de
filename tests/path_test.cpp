// Field paths: field names to tag paths, number lists to tag paths, and the
// test that one requested path is not the leading part of another.
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "protobuf_api/protobuf_util.h"
#include "support/log_capture.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using corvida::test::PathNames2;
using corvida::test::Player2;
using corvida::test3::Player3;
using corvida_test::LogCapture;
using google::protobuf::Descriptor;
using PROTOBUF_UTIL::ConcatFieldPath;
using PROTOBUF_UTIL::TransFieldNameToTagPath;
using PROTOBUF_UTIL::VerifyTagPath;

using Names = std::vector<std::string>;
using Paths = std::set<std::string>;

constexpr int kNotExist = CorvErrCode::API_ERR_FIELD_NOT_EXSIST;

// The outcome of one TransFieldNameToTagPath call.
struct Translation {
    int result;
    std::string tagpath;
    int depth;
};

Translation Translate(Names names, const Descriptor* desc, LPPLOGCATEGORYINST log, std::string tagpath = "",
                      int depth = 0) {
    const int result = TransFieldNameToTagPath(names, tagpath, desc, depth, log);
    return {result, tagpath, depth};
}

// ---------------------------------------------------------------------------
// TransFieldNameToTagPath
// ---------------------------------------------------------------------------

TEST(TransFieldNameToTagPath, NothingLeftToResolve) {
    LogCapture capture;
    Translation t = Translate({}, Player2::descriptor(), capture.category(), "7");
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "7");
    EXPECT_EQ(t.depth, 0);

    t = Translate({"zone", "uid"}, Player2::descriptor(), capture.category(), "1.2", 2);
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "1.2");
    EXPECT_EQ(t.depth, 2);
    EXPECT_TRUE(capture.lines().empty()) << capture.Dump();
}

TEST(TransFieldNameToTagPath, NestedMessagesYieldOneNumberPerLevel) {
    LogCapture capture;
    const Translation t = Translate({"stats", "deep", "v"}, Player2::descriptor(), capture.category());
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "5.3.1");
    EXPECT_EQ(t.depth, 3);
    // Every field walked, in declaration order, level by level.
    const std::vector<std::string> expected = {
        "field:zone, tag:1",         "field:uid, tag:2",   "field:name, tag:3",
        "field:level, tag:4",        "field:stats, tag:5", "transfer field name: stats",  //
        "field:hp, tag:1",           "field:mp, tag:2",    "field:deep, tag:3",
        "transfer field name: deep", "field:v, tag:1",     "transfer field name: v"};
    EXPECT_EQ(capture.Texts(PLOG_PRIORITY_DEBUG), expected);
    EXPECT_EQ(capture.lines().size(), expected.size()) << capture.Dump();
    EXPECT_EQ(capture.lines().front().file, "corvida/src/protobuf_api/protobuf_util");
}

TEST(TransFieldNameToTagPath, Proto3Message) {
    const Translation t = Translate({"pos", "label"}, Player3::descriptor(), nullptr);
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "6.3");
    EXPECT_EQ(t.depth, 2);
}

TEST(TransFieldNameToTagPath, NameOnlyInASiblingMessageFails) {
    LogCapture capture;
    // label is a field of Position2, not of Stats2.
    const Translation t = Translate({"stats", "label"}, Player2::descriptor(), capture.category());
    EXPECT_EQ(t.result, kNotExist);
    EXPECT_EQ(t.tagpath, "5");
    EXPECT_EQ(t.depth, 1);
    EXPECT_EQ(capture.Texts(PLOG_PRIORITY_ERROR), std::vector<std::string>{"invalid field name: label"});
}

TEST(TransFieldNameToTagPath, UnknownTopLevelName) {
    LogCapture capture;
    const Translation t = Translate({"nosuch"}, Player2::descriptor(), capture.category());
    EXPECT_EQ(t.result, kNotExist);
    EXPECT_EQ(t.tagpath, "");
    EXPECT_EQ(t.depth, 0);
    EXPECT_TRUE(capture.Has(PLOG_PRIORITY_ERROR, "invalid field name: nosuch")) << capture.Dump();
    // Every field was compared before giving up.
    EXPECT_EQ(capture.Texts(PLOG_PRIORITY_DEBUG).size(), static_cast<size_t>(Player2::descriptor()->field_count()));
}

TEST(TransFieldNameToTagPath, NamesAreCaseSensitive) {
    EXPECT_EQ(Translate({"Zone"}, Player2::descriptor(), nullptr).result, kNotExist);
}

TEST(TransFieldNameToTagPath, NameAfterAScalarIsLookedUpAmongLaterSiblings) {
    LogCapture capture;
    // zone (1) is a scalar; name (3) is declared after it in the same message.
    Translation t = Translate({"zone", "name"}, Player2::descriptor(), capture.category());
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "1.3");
    EXPECT_EQ(t.depth, 2);
    EXPECT_TRUE(capture.Has(PLOG_PRIORITY_DEBUG, "transfer field name: zone"));
    EXPECT_TRUE(capture.Has(PLOG_PRIORITY_DEBUG, "transfer field name: name"));

    // The search goes on from the scalar, so an earlier sibling is not found.
    capture.Clear();
    t = Translate({"name", "zone"}, Player2::descriptor(), capture.category());
    EXPECT_EQ(t.result, kNotExist);
    EXPECT_EQ(t.tagpath, "3");
    EXPECT_EQ(t.depth, 1);
    EXPECT_TRUE(capture.Has(PLOG_PRIORITY_ERROR, "invalid field name: zone")) << capture.Dump();
}

TEST(TransFieldNameToTagPath, AppendsToAGivenTagPath) {
    const Translation t = Translate({"uid"}, Player2::descriptor(), nullptr, "9");
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "9.2");
    EXPECT_EQ(t.depth, 1);
}

TEST(TransFieldNameToTagPath, ResumesAtTheGivenDepth) {
    const Translation t = Translate({"ignored", "stats", "hp"}, Player2::descriptor(), nullptr, "", 1);
    EXPECT_EQ(t.result, 0);
    EXPECT_EQ(t.tagpath, "5.1");
    EXPECT_EQ(t.depth, 3);
}

TEST(TransFieldNameToTagPath, MessageWithoutFields) {
    LogCapture capture;
    const Translation t = Translate({"e", "x"}, PathNames2::descriptor(), capture.category());
    EXPECT_EQ(t.result, kNotExist);
    EXPECT_EQ(t.tagpath, "3");
    EXPECT_EQ(t.depth, 1);
    EXPECT_TRUE(capture.Has(PLOG_PRIORITY_ERROR, "invalid field name: x")) << capture.Dump();
}

TEST(TransFieldNameToTagPath, ResultDoesNotDependOnLogging) {
    LogCapture silent(PLOG_PRIORITY_FATAL);
    const Translation t = Translate({"stats", "nosuch"}, Player2::descriptor(), silent.category());
    EXPECT_EQ(t.result, kNotExist);
    EXPECT_EQ(t.tagpath, "5");
    EXPECT_TRUE(silent.lines().empty());

    const Translation u = Translate({"stats", "nosuch"}, Player2::descriptor(), nullptr);
    EXPECT_EQ(u.result, kNotExist);
    EXPECT_EQ(u.tagpath, "5");
}

// ---------------------------------------------------------------------------
// ConcatFieldPath
// ---------------------------------------------------------------------------

std::string Concat(const std::vector<int>& numbers, const std::string& delimiter, std::string tag = "") {
    ConcatFieldPath(numbers, delimiter, tag);
    return tag;
}

TEST(ConcatFieldPath, SingleNumber) { EXPECT_EQ(Concat({5}, "."), "5"); }

TEST(ConcatFieldPath, NumbersJoinedByTheDelimiter) {
    EXPECT_EQ(Concat({1, 2, 3}, "."), "1.2.3");
    EXPECT_EQ(Concat({10, 200}, "::"), "10::200");
}

TEST(ConcatFieldPath, EmptyListLeavesTagUnchanged) { EXPECT_EQ(Concat({}, ".", "x.y"), "x.y"); }

TEST(ConcatFieldPath, AppendsWithoutALeadingDelimiter) { EXPECT_EQ(Concat({1, 2}, ".", "9"), "91.2"); }

TEST(ConcatFieldPath, LargestFieldNumberAndUnsignedRendering) {
    EXPECT_EQ(Concat({536870911}, "."), "536870911");
    EXPECT_EQ(Concat({-1}, "."), "4294967295");
}

// ---------------------------------------------------------------------------
// VerifyTagPath
// ---------------------------------------------------------------------------

TEST(VerifyTagPath, LeadingPartOfALongerPath) {
    LogCapture capture;
    EXPECT_EQ(VerifyTagPath("1.2", Paths{"1.2", "1.2.3"}, capture.category()), -1);
    EXPECT_EQ(capture.Texts(PLOG_PRIORITY_ERROR),
              std::vector<std::string>{"path:1.2 contained in 1.2.3 at the beginning"});
    EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(VerifyTagPath, NoComponentBoundary) {
    LogCapture capture;
    EXPECT_EQ(VerifyTagPath("1.2", Paths{"1.20", "1"}, capture.category()), 0);
    EXPECT_EQ(VerifyTagPath("a.b", Paths{"a.bc", "a", "a.b"}, capture.category()), 0);
    EXPECT_TRUE(capture.lines().empty()) << capture.Dump();
}

TEST(VerifyTagPath, EmptySet) { EXPECT_EQ(VerifyTagPath("1.2", Paths{}, nullptr), 0); }

TEST(VerifyTagPath, OnlyAMatchAtTheBeginningCounts) {
    EXPECT_EQ(VerifyTagPath("b", Paths{"a.b.c", "ab.c", "cb.d"}, nullptr), 0);
    EXPECT_EQ(VerifyTagPath("2", Paths{"12.3", "1.2.3"}, nullptr), 0);
}

TEST(VerifyTagPath, ShorterPathIsNotReportedFromBelow) {
    // Only longer elements count; that a.b.c lies under a.b is found when
    // a.b is verified.
    EXPECT_EQ(VerifyTagPath("a.b.c", Paths{"a", "a.b"}, nullptr), 0);
}

TEST(VerifyTagPath, ReportsTheFirstOffenderInSetOrder) {
    LogCapture capture;
    EXPECT_EQ(VerifyTagPath("a", Paths{"a.z", "a.b.c", "a.b", "b.a.x"}, capture.category()), -1);
    EXPECT_EQ(capture.Texts(PLOG_PRIORITY_ERROR), std::vector<std::string>{"path:a contained in a.b at the beginning"});
}

TEST(VerifyTagPath, EmptyPath) {
    EXPECT_EQ(VerifyTagPath("", Paths{"x", "y.z"}, nullptr), 0);
    EXPECT_EQ(VerifyTagPath("", Paths{"x", ".z"}, nullptr), -1);
}

TEST(VerifyTagPath, EmbeddedNulEndsTheComparedText) {
    LogCapture capture;
    const std::string path("a\0x", 3);
    // Compared as "a"; the boundary is looked for at the full length (3).
    EXPECT_EQ(VerifyTagPath(path, Paths{"a.b.c"}, capture.category()), -1);
    EXPECT_EQ(capture.Texts(PLOG_PRIORITY_ERROR),
              std::vector<std::string>{"path:a contained in a.b.c at the beginning"});
    EXPECT_EQ(VerifyTagPath(path, Paths{"a.bc", "ax.b"}, nullptr), 0);
}

TEST(VerifyTagPath, ResultDoesNotDependOnLogging) {
    LogCapture silent(PLOG_PRIORITY_FATAL);
    EXPECT_EQ(VerifyTagPath("1", Paths{"1.1"}, silent.category()), -1);
    EXPECT_EQ(VerifyTagPath("1", Paths{"1.1"}, nullptr), -1);
    EXPECT_TRUE(silent.lines().empty());
}

TEST(VerifyTagPath, PriorityBoundsSuppressTheLine) {
    LogCapture capture;
    int low = PLOG_PRIORITY_CRIT;  // lines above 200 are skipped
    capture.category()->piPriorityLow = &low;
    EXPECT_EQ(VerifyTagPath("1", Paths{"1.1"}, capture.category()), -1);
    EXPECT_TRUE(capture.lines().empty()) << capture.Dump();
}

// The walk over the whole set, element by element, as the operation is
// defined; returns the offending element or "".
std::string ReferenceOffender(const std::string& path, const Paths& set) {
    for (const std::string& element : set) {
        if (element.size() <= path.size()) continue;
        if (element.find(path.c_str()) != 0) continue;
        if (element[path.size()] == '.') return element;
    }
    return "";
}

TEST(VerifyTagPath, AgreesWithAWalkOfTheWholeSet) {
    std::mt19937_64 rng(7);
    const char kAlphabet[] = {'1', '2', '.', 'a', '\0'};
    auto random_path = [&] {
        std::string s(rng() % 6, ' ');
        for (char& c : s) c = kAlphabet[rng() % sizeof(kAlphabet)];
        return s;
    };
    int offences = 0;
    for (int round = 0; round < 2000; ++round) {
        Paths set;
        const size_t n = rng() % 12;
        while (set.size() < n) set.insert(random_path());
        const std::string path = random_path();
        const std::string offender = ReferenceOffender(path, set);
        offences += !offender.empty();

        LogCapture capture;
        EXPECT_EQ(VerifyTagPath(path, set, capture.category()), offender.empty() ? 0 : -1) << path;
        if (offender.empty()) {
            EXPECT_TRUE(capture.lines().empty());
        } else {
            EXPECT_EQ(capture.Texts(PLOG_PRIORITY_ERROR),
                      std::vector<std::string>{std::string("path:") + path.c_str() + " contained in " +
                                               offender.c_str() + " at the beginning"});
        }
    }
    EXPECT_GT(offences, 100);  // both outcomes were exercised
}

}  // namespace
