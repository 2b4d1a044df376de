// Where the objects of a generated message class keep their fields (private
// to the bridge's .cpp files).
//
// Reflection finds a field's value through the type's schema on every call
// (usage checks, the field's offset looked up by its index, oneof and inlined
// string tests): about 150 instructions a value, as much as the rest of a
// record key. A generated class keeps each field at a fixed offset of its
// objects, and a field of explicit presence has one has-bit in a word of its
// own; protobuf publishes neither, so FindFieldSlots finds them once per class
// by watching what Reflection's own setters change in a scratch object of the
// class: the bytes that setting a field to two values in turn changes are its
// value; the one bit besides them that setting it changes is its has-bit. Each
// slot found is then checked against Reflection's getters and HasField with
// other values and after ClearField. A field whose storage is not exactly of
// the shape expected (a member of a oneof, a string with a default of its
// own, a repeated field, anything ambiguous) gets no slot and is reached
// through Reflection as before.
//
// Slots describe objects of the one class they were found for: a caller
// compares typeid of a message with FieldSlots::type before it uses one.
// Objects on an arena have the same layout; strings are read and written
// through protobuf's own ArenaStringPtr.
#ifndef CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_SLOTS_H_
#define CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_SLOTS_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <typeinfo>
#include <vector>

#include <google/protobuf/arenastring.h>
#include <google/protobuf/message.h>

namespace PROTOBUF_UTIL {
namespace internal {

// Where one field lives in an object of its class.
struct FieldSlot {
    enum class Kind : uint8_t {
        kNone,     // only Reflection reaches the field
        kScalar,   // a number, bool or enum of `size` bytes
        kString,   // a string or bytes field with an empty default: an ArenaStringPtr
        kMessage,  // a singular message field: a pointer to the sub-message, null until made
    };
    Kind kind = Kind::kNone;
    uint8_t size = 0;       // kScalar: 1, 4 or 8
    uint32_t offset = 0;    // of the value, the ArenaStringPtr or the pointer
    uint32_t has_word = 0;  // offset of the 32-bit word holding the has-bit
    uint32_t has_mask = 0;  // the has-bit in that word; 0: the field has none
};

// The slots of a class's fields, by field index.
struct FieldSlots {
    const std::type_info* type = nullptr;  // the class; null when no slot was found
    std::vector<FieldSlot> by_index;
};

// The slots of every field of the class of `prototype`, any object of a
// generated class. Builds and drops scratch objects of the class (New()).
FieldSlots FindFieldSlots(const google::protobuf::Message& prototype);

// The value reflection reads from scalar field f of m, as BitsOf
// (protobuf_util_fields.h) gives it.
uint64_t ReflectedBits(const google::protobuf::Message& m, const google::protobuf::FieldDescriptor* f);

// The bits of scalar slot in m, zero-extended.
uint64_t SlotBits(const FieldSlot& slot, const google::protobuf::Message& m);

inline const unsigned char* ObjectBytes(const google::protobuf::Message& m) {
    return reinterpret_cast<const unsigned char*>(&m);
}

// Whether the has-bit of slot (has_mask non-zero) is set in m.
inline bool HasBitSet(const FieldSlot& slot, const google::protobuf::Message& m) {
    uint32_t word;
    std::memcpy(&word, ObjectBytes(m) + slot.has_word, sizeof(word));
    return (word & slot.has_mask) != 0;
}

// Sets the has-bit of slot (has_mask non-zero) in m.
inline void SetHasBit(const FieldSlot& slot, google::protobuf::Message* m) {
    unsigned char* at = reinterpret_cast<unsigned char*>(m) + slot.has_word;
    uint32_t word;
    std::memcpy(&word, at, sizeof(word));
    word |= slot.has_mask;
    std::memcpy(at, &word, sizeof(word));
}

// The value of scalar slot in m, as the type Reflection's getter returns.
template <typename T>
T LoadScalar(const FieldSlot& slot, const google::protobuf::Message& m) {
    T value;
    std::memcpy(&value, ObjectBytes(m) + slot.offset, sizeof(value));
    return value;
}

// Stores value into scalar slot of m.
template <typename T>
void StoreScalar(const FieldSlot& slot, google::protobuf::Message* m, T value) {
    std::memcpy(reinterpret_cast<unsigned char*>(m) + slot.offset, &value, sizeof(value));
}

// The field of string slot in m.
inline const google::protobuf::internal::ArenaStringPtr& StringSlot(const FieldSlot& slot,
                                                                    const google::protobuf::Message& m) {
    return *reinterpret_cast<const google::protobuf::internal::ArenaStringPtr*>(ObjectBytes(m) + slot.offset);
}

// The string of string slot in m, when it is one m may change in place (it
// holds a value of its own, not the shared default); null otherwise.
inline std::string* MutableStringIfOwn(const FieldSlot& slot, google::protobuf::Message* m) {
    using google::protobuf::internal::TaggedStringPtr;
    uintptr_t tagged;
    std::memcpy(&tagged, reinterpret_cast<unsigned char*>(m) + slot.offset, sizeof(tagged));
    if ((tagged & TaggedStringPtr::kMutableBit) == 0) return nullptr;
    return reinterpret_cast<google::protobuf::internal::ArenaStringPtr*>(reinterpret_cast<unsigned char*>(m) +
                                                                         slot.offset)
        ->UnsafeMutablePointer();
}

// The sub-message of message slot in m, or null when none is made.
inline google::protobuf::Message* SubMessage(const FieldSlot& slot, const google::protobuf::Message& m) {
    google::protobuf::Message* sub;
    std::memcpy(&sub, ObjectBytes(m) + slot.offset, sizeof(sub));
    return sub;
}

}  // namespace internal
}  // namespace PROTOBUF_UTIL

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_SLOTS_H_
