// Conversion of typed query-result fields into generic values.
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "protobuf_api/protobuf_util.h"
#include "support/log_capture.h"
#include "support/records.h"

namespace {

using corvida_test::LogCapture;
using CorvidaService::Field;
using NS_CORVIDA_PROTOBUF_API::GenericValue;
using PROTOBUF_UTIL::FieldValue2GenericValue;

constexpr int kStringBufferSize = 10000000;

class FieldValue2GenericValueTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { s_idl = corvida_test::NewIdl().release(); }
    static void TearDownTestSuite() {
        delete s_idl;
        s_idl = nullptr;
    }

    int Convert(Field& field) { return FieldValue2GenericValue(s_idl, &field, value_, log_.category()); }

    // The only lines expected after a successful conversion: the value's trace
    // line and the result.
    void ExpectTraced(const std::string& text) {
        EXPECT_EQ(log_.lines().size(), 2u) << log_.Dump();
        EXPECT_TRUE(log_.Has(PLOG_PRIORITY_TRACE, text)) << log_.Dump();
        EXPECT_TRUE(log_.Has(PLOG_PRIORITY_TRACE, "ret: 0")) << log_.Dump();
    }

    static tagtbl_idl* s_idl;
    GenericValue value_;
    LogCapture log_;
};

tagtbl_idl* FieldValue2GenericValueTest::s_idl = nullptr;

TEST_F(FieldValue2GenericValueTest, Bool) {
    Field field;
    field.SetBool(true);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_BOOL);
    EXPECT_TRUE(value_.m_bool_);
    ExpectTraced("m_bool_: 1");
}

TEST_F(FieldValue2GenericValueTest, Int8Minimum) {
    Field field;
    field.SetInt8(std::numeric_limits<int8_t>::min());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INT8);
    EXPECT_EQ(value_.m_int8_, -128);
    ExpectTraced("m_int8_: -128");
}

TEST_F(FieldValue2GenericValueTest, Int8Maximum) {
    Field field;
    field.SetInt8(std::numeric_limits<int8_t>::max());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_int8_, 127);
    ExpectTraced("m_int8_: 127");
}

TEST_F(FieldValue2GenericValueTest, UInt8Maximum) {
    Field field;
    field.SetUInt8(255);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_UINT8);
    EXPECT_EQ(value_.m_uint8_, 255);
    ExpectTraced("m_uint8_: 255");
}

TEST_F(FieldValue2GenericValueTest, UInt8Minimum) {
    Field field;
    field.SetUInt8(0);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_uint8_, 0);
    ExpectTraced("m_uint8_: 0");
}

TEST_F(FieldValue2GenericValueTest, Int16Bounds) {
    Field field;
    field.SetInt16(std::numeric_limits<int16_t>::min());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INT16);
    EXPECT_EQ(value_.m_int16_, -32768);
    ExpectTraced("m_int16_: -32768");
    log_.Clear();
    field.SetInt16(std::numeric_limits<int16_t>::max());
    EXPECT_EQ(Convert(field), 0);
    ExpectTraced("m_int16_: 32767");
}

TEST_F(FieldValue2GenericValueTest, UInt16Bounds) {
    Field field;
    field.SetUInt16(65535);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_UINT16);
    EXPECT_EQ(value_.m_uint16_, 65535);
    ExpectTraced("m_uint16_: 65535");
    log_.Clear();
    field.SetUInt16(0);
    EXPECT_EQ(Convert(field), 0);
    ExpectTraced("m_uint16_: 0");
}

TEST_F(FieldValue2GenericValueTest, Int32Bounds) {
    Field field;
    field.SetInt32(std::numeric_limits<int32_t>::min());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INT32);
    EXPECT_EQ(value_.m_int32_, std::numeric_limits<int32_t>::min());
    ExpectTraced("m_int32_: -2147483648");
    log_.Clear();
    field.SetInt32(std::numeric_limits<int32_t>::max());
    EXPECT_EQ(Convert(field), 0);
    ExpectTraced("m_int32_: 2147483647");
}

