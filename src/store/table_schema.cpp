#include "store/table_schema.h"

#include <algorithm>
#include <map>
#include <utility>

#include "corvidaservice.optionv1.pb.h"
#include "store/catalog.h"
#include "store/key_format.h"
#include "store/record_codec.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using PROTOBUF_UTIL::ProtobufUtil;

// True when field of msg would add no bytes to a field key, which
// ExtractFieldKey refuses (-9) after logging an error: a repeated field
// without elements, or an unset field of a proto2 file written in plain (an
// encrypted one adds the ciphertext of the empty value).
bool AddsNoKeyBytes(const Message& msg, const FieldDescriptor* field) {
    const google::protobuf::Reflection* reflection = msg.GetReflection();
    if (field->is_repeated()) return reflection->FieldSize(msg, field) == 0;
    return !IsEncryptedKeyField(field) && field->file()->syntax() != google::protobuf::FileDescriptor::SYNTAX_PROTO3 &&
           !reflection->HasField(msg, field);
}

// The Status of a key encoder's failure. what names the key ("table T:
// primary key").
Status KeyError(const std::string& what, int ret, const Descriptor* desc) {
    const std::string& suite = desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    std::string why;
    switch (ret) {
        case -3: why = "cipher suite '" + suite + "' is not configured in the client's CorvidaKVApi"; break;
        case -4:
            why = "the key of cipher suite '" + suite +
                  "' does not match the table's corvida_cipher_md5 (a wrong cipher key)";
            break;
        case -5: why = "a name in corvida_primary_key is not a field"; break;
        case -6: why = "a key field is marked corvida_crypto but the table names no cipher suite"; break;
        case -7: why = "cipher suite '" + suite + "' failed to encrypt a key field"; break;
        case -9: why = "a key field is not set"; break;
        case -10: why = "the key is longer than 1022 bytes"; break;
        default: why = "the key cannot be built"; break;
    }
    return Status::InvalidArgument(what + ": " + why + " (result " + std::to_string(ret) + ")", ret);
}

// True when some field of the stored type (or of a type of its fields)
// has no field of that number in the client's.
bool Lacks(const Descriptor* stored, const Descriptor* client,
           std::set<std::pair<const Descriptor*, const Descriptor*>>* compared) {
    if (!compared->insert(std::make_pair(stored, client)).second) return false;
    for (int i = 0; i < stored->field_count(); ++i) {
        const FieldDescriptor* field = stored->field(i);
        const FieldDescriptor* mine = client->FindFieldByNumber(field->number());
        if (mine == nullptr) return true;
        if (field->message_type() != nullptr && mine->message_type() != nullptr &&
            Lacks(field->message_type(), mine->message_type(), compared)) {
            return true;
        }
    }
    return false;
}

// True when every number of tag_path names a field of desc, each one before
// the last a sub-message.
bool Resolves(const Descriptor* desc, std::string_view tag_path) {
    while (desc != nullptr) {
        const int number = FirstNumber(tag_path);
        const FieldDescriptor* field = number >= 0 ? desc->FindFieldByNumber(number) : nullptr;
        if (field == nullptr) return false;
        const size_t dot = tag_path.find('.');
        if (dot == std::string_view::npos) return true;
        tag_path.remove_prefix(dot + 1);
        desc = field->message_type();
    }
    return false;
}

}  // namespace

bool Secondary::Covers(int number) const { return std::find(fields.begin(), fields.end(), number) != fields.end(); }

std::string Secondary::What(const std::string& table) const {
    return "table " + table + ": " + (space == keys::kIndex ? "index " + name : std::string("sharding key"));
}

int FirstNumber(std::string_view tag_path) {
    int number = 0;
    size_t i = 0;
    for (; i < tag_path.size() && tag_path[i] >= '0' && tag_path[i] <= '9' && i < 9; ++i) {
        number = number * 10 + (tag_path[i] - '0');
    }
    if (i == 0 || (i < tag_path.size() && tag_path[i] != '.')) return -1;
    return number;
}

