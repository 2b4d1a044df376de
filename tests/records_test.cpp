// Value-set records: construct(), packedSize(), pack(), unpack(), visualize().
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "protocol/corvida_protocol_comm.h"
#include "support/records.h"

namespace {

using corvida_test::NewValueSet;

// Builds packed input by hand, big-endian like pack().
class Packed {
public:
    Packed& U32(uint32_t v) {
        m_bytes.push_back(static_cast<char>(v >> 24));
        m_bytes.push_back(static_cast<char>(v >> 16));
        m_bytes.push_back(static_cast<char>(v >> 8));
        m_bytes.push_back(static_cast<char>(v));
        return *this;
    }
    Packed& I32(int32_t v) { return U32(static_cast<uint32_t>(v)); }
    Packed& Bytes(const std::string& s) {
        m_bytes.insert(m_bytes.end(), s.begin(), s.end());
        return *this;
    }
    // A version-0 field: path length, path, wire type, length, bytes.
    Packed& Field(const std::string& path, uint32_t wire, const std::string& bytes) {
        return U32(static_cast<uint32_t>(path.size())).Bytes(path).U32(wire).U32(static_cast<uint32_t>(bytes.size()))
            .Bytes(bytes);
    }
    // An empty compact section.
    Packed& EmptyCompact() { return I32(0).I32(0); }

