#include "store/record_codec.h"

#include <charconv>
#include <limits>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>
#include <google/protobuf/wire_format_lite.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida {
namespace store {

namespace {

using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::WireFormat;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

// Stored bytes a protobuf parser or the bridge can take: their length fits
// the int those take. Longer ones cannot be what the store wrote (a record
// is at most 8 MiB).
constexpr size_t kMaxPrimaryKeyBytes = 1022;  // what ExtractMsgKey writes at most

bool FitsInt(size_t size) { return size <= static_cast<size_t>(std::numeric_limits<int>::max()); }

// True for text of the tag path form: digits and dots only (the bridge
// reads a path up to a NUL, so a damaged path holding one would be reported
// under another name).
bool LooksLikeTagPath(const std::string& tag_path) {
    return !tag_path.empty() &&
           tag_path.find_first_not_of("0123456789.") == std::string::npos;
}

// The top-level repeated fields (and maps) of desc: few or none, so that
// finding one among them is cheaper than a lookup by number.
std::vector<const FieldDescriptor*> RepeatedFields(const Descriptor* desc) {
    std::vector<const FieldDescriptor*> repeated;
    for (int i = 0; i < desc->field_count(); ++i) {
        if (desc->field(i)->is_repeated()) repeated.push_back(desc->field(i));
    }
    return repeated;
}

// The field among repeated that a tag path of one number names, or null.
const FieldDescriptor* TopLevelRepeated(const std::vector<const FieldDescriptor*>& repeated,
                                        const std::string& tag_path) {
    if (repeated.empty()) return nullptr;
    int number = 0;
    const char* end = tag_path.data() + tag_path.size();
    const std::from_chars_result parsed = std::from_chars(tag_path.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end || tag_path.empty() || tag_path[0] == '-') return nullptr;
    for (const FieldDescriptor* field : repeated) {
        if (field->number() == number) return field;
    }
    return nullptr;
}

// True when tag may carry a value of field: its number, and the field's wire
// type or, for a packable field, a packed run.
bool TagFitsField(uint32_t tag, const FieldDescriptor* field) {
    if (WireFormatLite::GetTagFieldNumber(tag) != field->number()) return false;
    const WireFormatLite::WireType wire = WireFormatLite::GetTagWireType(tag);
    return wire == WireFormat::WireTypeForFieldType(field->type()) ||
           (field->is_packable() && wire == WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
}

// Clears the repeated field and parses every element of bytes into it.
// Returns false, with the field cleared again, when an element does not
// parse or the bytes hold anything but this field.
bool MergeRepeated(const FieldDescriptor* field, const std::string& bytes, Message* msg) {
    const Reflection* reflection = msg->GetReflection();
    reflection->ClearField(msg, field);
    if (!FitsInt(bytes.size())) return false;
    CodedInputStream input(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<int>(bytes.size()));
    while (input.CurrentPosition() < static_cast<int>(bytes.size())) {
        const uint32_t tag = input.ReadTag();
        if (tag == 0 || !TagFitsField(tag, field) || !WireFormat::ParseAndMergeField(tag, field, msg, &input)) {
            reflection->ClearField(msg, field);
            return false;
        }
    }
    return true;
}

}  // namespace

void MergeStoredFields(const std::vector<StoredField>& fields, Message* msg, std::set<std::string>* failed_paths,
                       LPPLOGCATEGORYINST log) {
    const std::vector<const FieldDescriptor*> repeated_fields = RepeatedFields(msg->GetDescriptor());
    std::vector<PbValueSetBuffer::Field> bridge_fields;
    bridge_fields.reserve(fields.size());
    for (const StoredField& stored : fields) {
        if (!LooksLikeTagPath(stored.tag_path) || !FitsInt(stored.bytes.size())) {
            failed_paths->insert(stored.tag_path);
            continue;
        }
        // A top-level repeated field has nothing stored above or below it, so
        // the order in which it merges does not matter.
        if (const FieldDescriptor* repeated = TopLevelRepeated(repeated_fields, stored.tag_path)) {
            if (!MergeRepeated(repeated, stored.bytes, msg)) failed_paths->insert(stored.tag_path);
            continue;
        }
        const int idx = static_cast<int>(bridge_fields.size());
        bridge_fields.push_back(
            {idx, stored.tag_path.c_str(), stored.bytes.data(), static_cast<int>(stored.bytes.size()), -1});
    }
    if (bridge_fields.empty()) return;
    if (PROTOBUF_UTIL::FillMsgFromField(bridge_fields, *failed_paths, msg, nullptr, 0, log) == 0) return;

    // A path that names no field (or cannot be walked) stops the bridge's
    // merge. Merging again one field at a time loses only those fields: each
    // field replaces its target, so what merged before merges to the same.
    std::vector<PbValueSetBuffer::Field> one(1);
    for (const PbValueSetBuffer::Field& field : bridge_fields) {
        one[0] = field;
        if (PROTOBUF_UTIL::FillMsgFromField(one, *failed_paths, msg, nullptr, 0, log) != 0) {
            failed_paths->insert(field.path);
        }
    }
}

bool IsEncryptedKeyField(const FieldDescriptor* field) {
    return field->cpp_type() == FieldDescriptor::CPPTYPE_STRING && !field->is_repeated() &&
           field->options().GetExtension(corvidaservice::corvida_crypto);
}

void SerializeRepeatedField(const Message& msg, const FieldDescriptor* field, std::string* out) {
    google::protobuf::io::StringOutputStream stream(out);
    google::protobuf::io::CodedOutputStream output(&stream);
    WireFormat::SerializeFieldWithCachedSizes(field, msg, &output);
}

bool ParsePrimaryKey(std::string_view pk, CORVIDA_KV::CorvidaKVApi* kv, Message* msg, std::string* why) {
    const Descriptor* desc = msg->GetDescriptor();
    if (pk.empty() || pk.size() > kMaxPrimaryKeyBytes) {
        *why = "the primary key has " + std::to_string(pk.size()) + " bytes";
        return false;
    }
    const Reflection* reflection = msg->GetReflection();
    CodedInputStream input(reinterpret_cast<const uint8_t*>(pk.data()), static_cast<int>(pk.size()));
    std::string ciphertext;
    std::string plain;
    while (input.CurrentPosition() < static_cast<int>(pk.size())) {
        const uint32_t tag = input.ReadTag();
        const FieldDescriptor* field =
            tag != 0 ? desc->FindFieldByNumber(static_cast<int>(WireFormatLite::GetTagFieldNumber(tag))) : nullptr;
        if (field == nullptr || !TagFitsField(tag, field)) {
            *why = "the primary key holds bytes that are no field of " + desc->full_name();
            return false;
        }
        if (!IsEncryptedKeyField(field)) {
            if (!WireFormat::ParseAndMergeField(tag, field, msg, &input)) {
                *why = "key field " + field->name() + " does not parse";
                return false;
            }
            continue;
        }
        uint32_t length = 0;
        if (!input.ReadVarint32(&length) || !input.ReadString(&ciphertext, static_cast<int>(length))) {
            *why = "encrypted key field " + field->name() + " is cut short";
            return false;
        }
        const std::string& suite_name = desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
        CipherSuite* suite = kv != nullptr ? kv->GetCipherSuite(suite_name.c_str()) : nullptr;
        if (suite == nullptr) {
            *why = "cipher suite '" + suite_name + "' of encrypted key field " + field->name() + " is not configured";
            return false;
        }
        plain.resize(ciphertext.size());
        int plain_len = static_cast<int>(plain.size());
        if (suite->Decrypt(reinterpret_cast<const unsigned char*>(ciphertext.data()),
                           static_cast<int>(ciphertext.size()), reinterpret_cast<unsigned char*>(&plain[0]),
                           plain_len) != 0) {
            *why = "encrypted key field " + field->name() + " does not decrypt with cipher suite '" + suite_name + "'";
            return false;
        }
        plain.resize(plain_len);
        reflection->SetString(msg, field, plain);
    }
    return true;
}

}  // namespace store
}  // namespace corvida
