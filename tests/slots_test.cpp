// Field slots (protobuf_util_slots.h): where the objects of a generated class
// keep their fields, found by watching protobuf's reflection, must read and
// write exactly what reflection reads and writes.
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <google/protobuf/arena.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include "all_types2.pb.h"
#include "all_types3.pb.h"
#include "protobuf_api/protobuf_util_slots.h"
#include "support/random_message.h"
#include "tables2.pb.h"
#include "tables3.pb.h"
#include "wide2.pb.h"
#include "wide3.pb.h"

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using PROTOBUF_UTIL::internal::FieldSlot;
using PROTOBUF_UTIL::internal::FieldSlots;
using PROTOBUF_UTIL::internal::FindFieldSlots;
using PROTOBUF_UTIL::internal::ReflectedBits;
using PROTOBUF_UTIL::internal::SlotBits;

// Every message type of the test tables' files, nested ones included.
std::vector<const Descriptor*> TestTypes() {
    std::vector<const Descriptor*> types;
    const google::protobuf::FileDescriptor* files[] = {
        corvida::test::AllTypes2::descriptor()->file(), corvida::test::AllTypes3::descriptor()->file(),
        corvida::test::Player2::descriptor()->file(),   corvida::test3::Player3::descriptor()->file(),
        corvida::test::Wide2::descriptor()->file(),     corvida::test3::Wide3::descriptor()->file()};
    std::vector<const Descriptor*> pending;
    for (const google::protobuf::FileDescriptor* file : files) {
        for (int i = 0; i < file->message_type_count(); ++i) pending.push_back(file->message_type(i));
    }
    while (!pending.empty()) {
        const Descriptor* type = pending.back();
        pending.pop_back();
        types.push_back(type);
        for (int i = 0; i < type->nested_type_count(); ++i) pending.push_back(type->nested_type(i));
    }
    return types;
}

const Message& Prototype(const Descriptor* type) {
    return *google::protobuf::MessageFactory::generated_factory()->GetPrototype(type);
}

// The kind of slot a field of a generated class must get.
FieldSlot::Kind ExpectedKind(const FieldDescriptor* f) {
    if (f->is_repeated() || f->real_containing_oneof() != nullptr) return FieldSlot::Kind::kNone;
    switch (f->cpp_type()) {
        case FieldDescriptor::CPPTYPE_MESSAGE: return FieldSlot::Kind::kMessage;
        case FieldDescriptor::CPPTYPE_STRING:
            // Reflection reads the default of a field that declares one (even
            // an empty one) from the descriptor.
            return f->has_default_value() ? FieldSlot::Kind::kNone : FieldSlot::Kind::kString;
        case FieldDescriptor::CPPTYPE_ENUM:
            // Two values are needed to tell the field's bytes apart.
            return f->enum_type()->value_count() > 1 ? FieldSlot::Kind::kScalar : FieldSlot::Kind::kNone;
        default: return FieldSlot::Kind::kScalar;
    }
}

// Whether the slots of m's class read what reflection reads from m.
void ExpectSlotsRead(const FieldSlots& slots, const Message& m) {
    using PROTOBUF_UTIL::internal::HasBitSet;
    const Reflection* r = m.GetReflection();
    const Descriptor* type = m.GetDescriptor();
    for (int i = 0; i < type->field_count(); ++i) {
        const FieldDescriptor* f = type->field(i);
        const FieldSlot& slot = slots.by_index[static_cast<size_t>(i)];
        SCOPED_TRACE(f->full_name());
        if (slot.kind == FieldSlot::Kind::kNone) continue;
        if (slot.has_mask != 0) {
            EXPECT_EQ(HasBitSet(slot, m), r->HasField(m, f));
        }
        switch (slot.kind) {
            case FieldSlot::Kind::kScalar:
                ASSERT_TRUE(slot.size == 1 || slot.size == 4 || slot.size == 8) << int{slot.size};
                EXPECT_EQ(SlotBits(slot, m), ReflectedBits(m, f));
                break;
            case FieldSlot::Kind::kString: {
                std::string scratch;
                EXPECT_EQ(&PROTOBUF_UTIL::internal::StringSlot(slot, m).Get(), &r->GetStringReference(m, f, &scratch));
                break;
            }
            case FieldSlot::Kind::kMessage: {
                const Message* sub = PROTOBUF_UTIL::internal::SubMessage(slot, m);
                const bool present = (slot.has_mask == 0 || HasBitSet(slot, m)) && sub != nullptr;
                EXPECT_EQ(present, r->HasField(m, f));
                if (present) {
                    EXPECT_EQ(sub, &r->GetMessage(m, f));
                }
                break;
            }
            case FieldSlot::Kind::kNone: break;
        }
    }
}