    const std::vector<char>& bytes() const { return m_bytes; }

private:
    std::vector<char> m_bytes;
};

// Runs unpack() on an exact-size heap copy of the input, so that a read past
// the end is caught by the address sanitizer.
int UnpackCopy(ProtobufValueSet_* set, const std::vector<char>& input, size_t* used) {
    std::unique_ptr<char[]> copy(new char[input.size() + 1]);
    if (!input.empty()) std::memcpy(copy.get(), input.data(), input.size());
    return set->unpack(copy.get(), input.size(), used);
}

std::string Pattern(size_t len, unsigned seed) {
    std::string s(len, '\0');
    for (size_t i = 0; i < len; ++i) s[i] = static_cast<char>((i * 31 + seed) & 0xff);
    return s;
}

void AddV0Field(ProtobufValueSet_* set, const std::string& path, uint32_t wire, const std::string& bytes) {
    ProtobufValueField_& field = set->astFields_[set->dwFieldNum_++];
    std::memcpy(field.szTagPath_, path.c_str(), path.size() + 1);
    field.dwWireType_ = wire;
    field.dwFieldLen_ = static_cast<uint32_t>(bytes.size());
    std::memcpy(field.szFieldBuff_, bytes.data(), bytes.size());
}

void AddV1Entry(ProtobufValueSet_* set, const std::string& entry_bytes, int32_t flag) {
    CompactValueSet& compact = set->stCompactValueSet;
    FieldIndex& entry = compact.astFieldIndexs[compact.iFieldIndexNum++];
    entry.iOffset = compact.iValueBufLen;
    entry.iSize = static_cast<int32_t>(entry_bytes.size());
    entry.iFlag = flag;
    std::memcpy(compact.szValueBuf + compact.iValueBufLen, entry_bytes.data(), entry_bytes.size());
    compact.iValueBufLen += entry.iSize;
}

std::vector<char> PackOrDie(const ProtobufValueSet_& set) {
    std::vector<char> buf(set.packedSize());
    size_t used = 0;
    EXPECT_EQ(0, set.pack(buf.data(), buf.size(), &used));
    EXPECT_EQ(buf.size(), used);
    return buf;
}

void ExpectEmpty(const ProtobufValueSet_& set) {
    EXPECT_EQ(0, set.iVersion_);
    EXPECT_EQ(0u, set.dwFieldNum_);
    EXPECT_EQ(0, set.iEncodeType);
    EXPECT_EQ(0, set.stCompactValueSet.iFieldIndexNum);
    EXPECT_EQ(0, set.stCompactValueSet.iValueBufLen);
}

void ExpectSameInUse(const ProtobufValueSet_& a, const ProtobufValueSet_& b) {
    EXPECT_EQ(a.iVersion_, b.iVersion_);
    EXPECT_EQ(a.iEncodeType, b.iEncodeType);
    ASSERT_EQ(a.dwFieldNum_, b.dwFieldNum_);
    for (uint32_t i = 0; i < a.dwFieldNum_; ++i) {
        SCOPED_TRACE(i);
        EXPECT_STREQ(a.astFields_[i].szTagPath_, b.astFields_[i].szTagPath_);
        EXPECT_EQ(a.astFields_[i].dwWireType_, b.astFields_[i].dwWireType_);
        ASSERT_EQ(a.astFields_[i].dwFieldLen_, b.astFields_[i].dwFieldLen_);
        EXPECT_EQ(0, std::memcmp(a.astFields_[i].szFieldBuff_, b.astFields_[i].szFieldBuff_,
                                 a.astFields_[i].dwFieldLen_));
    }
    const CompactValueSet& ca = a.stCompactValueSet;
    const CompactValueSet& cb = b.stCompactValueSet;
    ASSERT_EQ(ca.iFieldIndexNum, cb.iFieldIndexNum);
    for (int32_t i = 0; i < ca.iFieldIndexNum; ++i) {
        EXPECT_EQ(ca.astFieldIndexs[i].iOffset, cb.astFieldIndexs[i].iOffset);
        EXPECT_EQ(ca.astFieldIndexs[i].iSize, cb.astFieldIndexs[i].iSize);
        EXPECT_EQ(ca.astFieldIndexs[i].iFlag, cb.astFieldIndexs[i].iFlag);
    }
    ASSERT_EQ(ca.iValueBufLen, cb.iValueBufLen);
    EXPECT_EQ(0, std::memcmp(ca.szValueBuf, cb.szValueBuf, static_cast<size_t>(ca.iValueBufLen)));
}

// A set with both sections in use.
std::unique_ptr<ProtobufValueSet_> SampleSet() {
    auto set = NewValueSet();
    set->iVersion_ = 1;
    set->iEncodeType = 7;
    AddV0Field(set.get(), "1", 0, std::string("\x08\x96\x01", 3));
    AddV0Field(set.get(), "2.5", 2, "");
    AddV0Field(set.get(), "3.4.5", 0xffffffffu, Pattern(300, 1));
    AddV1Entry(set.get(), std::string("1.2\0\x08\x01", 6), 0);
    AddV1Entry(set.get(), std::string("7\0", 2), -1);
    return set;
}

// ---------------------------------------------------------------------------
// construct()

TEST(RecordsConstruct, ValueSetIsEmptyAndArraysAreUntouched) {
    std::unique_ptr<ProtobufValueSet_> set(new ProtobufValueSet_);
    set->iVersion_ = 5;
    set->dwFieldNum_ = 77;
    set->iEncodeType = 3;
    set->stCompactValueSet.iFieldIndexNum = 12;
    set->stCompactValueSet.iValueBufLen = 999;
    // Markers in the arrays: an O(1) construct() leaves them alone.
    set->astFields_[0].szFieldBuff_[0] = 'm';
    set->astFields_[127].szTagPath_[0] = 'p';
    set->stCompactValueSet.astFieldIndexs[3].iOffset = 42;
    set->stCompactValueSet.szValueBuf[CORVIDA_PROTOBUF_MAX_VALUE_BUF - 1] = 'z';

    set->construct();

    ExpectEmpty(*set);
    EXPECT_EQ('m', set->astFields_[0].szFieldBuff_[0]);
    EXPECT_EQ('p', set->astFields_[127].szTagPath_[0]);
    EXPECT_EQ(42, set->stCompactValueSet.astFieldIndexs[3].iOffset);
    EXPECT_EQ('z', set->stCompactValueSet.szValueBuf[CORVIDA_PROTOBUF_MAX_VALUE_BUF - 1]);
}

TEST(RecordsConstruct, FieldIsEmptyAndBufferIsUntouched) {
    auto set = NewValueSet();
    ProtobufValueField_& field = set->astFields_[0];
    std::memcpy(field.szTagPath_, "1.2", 4);
    field.dwWireType_ = 2;
    field.dwFieldLen_ = 10;
    field.szFieldBuff_[0] = 'x';

    field.construct();

    EXPECT_STREQ("", field.szTagPath_);
    EXPECT_EQ(0u, field.dwWireType_);
    EXPECT_EQ(0u, field.dwFieldLen_);
    EXPECT_EQ('x', field.szFieldBuff_[0]);
}

TEST(RecordsConstruct, IndexAndCompactSetAreEmpty) {
    auto set = NewValueSet();
    CompactValueSet& compact = set->stCompactValueSet;
    compact.iFieldIndexNum = 4;
    compact.iValueBufLen = 100;
    compact.szValueBuf[0] = 'v';
    compact.astFieldIndexs[0] = FieldIndex{1, 2, 3};

    compact.astFieldIndexs[0].construct();
    EXPECT_EQ(0, compact.astFieldIndexs[0].iOffset);
    EXPECT_EQ(0, compact.astFieldIndexs[0].iSize);
    EXPECT_EQ(0, compact.astFieldIndexs[0].iFlag);

    compact.astFieldIndexs[1] = FieldIndex{4, 5, 6};
    compact.construct();
    EXPECT_EQ(0, compact.iFieldIndexNum);
    EXPECT_EQ(0, compact.iValueBufLen);
    EXPECT_EQ('v', compact.szValueBuf[0]);
    EXPECT_EQ(4, compact.astFieldIndexs[1].iOffset);
}

// ---------------------------------------------------------------------------
// packedSize() and pack()

TEST(RecordsPack, EmptySetIsTwentyBytes) {
    auto set = NewValueSet();
    EXPECT_EQ(20u, set->packedSize());
    const std::vector<char> packed = PackOrDie(*set);
    EXPECT_EQ(Packed().I32(0).U32(0).I32(0).EmptyCompact().bytes(), packed);
}

TEST(RecordsPack, WritesDocumentedBigEndianFormat) {
    auto set = NewValueSet();
    set->iVersion_ = 1;
    set->iEncodeType = 0x01020304;
    AddV0Field(set.get(), "2.5", 2, std::string("\x2a\x01\x41", 3));
    AddV1Entry(set.get(), std::string("1\0\x08\x01", 4), 0);

    const std::vector<char> expected = Packed()
                                           .I32(1)
                                           .U32(1)
                                           .Field("2.5", 2, std::string("\x2a\x01\x41", 3))
                                           .I32(0x01020304)
                                           .I32(1)
                                           .I32(0)
                                           .I32(4)
                                           .I32(0)
                                           .I32(4)
                                           .Bytes(std::string("1\0\x08\x01", 4))
                                           .bytes();
    EXPECT_EQ(expected.size(), set->packedSize());
    EXPECT_EQ(expected, PackOrDie(*set));
}

TEST(RecordsPack, PackedSizeCountsOnlyEntriesInUse) {
    auto set = SampleSet();
    const size_t v0 = (12 + 1 + 3) + (12 + 3 + 0) + (12 + 5 + 300);
    const size_t compact = 4 + 2 * 12 + 4 + 8;
    EXPECT_EQ(12 + v0 + compact, set->packedSize());
}

TEST(RecordsPack, NullArgumentsFail) {
    auto set = SampleSet();
    char buf[16];
    size_t used = 5;
    EXPECT_EQ(-1, set->pack(nullptr, 100, &used));
    EXPECT_EQ(-1, set->pack(buf, sizeof(buf), nullptr));
    EXPECT_EQ(5u, used);
}

TEST(RecordsPack, TooSmallBufferFailsAndWritesNothing) {
    auto set = SampleSet();
    const size_t needed = set->packedSize();
    std::vector<char> buf(needed, '#');
    for (size_t size = 0; size < needed; ++size) {
        size_t used = 12345;
        ASSERT_EQ(-2, set->pack(buf.data(), size, &used)) << size;
        EXPECT_EQ(12345u, used);
    }
    EXPECT_EQ(std::vector<char>(needed, '#'), buf);
    size_t used = 0;
    EXPECT_EQ(0, set->pack(buf.data(), needed, &used));
    EXPECT_EQ(needed, used);
}

TEST(RecordsPack, InconsistentSetsAreRefused) {
    struct Case {
        const char* name;
        void (*spoil)(ProtobufValueSet_*);
    };
    const Case cases[] = {
        {"too many v0 fields", [](ProtobufValueSet_* s) { s->dwFieldNum_ = 129; }},
        {"unterminated tag path",
         [](ProtobufValueSet_* s) { std::memset(s->astFields_[1].szTagPath_, '1', CORVIDA_PROTOBUF_MAX_TAG_PATH); }},
        {"field length past its buffer",
         [](ProtobufValueSet_* s) { s->astFields_[0].dwFieldLen_ = CORVIDA_PROTOBUF_MAX_FIELD_BUFF + 1; }},
        {"negative index count", [](ProtobufValueSet_* s) { s->stCompactValueSet.iFieldIndexNum = -1; }},
        {"too many index entries", [](ProtobufValueSet_* s) { s->stCompactValueSet.iFieldIndexNum = 257; }},
        {"negative value length", [](ProtobufValueSet_* s) { s->stCompactValueSet.iValueBufLen = -1; }},
        {"value length past its buffer",
         [](ProtobufValueSet_* s) { s->stCompactValueSet.iValueBufLen = CORVIDA_PROTOBUF_MAX_VALUE_BUF + 1; }},
        {"entry past the used bytes", [](ProtobufValueSet_* s) { s->stCompactValueSet.astFieldIndexs[1].iSize = 3; }},
        {"negative offset", [](ProtobufValueSet_* s) { s->stCompactValueSet.astFieldIndexs[0].iOffset = -1; }},
        {"negative size", [](ProtobufValueSet_* s) { s->stCompactValueSet.astFieldIndexs[0].iSize = -1; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto set = SampleSet();
        c.spoil(set.get());
        EXPECT_EQ(0u, set->packedSize());
        std::vector<char> buf(4096);
        size_t used = 0;
        EXPECT_EQ(-3, set->pack(buf.data(), buf.size(), &used));
    }
}

// ---------------------------------------------------------------------------
// pack() -> unpack()

TEST(RecordsRoundTrip, Version0Layout) {
    auto set = NewValueSet();
    for (int i = 0; i < CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0; ++i) {
        AddV0Field(set.get(), std::to_string(i + 1) + ".1", static_cast<uint32_t>(i % 6),
                   Pattern(static_cast<size_t>(i * 3), static_cast<unsigned>(i)));
    }
    // The longest tag path and the largest field fit too.
    const std::string largest = Pattern(CORVIDA_PROTOBUF_MAX_FIELD_BUFF, 5);
    std::memcpy(set->astFields_[5].szFieldBuff_, largest.data(), largest.size());
    set->astFields_[5].dwFieldLen_ = CORVIDA_PROTOBUF_MAX_FIELD_BUFF;
    std::memset(set->astFields_[6].szTagPath_, '9', CORVIDA_PROTOBUF_MAX_TAG_PATH - 1);
    set->astFields_[6].szTagPath_[CORVIDA_PROTOBUF_MAX_TAG_PATH - 1] = '\0';

    const std::vector<char> packed = PackOrDie(*set);
    auto back = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, UnpackCopy(back.get(), packed, &used));
    EXPECT_EQ(packed.size(), used);
    ExpectSameInUse(*set, *back);
}

TEST(RecordsRoundTrip, Version1Layout) {
    auto set = NewValueSet();
    set->iVersion_ = 1;
    for (int i = 0; i < CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM; ++i) {
        AddV1Entry(set.get(), std::to_string(i) + std::string(1, '\0') + Pattern(static_cast<size_t>(i), 3), i % 6);
    }
    const std::vector<char> packed = PackOrDie(*set);
    auto back = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, UnpackCopy(back.get(), packed, &used));
    EXPECT_EQ(packed.size(), used);
    ExpectSameInUse(*set, *back);
}

TEST(RecordsRoundTrip, FullValueBuffer) {
    auto set = NewValueSet();
    set->iVersion_ = 1;
    AddV1Entry(set.get(), std::string("1\0", 2) + Pattern(CORVIDA_PROTOBUF_MAX_VALUE_BUF - 2, 9), 2);
    ASSERT_EQ(CORVIDA_PROTOBUF_MAX_VALUE_BUF, set->stCompactValueSet.iValueBufLen);
    const std::vector<char> packed = PackOrDie(*set);
    auto back = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, back->unpack(packed.data(), packed.size(), &used));
    ExpectSameInUse(*set, *back);
}