TEST_F(FieldValue2GenericValueTest, UInt32MaximumIsTracedAsMinusOne) {
    Field field;
    field.SetUInt32(4294967295u);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_UINT32);
    EXPECT_EQ(value_.m_uint32_, 4294967295u);
    ExpectTraced("m_uint32_: -1");
}

TEST_F(FieldValue2GenericValueTest, UInt32Minimum) {
    Field field;
    field.SetUInt32(0);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_uint32_, 0u);
    ExpectTraced("m_uint32_: 0");
}

TEST_F(FieldValue2GenericValueTest, Int64Bounds) {
    Field field;
    field.SetInt64(std::numeric_limits<int64_t>::min());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INT64);
    EXPECT_EQ(value_.m_int64_, std::numeric_limits<int64_t>::min());
    ExpectTraced("m_int64_: -9223372036854775808");
    log_.Clear();
    field.SetInt64(std::numeric_limits<int64_t>::max());
    EXPECT_EQ(Convert(field), 0);
    ExpectTraced("m_int64_: 9223372036854775807");
}

TEST_F(FieldValue2GenericValueTest, UInt64Bounds) {
    Field field;
    field.SetUInt64(std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_UINT64);
    EXPECT_EQ(value_.m_uint64_, std::numeric_limits<uint64_t>::max());
    ExpectTraced("m_uint64_: 18446744073709551615");
    log_.Clear();
    field.SetUInt64(0);
    EXPECT_EQ(Convert(field), 0);
    ExpectTraced("m_uint64_: 0");
}

TEST_F(FieldValue2GenericValueTest, FloatNegativeZero) {
    Field field;
    field.SetFloat(-0.0f);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_FLOAT);
    EXPECT_EQ(value_.m_float_, 0.0f);
    EXPECT_TRUE(std::signbit(value_.m_float_));
    ExpectTraced("m_float_: -0.000000");
}

TEST_F(FieldValue2GenericValueTest, FloatInfinityAndExtremes) {
    Field field;
    field.SetFloat(std::numeric_limits<float>::infinity());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_TRUE(std::isinf(value_.m_float_));
    ExpectTraced("m_float_: inf");
    log_.Clear();
    field.SetFloat(std::numeric_limits<float>::lowest());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_float_, std::numeric_limits<float>::lowest());
    log_.Clear();
    field.SetFloat(1.5f);
    EXPECT_EQ(Convert(field), 0);
    ExpectTraced("m_float_: 1.500000");
}

TEST_F(FieldValue2GenericValueTest, DoubleNegativeZeroAndInfinity) {
    Field field;
    field.SetDouble(-0.0);
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_DOUBLE);
    EXPECT_TRUE(std::signbit(value_.m_double_));
    ExpectTraced("m_double_: -0.000000");
    log_.Clear();
    field.SetDouble(-std::numeric_limits<double>::infinity());
    EXPECT_EQ(Convert(field), 0);
    EXPECT_TRUE(std::isinf(value_.m_double_));
    ExpectTraced("m_double_: -inf");
}

TEST_F(FieldValue2GenericValueTest, StringKeepsTheWholeBuffer) {
    Field field;
    field.SetString("abc");
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_STRING);
    ASSERT_EQ(value_.m_string_.size(), static_cast<size_t>(kStringBufferSize));
    EXPECT_EQ(std::memcmp(value_.m_string_.data(), "abc\0", 4), 0);
    ExpectTraced("m_string_: abc");
}

TEST_F(FieldValue2GenericValueTest, EmptyString) {
    Field field;
    field.SetString("");
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_STRING);
    ASSERT_EQ(value_.m_string_.size(), static_cast<size_t>(kStringBufferSize));
    EXPECT_EQ(value_.m_string_[0], '\0');
    ExpectTraced("m_string_: ");
}

TEST_F(FieldValue2GenericValueTest, LongestStringThatFits) {
    Field field;
    const std::string longest(kStringBufferSize - 1, 'x');
    field.SetString(longest);
    EXPECT_EQ(Convert(field), 0);
    ASSERT_EQ(value_.m_string_.size(), static_cast<size_t>(kStringBufferSize));
    EXPECT_EQ(value_.m_string_.compare(0, longest.size(), longest), 0);
    EXPECT_EQ(value_.m_string_.back(), '\0');
    EXPECT_TRUE(log_.Has(PLOG_PRIORITY_TRACE, "m_string_: " + longest));
}

