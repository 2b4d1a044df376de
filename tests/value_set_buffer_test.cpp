// The value-set builder CorvidaCommon::PbValueSetBuffer over both layouts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "common/pb_value_set_buffer.h"
#include "support/log_capture.h"
#include "support/records.h"

// Counts heap allocations so that tests can check the hot paths allocate
// nothing. The replacements stay out of line: inlined, the compiler would pair
// their malloc() and free() with new- and delete-expressions and warn about a
// mismatch that does not exist.
namespace {
std::atomic<long> g_allocations{0};
}  // namespace

__attribute__((noinline)) void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using CorvidaCommon::PbValueSetBuffer;
using corvida_test::LogCapture;
using corvida_test::NewValueSet;
using Field = PbValueSetBuffer::Field;

constexpr char kLogFile[] = "corvida/src/common/pb_value_set_buffer";

Field NewField(const char* path, int wire_type = -1) { return Field{-1, path, nullptr, 0, wire_type}; }

// Appends one closed field with the given bytes; returns its index.
int Cut(PbValueSetBuffer& vsb, const char* path, const std::string& bytes, int wire_type = -1) {
    Field field = NewField(path, wire_type);
    EXPECT_EQ(0, vsb.InsertCutField(field));
    EXPECT_LT(bytes.size(), static_cast<size_t>(field.buf_len));
    std::memcpy(const_cast<char*>(field.buf), bytes.data(), bytes.size());
    EXPECT_EQ(0, vsb.FinishCutField(field.idx, static_cast<int>(bytes.size())));
    return field.idx;
}

std::string Bytes(const Field& field) { return std::string(field.buf, static_cast<size_t>(field.buf_len)); }

// True when [p, p + len) lies inside the set.
bool InsideSet(const ProtobufValueSet_& set, const char* p, size_t len) {
    const char* begin = reinterpret_cast<const char*>(&set);
    return p >= begin && p + len <= begin + sizeof(set);
}

// What a call may change: counts, lengths and the version.
struct Snapshot {
    int32_t version;
    uint32_t v0_num;
    int32_t encode;
    int32_t v1_num;
    int32_t value_buf_len;
    std::vector<uint32_t> v0_lens;
    std::vector<int32_t> v1_sizes;

    explicit Snapshot(const ProtobufValueSet_& set)
        : version(set.iVersion_),
          v0_num(set.dwFieldNum_),
          encode(set.iEncodeType),
          v1_num(set.stCompactValueSet.iFieldIndexNum),
          value_buf_len(set.stCompactValueSet.iValueBufLen) {
        for (uint32_t i = 0; i < v0_num && i < CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0; ++i) {
            v0_lens.push_back(set.astFields_[i].dwFieldLen_);
        }
        for (int32_t i = 0; i < v1_num && i < CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM; ++i) {
            v1_sizes.push_back(set.stCompactValueSet.astFieldIndexs[i].iSize);
        }
    }
    bool operator==(const Snapshot& o) const {
        return version == o.version && v0_num == o.v0_num && encode == o.encode && v1_num == o.v1_num &&
               value_buf_len == o.value_buf_len && v0_lens == o.v0_lens && v1_sizes == o.v1_sizes;
    }
};

// The one error line of a failing call.
void ExpectErrorLine(const LogCapture& log, const std::string& text) {
    ASSERT_EQ(1u, log.lines().size()) << log.Dump();
    EXPECT_EQ(PLOG_PRIORITY_ERROR, log.lines()[0].priority);
    EXPECT_EQ(kLogFile, log.lines()[0].file);
    EXPECT_EQ(text, log.lines()[0].text);
}

// ---------------------------------------------------------------------------
// Behaviour shared by both layouts.

struct Layout {
    int version;
    int max_fields;
};

void PrintTo(const Layout& layout, std::ostream* os) { *os << "version " << layout.version; }

class BothLayouts : public ::testing::TestWithParam<Layout> {
protected:
    BothLayouts() : set_(NewValueSet()), vsb_(set_.get(), GetParam().version, log_.category()) {
        vsb_.ResetFieldNum();
    }

    // Capacity of the region that InsertCutField hands out for the next
    // field with a tag path of path_len characters.
    int NextCapacity(size_t path_len) const {
        if (GetParam().version == 0) return CORVIDA_PROTOBUF_MAX_FIELD_BUFF;
        return CORVIDA_PROTOBUF_MAX_VALUE_BUF - set_->stCompactValueSet.iValueBufLen - static_cast<int>(path_len) - 1;
    }

    int FieldNumInSet() const {
        return GetParam().version == 0 ? static_cast<int>(set_->dwFieldNum_) : set_->stCompactValueSet.iFieldIndexNum;
    }

    LogCapture log_;
    std::unique_ptr<ProtobufValueSet_> set_;
    PbValueSetBuffer vsb_;
};

