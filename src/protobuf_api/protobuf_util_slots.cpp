#include "protobuf_api/protobuf_util_slots.h"

#include <cstddef>
#include <memory>

#include <google/protobuf/descriptor.pb.h>

#include "protobuf_api/protobuf_util_fields.h"

namespace PROTOBUF_UTIL {
namespace internal {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::TaggedStringPtr;

using Bytes = std::vector<unsigned char>;

Bytes Snapshot(const Message& m, size_t size) { return Bytes(ObjectBytes(m), ObjectBytes(m) + size); }

// Size in bytes of a scalar of f's C++ type; 0 for strings and messages.
size_t ScalarSize(const FieldDescriptor* f) {
    switch (f->cpp_type()) {
        case FieldDescriptor::CPPTYPE_BOOL: return 1;
        case FieldDescriptor::CPPTYPE_INT32:
        case FieldDescriptor::CPPTYPE_UINT32:
        case FieldDescriptor::CPPTYPE_FLOAT:
        case FieldDescriptor::CPPTYPE_ENUM: return 4;
        case FieldDescriptor::CPPTYPE_INT64:
        case FieldDescriptor::CPPTYPE_UINT64:
        case FieldDescriptor::CPPTYPE_DOUBLE: return 8;
        default: return 0;
    }
}

// Sets scalar field f of m, through Reflection, to the value of those bits.
void SetBits(const Reflection* r, Message* m, const FieldDescriptor* f, uint64_t bits) {
    switch (f->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: r->SetInt32(m, f, static_cast<int32_t>(bits)); break;
        case FieldDescriptor::CPPTYPE_INT64: r->SetInt64(m, f, static_cast<int64_t>(bits)); break;
        case FieldDescriptor::CPPTYPE_UINT32: r->SetUInt32(m, f, static_cast<uint32_t>(bits)); break;
        case FieldDescriptor::CPPTYPE_UINT64: r->SetUInt64(m, f, bits); break;
        case FieldDescriptor::CPPTYPE_FLOAT: {
            const uint32_t narrow = static_cast<uint32_t>(bits);
            float value;
            std::memcpy(&value, &narrow, sizeof(value));
            r->SetFloat(m, f, value);
            break;
        }
        case FieldDescriptor::CPPTYPE_DOUBLE: {
            double value;
            std::memcpy(&value, &bits, sizeof(value));
            r->SetDouble(m, f, value);
            break;
        }
        case FieldDescriptor::CPPTYPE_BOOL: r->SetBool(m, f, bits != 0); break;
        case FieldDescriptor::CPPTYPE_ENUM: r->SetEnumValue(m, f, static_cast<int32_t>(bits)); break;
        default: break;
    }
}

// Two values of scalar field f, as bits, that differ in every byte (or, of
// an enum, two of its values); false when f has no two (an enum of one
// value). Values of a closed enum that it does not name would be kept aside
// as unknown fields rather than set.
bool ProbeValues(const FieldDescriptor* f, uint64_t* a, uint64_t* b) {
    if (f->cpp_type() == FieldDescriptor::CPPTYPE_BOOL) {
        *a = 1;
        *b = 0;
        return true;
    }
    if (f->cpp_type() == FieldDescriptor::CPPTYPE_ENUM) {
        const google::protobuf::EnumDescriptor* type = f->enum_type();
        for (int i = 1; i < type->value_count(); ++i) {
            if (type->value(i)->number() != type->value(0)->number()) {
                *a = BitsOf(static_cast<int32_t>(type->value(0)->number()));
                *b = BitsOf(static_cast<int32_t>(type->value(i)->number()));
                return true;
            }
        }
        return false;
    }
    const uint64_t mask = ScalarSize(f) == 8 ? ~uint64_t{0} : uint64_t{0xffffffff};
    *a = uint64_t{0x0123456789abcdef} & mask;
    *b = ~*a & mask;
    return true;
}

// The window of `size` bytes (aligned to size) that holds every byte in which
// x and y differ; false when they do not differ or differ outside any one
// such window.
bool DifferingWindow(const Bytes& x, const Bytes& y, size_t size, uint32_t* offset) {
    size_t first = x.size();
    size_t last = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        if (x[i] == y[i]) continue;
        if (first == x.size()) first = i;
        last = i;
    }
    if (first == x.size()) return false;
    const size_t start = first - first % size;
    if (last >= start + size || start + size > x.size()) return false;
    *offset = static_cast<uint32_t>(start);
    return true;
}

// The one bit outside the value at [offset, offset + width) in which x and y
// differ, as the offset of its aligned 32-bit word and its mask there (mask
// 0 when they differ in no other bit). False when they differ in more.
bool PresenceBit(const Bytes& x, const Bytes& y, size_t offset, size_t width, uint32_t* word, uint32_t* mask) {
    *mask = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        if (x[i] == y[i] || (i >= offset && i < offset + width)) continue;
        const size_t at = i - i % sizeof(uint32_t);
        if (*mask != 0 || at + sizeof(uint32_t) > x.size()) return false;
        uint32_t before;
        uint32_t after;
        std::memcpy(&before, x.data() + at, sizeof(before));
        std::memcpy(&after, y.data() + at, sizeof(after));
        const uint32_t changed = before ^ after;
        if ((changed & (changed - 1)) != 0) return false;  // more than one bit
        *word = static_cast<uint32_t>(at);
        *mask = changed;
        i = at + sizeof(uint32_t) - 1;
    }
    return true;
}