TEST(RecordsRoundTrip, BothSectionsAndNegativeFlags) {
    auto set = SampleSet();
    const std::vector<char> packed = PackOrDie(*set);
    auto back = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, UnpackCopy(back.get(), packed, &used));
    ExpectSameInUse(*set, *back);
    EXPECT_EQ(-1, back->stCompactValueSet.astFieldIndexs[1].iFlag);
    EXPECT_EQ(0xffffffffu, back->astFields_[2].dwWireType_);
}

TEST(RecordsRoundTrip, EmptyTagPathAndEmptyEntry) {
    auto set = NewValueSet();
    AddV0Field(set.get(), "", 0, "");
    AddV1Entry(set.get(), "", 0);  // an entry of size 0 at offset 0 lies inside an empty buffer
    const std::vector<char> packed = PackOrDie(*set);
    auto back = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, UnpackCopy(back.get(), packed, &used));
    ExpectSameInUse(*set, *back);
}

// ---------------------------------------------------------------------------
// unpack() of bad input

TEST(RecordsUnpack, NullArgumentsFailAndLeaveSetEmpty) {
    const std::vector<char> packed = PackOrDie(*SampleSet());
    auto set = SampleSet();
    size_t used = 77;
    EXPECT_EQ(-1, set->unpack(nullptr, packed.size(), &used));
    ExpectEmpty(*set);
    set = SampleSet();
    EXPECT_EQ(-1, set->unpack(packed.data(), packed.size(), nullptr));
    ExpectEmpty(*set);
    EXPECT_EQ(77u, used);
}