INSTANTIATE_TEST_SUITE_P(Versions, BothLayouts,
                         ::testing::Values(Layout{0, CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0},
                                           Layout{1, CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM}),
                         [](const ::testing::TestParamInfo<Layout>& info) {
                             return "V" + std::to_string(info.param.version);
                         });

TEST_P(BothLayouts, ResetMarksVersionAndEmptiesBothLayouts) {
    set_->iVersion_ = 9;
    set_->dwFieldNum_ = 3;
    set_->iEncodeType = 4;
    set_->stCompactValueSet.iFieldIndexNum = 5;
    set_->stCompactValueSet.iValueBufLen = 6;
    // Markers in the arrays: an O(1) reset leaves them alone.
    set_->astFields_[0].szFieldBuff_[0] = 'm';
    set_->stCompactValueSet.szValueBuf[0] = 'v';

    EXPECT_EQ(0, vsb_.ResetFieldNum());

    EXPECT_EQ(GetParam().version, set_->iVersion_);
    EXPECT_EQ(0u, set_->dwFieldNum_);
    EXPECT_EQ(0, set_->iEncodeType);
    EXPECT_EQ(0, set_->stCompactValueSet.iFieldIndexNum);
    EXPECT_EQ(0, set_->stCompactValueSet.iValueBufLen);
    EXPECT_EQ('m', set_->astFields_[0].szFieldBuff_[0]);
    EXPECT_EQ('v', set_->stCompactValueSet.szValueBuf[0]);
    EXPECT_EQ(0, vsb_.GetFieldNum());
    EXPECT_TRUE(log_.lines().empty()) << log_.Dump();
}

TEST_P(BothLayouts, ResetForgetsTheOpenField) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    ASSERT_EQ(0, vsb_.ResetFieldNum());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_INDEX, vsb_.FinishCutField(field.idx, 0));
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    EXPECT_EQ(0, field.idx);
    EXPECT_EQ(0, vsb_.FinishCutField(0, 0));
}

TEST_P(BothLayouts, FillsAndReadsBack) {
    const std::string a("\x08\x96\x01", 3);
    const std::string b("\x2a\x03\x66\x6f\x6f", 5);
    EXPECT_EQ(0, Cut(vsb_, "1", a));
    EXPECT_EQ(1, Cut(vsb_, "2.5", b));
    EXPECT_EQ(2, Cut(vsb_, "3.1.4", ""));
    EXPECT_EQ(3, vsb_.GetFieldNum());
    EXPECT_EQ(3, FieldNumInSet());

    Field field = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(1, field));
    EXPECT_EQ(1, field.idx);
    EXPECT_STREQ("2.5", field.path);
    EXPECT_EQ(b, Bytes(field));
    EXPECT_EQ(2, field.wire_type);
    EXPECT_TRUE(InsideSet(*set_, field.path, 4));
    EXPECT_TRUE(InsideSet(*set_, field.buf, 5));

    std::vector<Field> fields(7, NewField("stale"));
    ASSERT_EQ(0, vsb_.GetFields(fields));
    ASSERT_EQ(3u, fields.size());
    EXPECT_STREQ("1", fields[0].path);
    EXPECT_EQ(a, Bytes(fields[0]));
    EXPECT_EQ(0, fields[0].wire_type);
    EXPECT_STREQ("2.5", fields[1].path);
    EXPECT_STREQ("3.1.4", fields[2].path);
    EXPECT_EQ(0, fields[2].buf_len);
    EXPECT_EQ(-1, fields[2].wire_type);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(i, fields[static_cast<size_t>(i)].idx);
    EXPECT_TRUE(log_.lines().empty()) << log_.Dump();
}

TEST_P(BothLayouts, InsertHandsOutAnEmptyOpenFieldAndARegionInsideTheSet) {
    ASSERT_EQ(0, Cut(vsb_, "1", "ab"));
    const int expected_capacity = NextCapacity(3);
    Field field = NewField("2.7");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    EXPECT_EQ(1, field.idx);
    EXPECT_STREQ("2.7", field.path);
    EXPECT_EQ(expected_capacity, field.buf_len);
    ASSERT_NE(nullptr, field.buf);
    EXPECT_TRUE(InsideSet(*set_, field.buf, static_cast<size_t>(field.buf_len)));

    // Open: counted, readable, no bytes.
    EXPECT_EQ(2, vsb_.GetFieldNum());
    Field read = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(1, read));
    EXPECT_STREQ("2.7", read.path);
    EXPECT_EQ(0, read.buf_len);
}