TEST_F(FieldValue2GenericValueTest, StringTooLongForTheBufferPassesTheGettersStatus) {
    Field field;
    field.SetString(std::string(kStringBufferSize, 'x'));
    EXPECT_EQ(Convert(field), CorvidaService::FIELD_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INVALID);
    EXPECT_TRUE(value_.m_string_.empty());
}

// Records what the getter is handed.
class ProbingField : public Field {
public:
    CorvidaService::FieldTypeEnum FieldType() override { return CorvidaService::TYPE_STRING; }
    int32_t GetString(char* buf, int32_t buflen) override {
        seen_len = buflen;
        seen_last = buf[buflen - 1];
        std::strcpy(buf, "probe");
        return 0;
    }
    int32_t seen_len = 0;
    char seen_last = 'x';
};

TEST_F(FieldValue2GenericValueTest, StringGetterGetsTheWholeBufferWithItsLastByteCleared) {
    s_idl->szValue[kStringBufferSize - 1] = 'z';
    std::memcpy(s_idl->szValue, "0123456789", 10);
    ProbingField field;
    EXPECT_EQ(Convert(field), 0);
    EXPECT_EQ(field.seen_len, kStringBufferSize);
    EXPECT_EQ(field.seen_last, '\0');
    // Bytes after the text's NUL are whatever the buffer held.
    EXPECT_EQ(value_.m_string_.substr(0, 10), std::string("probe\0" "6789", 10));
}

// A getter that fails with status 5 for every type and checks that it is
// handed a zero-initialised variable.
class FailingField : public Field {
public:
    explicit FailingField(CorvidaService::FieldTypeEnum type) : type_(type) {}
    CorvidaService::FieldTypeEnum FieldType() override { return type_; }
    int32_t GetBool(bool& v) override { return Fail(v); }
    int32_t GetInt8(int8_t& v) override { return Fail(v); }
    int32_t GetUInt8(uint8_t& v) override { return Fail(v); }
    int32_t GetInt16(int16_t& v) override { return Fail(v); }
    int32_t GetUInt16(uint16_t& v) override { return Fail(v); }
    int32_t GetInt32(int32_t& v) override { return Fail(v); }
    int32_t GetUInt32(uint32_t& v) override { return Fail(v); }
    int32_t GetInt64(int64_t& v) override { return Fail(v); }
    int32_t GetUInt64(uint64_t& v) override { return Fail(v); }
    int32_t GetFloat(float& v) override { return Fail(v); }
    int32_t GetDouble(double& v) override { return Fail(v); }
    int32_t GetString(char*, int32_t) override {
        ++calls;
        return 5;
    }

    int calls = 0;
    bool saw_zero = true;

private:
    template <typename T>
    int32_t Fail(T& v) {
        ++calls;
        saw_zero = saw_zero && v == T{};
        v = static_cast<T>(1);  // a partial write must not reach the generic value
        return 5;
    }
    CorvidaService::FieldTypeEnum type_;
};

class FailingGetterTest : public FieldValue2GenericValueTest,
                          public ::testing::WithParamInterface<CorvidaService::FieldTypeEnum> {};

TEST_P(FailingGetterTest, PassesTheStatusThroughAndStoresNothing) {
    FailingField field(GetParam());
    value_.m_uint64_ = 0x0123456789abcdefULL;
    value_.m_string_ = "kept";
    value_.m_type = GenericValue::TYPE_UINT64;
    EXPECT_EQ(Convert(field), 5);
    EXPECT_EQ(field.calls, 1);
    EXPECT_TRUE(field.saw_zero);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INVALID);
    EXPECT_EQ(value_.m_uint64_, 0x0123456789abcdefULL);
    EXPECT_EQ(value_.m_string_, "kept");
    ASSERT_EQ(log_.lines().size(), 1u) << log_.Dump();
    EXPECT_EQ(log_.lines()[0].priority, PLOG_PRIORITY_TRACE);
    EXPECT_EQ(log_.lines()[0].text, "ret: 5");
}