// The aligned pointer-sized words of `after` that differ from `before` and
// hold `address` (with the low bits a tag may use cleared by tag_mask).
std::vector<uint32_t> PointerWords(const Bytes& before, const Bytes& after, uintptr_t address, uintptr_t tag_mask) {
    std::vector<uint32_t> found;
    for (size_t at = 0; at + sizeof(uintptr_t) <= after.size(); at += alignof(void*)) {
        uintptr_t was;
        uintptr_t now;
        std::memcpy(&was, before.data() + at, sizeof(was));
        std::memcpy(&now, after.data() + at, sizeof(now));
        if (was != now && (now & ~tag_mask) == address) found.push_back(static_cast<uint32_t>(at));
    }
    return found;
}

// The bits of the `size` (1, 4 or 8) bytes at offset of an object's bytes,
// zero-extended.
uint64_t BitsAt(const Bytes& bytes, size_t offset, size_t size) {
    uint8_t narrow;
    uint32_t word;
    uint64_t wide;
    switch (size) {
        case 1: std::memcpy(&narrow, bytes.data() + offset, size); return narrow;
        case 4: std::memcpy(&word, bytes.data() + offset, size); return word;
        default: std::memcpy(&wide, bytes.data() + offset, size); return wide;
    }
}

// Whether a field has a has-bit exactly when it has explicit presence.
bool PresenceAgrees(const FieldSlot& slot, const FieldDescriptor* f) {
    return (slot.has_mask != 0) == f->has_presence();
}