TEST_P(BothLayouts, FieldLimit) {
    const int max = GetParam().max_fields;
    for (int i = 0; i < max; ++i) Cut(vsb_, std::to_string(i + 1).c_str(), "x");
    EXPECT_EQ(max, vsb_.GetFieldNum());
    const Snapshot before(*set_);

    Field field = NewField("999");
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_TOO_MANY_FIELDS, vsb_.InsertCutField(field));
    EXPECT_EQ(-1, field.idx);
    EXPECT_EQ(nullptr, field.buf);
    EXPECT_TRUE(before == Snapshot(*set_));
    ExpectErrorLine(log_, "too many fields, max=" + std::to_string(max) + ", path=999, ret=-4");

    std::vector<Field> fields;
    ASSERT_EQ(0, vsb_.GetFields(fields));
    ASSERT_EQ(static_cast<size_t>(max), fields.size());
    EXPECT_STREQ(std::to_string(max).c_str(), fields.back().path);
}

TEST_P(BothLayouts, TagPathOf1023CharactersIsTheLongest) {
    const std::string longest(1023, '7');
    EXPECT_EQ(0, Cut(vsb_, longest.c_str(), "z"));
    Field read = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(0, read));
    EXPECT_EQ(longest, read.path);
    EXPECT_EQ("z", Bytes(read));

    const Snapshot before(*set_);
    const std::string too_long(1024, '7');
    Field field = NewField(too_long.c_str());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_TAG_PATH_TOO_LONG, vsb_.InsertCutField(field));
    EXPECT_TRUE(before == Snapshot(*set_));
    EXPECT_EQ(1, vsb_.GetFieldNum());
    ExpectErrorLine(log_, "tag path of 1024 characters or more, ret=-5");
}

TEST_P(BothLayouts, NullTagPathIsRefused) {
    Field field = NewField(nullptr);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_INVALID_ARGUMENT, vsb_.InsertCutField(field));
    EXPECT_EQ(0, vsb_.GetFieldNum());
    EXPECT_EQ(-1, field.idx);
    ExpectErrorLine(log_, "null tag path, ret=-3");
}

TEST_P(BothLayouts, FinishAtCapacityMinusOneIsAccepted) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const_cast<char*>(field.buf)[0] = '\x0a';
    ASSERT_EQ(0, vsb_.FinishCutField(field.idx, field.buf_len - 1));
    Field read = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(0, read));
    EXPECT_EQ(field.buf_len - 1, read.buf_len);
    EXPECT_EQ(field.buf, read.buf);
    EXPECT_EQ(2, read.wire_type);
}

TEST_P(BothLayouts, FinishAboveCapacityIsRefused) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const Snapshot before(*set_);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_LENGTH, vsb_.FinishCutField(field.idx, field.buf_len + 1));
    EXPECT_TRUE(before == Snapshot(*set_));
    ExpectErrorLine(log_, "bad length " + std::to_string(field.buf_len + 1) +
                              " of field 0, capacity=" + std::to_string(field.buf_len) + ", ret=-9");
    // Still open: a length of the whole capacity closes it.
    EXPECT_EQ(0, vsb_.FinishCutField(field.idx, field.buf_len));
    Field read = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(0, read));
    EXPECT_EQ(field.buf_len, read.buf_len);
}

TEST_P(BothLayouts, NegativeLengthIsRefused) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const Snapshot before(*set_);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_LENGTH, vsb_.FinishCutField(field.idx, -1));
    EXPECT_TRUE(before == Snapshot(*set_));
    ExpectErrorLine(log_,
                    "bad length -1 of field 0, capacity=" + std::to_string(field.buf_len) + ", ret=-9");
}

TEST_P(BothLayouts, IndexOutOfRange) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const Snapshot before(*set_);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_INDEX, vsb_.FinishCutField(1, 0));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_INDEX, vsb_.FinishCutField(-1, 0));
    Field read = NewField("untouched");
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_INDEX, vsb_.GetField(1, read));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_INDEX, vsb_.GetField(-1, read));
    EXPECT_STREQ("untouched", read.path);
    EXPECT_TRUE(before == Snapshot(*set_));
    const std::vector<std::string> expected = {
        "field index 1 out of range, num=1, ret=-7", "field index -1 out of range, num=1, ret=-7",
        "field index 1 out of range, num=1, ret=-7", "field index -1 out of range, num=1, ret=-7"};
    EXPECT_EQ(expected, log_.Texts(PLOG_PRIORITY_ERROR));
}

TEST_P(BothLayouts, OnlyTheOpenFieldCanBeFinished) {
    ASSERT_EQ(0, Cut(vsb_, "1", "ab"));
    const Snapshot closed(*set_);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NOT_OPEN, vsb_.FinishCutField(0, 1));
    EXPECT_TRUE(closed == Snapshot(*set_));
    ExpectErrorLine(log_, "field 0 is not open, ret=-8");

    Field field = NewField("2");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NOT_OPEN, vsb_.FinishCutField(0, 1));
    EXPECT_EQ(0, vsb_.FinishCutField(1, 0));
}

