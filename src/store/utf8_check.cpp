#include "store/utf8_check.h"

#include <vector>

#include <google/protobuf/stubs/common.h>

namespace corvida {
namespace store {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

// Protobuf checks a string on parsing when its file is proto3.
bool Checked(const FieldDescriptor* field) {
    return field->type() == FieldDescriptor::TYPE_STRING && field->file()->syntax() == FileDescriptor::SYNTAX_PROTO3;
}

bool Invalid(const std::string& text) {
    return !google::protobuf::internal::IsStructurallyValidUTF8(text.data(), static_cast<int>(text.size()));
}

// Prefixes *where, the path below field, with field's name.
bool Found(const FieldDescriptor* field, std::string* where) {
    *where = where->empty() ? field->name() : field->name() + "." + *where;
    return true;
}

}  // namespace

bool FieldHoldsInvalidUtf8(const Message& msg, const FieldDescriptor* field, std::string* where) {
    const Reflection* reflection = msg.GetReflection();
    std::string scratch;
    where->clear();
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
        if (!field->is_repeated()) {
            return reflection->HasField(msg, field) &&
                   HoldsInvalidUtf8(reflection->GetMessage(msg, field), where) && Found(field, where);
        }
        for (int i = 0; i < reflection->FieldSize(msg, field); ++i) {
            if (HoldsInvalidUtf8(reflection->GetRepeatedMessage(msg, field, i), where)) return Found(field, where);
        }
        return false;
    }
    if (!Checked(field)) return false;
    if (!field->is_repeated()) {
        return Invalid(reflection->GetStringReference(msg, field, &scratch)) && Found(field, where);
    }
    for (int i = 0; i < reflection->FieldSize(msg, field); ++i) {
        if (Invalid(reflection->GetRepeatedStringReference(msg, field, i, &scratch))) return Found(field, where);
    }
    return false;
}

bool HoldsInvalidUtf8(const Message& msg, std::string* where) {
    std::vector<const FieldDescriptor*> fields;
    msg.GetReflection()->ListFields(msg, &fields);
    for (const FieldDescriptor* field : fields) {
        if (FieldHoldsInvalidUtf8(msg, field, where)) return true;
    }
    return false;
}

}  // namespace store
}  // namespace corvida