std::map<std::string, std::vector<std::string>> DeclaredIndexes(const Descriptor* type) {
    const google::protobuf::MessageOptions& options = type->options();
    std::map<std::string, std::vector<std::string>> declared;
    for (int i = 0; i < options.ExtensionSize(corvidaservice::corvida_index); ++i) {
        std::string index_name;
        std::string index_fields;
        PROTOBUF_UTIL::getIndexInfo(options.GetExtension(corvidaservice::corvida_index, i), index_name, index_fields);
        PROTOBUF_UTIL::TokenSplit(index_fields, ",", declared[index_name]);
    }
    return declared;
}

std::vector<std::string> OptionFieldNames(const std::string& text) {
    std::vector<std::string> names;
    if (!text.empty()) PROTOBUF_UTIL::TokenSplit(text, ",", names);
    return names;
}

void CopyFields(const Message& from, const std::vector<const FieldDescriptor*>& fields, Message* to) {
    const google::protobuf::Reflection* in = from.GetReflection();
    const google::protobuf::Reflection* out = to->GetReflection();
    for (const FieldDescriptor* field : fields) {
        if (field->is_repeated()) {
            std::string bytes;
            SerializeRepeatedField(from, field, &bytes);
            to->MergeFromString(bytes);
            continue;
        }
        if (field->has_presence() && !in->HasField(from, field)) continue;
        switch (field->cpp_type()) {
            case FieldDescriptor::CPPTYPE_INT32: out->SetInt32(to, field, in->GetInt32(from, field)); break;
            case FieldDescriptor::CPPTYPE_INT64: out->SetInt64(to, field, in->GetInt64(from, field)); break;
            case FieldDescriptor::CPPTYPE_UINT32: out->SetUInt32(to, field, in->GetUInt32(from, field)); break;
            case FieldDescriptor::CPPTYPE_UINT64: out->SetUInt64(to, field, in->GetUInt64(from, field)); break;
            case FieldDescriptor::CPPTYPE_DOUBLE: out->SetDouble(to, field, in->GetDouble(from, field)); break;
            case FieldDescriptor::CPPTYPE_FLOAT: out->SetFloat(to, field, in->GetFloat(from, field)); break;
            case FieldDescriptor::CPPTYPE_BOOL: out->SetBool(to, field, in->GetBool(from, field)); break;
            case FieldDescriptor::CPPTYPE_ENUM: out->SetEnumValue(to, field, in->GetEnumValue(from, field)); break;
            case FieldDescriptor::CPPTYPE_STRING: out->SetString(to, field, in->GetString(from, field)); break;
            case FieldDescriptor::CPPTYPE_MESSAGE:
                out->MutableMessage(to, field)->CopyFrom(in->GetMessage(from, field));
                break;
        }
    }
}

Status TableSchema::Bind(const TableState& state, const Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                         ScratchPool* scratch, LPPLOGCATEGORYINST log) {
    const std::string& name = state.table.name;
    const std::string& blob = state.table.schema_blob;
    m_name = name;
    m_number = state.table.number;
    m_stamp = state.stamp;
    for (const BatchWork& work : state.table.building) m_building.push_back(work.name);
    m_retired = state.table.retired;
    m_prototype = &prototype;
    m_desc = prototype.GetDescriptor();
    m_kv = kv;
    m_log = log;
    const std::string short_name(ShortName(name));
    ErrorLines errors;
    if (PROTOBUF_UTIL::FillMessageGroup(short_name, blob, &m_group, errors.category()) == nullptr) {
        return Status::Corruption("table " + m_name + ": the stored schema blob no longer loads: " +
                                  (errors.text().empty() ? "the table's type is missing" : errors.text()));
    }
    if (m_group.m_desc->full_name() != name) {
        return Status::Corruption("table " + m_name + ": the stored schema blob holds " +
                                  m_group.m_desc->full_name() + " under that short name, not " + m_name);
    }
    ErrorLines compare;
    const int code = PROTOBUF_UTIL::GetMetaAndCompare(short_name, blob, m_desc, compare.category());
    if (code != 0) {
        return Status::IncompatibleSchema(code, "table " + m_name + ": the client's type " + m_desc->full_name() +
                                                    " is incompatible with the stored schema (result " +
                                                    std::to_string(code) + "): " + compare.text());
    }
    // A client whose cipher suite is missing or holds another key builds no
    // key of the table, and could not decrypt the stored ones: the key
    // encoder's own check (it comes before any field) refuses it now, on an
    // empty message (the prototype may hold values, and must not be touched).
    {
        ScratchPool::Lease lease = scratch->Acquire();
        uint8_t buf[1024];
        int32_t size = sizeof(buf);
        std::unique_ptr<Message> empty(prototype.New());
        empty->ByteSizeLong();
        const int ret = ProtobufUtil::ExtractMsgKey(m_kv, *empty, buf, size, lease->idl.get(), m_log, false);
        if (ret == -3 || ret == -4) return KeyError("table " + m_name + ": primary key", ret, m_desc);
    }
    if (ProtobufUtil::GetMsgKeyNames(prototype, m_key_names) != 0) {
        return Status::InvalidArgument("table " + m_name + ": corvida_primary_key names a missing field");
    }
    for (int i = 0; i < m_desc->field_count(); ++i) {
        const FieldDescriptor* field = m_desc->field(i);
        if (m_key_names.count(field->name()) != 0) {
            m_key_fields.push_back(field);
        } else if (field->is_repeated()) {
            m_repeated.push_back(field);
        } else {
            m_put_paths.insert(field->name());
        }
    }
    if (m_put_paths.size() > MAX_DBFIELD_NUM) {
        return Status::NotSupported("table " + m_name + ": more than 256 top-level fields outside the key");
    }
    std::set<std::pair<const Descriptor*, const Descriptor*>> compared;
    m_client_lacks = !m_retired.empty() || Lacks(m_group.m_desc, m_desc, &compared);
    return LoadSecondaries();
}