TEST_P(BothLayouts, ABinderSeesNoOpenField) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    PbValueSetBuffer other(set_.get(), GetParam().version, log_.category());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NOT_OPEN, other.FinishCutField(0, 0));
}

TEST_P(BothLayouts, NewInsertClosesTheOpenFieldWithNoBytes) {
    Field first = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(first));
    std::memcpy(const_cast<char*>(first.buf), "\x08\x01", 2);  // written but never finished
    EXPECT_EQ(1, Cut(vsb_, "2", std::string("\x10\x02", 2)));

    Field read = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(0, read));
    EXPECT_STREQ("1", read.path);
    EXPECT_EQ(0, read.buf_len);
    EXPECT_EQ(-1, read.wire_type);
    ASSERT_EQ(0, vsb_.GetField(1, read));
    EXPECT_EQ(std::string("\x10\x02", 2), Bytes(read));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NOT_OPEN, vsb_.FinishCutField(0, 2));
}

TEST_P(BothLayouts, FailingInsertKeepsTheOpenFieldOpen) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const Snapshot before(*set_);
    Field bad = NewField(nullptr);
    EXPECT_NE(0, vsb_.InsertCutField(bad));
    const std::string too_long(2000, '1');
    bad.path = too_long.c_str();
    EXPECT_NE(0, vsb_.InsertCutField(bad));
    EXPECT_TRUE(before == Snapshot(*set_));
    std::memcpy(const_cast<char*>(field.buf), "\x08\x05", 2);
    EXPECT_EQ(0, vsb_.FinishCutField(field.idx, 2));
    EXPECT_EQ(1, vsb_.GetFieldNum());
}

TEST_P(BothLayouts, WireTypeFromFirstByteOrAsGiven) {
    Cut(vsb_, "1", std::string("\x08\x01", 2));         // varint
    Cut(vsb_, "2", std::string("\x11", 1) + std::string(8, '\0'));  // 64-bit
    Cut(vsb_, "3", std::string("\x1a\x00", 2));         // length-delimited
    Cut(vsb_, "4", std::string("\x25\0\0\0\0", 5));     // 32-bit
    Cut(vsb_, "5", "");                                 // no bytes: stays -1
    Cut(vsb_, "6", std::string("\x1a\x00", 2), 5);      // given: kept
    Cut(vsb_, "7", std::string("\x1a\x00", 2), 0);      // given 0: kept
    Cut(vsb_, "8", "", 3);
    std::vector<Field> fields;
    ASSERT_EQ(0, vsb_.GetFields(fields));
    std::vector<int> wire_types;
    for (const Field& f : fields) wire_types.push_back(f.wire_type);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 5, -1, 5, 0, 3}), wire_types);
}

TEST_P(BothLayouts, BindingChangesNothing) {
    Cut(vsb_, "1", "ab");
    Cut(vsb_, "2.3", "cde");
    set_->iEncodeType = 4;
    const Snapshot before(*set_);
    for (int version : {0, 1, 2, -1}) {
        PbValueSetBuffer reader(set_.get(), version, log_.category());
        EXPECT_TRUE(before == Snapshot(*set_)) << version;
    }
    PbValueSetBuffer reader(set_.get(), GetParam().version, log_.category());
    std::vector<Field> fields;
    ASSERT_EQ(0, reader.GetFields(fields));
    ASSERT_EQ(2u, fields.size());
    EXPECT_EQ("cde", Bytes(fields[1]));
    EXPECT_TRUE(before == Snapshot(*set_));
}

TEST_P(BothLayouts, PathMayComeFromTheSetItself) {
    Cut(vsb_, "4.2", "q");
    Field read = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(0, read));
    EXPECT_EQ(1, Cut(vsb_, read.path, "r"));
    ASSERT_EQ(0, vsb_.GetField(1, read));
    EXPECT_STREQ("4.2", read.path);
}

TEST_P(BothLayouts, HotPathsDoNotAllocate) {
    Field field = NewField("1.2");
    Field read = NewField(nullptr);
    const long before = g_allocations.load();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(0, vsb_.InsertCutField(field));
        ASSERT_EQ(0, vsb_.FinishCutField(field.idx, 0));
        ASSERT_EQ(0, vsb_.GetField(field.idx, read));
    }
    PbValueSetBuffer other(set_.get(), GetParam().version, nullptr);
    ASSERT_EQ(0, other.GetField(0, read));
    EXPECT_EQ(before, g_allocations.load());
}

