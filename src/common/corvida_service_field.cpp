#include "common/corvida_service_field.h"

#include <cstring>

namespace CorvidaService {

Field::Field() : m_type(TYPE_INVALID), m_uint64(0) {}

Field::~Field() = default;

FieldTypeEnum Field::FieldType() { return m_type; }

template <typename T>
int32_t Field::Get(FieldTypeEnum type, const T& stored, T& value) const {
    if (m_type != type) return FIELD_ERR_TYPE_MISMATCH;
    value = stored;
    return 0;
}

int32_t Field::GetBool(bool& value) { return Get(TYPE_BOOL, m_bool, value); }
int32_t Field::GetInt8(int8_t& value) { return Get(TYPE_INT8, m_int8, value); }
int32_t Field::GetUInt8(uint8_t& value) { return Get(TYPE_UINT8, m_uint8, value); }
int32_t Field::GetInt16(int16_t& value) { return Get(TYPE_INT16, m_int16, value); }
int32_t Field::GetUInt16(uint16_t& value) { return Get(TYPE_UINT16, m_uint16, value); }
int32_t Field::GetInt32(int32_t& value) { return Get(TYPE_INT32, m_int32, value); }
int32_t Field::GetUInt32(uint32_t& value) { return Get(TYPE_UINT32, m_uint32, value); }
int32_t Field::GetInt64(int64_t& value) { return Get(TYPE_INT64, m_int64, value); }
int32_t Field::GetUInt64(uint64_t& value) { return Get(TYPE_UINT64, m_uint64, value); }
int32_t Field::GetFloat(float& value) { return Get(TYPE_FLOAT, m_float, value); }
int32_t Field::GetDouble(double& value) { return Get(TYPE_DOUBLE, m_double, value); }

int32_t Field::GetString(char* buf, int32_t buflen) {
    if (m_type != TYPE_STRING) return FIELD_ERR_TYPE_MISMATCH;
    if (buf == nullptr || buflen < 1 || m_string.size() >= static_cast<size_t>(buflen)) {
        return FIELD_ERR_BUFFER_TOO_SMALL;
    }
    std::memcpy(buf, m_string.data(), m_string.size());
    buf[m_string.size()] = '\0';
    return 0;
}

void Field::SetBool(bool value) { m_type = TYPE_BOOL; m_bool = value; }
void Field::SetInt8(int8_t value) { m_type = TYPE_INT8; m_int8 = value; }
void Field::SetUInt8(uint8_t value) { m_type = TYPE_UINT8; m_uint8 = value; }
void Field::SetInt16(int16_t value) { m_type = TYPE_INT16; m_int16 = value; }
void Field::SetUInt16(uint16_t value) { m_type = TYPE_UINT16; m_uint16 = value; }
void Field::SetInt32(int32_t value) { m_type = TYPE_INT32; m_int32 = value; }
void Field::SetUInt32(uint32_t value) { m_type = TYPE_UINT32; m_uint32 = value; }
void Field::SetInt64(int64_t value) { m_type = TYPE_INT64; m_int64 = value; }
void Field::SetUInt64(uint64_t value) { m_type = TYPE_UINT64; m_uint64 = value; }
void Field::SetFloat(float value) { m_type = TYPE_FLOAT; m_float = value; }
void Field::SetDouble(double value) { m_type = TYPE_DOUBLE; m_double = value; }

void Field::SetString(const std::string& value) {
    m_string = value;
    m_type = TYPE_STRING;
}

}  // namespace CorvidaService