INSTANTIATE_TEST_SUITE_P(
    EveryType, FailingGetterTest,
    ::testing::Values(CorvidaService::TYPE_BOOL, CorvidaService::TYPE_INT8, CorvidaService::TYPE_UINT8,
                      CorvidaService::TYPE_INT16, CorvidaService::TYPE_UINT16, CorvidaService::TYPE_INT32,
                      CorvidaService::TYPE_UINT32, CorvidaService::TYPE_INT64, CorvidaService::TYPE_UINT64,
                      CorvidaService::TYPE_FLOAT, CorvidaService::TYPE_DOUBLE, CorvidaService::TYPE_STRING));

class UnsupportedTypeTest : public FieldValue2GenericValueTest,
                            public ::testing::WithParamInterface<int> {};

TEST_P(UnsupportedTypeTest, ReturnsMinusTwoAndLogsTheType) {
    FailingField field(static_cast<CorvidaService::FieldTypeEnum>(GetParam()));
    value_.m_type = GenericValue::TYPE_BOOL;
    EXPECT_EQ(Convert(field), -2);
    EXPECT_EQ(field.calls, 0);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_INVALID);
    ASSERT_EQ(log_.lines().size(), 2u) << log_.Dump();
    EXPECT_EQ(log_.lines()[0].priority, PLOG_PRIORITY_ERROR);
    EXPECT_EQ(log_.lines()[0].text, "not supported type:" + std::to_string(GetParam()));
    EXPECT_EQ(log_.lines()[1].priority, PLOG_PRIORITY_TRACE);
    EXPECT_EQ(log_.lines()[1].text, "ret: -2");
    EXPECT_EQ(log_.lines()[0].file, "corvida/src/protobuf_api/protobuf_util");
    EXPECT_EQ(log_.lines()[0].func, "FieldValue2GenericValue");
}

INSTANTIATE_TEST_SUITE_P(InvalidEndAndBeyond, UnsupportedTypeTest, ::testing::Values(0, 13, 14, 99, -1));

TEST_F(FieldValue2GenericValueTest, DefaultFieldIsInvalid) {
    Field field;
    EXPECT_EQ(Convert(field), -2);
    EXPECT_TRUE(log_.Has(PLOG_PRIORITY_ERROR, "not supported type:0"));
}

TEST_F(FieldValue2GenericValueTest, NullArgumentsReturnMinusOneSilently) {
    Field field;
    field.SetBool(true);
    value_.m_type = GenericValue::TYPE_DOUBLE;
    EXPECT_EQ(FieldValue2GenericValue(nullptr, &field, value_, log_.category()), -1);
    EXPECT_EQ(FieldValue2GenericValue(s_idl, nullptr, value_, log_.category()), -1);
    EXPECT_EQ(FieldValue2GenericValue(s_idl, &field, value_, nullptr), -1);
    EXPECT_EQ(value_.m_type, GenericValue::TYPE_DOUBLE);
    EXPECT_TRUE(log_.lines().empty()) << log_.Dump();
}

TEST_F(FieldValue2GenericValueTest, ResultDoesNotDependOnTheLogThreshold) {
    LogCapture quiet(PLOG_PRIORITY_ERROR);
    Field field;
    field.SetInt32(42);
    EXPECT_EQ(FieldValue2GenericValue(s_idl, &field, value_, quiet.category()), 0);
    EXPECT_EQ(value_.m_int32_, 42);
    EXPECT_TRUE(quiet.lines().empty()) << quiet.Dump();
}

TEST_F(FieldValue2GenericValueTest, TraceLinesCarryTheOperationsName) {
    Field field;
    field.SetInt32(7);
    EXPECT_EQ(Convert(field), 0);
    ASSERT_FALSE(log_.lines().empty());
    for (const auto& line : log_.lines()) {
        EXPECT_EQ(line.func, "FieldValue2GenericValue");
        EXPECT_EQ(line.file, "corvida/src/protobuf_api/protobuf_util");
    }
}

}  // namespace