TEST_P(BothLayouts, PackUnpackThenGetFields) {
    Cut(vsb_, "1", std::string("\x08\x96\x01", 3));
    Cut(vsb_, "2.5", std::string("\x2a\x02hi", 4));
    Cut(vsb_, "3", "");
    std::vector<char> packed(set_->packedSize());
    size_t used = 0;
    ASSERT_EQ(0, set_->pack(packed.data(), packed.size(), &used));

    auto received = NewValueSet();
    ASSERT_EQ(0, received->unpack(packed.data(), used, &used));
    EXPECT_EQ(GetParam().version, received->iVersion_);
    PbValueSetBuffer reader(received.get(), received->iVersion_, log_.category());
    std::vector<Field> fields;
    ASSERT_EQ(0, reader.GetFields(fields));
    ASSERT_EQ(3u, fields.size());
    EXPECT_STREQ("1", fields[0].path);
    EXPECT_EQ(std::string("\x08\x96\x01", 3), Bytes(fields[0]));
    EXPECT_EQ(0, fields[0].wire_type);
    EXPECT_STREQ("2.5", fields[1].path);
    EXPECT_EQ(std::string("\x2a\x02hi", 4), Bytes(fields[1]));
    EXPECT_EQ(2, fields[1].wire_type);
    EXPECT_STREQ("3", fields[2].path);
    EXPECT_EQ(0, fields[2].buf_len);
    EXPECT_TRUE(InsideSet(*received, fields[1].buf, 4));
    EXPECT_TRUE(log_.lines().empty()) << log_.Dump();
}

TEST_P(BothLayouts, NullLogCategoryIsAccepted) {
    PbValueSetBuffer quiet(set_.get(), GetParam().version, nullptr);
    Field field = NewField(nullptr);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_INVALID_ARGUMENT, quiet.InsertCutField(field));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_INDEX, quiet.FinishCutField(3, 0));
    EXPECT_EQ(0, Cut(quiet, "1", "x"));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_P(BothLayouts, LogFollowsThresholdAndBounds) {
    struct Case {
        const char* name;
        int threshold;
        int low;
        int high;
        bool logged;
    };
    const Case cases[] = {
        {"takes error", PLOG_PRIORITY_ERROR, -1, -1, true},
        {"threshold below error", PLOG_PRIORITY_CRIT, -1, -1, false},
        {"lower bound below error", PLOG_PRIORITY_TRACE, PLOG_PRIORITY_CRIT, -1, false},
        {"lower bound at error", PLOG_PRIORITY_TRACE, PLOG_PRIORITY_ERROR, -1, true},
        {"upper bound above error", PLOG_PRIORITY_TRACE, -1, PLOG_PRIORITY_WARN, false},
        {"upper bound at error", PLOG_PRIORITY_TRACE, -1, PLOG_PRIORITY_ERROR, true},
        // Bounds pass but the category's own threshold refuses.
        {"bounds pass, threshold refuses", PLOG_PRIORITY_CRIT, PLOG_PRIORITY_ERROR, PLOG_PRIORITY_ERROR, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log(c.threshold);
        int low = c.low;
        int high = c.high;
        log.category()->piPriorityLow = &low;
        log.category()->piPriorityHigh = &high;
        PbValueSetBuffer vsb(set_.get(), GetParam().version, log.category());
        Field field = NewField(nullptr);
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_INVALID_ARGUMENT, vsb.InsertCutField(field));
        EXPECT_EQ(c.logged ? 1u : 0u, log.lines().size()) << log.Dump();
    }
}

// ---------------------------------------------------------------------------
// Builders without a usable layout.

TEST(ValueSetBufferUnbound, NullSetFailsEveryOperation) {
    LogCapture log;
    PbValueSetBuffer vsb(nullptr, 1, log.category());
    Field field = NewField("1");
    std::vector<Field> fields(2, NewField("stale"));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.ResetFieldNum());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.InsertCutField(field));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.FinishCutField(0, 0));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.GetFieldNum());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.GetField(0, field));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.GetFields(fields));
    EXPECT_TRUE(fields.empty());
    EXPECT_EQ(-1, field.idx);
    const std::vector<std::string> expected = {
        "ResetFieldNum: no value set, ret=-1", "InsertCutField: no value set, ret=-1",
        "FinishCutField: no value set, ret=-1", "GetFieldNum: no value set, ret=-1",
        "GetField: no value set, ret=-1",      "GetFields: no value set, ret=-1"};
    EXPECT_EQ(expected, log.Texts(PLOG_PRIORITY_ERROR));
    for (const auto& line : log.lines()) EXPECT_EQ(kLogFile, line.file);
}

TEST(ValueSetBufferUnbound, NullSetWithBadVersionReportsNoValueSet) {
    PbValueSetBuffer vsb(nullptr, 7, nullptr);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_VALUE_SET, vsb.GetFieldNum());
}

