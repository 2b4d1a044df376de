// Conversion of typed query-result fields into generic values.
#include <new>

#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_log.h"

namespace PROTOBUF_UTIL {
namespace {

using NS_CORVIDA_PROTOBUF_API::GenericValue;

// Size of tagtbl_idl::szValue, through which string values pass.
constexpr int32_t kStringBufferSize = static_cast<int32_t>(sizeof(tagtbl_idl::szValue));

// Result when the string value cannot be copied for lack of memory.
constexpr int kOutOfMemory = -3;

}  // namespace

// Every value is read into a zero-initialised local by the getter of its type
// and stored (with its type) only when the getter succeeds. The trace line of
// each case is written from this function so that it carries its name.
int FieldValue2GenericValue(tagtbl_idl* idl, CorvidaService::Field* field, GenericValue& gValue,
                            LPPLOGCATEGORYINST log) {
    if (field == nullptr || idl == nullptr || log == nullptr) return -1;

    gValue.m_type = GenericValue::TYPE_INVALID;
    int ret = 0;
    const CorvidaService::FieldTypeEnum type = field->FieldType();
    switch (type) {
#define CORVIDA_CONVERT_CASE(TYPE, CTYPE, GETTER, MEMBER, FORMAT, TRACED) \
    case CorvidaService::TYPE: {                                         \
        CTYPE value{};                                                   \
        ret = field->GETTER(value);                                      \
        if (ret == 0) {                                                  \
            gValue.m_type = GenericValue::TYPE;                          \
            gValue.MEMBER = value;                                       \
            PBU_LOG_TRACE(log, FORMAT, TRACED);                          \
        }                                                                \
        break;                                                           \
    }
        CORVIDA_CONVERT_CASE(TYPE_BOOL, bool, GetBool, m_bool_, "m_bool_: %d", gValue.m_bool_)
        CORVIDA_CONVERT_CASE(TYPE_INT8, int8_t, GetInt8, m_int8_, "m_int8_: %d", gValue.m_int8_)
        CORVIDA_CONVERT_CASE(TYPE_UINT8, uint8_t, GetUInt8, m_uint8_, "m_uint8_: %u", gValue.m_uint8_)
        CORVIDA_CONVERT_CASE(TYPE_INT16, int16_t, GetInt16, m_int16_, "m_int16_: %d", gValue.m_int16_)
        CORVIDA_CONVERT_CASE(TYPE_UINT16, uint16_t, GetUInt16, m_uint16_, "m_uint16_: %u", gValue.m_uint16_)
        CORVIDA_CONVERT_CASE(TYPE_INT32, int32_t, GetInt32, m_int32_, "m_int32_: %d", gValue.m_int32_)
        // "%d" on purpose: values above INT32_MAX are traced as negative numbers.
        CORVIDA_CONVERT_CASE(TYPE_UINT32, uint32_t, GetUInt32, m_uint32_, "m_uint32_: %d",
                             static_cast<int>(gValue.m_uint32_))
        CORVIDA_CONVERT_CASE(TYPE_INT64, int64_t, GetInt64, m_int64_, "m_int64_: %ld", gValue.m_int64_)
        CORVIDA_CONVERT_CASE(TYPE_UINT64, uint64_t, GetUInt64, m_uint64_, "m_uint64_: %lu", gValue.m_uint64_)
        CORVIDA_CONVERT_CASE(TYPE_FLOAT, float, GetFloat, m_float_, "m_float_: %f",
                             static_cast<double>(gValue.m_float_))
        CORVIDA_CONVERT_CASE(TYPE_DOUBLE, double, GetDouble, m_double_, "m_double_: %f", gValue.m_double_)
#undef CORVIDA_CONVERT_CASE
        case CorvidaService::TYPE_STRING: {
            char* text = reinterpret_cast<char*>(idl->szValue);
            text[kStringBufferSize - 1] = '\0';
            ret = field->GetString(text, kStringBufferSize);
            if (ret != 0) break;
            // The whole buffer is kept, not just the text: readers take the
            // value up to its first NUL.
            try {
                gValue.m_string_.assign(text, kStringBufferSize);
            } catch (const std::bad_alloc&) {
                ret = kOutOfMemory;
                break;
            }
            gValue.m_type = GenericValue::TYPE_STRING;
            PBU_LOG_TRACE(log, "m_string_: %s", gValue.m_string_.c_str());
            break;
        }
        default:
            PBU_LOG_ERROR(log, "not supported type:%d", static_cast<int>(type));
            ret = -2;
            break;
    }
    PBU_LOG_TRACE(log, "ret: %d", ret);
    return ret;
}

}  // namespace PROTOBUF_UTIL
