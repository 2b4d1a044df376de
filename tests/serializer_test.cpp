// The key field serializer against protobuf's own field serializer, and the
// descriptor ordering used for key fields.
#include <algorithm>
#include <random>
#include <string>

#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>
#include <gtest/gtest.h>

#include "all_types2.pb.h"
#include "all_types3.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "support/hex.h"
#include "support/random_message.h"

namespace {

using corvida::test::AllTypes2;
using corvida::test::AllTypes3;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::io::StringOutputStream;
using google::protobuf::internal::WireFormat;
using PROTOBUF_UTIL::_FieldDescPtrFunctor;
using PROTOBUF_UTIL::ProtobufUtil;

enum class Writer { kOurs, kProtobuf };

const FieldDescriptor* Extension(const std::string& full_name) {
    const FieldDescriptor* f = google::protobuf::DescriptorPool::generated_pool()->FindExtensionByName(full_name);
    EXPECT_NE(f, nullptr) << full_name;
    return f;
}

// The bytes one serializer writes for one field.
std::string Serialize(Writer writer, const FieldDescriptor* field, const Message& msg, bool deterministic = false) {
    std::string out;
    {
        StringOutputStream sink(&out);
        CodedOutputStream output(&sink);
        output.SetSerializationDeterministic(deterministic);
        if (writer == Writer::kOurs) {
            ProtobufUtil::SerializeFieldWithCachedSizesEx(field, msg, &output);
        } else {
            WireFormat::SerializeFieldWithCachedSizes(field, msg, &output);
        }
    }
    return out;
}

std::string Ours(const Message& msg, const std::string& name, bool deterministic = false) {
    const FieldDescriptor* field = msg.GetDescriptor()->FindFieldByName(name);
    EXPECT_NE(field, nullptr) << name;
    return Serialize(Writer::kOurs, field, msg, deterministic);
}

using corvida_test::Hex;

// Fills every field (repeated ones with at least two elements) with values
// that differ from the defaults.
template <typename T>
T FullyFilled(std::mt19937_64& rng) {
    T msg;
    corvida_test::RandomFillOptions options;
    options.set_probability = 1.0;
    options.max_string = 12;
    corvida_test::FillAllSingularNonDefault(&msg, rng, options);
    const Descriptor* d = msg.GetDescriptor();
    const auto* r = msg.GetReflection();
    for (int i = 0; i < d->field_count(); ++i) {
        const FieldDescriptor* f = d->field(i);
        if (!f->is_repeated()) continue;
        // Two or more elements for every repeated field and map.
        while (r->FieldSize(msg, f) < 2) {
            T donor;
            corvida_test::FillRandom(&donor, rng, options);
            msg.MergeFrom(donor);
        }
    }
    msg.ByteSizeLong();
    return msg;
}

// Every field of a fully filled message is written exactly as protobuf writes
// it, in both stream modes.
template <typename T>
void ExpectSameBytesForEveryField(uint64_t seed) {
    std::mt19937_64 rng(seed);
    const T msg = FullyFilled<T>(rng);
    const Descriptor* d = msg.GetDescriptor();
    for (int i = 0; i < d->field_count(); ++i) {
        const FieldDescriptor* f = d->field(i);
        if (f->real_containing_oneof() != nullptr && !msg.GetReflection()->HasField(msg, f)) continue;
        for (bool deterministic : {false, true}) {
            EXPECT_EQ(Hex(Serialize(Writer::kOurs, f, msg, deterministic)),
                      Hex(Serialize(Writer::kProtobuf, f, msg, deterministic)))
                << f->full_name() << " deterministic=" << deterministic << " seed=" << seed;
        }
    }
}

TEST(SerializeFieldWithCachedSizesEx, MatchesProtobufForEveryProto2Field) {
    for (uint64_t seed = 1; seed <= 40; ++seed) ExpectSameBytesForEveryField<AllTypes2>(seed);
}

TEST(SerializeFieldWithCachedSizesEx, MatchesProtobufForEveryProto3Field) {
    for (uint64_t seed = 1; seed <= 40; ++seed) ExpectSameBytesForEveryField<AllTypes3>(seed);
}

TEST(SerializeFieldWithCachedSizesEx, MatchesProtobufForExtensions) {
    AllTypes2 msg;
    msg.SetExtension(corvida::test::ext_int32, -7);
    msg.SetExtension(corvida::test::ext_string, "ext");
    msg.AddExtension(corvida::test::ext_packed, 1);
    msg.AddExtension(corvida::test::ext_packed, 300);
    msg.MutableExtension(corvida::test::ext_message)->set_b("inner");
    msg.ByteSizeLong();
    for (const char* name : {"ext_int32", "ext_string", "ext_packed", "ext_message"}) {
        const FieldDescriptor* f = Extension(std::string("corvida.test.") + name);
        EXPECT_EQ(Hex(Serialize(Writer::kOurs, f, msg)), Hex(Serialize(Writer::kProtobuf, f, msg))) << f->full_name();
    }
}

TEST(SerializeFieldWithCachedSizesEx, Proto3ZeroInt32GivesTagAndZero) {
    AllTypes3 msg;
    EXPECT_EQ(Hex(Ours(msg, "f_int32")), "0800");
    EXPECT_EQ(Serialize(Writer::kProtobuf, msg.GetDescriptor()->FindFieldByName("f_int32"), msg), "");
}

TEST(SerializeFieldWithCachedSizesEx, Proto2UnsetInt32GivesNothing) {
    AllTypes2 msg;
    EXPECT_EQ(Ours(msg, "f_int32"), "");
}

TEST(SerializeFieldWithCachedSizesEx, Proto2ExplicitZeroIsWritten) {
    AllTypes2 msg;
    msg.set_f_int32(0);
    EXPECT_EQ(Hex(Ours(msg, "f_int32")), "0800");
}

TEST(SerializeFieldWithCachedSizesEx, Proto3EmptyStringGivesTagAndZeroLength) {
    AllTypes3 msg;
    EXPECT_EQ(Hex(Ours(msg, "f_string")), "7200");  // field 14, wire type 2
    EXPECT_EQ(Hex(Ours(msg, "f_bytes")), "7a00");
}

TEST(SerializeFieldWithCachedSizesEx, Proto3AbsentSubMessageGivesTagAndZeroLength) {
    AllTypes3 msg;
    msg.ByteSizeLong();
    EXPECT_EQ(Hex(Ours(msg, "f_message")), "8a0100");  // field 17, wire type 2
}

TEST(SerializeFieldWithCachedSizesEx, Proto3DefaultsOfEveryScalarType) {
    AllTypes3 msg;
    EXPECT_EQ(Hex(Ours(msg, "f_int64")), "1000");
    EXPECT_EQ(Hex(Ours(msg, "f_sint32")), "2800");
    EXPECT_EQ(Hex(Ours(msg, "f_fixed32")), "3d00000000");
    EXPECT_EQ(Hex(Ours(msg, "f_fixed64")), "410000000000000000");
    EXPECT_EQ(Hex(Ours(msg, "f_float")), "5d00000000");
    EXPECT_EQ(Hex(Ours(msg, "f_double")), "610000000000000000");
    EXPECT_EQ(Hex(Ours(msg, "f_bool")), "6800");
    EXPECT_EQ(Hex(Ours(msg, "f_enum")), "8001" "00");  // field 16, first enum value
}

TEST(SerializeFieldWithCachedSizesEx, Proto3UnsetOptionalFieldIsStillWritten) {
    AllTypes3 msg;
    EXPECT_EQ(Hex(Ours(msg, "f_optional_int32")), "900100");
}

TEST(SerializeFieldWithCachedSizesEx, Proto3UnsetOneofMemberIsStillWritten) {
    AllTypes3 msg;
    EXPECT_EQ(Hex(Ours(msg, "o_int32")), "d80500");
}

TEST(SerializeFieldWithCachedSizesEx, EmptyRepeatedFieldGivesNothing) {
    AllTypes2 msg2;
    EXPECT_EQ(Ours(msg2, "r_int32"), "");
    EXPECT_EQ(Ours(msg2, "p_int32"), "");
    EXPECT_EQ(Ours(msg2, "m_int_string"), "");
    AllTypes3 msg3;
    EXPECT_EQ(Ours(msg3, "r_int32"), "");  // packed by default in proto3
    EXPECT_EQ(Ours(msg3, "u_int32"), "");
    EXPECT_EQ(Ours(msg3, "r_message"), "");
}

TEST(SerializeFieldWithCachedSizesEx, PackedFieldHasOneTagOneLengthAndBareValues) {
    AllTypes2 msg;
    msg.add_p_int32(1);
    msg.add_p_int32(150);
    msg.add_p_int32(3);
    // Field 61, wire type 2: key 0xea 0x03; 4 data bytes: 01, 96 01, 03.
    EXPECT_EQ(Hex(Ours(msg, "p_int32")), "ea030401960103");
}

TEST(SerializeFieldWithCachedSizesEx, UnpackedRepeatedFieldTagsEveryValue) {
    AllTypes2 msg;
    msg.add_r_int32(1);
    msg.add_r_int32(2);
    EXPECT_EQ(Hex(Ours(msg, "r_int32")), "f80101f80102");
}

TEST(SerializeFieldWithCachedSizesEx, GroupIsWrittenBetweenStartAndEndTags) {
    AllTypes2 msg;
    msg.mutable_fgroup()->set_g_a(5);
    msg.ByteSizeLong();
    // Start group 18 (0x93 0x01), g_a = 5 (field 19: 0x98 0x01 0x05), end group 18 (0x94 0x01).
    EXPECT_EQ(Hex(Ours(msg, "fgroup")), "9301980105" "9401");
}

TEST(SerializeFieldWithCachedSizesEx, MapEntriesAreSortedOnlyWhenTheStreamIsDeterministic) {
    AllTypes2 msg;
    for (int key : {9, 3, 7, 1, 5, 2, 8, 4, 6}) (*msg.mutable_m_int_string())[key] = std::to_string(key);
    msg.ByteSizeLong();
    const FieldDescriptor* f = msg.GetDescriptor()->FindFieldByName("m_int_string");

    const std::string sorted = Serialize(Writer::kOurs, f, msg, /*deterministic=*/true);
    AllTypes2 ordered;
    for (int key = 1; key <= 9; ++key) {
        auto* entry = ordered.GetReflection()->AddMessage(&ordered, f);
        entry->GetReflection()->SetInt32(entry, entry->GetDescriptor()->field(0), key);
        entry->GetReflection()->SetString(entry, entry->GetDescriptor()->field(1), std::to_string(key));
    }
    ordered.ByteSizeLong();
    std::string expected;
    {
        StringOutputStream sink(&expected);
        CodedOutputStream output(&sink);
        for (int j = 0; j < 9; ++j) {
            google::protobuf::internal::WireFormatLite::WriteMessage(
                f->number(), ordered.GetReflection()->GetRepeatedMessage(ordered, f, j), &output);
        }
    }
    EXPECT_EQ(Hex(sorted), Hex(expected));

    // Without deterministic serialization the stored order is written.
    std::string stored;
    {
        StringOutputStream sink(&stored);
        CodedOutputStream output(&sink);
        output.SetSerializationDeterministic(false);
        for (int j = 0; j < 9; ++j) {
            google::protobuf::internal::WireFormatLite::WriteMessage(
                f->number(), msg.GetReflection()->GetRepeatedMessage(msg, f, j), &output);
        }
    }
    EXPECT_EQ(Hex(Serialize(Writer::kOurs, f, msg, /*deterministic=*/false)), Hex(stored));
}

TEST(SerializeFieldWithCachedSizesEx, MapWithMessageValuesHasCorrectEntryLengths) {
    AllTypes2 msg;
    (*msg.mutable_m_string_message())["b"].set_b("value-b");
    (*msg.mutable_m_string_message())["a"].add_c(42);
    msg.ByteSizeLong();
    const FieldDescriptor* f = msg.GetDescriptor()->FindFieldByName("m_string_message");
    const std::string bytes = Serialize(Writer::kOurs, f, msg, /*deterministic=*/true);
    AllTypes2 parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    ASSERT_EQ(parsed.m_string_message().size(), 2u);
    EXPECT_EQ(parsed.m_string_message().at("b").b(), "value-b");
    EXPECT_EQ(parsed.m_string_message().at("a").c(0), 42);
}

TEST(SerializeFieldWithCachedSizesEx, MapEntryFieldsAreWrittenEvenWhenDefault) {
    AllTypes2 msg;
    (*msg.mutable_m_int_string())[0] = "";
    const FieldDescriptor* map_field = msg.GetDescriptor()->FindFieldByName("m_int_string");
    const Message& entry = msg.GetReflection()->GetRepeatedMessage(msg, map_field, 0);
    const Descriptor* entry_type = entry.GetDescriptor();
    EXPECT_EQ(Hex(Serialize(Writer::kOurs, entry_type->FindFieldByName("key"), entry)), "0800");
    EXPECT_EQ(Hex(Serialize(Writer::kOurs, entry_type->FindFieldByName("value"), entry)), "1200");
}

TEST(SerializeFieldWithCachedSizesEx, MessageSetItemUsesTheItemFormat) {
    corvida::test::MessageSet2 set;
    set.MutableExtension(corvida::test::SetItem2::item)->set_text("hi");
    set.ByteSizeLong();
    const FieldDescriptor* f = Extension("corvida.test.SetItem2.item");
    std::string expected;
    {
        StringOutputStream sink(&expected);
        CodedOutputStream output(&sink);
        WireFormat::SerializeMessageSetItemWithCachedSizes(f, set, &output);
    }
    const std::string ours = Serialize(Writer::kOurs, f, set);
    EXPECT_EQ(Hex(ours), Hex(expected));
    // An item group: start group 1 (0x0b), type id 1001, message 3, end group 1 (0x0c).
    EXPECT_EQ(static_cast<unsigned char>(ours.front()), 0x0b);
    EXPECT_EQ(static_cast<unsigned char>(ours.back()), 0x0c);
    corvida::test::MessageSet2 parsed;
    ASSERT_TRUE(parsed.ParseFromString(ours));
    EXPECT_EQ(parsed.GetExtension(corvida::test::SetItem2::item).text(), "hi");
}

TEST(SerializeFieldWithCachedSizesEx, InvalidUtf8InProto3IsWrittenAnyway) {
    AllTypes3 msg;
    const std::string bad("\xff\xfe", 2);
    msg.set_f_string(bad);
    google::protobuf::LogSilencer silence;
    EXPECT_EQ(Hex(Ours(msg, "f_string")), "7202fffe");
}

TEST(SerializeFieldWithCachedSizesEx, AppendsToWhatTheStreamHolds) {
    AllTypes2 msg;
    msg.set_f_int32(1);
    msg.set_f_bool(true);
    std::string out;
    {
        StringOutputStream sink(&out);
        CodedOutputStream output(&sink);
        ProtobufUtil::SerializeFieldWithCachedSizesEx(msg.GetDescriptor()->FindFieldByName("f_int32"), msg, &output);
        ProtobufUtil::SerializeFieldWithCachedSizesEx(msg.GetDescriptor()->FindFieldByName("f_bool"), msg, &output);
    }
    EXPECT_EQ(Hex(out), "08016801");
}

std::vector<int> Numbers(const std::vector<const FieldDescriptor*>& fields) {
    std::vector<int> numbers;
    for (const FieldDescriptor* f : fields) numbers.push_back(f == nullptr ? 0 : f->number());
    return numbers;
}

TEST(FieldDescPtrFunctor, SortsByAscendingFieldNumber) {
    const Descriptor* d = AllTypes2::descriptor();
    std::vector<const FieldDescriptor*> fields{d->FindFieldByNumber(5), d->FindFieldByNumber(1),
                                               d->FindFieldByNumber(3)};
    std::sort(fields.begin(), fields.end(), _FieldDescPtrFunctor(fields));
    EXPECT_EQ(Numbers(fields), (std::vector<int>{1, 3, 5}));
}

TEST(FieldDescPtrFunctor, NullNeverComparesEitherWay) {
    const Descriptor* d = AllTypes2::descriptor();
    std::vector<const FieldDescriptor*> none;
    _FieldDescPtrFunctor less(none);
    const FieldDescriptor* one = d->FindFieldByNumber(1);
    EXPECT_FALSE(less(nullptr, one));
    EXPECT_FALSE(less(one, nullptr));
    EXPECT_FALSE(less(nullptr, nullptr));
    EXPECT_FALSE(less(one, one));
    EXPECT_TRUE(less(one, d->FindFieldByNumber(2)));
    EXPECT_FALSE(less(d->FindFieldByNumber(2), one));
}

TEST(FieldDescPtrFunctor, KeepsTheVectorItWasBuiltOver) {
    std::vector<const FieldDescriptor*> fields{AllTypes2::descriptor()->FindFieldByNumber(1)};
    _FieldDescPtrFunctor less(fields);
    EXPECT_EQ(&less.m_vecFieldDesc, &fields);
}

TEST(FieldDescPtrFunctor, SortingWithANullKeepsNonNullNeighboursOrdered) {
    const Descriptor* d = AllTypes2::descriptor();
    std::vector<const FieldDescriptor*> fields{d->FindFieldByNumber(5), d->FindFieldByNumber(1), nullptr,
                                               d->FindFieldByNumber(3)};
    std::sort(fields.begin(), fields.end(), _FieldDescPtrFunctor(fields));
    // The null entry is incomparable; whatever its place, it is still there.
    EXPECT_EQ(std::count(fields.begin(), fields.end(), nullptr), 1);
    EXPECT_EQ(fields.size(), 4u);
}

}  // namespace
