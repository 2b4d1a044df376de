// Encoding one singular scalar, string or bytes field without protobuf's
// generic serializer (private to the bridge's .cpp files).
//
// Record keys and value-set fields are mostly such fields. Protobuf's field
// serializer dispatches on the descriptor for every value and needs a coded
// stream; here a field's tag is encoded once, when its plan is made, and the
// value is read from its slot (protobuf_util_slots.h) or with the typed
// reflection getter and written with protobuf's array writers: the same
// bytes.
#ifndef CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_FIELDS_H_
#define CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_FIELDS_H_

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/message.h>
#include <google/protobuf/stubs/common.h>
#include <google/protobuf/wire_format.h>
#include <google/protobuf/wire_format_lite.h>

#include "protobuf_api/protobuf_util_slots.h"

namespace PROTOBUF_UTIL {
namespace internal {

// Calls X(TYPE, GETTER, WRITER) for every scalar field type: its
// FieldDescriptor::Type, the suffix of its Reflection getters (GetInt32,
// GetRepeatedInt32) and of its WireFormatLite writers (WriteSInt32,
// WriteSInt32NoTag).
#define CORVIDA_FOR_EACH_SCALAR_TYPE(X) \
    X(TYPE_INT32, Int32, Int32)         \
    X(TYPE_INT64, Int64, Int64)         \
    X(TYPE_UINT32, UInt32, UInt32)      \
    X(TYPE_UINT64, UInt64, UInt64)      \
    X(TYPE_SINT32, Int32, SInt32)       \
    X(TYPE_SINT64, Int64, SInt64)       \
    X(TYPE_FIXED32, UInt32, Fixed32)    \
    X(TYPE_FIXED64, UInt64, Fixed64)    \
    X(TYPE_SFIXED32, Int32, SFixed32)   \
    X(TYPE_SFIXED64, Int64, SFixed64)   \
    X(TYPE_FLOAT, Float, Float)         \
    X(TYPE_DOUBLE, Double, Double)      \
    X(TYPE_BOOL, Bool, Bool)            \
    X(TYPE_ENUM, EnumValue, Enum)

// How a plain field is encoded: a singular field that is not a message (nor
// a group), with its tag encoded beforehand.
struct PlainField {
    const google::protobuf::FieldDescriptor* field = nullptr;
    google::protobuf::FieldDescriptor::Type type = google::protobuf::FieldDescriptor::TYPE_INT32;
    bool proto3 = false;
    // No has-bit or oneof case: the field is set exactly when its value is
    // not the default (zero bits, an empty string), which is what HasField
    // then checks.
    bool implicit_presence = false;
    uint8_t tag_size = 0;
    uint8_t tag[5] = {};
};

// True for the fields PlainField describes.
inline bool IsPlain(const google::protobuf::FieldDescriptor* field) {
    return !field->is_repeated() && field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE;
}

// The plan of a field for which IsPlain holds.
inline PlainField PlanPlainField(const google::protobuf::FieldDescriptor* field) {
    PlainField plain;
    plain.field = field;
    plain.type = field->type();
    plain.proto3 = field->file()->syntax() == google::protobuf::FileDescriptor::SYNTAX_PROTO3;
    plain.implicit_presence = !field->has_presence();
    plain.tag_size = static_cast<uint8_t>(google::protobuf::io::CodedOutputStream::WriteVarint32ToArray(
                                              google::protobuf::internal::WireFormat::MakeTag(field), plain.tag) -
                                          plain.tag);
    return plain;
}

// The answer of protobuf's IsStructurallyValidUTF8 for size bytes at data:
// text of ASCII characters alone, the common case, is told valid from eight
// bytes at a time; anything else is left to protobuf.
inline bool IsValidUtf8(const char* data, size_t size) {
    constexpr uint64_t kHighBits = 0x8080808080808080u;
    uint64_t high = 0;
    if (size >= 8) {
        uint64_t word;
        for (size_t at = 0; at + 8 < size; at += 8) {
            std::memcpy(&word, data + at, sizeof(word));
            high |= word;
        }
        // The last eight bytes, some of them read before.
        std::memcpy(&word, data + size - 8, sizeof(word));
        high |= word;
    } else if (size >= 4) {
        uint32_t head;
        uint32_t tail;
        std::memcpy(&head, data, sizeof(head));
        std::memcpy(&tail, data + size - 4, sizeof(tail));
        high = head | tail;
    } else if (size > 0) {
        high = static_cast<unsigned char>(data[0]) | static_cast<unsigned char>(data[size / 2]) |
               static_cast<unsigned char>(data[size - 1]);
    }
    if ((high & kHighBits) == 0) return true;
    return google::protobuf::internal::IsStructurallyValidUTF8(data, static_cast<int>(size));
}

// Copies n bytes (n at most 16) without a call into the C library: fields
// are a few bytes each.
inline void CopySmall(uint8_t* to, const uint8_t* from, int n) {
    if (n >= 8) {
        std::memcpy(to, from, 8);
        std::memcpy(to + n - 8, from + n - 8, 8);
    } else if (n >= 4) {
        std::memcpy(to, from, 4);
        std::memcpy(to + n - 4, from + n - 4, 4);
    } else if (n >= 2) {
        std::memcpy(to, from, 2);
        std::memcpy(to + n - 2, from + n - 2, 2);
    } else if (n == 1) {
        *to = *from;
    }
}

// Where WritePlain puts a field's bytes: straight into an array.
class InPlace {
public:
    explicit InPlace(uint8_t* to) : m_to(to) {}
    void Put(const uint8_t* bytes, int n) {
        CopySmall(m_to, bytes, n);
        m_to += n;
    }
    void PutValue(const std::string& value) {
        std::memcpy(m_to, value.data(), value.size());
        m_to += value.size();
    }
    uint8_t* end() const { return m_to; }

private:
    uint8_t* m_to;
};

// Where WritePlain puts a field's bytes: into a coded stream.
class IntoStream {
public:
    explicit IntoStream(google::protobuf::io::CodedOutputStream* output) : m_output(output) {}
    void Put(const uint8_t* bytes, int n) { m_output->WriteRaw(bytes, n); }
    void PutValue(const std::string& value) { m_output->WriteRaw(value.data(), static_cast<int>(value.size())); }

private:
    google::protobuf::io::CodedOutputStream* m_output;
};

// The bits of a scalar value: zero exactly for the values HasField reports
// unset in a field of implicit presence (so -0.0 counts as set).
inline uint64_t BitsOf(bool value) { return value ? 1 : 0; }
inline uint64_t BitsOf(int32_t value) { return static_cast<uint32_t>(value); }
inline uint64_t BitsOf(uint32_t value) { return value; }
inline uint64_t BitsOf(int64_t value) { return static_cast<uint64_t>(value); }
inline uint64_t BitsOf(uint64_t value) { return value; }
inline uint64_t BitsOf(float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}
inline uint64_t BitsOf(double value) {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

enum class Plain {
    kWritten,  // the field's bytes are written (none for a field left out)
    kNoRoom,   // nothing written: the field takes more than the room given
    kGeneric,  // nothing written: only protobuf's serializer writes it as protobuf does
};

// Writes plain field `plain` of message m (whose reflection is r) into
// `out`, as protobuf's field serializer writes it, when it takes at most
// `room` bytes. The value is read from `slot` when it is one (of m's class),
// else through reflection; slot may be null. A field that HasField reports unset is left out (nothing
// written) unless `unset_too` (the key field serializer's rule for proto3);
// it is then written with its default value.
//
// A proto3 string that is not valid UTF-8 is reported through protobuf's log
// as protobuf's writers report it, and written all the same. A proto2 one is
// left to protobuf's serializer, which reports it or not depending on how
// protobuf itself was built.
template <typename Sink>
Plain WritePlain(const PlainField& plain, const google::protobuf::Reflection* r, const google::protobuf::Message& m,
                 bool unset_too, int64_t room, Sink& out, const FieldSlot* slot) {
    using google::protobuf::FieldDescriptor;
    using google::protobuf::internal::WireFormatLite;
    const FieldDescriptor* f = plain.field;
    const bool raw = slot != nullptr && slot->kind != FieldSlot::Kind::kNone;
    // HasField of a field of implicit presence reads the value; it is read
    // here anyway. A slot of a field of explicit presence has a has-bit.
    const bool check_value = !unset_too && plain.implicit_presence;
    if (!unset_too && !plain.implicit_presence && !(raw ? HasBitSet(*slot, m) : r->HasField(m, f))) {
        return Plain::kWritten;
    }
    uint8_t head[16];
    std::memcpy(head, plain.tag, sizeof(plain.tag));
    uint8_t* p = head + plain.tag_size;
    uint64_t bits = 0;  // the value's bits, when check_value
    switch (plain.type) {
#define CORVIDA_PLAIN_CASE(TYPE, GETTER, WRITER)                                                              \
    case FieldDescriptor::TYPE: {                                                                             \
        const auto value = raw ? LoadScalar<decltype(r->Get##GETTER(m, f))>(*slot, m) : r->Get##GETTER(m, f); \
        if (check_value) bits = BitsOf(value);                                                                \
        p = WireFormatLite::Write##WRITER##NoTagToArray(value, p);                                            \
        break;                                                                                                \
    }
        CORVIDA_FOR_EACH_SCALAR_TYPE(CORVIDA_PLAIN_CASE)
#undef CORVIDA_PLAIN_CASE
        case FieldDescriptor::TYPE_STRING:
        case FieldDescriptor::TYPE_BYTES: {
            std::string scratch;
            const std::string& value = raw ? StringSlot(*slot, m).Get() : r->GetStringReference(m, f, &scratch);
            if (check_value && value.empty()) return Plain::kWritten;
            // A length beyond the writers' varint is left to them.
            if (value.size() > static_cast<size_t>(INT_MAX)) return Plain::kGeneric;
            const int size = static_cast<int>(value.size());
            p = google::protobuf::io::CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(size), p);
            const int head_size = static_cast<int>(p - head);
            if (head_size + int64_t{size} > room) return Plain::kNoRoom;
            if (plain.type == FieldDescriptor::TYPE_STRING && !IsValidUtf8(value.data(), value.size())) {
                if (!plain.proto3) return Plain::kGeneric;
                WireFormatLite::VerifyUtf8String(value.data(), size, WireFormatLite::SERIALIZE, f->full_name().c_str());
            }
            out.Put(head, head_size);
            out.PutValue(value);
            return Plain::kWritten;
        }
        default: return Plain::kGeneric;  // messages and groups are never plain
    }
    if (check_value && bits == 0) return Plain::kWritten;
    const int head_size = static_cast<int>(p - head);
    if (head_size > room) return Plain::kNoRoom;
    out.Put(head, head_size);
    return Plain::kWritten;
}

}  // namespace internal
}  // namespace PROTOBUF_UTIL

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_FIELDS_H_
