// The logging library and the protobuf bridge's logging macros.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plog/plog.h"
#include "protobuf_api/protobuf_util_log.h"
#include "support/log_capture.h"

namespace {

using corvida_test::LogCapture;

const char kBridgeFile[] = "corvida/src/protobuf_api/protobuf_util";

// An event record for direct calls of the library.
PLOGEVENT Event(int priority, const char* file = "file.cc", int line = 12, const char* func = "Func") {
    return PLOGEVENT{priority, file, line, func};
}

TEST(PlogCategoryTest, InitSetsNameThresholdAndDefaults) {
    PLOGCATEGORYINST cat;
    std::memset(&cat, 0x5A, sizeof(cat));
    const char* name = "bridge";
    plog_category_init(&cat, name, PLOG_PRIORITY_DEBUG);
    EXPECT_EQ(name, cat.pszName);
    EXPECT_EQ(PLOG_PRIORITY_DEBUG, cat.iPriority);
    EXPECT_EQ(nullptr, cat.piPriorityLow);
    EXPECT_EQ(nullptr, cat.piPriorityHigh);
    EXPECT_EQ(nullptr, cat.pfnWrite);
    EXPECT_EQ(nullptr, cat.pvWriteCtx);
}

TEST(PlogCategoryTest, CanWriteUpToTheThreshold) {
    PLOGCATEGORYINST cat;
    plog_category_init(&cat, "c", PLOG_PRIORITY_DEBUG);
    EXPECT_NE(0, plog_category_can_write(&cat, PLOG_PRIORITY_FATAL, 0, 0));
    EXPECT_NE(0, plog_category_can_write(&cat, PLOG_PRIORITY_ERROR, 0, 0));
    EXPECT_NE(0, plog_category_can_write(&cat, PLOG_PRIORITY_DEBUG, 0, 0));
    EXPECT_EQ(0, plog_category_can_write(&cat, PLOG_PRIORITY_DEBUG + 1, 0, 0));
    EXPECT_EQ(0, plog_category_can_write(&cat, PLOG_PRIORITY_TRACE, 0, 0));
    // id and cls do not filter.
    EXPECT_NE(0, plog_category_can_write(&cat, PLOG_PRIORITY_ERROR, 77, -3));
    EXPECT_EQ(0, plog_category_can_write(&cat, PLOG_PRIORITY_TRACE, 77, -3));
}

TEST(PlogCategoryTest, CanWriteOnNullCategoryIsFalse) {
    EXPECT_EQ(0, plog_category_can_write(nullptr, PLOG_PRIORITY_FATAL, 0, 0));
}

TEST(PlogCategoryTest, CanWriteIgnoresBounds) {
    PLOGCATEGORYINST cat;
    plog_category_init(&cat, "c", PLOG_PRIORITY_TRACE);
    int low = PLOG_PRIORITY_ERROR;
    int high = PLOG_PRIORITY_TRACE;
    cat.piPriorityLow = &low;
    cat.piPriorityHigh = &high;
    EXPECT_NE(0, plog_category_can_write(&cat, PLOG_PRIORITY_DEBUG, 0, 0));
}

TEST(PlogLogvTest, OneMessagePerCallWithTheEvent) {
    LogCapture capture;
    const PLOGEVENT ev = Event(PLOG_PRIORITY_ERROR, "a/b.cc", 42, "DoIt");
    EXPECT_EQ(0, plog_category_logv(capture.category(), &ev, "value %d of %s", 7, "seven"));
    ASSERT_EQ(1u, capture.lines().size());
    const auto& line = capture.lines()[0];
    EXPECT_EQ(PLOG_PRIORITY_ERROR, line.priority);
    EXPECT_EQ("a/b.cc", line.file);
    EXPECT_EQ(42, line.line);
    EXPECT_EQ("DoIt", line.func);
    EXPECT_EQ("value 7 of seven", line.text);

    const PLOGEVENT trace = Event(PLOG_PRIORITY_TRACE);
    EXPECT_EQ(0, plog_category_logv(capture.category(), &trace, "line\nwith newline"));
    ASSERT_EQ(2u, capture.lines().size());
    EXPECT_EQ(PLOG_PRIORITY_TRACE, capture.lines()[1].priority);
    EXPECT_EQ("line\nwith newline", capture.lines()[1].text);
}

TEST(PlogLogvTest, EmptyMessageIsStillOneMessage) {
    LogCapture capture;
    const PLOGEVENT ev = Event(PLOG_PRIORITY_INFO);
    EXPECT_EQ(0, plog_category_logv(capture.category(), &ev, "%s", ""));
    ASSERT_EQ(1u, capture.lines().size());
    EXPECT_EQ("", capture.lines()[0].text);
}

// The caller tests the threshold; logv writes what it is given.
TEST(PlogLogvTest, DoesNotTestTheThreshold) {
    LogCapture capture(PLOG_PRIORITY_ERROR);
    const PLOGEVENT ev = Event(PLOG_PRIORITY_TRACE);
    EXPECT_EQ(0, plog_category_logv(capture.category(), &ev, "x"));
    EXPECT_EQ(1u, capture.lines().size());
}

TEST(PlogLogvTest, LongMessagesArriveWhole) {
    LogCapture capture;
    const PLOGEVENT ev = Event(PLOG_PRIORITY_DEBUG);
    for (size_t len : {size_t{1023}, size_t{1024}, size_t{1025}, size_t{70000}}) {
        std::string text(len, ' ');
        for (size_t i = 0; i < len; ++i) text[i] = static_cast<char>('a' + i % 26);
        capture.Clear();
        EXPECT_EQ(0, plog_category_logv(capture.category(), &ev, "<%s>", text.c_str()));
        ASSERT_EQ(1u, capture.lines().size()) << len;
        EXPECT_EQ("<" + text + ">", capture.lines()[0].text) << len;
    }
}

TEST(PlogLogvTest, NullArgumentsAreRefused) {
    LogCapture capture;
    const PLOGEVENT ev = Event(PLOG_PRIORITY_ERROR);
    const char* no_format = nullptr;
    EXPECT_EQ(-1, plog_category_logv(nullptr, &ev, "x"));
    EXPECT_EQ(-1, plog_category_logv(capture.category(), nullptr, "x"));
    EXPECT_EQ(-1, plog_category_logv(capture.category(), &ev, no_format));
    EXPECT_TRUE(capture.lines().empty());
}

std::string HexMessage(const std::vector<unsigned char>& bytes) {
    LogCapture capture;
    const PLOGEVENT ev = Event(PLOG_PRIORITY_TRACE, "hex.cc", 3, "Dump");
    EXPECT_EQ(0, plog_category_log_hex(capture.category(), &ev, bytes.data(), bytes.size()));
    EXPECT_EQ(1u, capture.lines().size());
    if (capture.lines().size() != 1) return "<" + capture.Dump() + ">";
    EXPECT_EQ(PLOG_PRIORITY_TRACE, capture.lines()[0].priority);
    EXPECT_EQ("hex.cc", capture.lines()[0].file);
    EXPECT_EQ(3, capture.lines()[0].line);
    EXPECT_EQ("Dump", capture.lines()[0].func);
    return capture.lines()[0].text;
}

std::vector<unsigned char> Counting(size_t len) {
    std::vector<unsigned char> bytes(len);
    for (size_t i = 0; i < len; ++i) bytes[i] = static_cast<unsigned char>(i);
    return bytes;
}

TEST(PlogLogHexTest, Formatting) {
    EXPECT_EQ("", HexMessage({}));
    EXPECT_EQ("0000: ab", HexMessage({0xAB}));
    EXPECT_EQ("0000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f", HexMessage(Counting(16)));
    EXPECT_EQ(
        "0000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n"
        "0010: 10",
        HexMessage(Counting(17)));
    EXPECT_EQ(
        "0000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n"
        "0010: 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f\n"
        "0020: 20",
        HexMessage(Counting(33)));
}

TEST(PlogLogHexTest, NullArgumentsAreRefused) {
    LogCapture capture;
    const PLOGEVENT ev = Event(PLOG_PRIORITY_TRACE);
    const unsigned char byte = 1;
    EXPECT_EQ(-1, plog_category_log_hex(nullptr, &ev, &byte, 1));
    EXPECT_EQ(-1, plog_category_log_hex(capture.category(), nullptr, &byte, 1));
    EXPECT_EQ(-1, plog_category_log_hex(capture.category(), &ev, nullptr, 1));
    EXPECT_TRUE(capture.lines().empty());
    // Nothing to read: a null buffer of length 0 is an empty dump.
    EXPECT_EQ(0, plog_category_log_hex(capture.category(), &ev, nullptr, 0));
    ASSERT_EQ(1u, capture.lines().size());
    EXPECT_EQ("", capture.lines()[0].text);
}

TEST(PlogStderrTest, CategoryWithoutSinkWritesOneLineToStderr) {
    PLOGCATEGORYINST cat;
    plog_category_init(&cat, "fallback", PLOG_PRIORITY_TRACE);
    const PLOGEVENT ev = Event(PLOG_PRIORITY_ERROR, "src/x.cc", 99, "Work");
    ::testing::internal::CaptureStderr();
    const int ret = plog_category_logv(&cat, &ev, "failed with %d", -5);
    const std::string out = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(0, ret);
    ASSERT_FALSE(out.empty());
    EXPECT_EQ('\n', out.back());
    EXPECT_EQ(out.size() - 1, out.find('\n')) << out;
    EXPECT_NE(std::string::npos, out.find("failed with -5")) << out;
    EXPECT_NE(std::string::npos, out.find("fallback")) << out;
    EXPECT_NE(std::string::npos, out.find("src/x.cc:99")) << out;
    EXPECT_NE(std::string::npos, out.find("Work")) << out;
    EXPECT_NE(std::string::npos, out.find("error")) << out;
}

TEST(PlogPriorityNameTest, NamesOfPriorities) {
    EXPECT_STREQ("error", plog_priority_name(PLOG_PRIORITY_ERROR));
    EXPECT_STREQ("debug", plog_priority_name(PLOG_PRIORITY_DEBUG));
    EXPECT_STREQ("trace", plog_priority_name(PLOG_PRIORITY_TRACE));
    EXPECT_STREQ("unknown", plog_priority_name(301));
}

// --- The bridge's logging macros ---------------------------------------------

int g_evaluations = 0;

// An argument that counts how often it is computed.
int Counted(int value) {
    ++g_evaluations;
    return value;
}

// Logs at `priority` through PBU_LOG and reports whether a line arrived.
bool Written(LogCapture& capture, int priority) {
    capture.Clear();
    PBU_LOG(capture.category(), priority, "p=%d", priority);
    return capture.lines().size() == 1;
}

TEST(PbuLogTest, ThresholdDecidesWithoutBounds) {
    LogCapture capture(PLOG_PRIORITY_DEBUG);
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_ERROR));
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_DEBUG));
    EXPECT_FALSE(Written(capture, PLOG_PRIORITY_TRACE));
}

