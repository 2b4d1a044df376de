// Structure-aware schema fuzzing. A valid schema set (the option file and the
// proto2 and proto3 test tables) is the base; the input is a list of edits to
// it, each the kind of damage a server-side schema could carry: an import
// dropped, a type renamed, a field's type, label, number, name or type name
// changed (a field pointed at its own message makes a self-referencing type),
// a file duplicated or dropped, the syntax or package changed, the key, index
// or sharding options rewritten. The edited set is serialized and loaded with
// FillMessageGroup and GetMetaAndCompare against the client's compiled type.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "corvidaservice.optionv1.pb.h"
#include "fuzz_support.h"
#include "schema_check.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;

const char* const kTableNames[] = {"Player2", "Player3",  "TreeNode2", "Ping2",   "Versioned2",
                                   "Secret2", "Indexed2", "Grouped2",  "Secret3", "MixedKeys3"};

// The schema the server would send for the test tables: the option file,
// then the two table files.
const FileDescriptorSet& BaseSet() {
    static const FileDescriptorSet* base = [] {
        auto* set = new FileDescriptorSet;
        const google::protobuf::FileDescriptor* table2 = corvida::test::Player2::descriptor()->file();
        table2->dependency(0)->CopyTo(set->add_file());
        table2->CopyTo(set->add_file());
        corvida::test3::Player3::descriptor()->file()->CopyTo(set->add_file());
        return set;
    }();
    return *base;
}

template <typename T>
int PickIndex(FuzzedDataProvider& in, const T& repeated) {
    return in.ConsumeIntegralInRange<int>(0, repeated.size() - 1);
}

// A message of the set, top-level or nested one level down; null when the
// file has none.
DescriptorProto* PickMessage(FuzzedDataProvider& in, FileDescriptorProto* file) {
    if (file->message_type_size() == 0) return nullptr;
    DescriptorProto* msg = file->mutable_message_type(PickIndex(in, file->message_type()));
    if (msg->nested_type_size() > 0 && in.ConsumeBool()) {
        msg = msg->mutable_nested_type(PickIndex(in, msg->nested_type()));
    }
    return msg;
}

FieldDescriptorProto* PickField(FuzzedDataProvider& in, DescriptorProto* msg) {
    if (msg == nullptr || msg->field_size() == 0) return nullptr;
    return msg->mutable_field(PickIndex(in, msg->field()));
}

// A type name to point a field at: a message of the set (often the field's
// own message, making it self-referencing) or text from the input.
std::string PickTypeName(FuzzedDataProvider& in, const FileDescriptorProto& file, const DescriptorProto& own) {
    switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: return "." + file.package() + "." + own.name();
        case 1:
            if (file.message_type_size() > 0) {
                return "." + file.package() + "." + file.message_type(PickIndex(in, file.message_type())).name();
            }
            return own.name();
        default: return in.ConsumeRandomLengthString(32);
    }
}

void EditField(FuzzedDataProvider& in, FileDescriptorProto* file, DescriptorProto* msg) {
    FieldDescriptorProto* field = PickField(in, msg);
    if (field == nullptr) return;
    switch (in.ConsumeIntegralInRange<int>(0, 4)) {
        case 0: {
            field->set_type(static_cast<FieldDescriptorProto::Type>(in.ConsumeIntegralInRange<int>(1, 18)));
            const bool named = field->type() == FieldDescriptorProto::TYPE_MESSAGE ||
                               field->type() == FieldDescriptorProto::TYPE_GROUP ||
                               field->type() == FieldDescriptorProto::TYPE_ENUM;
            if (!named && in.ConsumeBool()) field->clear_type_name();
            break;
        }
        case 1: field->set_label(static_cast<FieldDescriptorProto::Label>(in.ConsumeIntegralInRange<int>(1, 3))); break;
        case 2: field->set_number(in.ConsumeIntegral<int32_t>()); break;
        case 3: field->set_name(in.ConsumeRandomLengthString(16)); break;
        default: field->set_type_name(PickTypeName(in, *file, *msg)); break;
    }
}

void EditOptions(FuzzedDataProvider& in, DescriptorProto* msg) {
    if (msg == nullptr) return;
    google::protobuf::MessageOptions* options = msg->mutable_options();
    const std::string text = in.ConsumeRandomLengthString(48);
    switch (in.ConsumeIntegralInRange<int>(0, 4)) {
        case 0: options->SetExtension(corvidaservice::corvida_primary_key, text); break;
        case 1: options->AddExtension(corvidaservice::corvida_index, text); break;
        case 2: options->SetExtension(corvidaservice::corvida_sharding_key, text); break;
        case 3: options->SetExtension(corvidaservice::corvida_field_cipher_suite, text); break;
        default: options->ClearExtension(corvidaservice::corvida_index); break;
    }
}

void Edit(FuzzedDataProvider& in, FileDescriptorSet& set) {
    if (set.file_size() == 0) return;
    FileDescriptorProto* file = set.mutable_file(PickIndex(in, set.file()));
    switch (in.ConsumeIntegralInRange<int>(0, 8)) {
        case 0:  // drop an import
            if (file->dependency_size() > 0) {
                file->mutable_dependency()->DeleteSubrange(PickIndex(in, file->dependency()), 1);
            }
            break;
        case 1:  // rename a type
            if (DescriptorProto* msg = PickMessage(in, file)) msg->set_name(in.ConsumeRandomLengthString(16));
            break;
        case 2: EditField(in, file, PickMessage(in, file)); break;
        case 3:  // duplicate a file
            *set.add_file() = *file;
            break;
        case 4:  // drop a file
            set.mutable_file()->DeleteSubrange(PickIndex(in, set.file()), 1);
            break;
        case 5: file->set_syntax(in.PickValueInArray({"proto2", "proto3", "", "proto4"})); break;
        case 6: file->set_package(in.ConsumeRandomLengthString(16)); break;
        case 7:  // a field pointing back at its own message
            if (DescriptorProto* msg = PickMessage(in, file)) {
                FieldDescriptorProto* field = msg->add_field();
                field->set_name("self");
                field->set_number(in.ConsumeIntegralInRange<int>(1, 64));
                field->set_label(static_cast<FieldDescriptorProto::Label>(in.ConsumeIntegralInRange<int>(1, 3)));
                field->set_type(FieldDescriptorProto::TYPE_MESSAGE);
                field->set_type_name(PickTypeName(in, *file, *msg));
            }
            break;
        default: EditOptions(in, PickMessage(in, file)); break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LPPLOGCATEGORYINST log = corvida_fuzz::QuietLog();
    FuzzedDataProvider in(data, size);
    const std::string tablename = in.PickValueInArray(kTableNames);
    FileDescriptorSet set = BaseSet();
    const int edits = in.ConsumeIntegralInRange<int>(0, 6);
    for (int i = 0; i < edits; ++i) Edit(in, set);
    std::string blob;
    FUZZ_CHECK(set.SerializeToString(&blob));
    corvida_fuzz::CheckSchemaBlob(tablename, blob, corvida_fuzz::ClientType(tablename), log);
    return 0;
}