FieldSlot FindScalarSlot(const Message& prototype, size_t size, const FieldDescriptor* f) {
    const Reflection* r = prototype.GetReflection();
    uint64_t a = 0;
    uint64_t b = 0;
    if (!ProbeValues(f, &a, &b)) return FieldSlot{};
    const std::unique_ptr<Message> m(prototype.New());
    const Bytes unset = Snapshot(*m, size);
    SetBits(r, m.get(), f, a);
    const Bytes with_a = Snapshot(*m, size);
    SetBits(r, m.get(), f, b);
    const Bytes with_b = Snapshot(*m, size);
    FieldSlot slot;
    slot.size = static_cast<uint8_t>(ScalarSize(f));
    if (!DifferingWindow(with_a, with_b, slot.size, &slot.offset) ||
        !PresenceBit(unset, with_b, slot.offset, slot.size, &slot.has_word, &slot.has_mask) ||
        !PresenceAgrees(slot, f)) {
        return FieldSlot{};
    }
    slot.kind = FieldSlot::Kind::kScalar;
    // Reflection must read what the slot holds: the value set, another one,
    // and the default once cleared.
    const auto agrees = [&](bool set) {
        return SlotBits(slot, *m) == ReflectedBits(*m, f) &&
               (slot.has_mask == 0 || (HasBitSet(slot, *m) == set && r->HasField(*m, f) == set));
    };
    if (!agrees(true) || SlotBits(slot, *m) != b) return FieldSlot{};
    SetBits(r, m.get(), f, a);
    if (!agrees(true) || SlotBits(slot, *m) != a) return FieldSlot{};
    r->ClearField(m.get(), f);
    if (!agrees(false) || SlotBits(slot, *m) != BitsAt(unset, slot.offset, slot.size)) return FieldSlot{};
    return slot;
}

FieldSlot FindStringSlot(const Message& prototype, size_t size, const FieldDescriptor* f) {
    const Reflection* r = prototype.GetReflection();
    // A field with a default of its own keeps no pointer to it.
    if (!f->default_value_string().empty()) return FieldSlot{};
    const std::unique_ptr<Message> m(prototype.New());
    const Bytes unset_bytes = Snapshot(*m, size);
    std::string scratch;
    const std::string* unset = &r->GetStringReference(*m, f, &scratch);
    r->SetString(m.get(), f, "slot");
    const std::string* set = &r->GetStringReference(*m, f, &scratch);
    const Bytes with_value = Snapshot(*m, size);
    const std::vector<uint32_t> words =
        PointerWords(unset_bytes, with_value, reinterpret_cast<uintptr_t>(set), TaggedStringPtr::kMask);
    if (words.size() != 1) return FieldSlot{};
    FieldSlot slot;
    slot.kind = FieldSlot::Kind::kString;
    slot.offset = words.front();
    if (!PresenceBit(unset_bytes, with_value, slot.offset, sizeof(uintptr_t), &slot.has_word, &slot.has_mask) ||
        !PresenceAgrees(slot, f)) {
        return FieldSlot{};
    }
    // Unset, the slot held the shared default, untagged.
    if (BitsAt(unset_bytes, slot.offset, sizeof(uintptr_t)) != reinterpret_cast<uintptr_t>(unset)) return FieldSlot{};
    // Set, it holds a string of its own, changed in place from then on.
    const std::string text(40, 's');  // longer than a string keeps inline
    r->SetString(m.get(), f, text);
    if (&StringSlot(slot, *m).Get() != set || MutableStringIfOwn(slot, m.get()) != set || *set != text ||
        &r->GetStringReference(*m, f, &scratch) != set) {
        return FieldSlot{};
    }
    if (slot.has_mask != 0 && (!HasBitSet(slot, *m) || !r->HasField(*m, f))) return FieldSlot{};
    r->ClearField(m.get(), f);
    if (StringSlot(slot, *m).Get() != r->GetStringReference(*m, f, &scratch) ||
        (slot.has_mask != 0 && (HasBitSet(slot, *m) || r->HasField(*m, f)))) {
        return FieldSlot{};
    }
    return slot;
}

