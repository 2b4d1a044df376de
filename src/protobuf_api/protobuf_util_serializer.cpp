// The key field serializer: protobuf's field encoding, plus proto3 defaults.
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/wire_format.h>
#include <google/protobuf/wire_format_lite.h>

#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_fields.h"

namespace PROTOBUF_UTIL {
namespace {

using google::protobuf::DynamicMapSorter;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::internal::WireFormat;
using google::protobuf::internal::WireFormatLite;

// How many values of field the serializer writes. A singular proto3 field is
// written even when unset, so that a key field holding its default value still
// contributes bytes.
int ValueCount(const FieldDescriptor* field, const Message& message, const Reflection* reflection) {
    if (field->is_repeated()) return reflection->FieldSize(message, field);
    if (field->containing_type()->options().map_entry()) return 1;
    if (reflection->HasField(message, field)) return 1;
    return field->file()->syntax() == FileDescriptor::SYNTAX_PROTO3 ? 1 : 0;
}

// Writes value j of a scalar field: with its tag, or without when the field is
// packed (the caller wrote the packed header).
template <typename T>
void WriteScalar(const FieldDescriptor* field, T value, bool packed, CodedOutputStream* output,
                 void (*with_tag)(int, T, CodedOutputStream*), void (*no_tag)(T, CodedOutputStream*)) {
    if (packed) {
        no_tag(value, output);
    } else {
        with_tag(field->number(), value, output);
    }
}

// The message written for value j: the j-th key-sorted map entry when the
// entries were sorted, else the stored j-th element or the singular value.
const Message& MessageValue(const FieldDescriptor* field, const Message& message, const Reflection* reflection,
                            const std::vector<const Message*>& sorted_entries, int j) {
    if (!field->is_repeated()) return reflection->GetMessage(message, field);
    if (!sorted_entries.empty()) return *sorted_entries[j];
    return reflection->GetRepeatedMessage(message, field, j);
}

void WriteMessageValue(const FieldDescriptor* field, const Message& value, CodedOutputStream* output) {
    if (field->is_map()) {
        // Map entries are views that protobuf rebuilds from the map; their
        // sizes are never cached by the parent's size computation, so refresh
        // them or the entry's length prefix would be stale.
        value.ByteSizeLong();
    }
    if (field->type() == FieldDescriptor::TYPE_GROUP) {
        WireFormatLite::WriteGroup(field->number(), value, output);
    } else {
        WireFormatLite::WriteMessage(field->number(), value, output);
    }
}

void WriteStringValue(const FieldDescriptor* field, const Message& message, const Reflection* reflection, int j,
                      CodedOutputStream* output) {
    std::string scratch;
    const std::string& value = field->is_repeated() ? reflection->GetRepeatedStringReference(message, field, j, &scratch)
                                                    : reflection->GetStringReference(message, field, &scratch);
    if (field->type() == FieldDescriptor::TYPE_BYTES) {
        WireFormatLite::WriteBytes(field->number(), value, output);
        return;
    }
    if (field->file()->syntax() == FileDescriptor::SYNTAX_PROTO3) {
        // Reports invalid UTF-8 through protobuf's log; the bytes are written anyway.
        WireFormatLite::VerifyUtf8String(value.data(), static_cast<int>(value.size()), WireFormatLite::SERIALIZE,
                                         field->full_name().c_str());
    }
    WireFormatLite::WriteString(field->number(), value, output);
}

// Reads value j of a numeric field of C++ type T.
#define CORVIDA_VALUE_OF(GETTER) \
    (field->is_repeated() ? reflection->GetRepeated##GETTER(message, field, j) : reflection->Get##GETTER(message, field))

void WriteValue(const FieldDescriptor* field, const Message& message, const Reflection* reflection,
                const std::vector<const Message*>& sorted_entries, int j, bool packed, CodedOutputStream* output) {
    switch (field->type()) {
#define CORVIDA_SCALAR_CASE(TYPE, GETTER, WRITER)                                                          \
    case FieldDescriptor::TYPE:                                                                          \
        WriteScalar(field, CORVIDA_VALUE_OF(GETTER), packed, output, &WireFormatLite::Write##WRITER,     \
                    &WireFormatLite::Write##WRITER##NoTag);                                              \
        break;
        CORVIDA_FOR_EACH_SCALAR_TYPE(CORVIDA_SCALAR_CASE)
#undef CORVIDA_SCALAR_CASE
        case FieldDescriptor::TYPE_GROUP:
        case FieldDescriptor::TYPE_MESSAGE:
            WriteMessageValue(field, MessageValue(field, message, reflection, sorted_entries, j), output);
            break;
        case FieldDescriptor::TYPE_STRING:
        case FieldDescriptor::TYPE_BYTES:
            WriteStringValue(field, message, reflection, j, output);
            break;
    }
}

#undef CORVIDA_VALUE_OF

}  // namespace

void ProtobufUtil::SerializeFieldWithCachedSizesEx(const FieldDescriptor* field, const Message& message,
                                                   CodedOutputStream* output) {
    const Reflection* reflection = message.GetReflection();

    if (field->is_extension() && field->containing_type()->options().message_set_wire_format() &&
        field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !field->is_repeated()) {
        WireFormat::SerializeMessageSetItemWithCachedSizes(field, message, output);
        return;
    }

    const int count = ValueCount(field, message, reflection);

    std::vector<const Message*> sorted_entries;
    if (field->is_repeated() && count > 1 && field->is_map() && output->IsSerializationDeterministic()) {
        sorted_entries = DynamicMapSorter::Sort(message, count, reflection, field);
    }

    const bool packed = field->is_packed();
    if (packed && count > 0) {
        WireFormatLite::WriteTag(field->number(), WireFormatLite::WIRETYPE_LENGTH_DELIMITED, output);
        output->WriteVarint32(static_cast<uint32_t>(WireFormat::FieldDataOnlyByteSize(field, message)));
    }

    for (int j = 0; j < count; ++j) {
        WriteValue(field, message, reflection, sorted_entries, j, packed, output);
    }
}

}  // namespace PROTOBUF_UTIL