TEST(PbuLogTest, LowerBoundBelowPrioritySkips) {
    LogCapture capture(PLOG_PRIORITY_TRACE);
    int low = PLOG_PRIORITY_DEBUG;
    capture.category()->piPriorityLow = &low;
    EXPECT_FALSE(Written(capture, PLOG_PRIORITY_TRACE));
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_DEBUG));
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_ERROR));
    low = -1;  // unset
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_TRACE));
}

TEST(PbuLogTest, UpperBoundAbovePrioritySkips) {
    LogCapture capture(PLOG_PRIORITY_TRACE);
    int high = PLOG_PRIORITY_DEBUG;
    capture.category()->piPriorityHigh = &high;
    EXPECT_FALSE(Written(capture, PLOG_PRIORITY_ERROR));
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_DEBUG));
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_TRACE));
    high = -1;  // unset
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_ERROR));
}

TEST(PbuLogTest, BoundsAndThresholdMustBothPass) {
    LogCapture capture(PLOG_PRIORITY_ERROR);
    int low = PLOG_PRIORITY_TRACE;
    int high = PLOG_PRIORITY_ERROR;
    capture.category()->piPriorityLow = &low;
    capture.category()->piPriorityHigh = &high;
    // Inside the bounds but above the threshold.
    EXPECT_FALSE(Written(capture, PLOG_PRIORITY_DEBUG));
    // Within the threshold but outside the bounds.
    high = PLOG_PRIORITY_WARN;
    EXPECT_FALSE(Written(capture, PLOG_PRIORITY_ERROR));
    // Within both.
    high = PLOG_PRIORITY_CRIT;
    EXPECT_TRUE(Written(capture, PLOG_PRIORITY_ERROR));
}

