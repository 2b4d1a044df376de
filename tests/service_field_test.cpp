// CorvidaService::Field, one typed value of a query-result row.
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "common/corvida_service_field.h"

namespace {

using CorvidaService::Field;
using CorvidaService::FIELD_ERR_BUFFER_TOO_SMALL;
using CorvidaService::FIELD_ERR_TYPE_MISMATCH;

TEST(ServiceFieldTest, TypeValuesAreFixed) {
    EXPECT_EQ(0, CorvidaService::TYPE_INVALID);
    EXPECT_EQ(1, CorvidaService::TYPE_BOOL);
    EXPECT_EQ(2, CorvidaService::TYPE_INT8);
    EXPECT_EQ(3, CorvidaService::TYPE_UINT8);
    EXPECT_EQ(4, CorvidaService::TYPE_INT16);
    EXPECT_EQ(5, CorvidaService::TYPE_UINT16);
    EXPECT_EQ(6, CorvidaService::TYPE_INT32);
    EXPECT_EQ(7, CorvidaService::TYPE_UINT32);
    EXPECT_EQ(8, CorvidaService::TYPE_INT64);
    EXPECT_EQ(9, CorvidaService::TYPE_UINT64);
    EXPECT_EQ(10, CorvidaService::TYPE_FLOAT);
    EXPECT_EQ(11, CorvidaService::TYPE_DOUBLE);
    EXPECT_EQ(12, CorvidaService::TYPE_STRING);
    EXPECT_EQ(13, CorvidaService::TYPE_END);
}

TEST(ServiceFieldTest, DefaultFieldIsInvalidAndYieldsNothing) {
    Field field;
    EXPECT_EQ(CorvidaService::TYPE_INVALID, field.FieldType());
    bool b = true;
    int32_t i32 = 7;
    double d = 1.5;
    char buf[8] = "keep";
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetBool(b));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetInt32(i32));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetDouble(d));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetString(buf, sizeof(buf)));
    EXPECT_TRUE(b);
    EXPECT_EQ(7, i32);
    EXPECT_EQ(1.5, d);
    EXPECT_STREQ("keep", buf);
}

// Sets a value with `set`, then checks the type and that `get` returns it.
template <typename T, typename Setter, typename Getter>
void ExpectRoundTrip(CorvidaService::FieldTypeEnum type, T value, Setter set, Getter get) {
    Field field;
    (field.*set)(value);
    EXPECT_EQ(type, field.FieldType());
    T out{};
    EXPECT_EQ(0, (field.*get)(out));
    EXPECT_EQ(value, out);
}

TEST(ServiceFieldTest, EachSetterPairsWithItsGetter) {
    ExpectRoundTrip<bool>(CorvidaService::TYPE_BOOL, true, &Field::SetBool, &Field::GetBool);
    ExpectRoundTrip<int8_t>(CorvidaService::TYPE_INT8, -128, &Field::SetInt8, &Field::GetInt8);
    ExpectRoundTrip<uint8_t>(CorvidaService::TYPE_UINT8, 255, &Field::SetUInt8, &Field::GetUInt8);
    ExpectRoundTrip<int16_t>(CorvidaService::TYPE_INT16, -32768, &Field::SetInt16, &Field::GetInt16);
    ExpectRoundTrip<uint16_t>(CorvidaService::TYPE_UINT16, 65535, &Field::SetUInt16, &Field::GetUInt16);
    ExpectRoundTrip<int32_t>(CorvidaService::TYPE_INT32, std::numeric_limits<int32_t>::min(), &Field::SetInt32,
                             &Field::GetInt32);
    ExpectRoundTrip<uint32_t>(CorvidaService::TYPE_UINT32, 4294967295u, &Field::SetUInt32, &Field::GetUInt32);
    ExpectRoundTrip<int64_t>(CorvidaService::TYPE_INT64, std::numeric_limits<int64_t>::min(), &Field::SetInt64,
                             &Field::GetInt64);
    ExpectRoundTrip<uint64_t>(CorvidaService::TYPE_UINT64, std::numeric_limits<uint64_t>::max(), &Field::SetUInt64,
                              &Field::GetUInt64);
    ExpectRoundTrip<float>(CorvidaService::TYPE_FLOAT, -3.25f, &Field::SetFloat, &Field::GetFloat);
    ExpectRoundTrip<double>(CorvidaService::TYPE_DOUBLE, 6.02214076e23, &Field::SetDouble, &Field::GetDouble);
}