TEST(RecordsUnpack, TruncatedInputFailsAtEveryLength) {
    const std::vector<char> packed = PackOrDie(*SampleSet());
    auto set = NewValueSet();
    for (size_t len = 0; len < packed.size(); ++len) {
        const std::vector<char> prefix(packed.begin(), packed.begin() + static_cast<std::ptrdiff_t>(len));
        AddV0Field(set.get(), "9", 0, "x");  // something for the failure to clear
        size_t used = 12345;
        ASSERT_EQ(-2, UnpackCopy(set.get(), prefix, &used)) << "length " << len;
        EXPECT_EQ(12345u, used);
        ExpectEmpty(*set);
    }
}

TEST(RecordsUnpack, TrailingBytesAreLeftAlone) {
    std::vector<char> packed = PackOrDie(*SampleSet());
    const size_t size = packed.size();
    packed.push_back('\x01');
    packed.push_back('\x02');
    auto set = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, UnpackCopy(set.get(), packed, &used));
    EXPECT_EQ(size, used);
    ExpectSameInUse(*SampleSet(), *set);
}

TEST(RecordsUnpack, CountsPastTheArraysAreRefused) {
    struct Case {
        const char* name;
        std::vector<char> input;
    };
    const Case cases[] = {
        {"129 fields", Packed().I32(0).U32(129).bytes()},
        {"tag path of 1024 bytes", Packed().I32(0).U32(1).U32(1024).Bytes(std::string(1024, '1')).bytes()},
        {"field of 262145 bytes", Packed().I32(0).U32(1).U32(1).Bytes("1").U32(0).U32(262145).bytes()},
        {"negative index count", Packed().I32(0).U32(0).I32(0).I32(-1).bytes()},
        {"257 index entries", Packed().I32(0).U32(0).I32(0).I32(257).bytes()},
        {"negative value length", Packed().I32(0).U32(0).I32(0).I32(0).I32(-1).bytes()},
        {"value length past the buffer", Packed().I32(0).U32(0).I32(0).I32(0).I32(10200001).bytes()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto set = SampleSet();
        size_t used = 9;
        EXPECT_EQ(-3, UnpackCopy(set.get(), c.input, &used));
        EXPECT_EQ(9u, used);
        ExpectEmpty(*set);
    }
}

TEST(RecordsUnpack, EntriesOutsideTheValueBufferAreRefused) {
    struct Case {
        const char* name;
        int32_t offset;
        int32_t size;
    };
    const Case cases[] = {
        {"ends past the used bytes", 2, 3},
        {"starts past the used bytes", 5, 0},
        {"negative offset", -1, 2},
        {"negative size", 1, -1},
        {"overflowing sum", INT32_MAX, INT32_MAX},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<char> input = Packed()
                                            .I32(1)
                                            .U32(0)
                                            .I32(0)
                                            .I32(1)
                                            .I32(c.offset)
                                            .I32(c.size)
                                            .I32(0)
                                            .I32(4)
                                            .Bytes(std::string("1\0ab", 4))
                                            .bytes();
        auto set = SampleSet();
        size_t used = 0;
        EXPECT_EQ(-4, UnpackCopy(set.get(), input, &used));
        ExpectEmpty(*set);
    }
}

TEST(RecordsUnpack, EntryEndingAtTheUsedBytesIsAccepted) {
    const std::vector<char> input =
        Packed().I32(1).U32(0).I32(0).I32(1).I32(1).I32(3).I32(0).I32(4).Bytes(std::string("1\0ab", 4)).bytes();
    auto set = NewValueSet();
    size_t used = 0;
    ASSERT_EQ(0, UnpackCopy(set.get(), input, &used));
    EXPECT_EQ(input.size(), used);
    EXPECT_EQ(1, set->stCompactValueSet.astFieldIndexs[0].iOffset);
}

TEST(RecordsUnpack, TagPathWithNulIsRefused) {
    const std::vector<char> input =
        Packed().I32(0).U32(1).Field(std::string("1\0.2", 4), 0, "x").I32(0).EmptyCompact().bytes();
    auto set = SampleSet();
    size_t used = 0;
    EXPECT_EQ(-4, UnpackCopy(set.get(), input, &used));
    ExpectEmpty(*set);
}

TEST(RecordsUnpack, FailureAfterGoodFieldsLeavesSetEmpty) {
    // Two good fields, then an index entry that points nowhere.
    const std::vector<char> input = Packed()
                                        .I32(1)
                                        .U32(2)
                                        .Field("1", 0, "a")
                                        .Field("2", 0, "b")
                                        .I32(0)
                                        .I32(1)
                                        .I32(0)
                                        .I32(9)
                                        .I32(0)
                                        .I32(0)
                                        .bytes();
    auto set = NewValueSet();
    size_t used = 0;
    EXPECT_EQ(-4, UnpackCopy(set.get(), input, &used));
    ExpectEmpty(*set);
}

// ---------------------------------------------------------------------------
// visualize()

TEST(RecordsVisualize, DumpsEntriesInUse) {
    auto set = NewValueSet();
    set->iVersion_ = 1;
    AddV0Field(set.get(), "2.5", 2, std::string("\x2a\x01\x41", 3));
    AddV0Field(set.get(), "3", 0, "");
    AddV1Entry(set.get(), std::string("1.2\0\x08\x01", 6), 0);
    std::string out = "prefix\n";
    set->visualize(out);
    EXPECT_EQ(
        "prefix\n"
        "ProtobufValueSet_ version:1 encode:0\n"
        "fields:2\n"
        "  [0] path:2.5 wire:2 len:3 data:2a0141\n"
        "  [1] path:3 wire:0 len:0 data:\n"
        "compact: index_num:1 value_buf_len:6\n"
        "  [0] offset:0 size:6 flag:0 data:312e32000801\n",
        out);
}

TEST(RecordsVisualize, AbbreviatesLongFields) {
    auto set = NewValueSet();
    AddV0Field(set.get(), "1", 2, std::string(100, '\x11'));
    std::string out;
    set->visualize(out);
    EXPECT_NE(std::string::npos, out.find("len:100 data:" + std::string(128, '1') + "...(36 more)\n")) << out;
}

TEST(RecordsVisualize, ShowsLongPathsWhole) {
    auto set = NewValueSet();
    std::string path = "1";
    while (path.size() < 1000) path += ".1";
    AddV0Field(set.get(), path, 2, "x");
    std::string out;
    set->visualize(out);
    EXPECT_NE(std::string::npos, out.find("  [0] path:" + path + " wire:2 len:1 data:78\n")) << out;

    // A path that fills its array without a terminator is shown up to the
    // array's end and flagged.
    std::memset(set->astFields_[0].szTagPath_, '7', CORVIDA_PROTOBUF_MAX_TAG_PATH);
    out.clear();
    set->visualize(out);
    EXPECT_NE(std::string::npos,
              out.find("path:" + std::string(CORVIDA_PROTOBUF_MAX_TAG_PATH, '7') + "(unterminated) wire:2 len:1"))
        << out;
}

TEST(RecordsVisualize, FlagsInconsistentSetsWithoutReadingPastThem) {
    auto set = NewValueSet();
    set->dwFieldNum_ = 200;
    set->stCompactValueSet.iFieldIndexNum = 1;
    set->stCompactValueSet.astFieldIndexs[0] = FieldIndex{0, 50, 0};
    set->stCompactValueSet.iValueBufLen = 10;
    for (int i = 0; i < CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0; ++i) set->astFields_[i].construct();
    set->astFields_[1].dwFieldLen_ = CORVIDA_PROTOBUF_MAX_FIELD_BUFF + 1;
    std::string out;
    set->visualize(out);
    EXPECT_NE(std::string::npos, out.find("fields:200 (exceeds 128)\n")) << out;
    EXPECT_NE(std::string::npos, out.find("  [127] path: wire:0 len:0 data:\n")) << out;
    EXPECT_EQ(std::string::npos, out.find("[128]")) << out;
    EXPECT_NE(std::string::npos, out.find("len:262145 (exceeds 262144)\n")) << out;
    EXPECT_NE(std::string::npos, out.find("  [0] offset:0 size:50 flag:0 (outside the value buffer)\n")) << out;

    set->stCompactValueSet.iFieldIndexNum = -3;
    set->stCompactValueSet.iValueBufLen = -1;
    out.clear();
    set->visualize(out);
    EXPECT_NE(std::string::npos, out.find("compact: index_num:-3 (out of range) value_buf_len:-1 (out of range)\n"))
        << out;
}

}  // namespace