TEST(ValueSetBufferUnbound, BadVersionFailsEveryOperationAndChangesNothing) {
    for (int version : {2, -1}) {
        SCOPED_TRACE(version);
        LogCapture log;
        auto set = NewValueSet();
        set->iVersion_ = 1;
        set->iEncodeType = 3;
        const Snapshot before(*set);
        PbValueSetBuffer vsb(set.get(), version, log.category());
        Field field = NewField("1");
        std::vector<Field> fields(1, NewField("stale"));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_VERSION, vsb.ResetFieldNum());
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_VERSION, vsb.InsertCutField(field));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_VERSION, vsb.FinishCutField(0, 0));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_VERSION, vsb.GetFieldNum());
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_VERSION, vsb.GetField(0, field));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_VERSION, vsb.GetFields(fields));
        EXPECT_TRUE(fields.empty());
        EXPECT_TRUE(before == Snapshot(*set));
        const std::string v = std::to_string(version);
        const std::vector<std::string> expected = {
            "ResetFieldNum: unsupported version " + v + ", ret=-2",
            "InsertCutField: unsupported version " + v + ", ret=-2",
            "FinishCutField: unsupported version " + v + ", ret=-2",
            "GetFieldNum: unsupported version " + v + ", ret=-2",
            "GetField: unsupported version " + v + ", ret=-2",
            "GetFields: unsupported version " + v + ", ret=-2"};
        EXPECT_EQ(expected, log.Texts(PLOG_PRIORITY_ERROR));
    }
}

// ---------------------------------------------------------------------------
// Version 0 specifics.

class Version0 : public ::testing::Test {
protected:
    Version0() : set_(NewValueSet()), vsb_(set_.get(), 0, log_.category()) { vsb_.ResetFieldNum(); }

    LogCapture log_;
    std::unique_ptr<ProtobufValueSet_> set_;
    PbValueSetBuffer vsb_;
};

TEST_F(Version0, FieldsLiveInTheirOwnRecords) {
    Field field = NewField("2.5");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    EXPECT_EQ(set_->astFields_[0].szFieldBuff_, field.buf);
    EXPECT_EQ(CORVIDA_PROTOBUF_MAX_FIELD_BUFF, field.buf_len);
    std::memcpy(const_cast<char*>(field.buf), "\x2a\x00", 2);
    ASSERT_EQ(0, vsb_.FinishCutField(0, 2));
    EXPECT_EQ(1u, set_->dwFieldNum_);
    EXPECT_STREQ("2.5", set_->astFields_[0].szTagPath_);
    EXPECT_EQ(2u, set_->astFields_[0].dwFieldLen_);
    EXPECT_EQ(2u, set_->astFields_[0].dwWireType_);
    EXPECT_EQ(0, set_->stCompactValueSet.iFieldIndexNum);
}

TEST_F(Version0, GivenNegativeWireTypeIsStoredAsUnsigned) {
    Cut(vsb_, "1", "");
    EXPECT_EQ(0xffffffffu, set_->astFields_[0].dwWireType_);
}

TEST_F(Version0, CorruptFieldCount) {
    Cut(vsb_, "1", "a");
    set_->dwFieldNum_ = 129;
    Field field = NewField(nullptr);
    std::vector<Field> fields(1, NewField("stale"));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetFieldNum());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetField(0, field));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetFields(fields));
    EXPECT_TRUE(fields.empty());
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.FinishCutField(0, 0));
    EXPECT_EQ(4, log_.Count(PLOG_PRIORITY_ERROR, "corrupt field count 129, max=128, ret=-10")) << log_.Dump();
    // Appending to it is refused as well.
    Field more = NewField("2");
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_TOO_MANY_FIELDS, vsb_.InsertCutField(more));
    EXPECT_EQ(129u, set_->dwFieldNum_);
}

TEST_F(Version0, UnterminatedTagPath) {
    Cut(vsb_, "1", "a");
    Cut(vsb_, "2", "b");
    std::memset(set_->astFields_[1].szTagPath_, '3', CORVIDA_PROTOBUF_MAX_TAG_PATH);
    Field field = NewField(nullptr);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetField(1, field));
    EXPECT_EQ(nullptr, field.path);
    std::vector<Field> fields;
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetFields(fields));
    ASSERT_EQ(1u, fields.size());  // the fields before the bad one
    EXPECT_STREQ("1", fields[0].path);
    EXPECT_EQ(2, log_.Count(PLOG_PRIORITY_ERROR, "corrupt field 1: tag path not terminated, ret=-10")) << log_.Dump();
}

TEST_F(Version0, FieldLengthPastItsBuffer) {
    Cut(vsb_, "1", "a");
    set_->astFields_[0].dwFieldLen_ = CORVIDA_PROTOBUF_MAX_FIELD_BUFF + 1;
    Field field = NewField(nullptr);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetField(0, field));
    ExpectErrorLine(log_, "corrupt field 0: length 262145 exceeds 262144, ret=-10");

    // A received field may fill its buffer exactly.
    set_->astFields_[0].dwFieldLen_ = CORVIDA_PROTOBUF_MAX_FIELD_BUFF;
    EXPECT_EQ(0, vsb_.GetField(0, field));
    EXPECT_EQ(CORVIDA_PROTOBUF_MAX_FIELD_BUFF, field.buf_len);
}