TEST(ServiceFieldTest, StringRoundTrip) {
    Field field;
    field.SetString("abc");
    EXPECT_EQ(CorvidaService::TYPE_STRING, field.FieldType());
    char buf[16];
    std::memset(buf, 'x', sizeof(buf));
    EXPECT_EQ(0, field.GetString(buf, sizeof(buf)));
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ('x', buf[4]);  // nothing beyond the terminating NUL is written
}

TEST(ServiceFieldTest, EmptyStringNeedsOneByte) {
    Field field;
    field.SetString("");
    char buf[1] = {'x'};
    EXPECT_EQ(0, field.GetString(buf, 1));
    EXPECT_EQ('\0', buf[0]);
    EXPECT_EQ(FIELD_ERR_BUFFER_TOO_SMALL, field.GetString(buf, 0));
}

TEST(ServiceFieldTest, StringBufferMustHoldTextAndNul) {
    Field field;
    field.SetString("hello");
    char exact[6];
    EXPECT_EQ(0, field.GetString(exact, 6));
    EXPECT_STREQ("hello", exact);

    char small[6];
    std::memset(small, 'x', sizeof(small));
    EXPECT_EQ(FIELD_ERR_BUFFER_TOO_SMALL, field.GetString(small, 5));
    EXPECT_EQ(std::string(6, 'x'), std::string(small, 6));  // nothing written

    EXPECT_EQ(FIELD_ERR_BUFFER_TOO_SMALL, field.GetString(nullptr, 100));
    EXPECT_EQ(FIELD_ERR_BUFFER_TOO_SMALL, field.GetString(small, -1));
}

TEST(ServiceFieldTest, GetterOfAnotherTypeReportsMismatch) {
    Field field;
    field.SetInt32(42);
    int64_t i64 = 9;
    uint32_t u32 = 9;
    bool b = false;
    float f = 0.5f;
    char buf[8] = "keep";
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetInt64(i64));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetUInt32(u32));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetBool(b));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetFloat(f));
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetString(buf, sizeof(buf)));
    EXPECT_EQ(9, i64);
    EXPECT_EQ(9u, u32);
    EXPECT_FALSE(b);
    EXPECT_EQ(0.5f, f);
    EXPECT_STREQ("keep", buf);

    field.SetString("now text");
    int32_t i32 = 1;
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetInt32(i32));
    EXPECT_EQ(1, i32);
}

TEST(ServiceFieldTest, LaterSetterReplacesTypeAndValue) {
    Field field;
    field.SetUInt8(3);
    field.SetDouble(2.5);
    EXPECT_EQ(CorvidaService::TYPE_DOUBLE, field.FieldType());
    uint8_t u8 = 0;
    EXPECT_EQ(FIELD_ERR_TYPE_MISMATCH, field.GetUInt8(u8));
    double d = 0;
    EXPECT_EQ(0, field.GetDouble(d));
    EXPECT_EQ(2.5, d);
}

// A result decoder's field that supplies its own type and values.
class DecodedField : public Field {
public:
    CorvidaService::FieldTypeEnum FieldType() override { return CorvidaService::TYPE_END; }
    int32_t GetInt32(int32_t& value) override {
        value = 1234;
        return 0;
    }
    int32_t GetString(char*, int32_t) override { return 5; }
};

TEST(ServiceFieldTest, VirtualGettersCanBeOverridden) {
    DecodedField decoded;
    decoded.SetBool(true);
    Field& field = decoded;
    EXPECT_EQ(CorvidaService::TYPE_END, field.FieldType());
    int32_t i32 = 0;
    EXPECT_EQ(0, field.GetInt32(i32));
    EXPECT_EQ(1234, i32);
    char buf[4];
    EXPECT_EQ(5, field.GetString(buf, sizeof(buf)));
    // Getters not overridden keep the base behaviour.
    bool b = false;
    EXPECT_EQ(0, field.GetBool(b));
    EXPECT_TRUE(b);
}

// A type number from a newer service is still a value of the enumeration, so
// code that switches over it stays defined (checked by UBSan in the sanitizer
// job).
TEST(FieldTypeEnumTest, HoldsEveryThirtyTwoBitValue) {
    static_assert(std::is_same<std::underlying_type<CorvidaService::FieldTypeEnum>::type, int32_t>::value,
                  "FieldTypeEnum must hold any int32_t");
    for (const int32_t number :
         {std::numeric_limits<int32_t>::min(), -1, 14, 99, std::numeric_limits<int32_t>::max()}) {
        volatile CorvidaService::FieldTypeEnum type = static_cast<CorvidaService::FieldTypeEnum>(number);
        EXPECT_EQ(number, static_cast<int32_t>(type));
    }
}

}  // namespace