TEST(PbuLogTest, EventCarriesBridgeFileLineAndFunction) {
    LogCapture capture;
    const int line = __LINE__ + 1;
    PBU_LOG_ERROR(capture.category(), "bad %s: %d", "thing", 3);
    ASSERT_EQ(1u, capture.lines().size());
    const auto& written = capture.lines()[0];
    EXPECT_EQ(PLOG_PRIORITY_ERROR, written.priority);
    EXPECT_EQ(kBridgeFile, written.file);
    EXPECT_EQ(line, written.line);
    EXPECT_EQ("TestBody", written.func);
    EXPECT_EQ("bad thing: 3", written.text);
}

void LogFromNamedFunction(LPPLOGCATEGORYINST log) { PBU_LOG_DEBUG(log, "from %s", "helper"); }

TEST(PbuLogTest, FunctionNameIsTheCaller) {
    LogCapture capture;
    LogFromNamedFunction(capture.category());
    ASSERT_EQ(1u, capture.lines().size());
    EXPECT_EQ("LogFromNamedFunction", capture.lines()[0].func);
    EXPECT_EQ(PLOG_PRIORITY_DEBUG, capture.lines()[0].priority);
    EXPECT_EQ(kBridgeFile, capture.lines()[0].file);
}

TEST(PbuLogTest, PriorityMacros) {
    LogCapture capture;
    PBU_LOG_ERROR(capture.category(), "e");
    PBU_LOG_DEBUG(capture.category(), "d");
    PBU_LOG_TRACE(capture.category(), "t");
    EXPECT_EQ(std::vector<std::string>{"e"}, capture.Texts(PLOG_PRIORITY_ERROR));
    EXPECT_EQ(std::vector<std::string>{"d"}, capture.Texts(PLOG_PRIORITY_DEBUG));
    EXPECT_EQ(std::vector<std::string>{"t"}, capture.Texts(PLOG_PRIORITY_TRACE));
}