// ---------------------------------------------------------------------------
// Version 1 specifics.

class Version1 : public ::testing::Test {
protected:
    Version1() : set_(NewValueSet()), vsb_(set_.get(), 1, log_.category()) { vsb_.ResetFieldNum(); }

    // Appends an entry by hand, as a received set might hold it.
    void AddEntry(int32_t offset, int32_t size, int32_t flag) {
        CompactValueSet& compact = set_->stCompactValueSet;
        compact.astFieldIndexs[compact.iFieldIndexNum++] = FieldIndex{offset, size, flag};
    }
    void SetBytes(const std::string& bytes) {
        std::memcpy(set_->stCompactValueSet.szValueBuf, bytes.data(), bytes.size());
        set_->stCompactValueSet.iValueBufLen = static_cast<int32_t>(bytes.size());
    }

    LogCapture log_;
    std::unique_ptr<ProtobufValueSet_> set_;
    PbValueSetBuffer vsb_;
};

TEST_F(Version1, EntriesHoldPathNulAndBytesBackToBack) {
    Cut(vsb_, "2.5", std::string("\x2a\x01x", 3));
    Field field = NewField("7");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const CompactValueSet& compact = set_->stCompactValueSet;
    EXPECT_EQ(compact.szValueBuf + 7 + 2, field.buf);
    EXPECT_EQ(CORVIDA_PROTOBUF_MAX_VALUE_BUF - 9, field.buf_len);
    std::memcpy(const_cast<char*>(field.buf), "\x38\x01", 2);
    ASSERT_EQ(0, vsb_.FinishCutField(1, 2));

    EXPECT_EQ(1, set_->iVersion_);
    EXPECT_EQ(0u, set_->dwFieldNum_);
    EXPECT_EQ(2, compact.iFieldIndexNum);
    EXPECT_EQ(11, compact.iValueBufLen);
    EXPECT_EQ(std::string("2.5\0\x2a\x01x7\0\x38\x01", 11), std::string(compact.szValueBuf, 11));
    EXPECT_EQ(0, compact.astFieldIndexs[0].iOffset);
    EXPECT_EQ(7, compact.astFieldIndexs[0].iSize);
    EXPECT_EQ(2, compact.astFieldIndexs[0].iFlag);
    EXPECT_EQ(7, compact.astFieldIndexs[1].iOffset);
    EXPECT_EQ(4, compact.astFieldIndexs[1].iSize);
    EXPECT_EQ(0, compact.astFieldIndexs[1].iFlag);
}

TEST_F(Version1, OpenFieldEntryHoldsItsPath) {
    Field field = NewField("12", 3);
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    const FieldIndex& entry = set_->stCompactValueSet.astFieldIndexs[0];
    EXPECT_EQ(0, entry.iOffset);
    EXPECT_EQ(3, entry.iSize);
    EXPECT_EQ(3, entry.iFlag);
    EXPECT_EQ(3, set_->stCompactValueSet.iValueBufLen);
}

TEST_F(Version1, NoRoomForAFieldAfterItsPath) {
    Field first = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(first));
    // Leave room for a path "2", its NUL and exactly one byte of region.
    ASSERT_EQ(0, vsb_.FinishCutField(0, first.buf_len - 3));
    Field second = NewField("2");
    ASSERT_EQ(0, vsb_.InsertCutField(second));
    EXPECT_EQ(1, second.buf_len);
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_BAD_LENGTH, vsb_.FinishCutField(1, 2));
    ASSERT_EQ(0, vsb_.FinishCutField(1, 1));
    EXPECT_EQ(CORVIDA_PROTOBUF_MAX_VALUE_BUF, set_->stCompactValueSet.iValueBufLen);
    log_.Clear();

    const Snapshot before(*set_);
    Field third = NewField("3");
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_ROOM, vsb_.InsertCutField(third));
    EXPECT_TRUE(before == Snapshot(*set_));
    EXPECT_EQ(-1, third.idx);
    ExpectErrorLine(log_, "no room for field, path=3, value_buf_len=10200000, ret=-6");
}

TEST_F(Version1, PathEndingExactlyAtTheBufferEndIsRefused) {
    Field first = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(first));
    // Two bytes left: a path "2" and its NUL would leave no region.
    ASSERT_EQ(0, vsb_.FinishCutField(0, first.buf_len - 2));
    Field second = NewField("2");
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_NO_ROOM, vsb_.InsertCutField(second));
    EXPECT_EQ(1, vsb_.GetFieldNum());
}