bool TableSchema::IsBuilding(std::string_view index) const {
    return std::find(m_building.begin(), m_building.end(), index) != m_building.end();
}

bool TableSchema::UnderKeyField(std::string_view tag_path) const {
    const int number = FirstNumber(tag_path);
    return std::any_of(m_key_fields.begin(), m_key_fields.end(),
                       [number](const FieldDescriptor* field) { return field->number() == number; });
}

bool TableSchema::HeldOnlyByTable(std::string_view tag_path) const {
    if (!m_client_lacks || Resolves(m_desc, tag_path)) return false;
    const int number = FirstNumber(tag_path);
    const bool retired = number >= 0 && std::find(m_retired.begin(), m_retired.end(),
                                                  static_cast<uint32_t>(number)) != m_retired.end();
    return retired || Resolves(m_group.m_desc, tag_path);
}

Status TableSchema::LoadSecondaries() {
    // Index fields in the order the declaration names them (the group keeps
    // them in field-number order): the order of their field key.
    const std::map<std::string, std::vector<std::string>> declared = DeclaredIndexes(m_group.m_desc);
    m_secondaries.reserve(declared.size() + 1);
    for (const auto& index : declared) {
        std::vector<int> numbers;
        for (const std::string& field_name : index.second) {
            numbers.push_back(m_group.m_desc->FindFieldByName(field_name)->number());
        }
        m_secondaries.push_back(Secondary{keys::kIndex, index.first, numbers});
    }
    if (!m_group.vecSplitKeyTag.empty()) {
        m_secondaries.push_back(Secondary{keys::kShard, "", m_group.vecSplitKeyTag});
        m_shard = &m_secondaries.back();
    }
    for (const Secondary& secondary : m_secondaries) {
        for (int number : secondary.fields) {
            // A client that passes the comparison but lacks a field of an
            // index or of the sharding key could not keep their entries.
            if (m_desc->FindFieldByNumber(number) == nullptr) {
                return Status::IncompatibleSchema(0, secondary.What(m_name) + ": field " + std::to_string(number) +
                                                         " is missing in the client's type " + m_desc->full_name());
            }
            m_secondary_numbers.push_back(number);
        }
    }
    return Status::OK();
}

const Secondary* TableSchema::FindIndex(std::string_view name) const {
    for (const Secondary& secondary : m_secondaries) {
        if (secondary.space == keys::kIndex && secondary.name == name) return &secondary;
    }
    return nullptr;
}

std::vector<std::string> TableSchema::IndexNames() const {
    std::vector<std::string> names;
    for (const Secondary& secondary : m_secondaries) {
        if (secondary.space == keys::kIndex) names.push_back(secondary.name);
    }
    return names;
}