TEST(PbuLogTest, HexMacroDumpsAsOneMessage) {
    LogCapture capture;
    const unsigned char key[] = {0x0a, 0xff};
    const int line = __LINE__ + 1;
    PBU_LOG_HEX(capture.category(), PLOG_PRIORITY_TRACE, key, sizeof(key));
    ASSERT_EQ(1u, capture.lines().size());
    EXPECT_EQ("0000: 0a ff", capture.lines()[0].text);
    EXPECT_EQ(PLOG_PRIORITY_TRACE, capture.lines()[0].priority);
    EXPECT_EQ(kBridgeFile, capture.lines()[0].file);
    EXPECT_EQ(line, capture.lines()[0].line);
}

TEST(PbuLogTest, RejectedPriorityEvaluatesNoArgument) {
    LogCapture capture(PLOG_PRIORITY_ERROR);
    const unsigned char key[] = {1};
    g_evaluations = 0;
    PBU_LOG_TRACE(capture.category(), "%d %d", Counted(1), Counted(2));
    PBU_LOG_HEX(capture.category(), PLOG_PRIORITY_TRACE, key + Counted(0), static_cast<size_t>(Counted(1)));
    PBU_LOG_ERROR(nullptr, "%d", Counted(3));
    int low = PLOG_PRIORITY_CRIT;  // rejected by the bound, not the threshold
    capture.category()->piPriorityLow = &low;
    PBU_LOG_ERROR(capture.category(), "%d", Counted(4));
    EXPECT_EQ(0, g_evaluations);
    EXPECT_TRUE(capture.lines().empty());

    low = -1;
    PBU_LOG_ERROR(capture.category(), "%d %d", Counted(5), Counted(6));
    EXPECT_EQ(2, g_evaluations);
    EXPECT_EQ(std::vector<std::string>{"5 6"}, capture.Texts(PLOG_PRIORITY_ERROR));
}

}  // namespace
