// The generic tagged value to which a query-result field is converted.
#ifndef CORVIDA_PROTOBUF_API_CORVIDA_PROTOBUF_DEFINE_H_
#define CORVIDA_PROTOBUF_API_CORVIDA_PROTOBUF_DEFINE_H_

#include <cstdint>
#include <string>

namespace NS_CORVIDA_PROTOBUF_API {

// m_type names the member that holds the value: one member of the union, or
// m_string_ for TYPE_STRING. A default-constructed value is TYPE_INVALID with
// a zeroed union and an empty string.
struct GenericValue {
    enum ValueTypeEnum {
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

    GenericValue() : m_type(TYPE_INVALID), m_uint64_(0) {}

    ValueTypeEnum m_type;
    union {
        bool m_bool_;
        int8_t m_int8_;
        uint8_t m_uint8_;
        int16_t m_int16_;
        uint16_t m_uint16_;
        int32_t m_int32_;
        int64_t m_int64_;
        uint32_t m_uint32_;
        uint64_t m_uint64_;
        float m_float_;
        double m_double_;
    };
    std::string m_string_;
};

}  // namespace NS_CORVIDA_PROTOBUF_API

#endif  // CORVIDA_PROTOBUF_API_CORVIDA_PROTOBUF_DEFINE_H_