TEST_F(Version1, CorruptCounts) {
    struct Case {
        int32_t num;
        int32_t value_buf_len;
        const char* log;
    };
    const Case cases[] = {
        {-1, 0, "corrupt field count -1, max=256, ret=-10"},
        {257, 0, "corrupt field count 257, max=256, ret=-10"},
        {1, -1, "corrupt value_buf_len -1, max=10200000, ret=-10"},
        {1, CORVIDA_PROTOBUF_MAX_VALUE_BUF + 1, "corrupt value_buf_len 10200001, max=10200000, ret=-10"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.log);
        set_->stCompactValueSet.iFieldIndexNum = c.num;
        set_->stCompactValueSet.iValueBufLen = c.value_buf_len;
        log_.Clear();
        Field field = NewField("1");
        std::vector<Field> fields(1, NewField("stale"));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetFieldNum());
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetField(0, field));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetFields(fields));
        EXPECT_TRUE(fields.empty());
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.FinishCutField(0, 0));
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.InsertCutField(field));
        EXPECT_EQ(c.num, set_->stCompactValueSet.iFieldIndexNum);
        EXPECT_EQ(5, log_.Count(PLOG_PRIORITY_ERROR, c.log)) << log_.Dump();
    }
}

TEST_F(Version1, CorruptEntries) {
    struct Case {
        const char* name;
        int32_t offset;
        int32_t size;
        const char* log;
    };
    // The value buffer holds "1\0ab" and a good entry 0 covers it.
    const Case cases[] = {
        {"negative offset", -1, 2, "corrupt field 1: offset -1 size 2 outside value_buf_len=4, ret=-10"},
        {"negative size", 0, -1, "corrupt field 1: offset 0 size -1 outside value_buf_len=4, ret=-10"},
        {"past the used bytes", 2, 3, "corrupt field 1: offset 2 size 3 outside value_buf_len=4, ret=-10"},
        {"overflowing sum", INT32_MAX, INT32_MAX,
         "corrupt field 1: offset 2147483647 size 2147483647 outside value_buf_len=4, ret=-10"},
        {"no NUL in the entry", 2, 2, "corrupt field 1: tag path not terminated, ret=-10"},
        {"empty entry", 4, 0, "corrupt field 1: tag path not terminated, ret=-10"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        vsb_.ResetFieldNum();
        SetBytes(std::string("1\0ab", 4));
        AddEntry(0, 4, 2);
        AddEntry(c.offset, c.size, 0);
        log_.Clear();
        Field field = NewField("untouched");
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetField(1, field));
        EXPECT_STREQ("untouched", field.path);
        std::vector<Field> fields;
        EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetFields(fields));
        ASSERT_EQ(1u, fields.size());
        EXPECT_EQ("ab", Bytes(fields[0]));
        EXPECT_EQ(2, log_.Count(PLOG_PRIORITY_ERROR, c.log)) << log_.Dump();
    }
}

TEST_F(Version1, PathPartIsAtMost1024Bytes) {
    // A NUL at byte 1023 ends a 1023-character path; one byte later it is no
    // tag path at all.
    SetBytes(std::string(1023, '1') + std::string(1, '\0') + "x" + std::string(1024, '2') + std::string(1, '\0'));
    AddEntry(0, 1025, 0);
    AddEntry(1025, 1025, 0);
    Field field = NewField(nullptr);
    ASSERT_EQ(0, vsb_.GetField(0, field));
    EXPECT_EQ(std::string(1023, '1'), field.path);
    EXPECT_EQ("x", Bytes(field));
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.GetField(1, field));
    ExpectErrorLine(log_, "corrupt field 1: tag path not terminated, ret=-10");
}

TEST_F(Version1, OpenFieldNoLongerEndingTheUsedBytesIsCorrupt) {
    Field field = NewField("1");
    ASSERT_EQ(0, vsb_.InsertCutField(field));
    set_->stCompactValueSet.iValueBufLen += 5;  // someone else wrote into the set
    EXPECT_EQ(CorvidaCommon::PBVSB_ERR_CORRUPT, vsb_.FinishCutField(0, 0));
    ExpectErrorLine(log_, "corrupt field 0: offset 0 size 2, value_buf_len=7, ret=-10");
}

TEST_F(Version1, ReadsAReceivedEntryWithAnyFlag) {
    SetBytes(std::string("3.1\0\x0d\x01\x02\x03\x04", 9));
    AddEntry(0, 9, 5);
    set_->iVersion_ = 1;
    PbValueSetBuffer reader(set_.get(), 1, log_.category());
    Field field = NewField(nullptr);
    ASSERT_EQ(0, reader.GetField(0, field));
    EXPECT_STREQ("3.1", field.path);
    EXPECT_EQ(5, field.buf_len);
    EXPECT_EQ(5, field.wire_type);
    EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