FieldSlot FindMessageSlot(const Message& prototype, size_t size, const FieldDescriptor* f) {
    const Reflection* r = prototype.GetReflection();
    const std::unique_ptr<Message> m(prototype.New());
    const Bytes unset = Snapshot(*m, size);
    const Message* sub = r->MutableMessage(m.get(), f);
    const Bytes with_sub = Snapshot(*m, size);
    const std::vector<uint32_t> words = PointerWords(unset, with_sub, reinterpret_cast<uintptr_t>(sub), 0);
    if (words.size() != 1) return FieldSlot{};
    FieldSlot slot;
    slot.kind = FieldSlot::Kind::kMessage;
    slot.offset = words.front();
    // A field without a has-bit is present while its pointer is set.
    if (!PresenceBit(unset, with_sub, slot.offset, sizeof(uintptr_t), &slot.has_word, &slot.has_mask) ||
        BitsAt(unset, slot.offset, sizeof(uintptr_t)) != 0) {
        return FieldSlot{};
    }
    const auto present = [&slot](const Message& of) {
        return (slot.has_mask == 0 || HasBitSet(slot, of)) && SubMessage(slot, of) != nullptr;
    };
    if (!present(*m) || !r->HasField(*m, f)) return FieldSlot{};
    r->ClearField(m.get(), f);
    if (present(*m) || r->HasField(*m, f)) return FieldSlot{};
    return slot;
}

}  // namespace

uint64_t ReflectedBits(const Message& m, const FieldDescriptor* f) {
    const Reflection* r = m.GetReflection();
    switch (f->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: return BitsOf(r->GetInt32(m, f));
        case FieldDescriptor::CPPTYPE_INT64: return BitsOf(r->GetInt64(m, f));
        case FieldDescriptor::CPPTYPE_UINT32: return BitsOf(r->GetUInt32(m, f));
        case FieldDescriptor::CPPTYPE_UINT64: return BitsOf(r->GetUInt64(m, f));
        case FieldDescriptor::CPPTYPE_FLOAT: return BitsOf(r->GetFloat(m, f));
        case FieldDescriptor::CPPTYPE_DOUBLE: return BitsOf(r->GetDouble(m, f));
        case FieldDescriptor::CPPTYPE_BOOL: return BitsOf(r->GetBool(m, f));
        case FieldDescriptor::CPPTYPE_ENUM: return BitsOf(static_cast<int32_t>(r->GetEnumValue(m, f)));
        default: return 0;
    }
}

uint64_t SlotBits(const FieldSlot& slot, const Message& m) {
    switch (slot.size) {
        case 1: return LoadScalar<uint8_t>(slot, m);
        case 4: return LoadScalar<uint32_t>(slot, m);
        default: return LoadScalar<uint64_t>(slot, m);
    }
}

FieldSlots FindFieldSlots(const Message& prototype) {
    FieldSlots slots;
    const google::protobuf::Descriptor* desc = prototype.GetDescriptor();
    // Map entries are protobuf's own classes, whose SpaceUsedLong reads
    // fields a fresh entry does not have.
    if (desc == nullptr || prototype.GetReflection() == nullptr || desc->options().map_entry()) return slots;
    // A fresh object uses no memory beyond itself: its size.
    const std::unique_ptr<Message> sizing(prototype.New());
    const size_t size = sizing->SpaceUsedLong();
    if (size < sizeof(Message)) return slots;
    slots.by_index.resize(static_cast<size_t>(desc->field_count()));
    bool any = false;
    for (int i = 0; i < desc->field_count(); ++i) {
        const FieldDescriptor* f = desc->field(i);
        // Members of a oneof share their storage; repeated fields and weak
        // ones are kept in other ways.
        if (f->is_repeated() || f->real_containing_oneof() != nullptr || f->options().weak()) continue;
        FieldSlot& slot = slots.by_index[static_cast<size_t>(i)];
        switch (f->cpp_type()) {
            case FieldDescriptor::CPPTYPE_STRING: slot = FindStringSlot(prototype, size, f); break;
            case FieldDescriptor::CPPTYPE_MESSAGE: slot = FindMessageSlot(prototype, size, f); break;
            default: slot = FindScalarSlot(prototype, size, f); break;
        }
        any = any || slot.kind != FieldSlot::Kind::kNone;
    }
    if (any) slots.type = &typeid(prototype);
    return slots;
}

}  // namespace internal
}  // namespace PROTOBUF_UTIL