TEST(FieldSlots, EveryPlainAndMessageFieldOfAGeneratedClassHasOne) {
    for (const Descriptor* type : TestTypes()) {
        const Message& prototype = Prototype(type);
        const FieldSlots slots = FindFieldSlots(prototype);
        // The classes of map entries are protobuf's own: none are looked for.
        if (type->options().map_entry()) {
            EXPECT_EQ(slots.type, nullptr) << type->full_name();
            continue;
        }
        ASSERT_EQ(slots.by_index.size(), static_cast<size_t>(type->field_count())) << type->full_name();
        bool any = false;
        for (int i = 0; i < type->field_count(); ++i) {
            const FieldDescriptor* f = type->field(i);
            const FieldSlot& slot = slots.by_index[static_cast<size_t>(i)];
            EXPECT_EQ(slot.kind, ExpectedKind(f)) << f->full_name();
            // A has-bit exactly where protobuf keeps presence apart from the
            // value (message fields of proto3 are present by their pointer).
            if (slot.kind == FieldSlot::Kind::kScalar || slot.kind == FieldSlot::Kind::kString) {
                EXPECT_EQ(slot.has_mask != 0, f->has_presence()) << f->full_name();
            }
            any = any || slot.kind != FieldSlot::Kind::kNone;
        }
        EXPECT_EQ(slots.type, any ? &typeid(prototype) : nullptr) << type->full_name();
    }
}

TEST(FieldSlots, ReadWhatReflectionReads) {
    std::mt19937_64 rng(20261126);
    google::protobuf::Arena arena;
    for (const Descriptor* type : TestTypes()) {
        const Message& prototype = Prototype(type);
        const FieldSlots slots = FindFieldSlots(prototype);
        if (slots.type == nullptr) continue;
        SCOPED_TRACE(type->full_name());
        ExpectSlotsRead(slots, prototype);
        for (int round = 0; round < 40; ++round) {
            // On the heap and on an arena, cleared and filled again.
            std::unique_ptr<Message> heap(prototype.New());
            Message* on_arena = prototype.New(&arena);
            for (Message* m : {heap.get(), on_arena}) {
                ExpectSlotsRead(slots, *m);
                corvida_test::FillRandom(m, rng);
                ExpectSlotsRead(slots, *m);
                m->Clear();
                ExpectSlotsRead(slots, *m);
                corvida_test::FillAllSingularNonDefault(m, rng);
                ExpectSlotsRead(slots, *m);
            }
        }
    }
}

TEST(FieldSlots, WritesAreReadByReflection) {
    using PROTOBUF_UTIL::internal::MutableStringIfOwn;
    using PROTOBUF_UTIL::internal::SetHasBit;
    using PROTOBUF_UTIL::internal::StoreScalar;
    corvida::test::AllTypes2 m2;
    const FieldSlots slots2 = FindFieldSlots(m2);
    const Descriptor* d2 = m2.GetDescriptor();
    const FieldSlot& int64_slot = slots2.by_index[static_cast<size_t>(d2->FindFieldByName("f_int64")->index())];
    StoreScalar<int64_t>(int64_slot, &m2, -5);
    EXPECT_FALSE(m2.has_f_int64());
    SetHasBit(int64_slot, &m2);
    EXPECT_TRUE(m2.has_f_int64());
    EXPECT_EQ(m2.f_int64(), -5);

    // A string that holds the shared default is not changed in place.
    const FieldSlot& string_slot = slots2.by_index[static_cast<size_t>(d2->FindFieldByName("f_string")->index())];
    EXPECT_EQ(MutableStringIfOwn(string_slot, &m2), nullptr);
    m2.set_f_string("before");
    std::string* own = MutableStringIfOwn(string_slot, &m2);
    ASSERT_NE(own, nullptr);
    own->assign("after");
    EXPECT_EQ(m2.f_string(), "after");

    google::protobuf::Arena arena;
    auto* m3 = google::protobuf::Arena::CreateMessage<corvida::test::AllTypes3>(&arena);
    const FieldSlots slots3 = FindFieldSlots(*m3);
    const Descriptor* d3 = m3->GetDescriptor();
    const FieldSlot& float_slot = slots3.by_index[static_cast<size_t>(d3->FindFieldByName("f_float")->index())];
    EXPECT_EQ(float_slot.has_mask, 0u);
    StoreScalar<float>(float_slot, m3, 2.5f);
    EXPECT_EQ(m3->f_float(), 2.5f);
    const FieldSlot& bytes_slot = slots3.by_index[static_cast<size_t>(d3->FindFieldByName("f_bytes")->index())];
    m3->set_f_bytes("on the arena");
    own = MutableStringIfOwn(bytes_slot, m3);
    ASSERT_NE(own, nullptr);
    own->assign(std::string(100, 'x'));
    EXPECT_EQ(m3->f_bytes(), std::string(100, 'x'));
}

}  // namespace
