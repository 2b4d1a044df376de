// One typed value of a query-result row.
//
// A default-constructed Field is TYPE_INVALID. A setter stores a value together
// with its type; the getter of that type then returns 0 and the value. A getter
// of another type returns FIELD_ERR_TYPE_MISMATCH and leaves its argument
// alone. GetString writes the text and a terminating NUL and returns
// FIELD_ERR_BUFFER_TOO_SMALL (writing nothing) when they do not fit in buflen
// bytes or buf is null.
//
// FieldType() and the getters are virtual so that a result decoder, or a test,
// can supply values from elsewhere.
#ifndef CORVIDA_COMMON_CORVIDA_SERVICE_FIELD_H_
#define CORVIDA_COMMON_CORVIDA_SERVICE_FIELD_H_

#include <cstdint>
#include <string>

namespace CorvidaService {

// The underlying type is fixed: a decoder may hand over a type number this
// library does not know, and every 32-bit value must then be a valid value of
// the enumeration (converted as unsupported) rather than undefined behaviour.
enum FieldTypeEnum : int32_t {
    TYPE_INVALID = 0,
    TYPE_BOOL = 1,
    TYPE_INT8 = 2,
    TYPE_UINT8 = 3,
    TYPE_INT16 = 4,
    TYPE_UINT16 = 5,
    TYPE_INT32 = 6,
    TYPE_UINT32 = 7,
    TYPE_INT64 = 8,
    TYPE_UINT64 = 9,
    TYPE_FLOAT = 10,
    TYPE_DOUBLE = 11,
    TYPE_STRING = 12,
    TYPE_END = 13,
};

// Statuses of the getters.
enum {
    FIELD_ERR_TYPE_MISMATCH = -1,
    FIELD_ERR_BUFFER_TOO_SMALL = -2,
};

class Field {
public:
    // A field of TYPE_INVALID that holds no value.
    Field();
    virtual ~Field();

    // The type of the stored value; TYPE_INVALID until a setter was called.
    virtual FieldTypeEnum FieldType();

    // Each getter returns 0 and the stored value when the field holds a value
    // of its type, else FIELD_ERR_TYPE_MISMATCH with value untouched.
    virtual int32_t GetBool(bool& value);
    virtual int32_t GetInt8(int8_t& value);
    virtual int32_t GetUInt8(uint8_t& value);
    virtual int32_t GetInt16(int16_t& value);
    virtual int32_t GetUInt16(uint16_t& value);
    virtual int32_t GetInt32(int32_t& value);
    virtual int32_t GetUInt32(uint32_t& value);
    virtual int32_t GetInt64(int64_t& value);
    virtual int32_t GetUInt64(uint64_t& value);
    virtual int32_t GetFloat(float& value);
    virtual int32_t GetDouble(double& value);
    // Writes the text and a terminating NUL into buf. Returns 0;
    // FIELD_ERR_TYPE_MISMATCH; or FIELD_ERR_BUFFER_TOO_SMALL when buf is null
    // or the text and its NUL exceed buflen bytes (buf is then untouched).
    virtual int32_t GetString(char* buf, int32_t buflen);

    // Each setter replaces the stored value and type.
    void SetBool(bool value);
    void SetInt8(int8_t value);
    void SetUInt8(uint8_t value);
    void SetInt16(int16_t value);
    void SetUInt16(uint16_t value);
    void SetInt32(int32_t value);
    void SetUInt32(uint32_t value);
    void SetInt64(int64_t value);
    void SetUInt64(uint64_t value);
    void SetFloat(float value);
    void SetDouble(double value);
    void SetString(const std::string& value);

private:
    template <typename T>
    int32_t Get(FieldTypeEnum type, const T& stored, T& value) const;

    FieldTypeEnum m_type;
    union {
        bool m_bool;
        int8_t m_int8;
        uint8_t m_uint8;
        int16_t m_int16;
        uint16_t m_uint16;
        int32_t m_int32;
        uint32_t m_uint32;
        int64_t m_int64;
        uint64_t m_uint64;
        float m_float;
        double m_double;
    };
    std::string m_string;
};

}  // namespace CorvidaService

#endif  // CORVIDA_COMMON_CORVIDA_SERVICE_FIELD_H_