bool TableSchema::IsSecondaryField(std::string_view tag_path) const {
    const int number = FirstNumber(tag_path);
    return std::find(m_secondary_numbers.begin(), m_secondary_numbers.end(), number) != m_secondary_numbers.end();
}

Status TableSchema::CheckType(const Message& msg, const char* what) const {
    if (msg.GetDescriptor() == m_desc) return Status::OK();
    return Status::InvalidArgument("table " + m_name + ": " + what + " is a " + msg.GetDescriptor()->full_name() +
                                   ", not a " + m_desc->full_name());
}

Status TableSchema::ResolvePaths(const std::vector<std::string>& paths, bool for_write,
                                 std::vector<ResolvedPath>* out) const {
    for (const std::string& dotted : paths) {
        ResolvedPath path;
        path.dotted = dotted;
        std::vector<std::string> names;
        PROTOBUF_UTIL::TokenSplit(dotted, ".", names);
        const Descriptor* desc = m_desc;
        auto where = [&] { return "table " + m_name + ": path '" + dotted + "'"; };  // for messages only
        for (size_t i = 0; i < names.size(); ++i) {
            if (desc == nullptr) {
                return Status::InvalidArgument(where() + ": field " + path.last->full_name() +
                                               " is not a message, so it has no field '" + names[i] + "'");
            }
            const FieldDescriptor* field = desc->FindFieldByName(names[i]);
            if (field == nullptr) {
                return Status::InvalidArgument(where() + ": " + desc->full_name() + " has no field '" + names[i] +
                                               "'");
            }
            if (field->is_repeated() && i + 1 < names.size()) {
                return Status::InvalidArgument(where() + " goes into repeated field " + field->name() +
                                               "; name the field whole");
            }
            if (i == 0) path.top = field;
            path.last = field;
            path.numbers.push_back(field->number());
            if (!path.tag_path.empty()) path.tag_path += '.';
            path.tag_path += std::to_string(field->number());
            desc = field->message_type();
        }
        if (path.top == nullptr) return Status::InvalidArgument("table " + m_name + ": an empty path");
        if (for_write && m_key_names.count(path.top->name()) != 0) {
            return Status::InvalidArgument("table " + m_name + ": path '" + dotted +
                                           "' is a key field; a key field cannot be updated");
        }
        out->push_back(std::move(path));
    }
    return Status::OK();
}

Status TableSchema::PrimaryKey(const Message& msg, Scratch* scratch, std::string* pk) const {
    uint8_t buf[1024];
    int32_t size = sizeof(buf);
    const int ret = ProtobufUtil::ExtractMsgKey(m_kv, msg, buf, size, scratch->idl.get(), m_log, true);
    if (ret == -9) {
        // Name a key field that added nothing.
        for (const FieldDescriptor* field : m_key_fields) {
            if (AddsNoKeyBytes(msg, field)) {
                return Status::InvalidArgument(
                    "table " + m_name + ": primary key: key field " + field->name() + " is not set (result -9)", ret);
            }
        }
    }
    if (ret != 0) return KeyError("table " + m_name + ": primary key", ret, m_desc);
    pk->assign(reinterpret_cast<const char*>(buf), size);
    return Status::OK();
}

Status TableSchema::SecondaryKey(const Message& msg, const Secondary& secondary, Scratch* scratch, std::string* key,
                                 bool* present) const {
    // Checked first, so that a record outside a sparse index costs no error
    // line in the caller's log.
    *present = false;
    for (int number : secondary.fields) {
        if (AddsNoKeyBytes(msg, m_desc->FindFieldByNumber(number))) return Status::OK();
    }
    uint8_t buf[1024];
    int32_t size = sizeof(buf);
    const int ret = ProtobufUtil::ExtractFieldKey(m_kv, msg, secondary.fields, buf, size, scratch->idl.get(), m_log);
    if (ret != 0) return KeyError(secondary.What(m_name), ret, m_desc);
    *present = true;
    key->assign(reinterpret_cast<const char*>(buf), size);
    return Status::OK();
}

void TableSchema::CopyKeyFields(const Message& from, Message* to) const { CopyFields(from, m_key_fields, to); }

}  // namespace store
}  // namespace corvida
