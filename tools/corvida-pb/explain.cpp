#include "corvida-pb/explain.h"

#include <algorithm>
#include <climits>

#include <google/protobuf/descriptor.pb.h>

#include "common/corvida_error_code.h"
#include "corvida-pb/ciphers.h"
#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/cipher_suite_base.h"

namespace corvida_pb {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

namespace {

std::string Quoted(const std::string& s) { return "\"" + s + "\""; }

std::string Unexpected(int code) { return "the operation failed with an undocumented result " + std::to_string(code); }

std::vector<std::string> Split(const std::string& text, const char* delimiter) {
    std::vector<std::string> tokens;
    PROTOBUF_UTIL::TokenSplit(text, delimiter, tokens);
    return tokens;
}

std::string PrimaryKeyOption(const Descriptor* table) {
    return table->options().GetExtension(corvidaservice::corvida_primary_key);
}

// The fields of table that the key of msg writes, in writing order, with
// null for a name or number that names none.
std::vector<const FieldDescriptor*> KeyFields(const Descriptor* table, const std::vector<int>* numbers) {
    std::vector<const FieldDescriptor*> fields;
    if (numbers != nullptr) {
        for (int number : *numbers) fields.push_back(table->FindFieldByNumber(number));
        return fields;
    }
    for (const std::string& name : Split(PrimaryKeyOption(table), ",")) fields.push_back(table->FindFieldByName(name));
    std::stable_sort(fields.begin(), fields.end(), [](const FieldDescriptor* a, const FieldDescriptor* b) {
        return a != nullptr && b != nullptr && a->number() < b->number();
    });
    return fields;
}

bool IsEncrypted(const FieldDescriptor* field) {
    return field->cpp_type() == FieldDescriptor::CPPTYPE_STRING &&
           field->options().GetExtension(corvidaservice::corvida_crypto);
}

// True when the key encoders write nothing for field of msg.
bool AddsNothing(const Message& msg, const FieldDescriptor* field) {
    const auto* reflection = msg.GetReflection();
    if (field->is_repeated()) return reflection->FieldSize(msg, field) == 0;
    return field->file()->syntax() != google::protobuf::FileDescriptor::SYNTAX_PROTO3 &&
           !reflection->HasField(msg, field);
}

std::string NamesOf(const std::vector<const FieldDescriptor*>& fields) {
    std::string names;
    for (const FieldDescriptor* field : fields) names += (names.empty() ? "" : ", ") + field->name();
    return names;
}

std::string ExplainMissingSuite(const Descriptor* table, const std::vector<int>* numbers,
                                const std::string& suite_name) {
    std::vector<const FieldDescriptor*> encrypted;
    for (const FieldDescriptor* field : KeyFields(table, numbers)) {
        if (field != nullptr && IsEncrypted(field)) encrypted.push_back(field);
    }
    std::string text = table->full_name() + " names the cipher suite " + Quoted(suite_name) +
                       " (corvida_field_cipher_suite)";
    text += encrypted.empty() ? "; no field of this key is encrypted, but every key of the table needs the suite"
                              : " to encrypt the key field" + std::string(encrypted.size() > 1 ? "s " : " ") +
                                    NamesOf(encrypted);
    text += ". No suite of that name is configured: give its key with " + CipherOptions::Suggestion(suite_name);
    return text;
}

std::string ExplainWrongKey(const Descriptor* table, CORVIDA_KV::CorvidaKVApi* api, const std::string& suite_name) {
    CipherSuite* suite = api->GetCipherSuite(suite_name.c_str());
    const std::string given = suite != nullptr ? suite->GetCipherKeyMD5() : std::string("(unknown)");
    const std::string recorded = table->options().GetExtension(corvidaservice::corvida_cipher_md5);
    if (recorded.empty()) {
        return table->full_name() + " names the cipher suite " + Quoted(suite_name) +
               " but records no key digest (corvida_cipher_md5), so no key matches it; for the key given, add "
               "option (corvidaservice.corvida_cipher_md5) = \"" +
               given + "\";";
    }
    return "the key given for cipher suite " + Quoted(suite_name) + " has MD5 " + given + ", but " +
           table->full_name() + " was made for the key with MD5 " + recorded + " (corvida_cipher_md5)";
}

std::string ExplainUnknownKeyName(const Descriptor* table) {
    const std::string option = PrimaryKeyOption(table);
    for (const std::string& name : Split(option, ",")) {
        if (table->FindFieldByName(name) != nullptr) continue;
        return "the primary key option of " + table->full_name() + " (" + Quoted(option) + ") names " +
               (name.empty() ? std::string("an empty field name (two commas in a row, or one in front)")
                             : Quoted(name) + ", which is not a field of " + table->full_name());
    }
    return "the primary key option of " + table->full_name() + " names a field the table does not have";
}

std::string ExplainFailedEncryption(const Message& msg, const std::vector<int>* numbers,
                                    CORVIDA_KV::CorvidaKVApi* api, const std::string& suite_name) {
    for (const FieldDescriptor* field : KeyFields(msg.GetDescriptor(), numbers)) {
        if (field == nullptr || !IsEncrypted(field)) continue;
        if (field->is_repeated()) {
            return "key field " + field->name() + " is repeated and marked corvida_crypto; a repeated field "
                   "cannot be encrypted into a key";
        }
        std::string scratch;
        const std::string& value = msg.GetReflection()->GetStringReference(msg, field, &scratch);
        if (value.size() > static_cast<size_t>(INT_MAX)) {
            return "the value of key field " + field->name() + " is " + std::to_string(value.size()) +
                   " bytes, more than an encrypted field can hold (" + std::to_string(INT_MAX) + ")";
        }
    }
    CipherSuite* suite = api->GetCipherSuite(suite_name.c_str());
    return "cipher suite " + Quoted(suite_name) + " failed to encrypt a key field" +
           (suite != nullptr && !suite->GetErrMsg().empty() ? ": " + suite->GetErrMsg() : std::string());
}

std::string ExplainEmptyField(const Message& msg, const std::vector<int>* numbers) {
    for (const FieldDescriptor* field : KeyFields(msg.GetDescriptor(), numbers)) {
        if (field == nullptr || !AddsNothing(msg, field)) continue;
        return numbers != nullptr
                   ? "field " + std::to_string(field->number()) + " (" + field->name() +
                         ") of the field key is not set, so it adds no bytes to the key"
                   : "key field " + field->name() +
                         " is not set, so it adds no bytes to the key (--check demands every key field)";
    }
    return numbers != nullptr ? "a field of the field key adds no bytes to the key"
                              : "a key field adds no bytes to the key (--check demands every key field)";
}

}  // namespace

std::string ExplainKeyResult(int code, const Message& msg, const std::vector<int>* fields,
                             CORVIDA_KV::CorvidaKVApi* api, size_t key_length) {
    const Descriptor* table = msg.GetDescriptor();
    const std::string suite_name = table->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    switch (code) {
        case -1: return "a required argument of the key operation is null";
        case -2: return "the message of " + table->full_name() + " has no reflection";
        case -3: return ExplainMissingSuite(table, fields, suite_name);
        case -4: return ExplainWrongKey(table, api, suite_name);
        case -5: return ExplainUnknownKeyName(table);
        case -6: {
            std::vector<const FieldDescriptor*> encrypted;
            for (const FieldDescriptor* field : KeyFields(table, fields)) {
                if (field != nullptr && IsEncrypted(field)) encrypted.push_back(field);
            }
            return "key field " + NamesOf(encrypted) + " of " + table->full_name() +
                   " is marked corvida_crypto, but the table names no cipher suite (corvida_field_cipher_suite)";
        }
        case -7: return ExplainFailedEncryption(msg, fields, api, suite_name);
        case -9: return ExplainEmptyField(msg, fields);
        case -10: return "the key is " + std::to_string(key_length) + " bytes, longer than the limit of 1022 bytes";
        default: return Unexpected(code);
    }
}

std::vector<std::string> UnsetKeyFields(const Message& msg) {
    std::vector<std::string> names;
    for (const FieldDescriptor* field : KeyFields(msg.GetDescriptor(), nullptr)) {
        if (field != nullptr && AddsNothing(msg, field)) names.push_back(field->name());
    }
    return names;
}

namespace {

// Why the library refuses path, or "" when it takes (or skips) it.
std::string PathProblem(const Descriptor* table, const std::string& path, const std::set<std::string>& paths,
                        const std::set<std::string>& key_names) {
    constexpr size_t kLongestPath = 1023;
    constexpr size_t kDeepestPath = 32;
    if (path.size() > kLongestPath) {
        return "a path of " + std::to_string(path.size()) + " characters is too long (at most " +
               std::to_string(kLongestPath) + "): " + Quoted(path.substr(0, 40) + "...");
    }
    for (const std::string& other : paths) {
        if (other.size() > path.size() && other.compare(0, path.size(), path) == 0 && other[path.size()] == '.') {
            return "path " + Quoted(path) + " begins path " + Quoted(other) +
                   ": cut either the sub-message whole or fields inside it";
        }
    }
    const std::vector<std::string> names = Split(path, ".");
    if (names.empty()) return "an empty path names no field";
    if (names.size() > kDeepestPath) {
        return "path " + Quoted(path) + " has " + std::to_string(names.size()) + " names, more than " +
               std::to_string(kDeepestPath);
    }
    if (key_names.count(names[0]) != 0) return "";
    const Descriptor* type = table;
    for (size_t i = 0; i < names.size(); ++i) {
        const FieldDescriptor* field = type->FindFieldByName(names[i]);
        const std::string where = "in path " + Quoted(path) + ", ";
        if (field == nullptr) {
            return where + type->full_name() + " has no field " + Quoted(names[i]);
        }
        if (field->is_repeated()) {
            return where + "field " + Quoted(names[i]) + " of " + type->full_name() +
                   " is repeated, and repeated fields cannot be cut (cut the message that holds it, or the "
                   "whole field through a table store)";
        }
        if (i + 1 == names.size()) break;
        if (field->message_type() == nullptr) {
            return where + "field " + Quoted(names[i]) + " of " + type->full_name() + " is of type " +
                   field->type_name() + ", not a message, so it has no field " + Quoted(names[i + 1]);
        }
        type = field->message_type();
    }
    return "";
}

}  // namespace

std::string ExplainCutResult(int code, const Descriptor* table, const std::set<std::string>& paths,
                             const std::set<std::string>& key_names) {
    constexpr size_t kMostPaths = 256;
    if (code == CorvErrCode::GEN_ERR_ERR) return "the value set refused a field: it is full, or the field does not fit";
    if (code != CorvErrCode::GEN_ERR_INVALID_ARGUMENTS && code != CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE) {
        return Unexpected(code);
    }
    if (paths.size() > kMostPaths) {
        return std::to_string(paths.size()) + " paths are more than the " + std::to_string(kMostPaths) +
               " a value set takes";
    }
    for (const std::string& path : paths) {
        const std::string problem = PathProblem(table, path, paths, key_names);
        if (!problem.empty()) return problem;
    }
    return code == CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE
               ? "a path names or passes through a repeated field, and repeated fields cannot be cut"
               : "a path is invalid (the log line above says which)";
}

namespace {

// Why the library cannot walk tag_path (of record index) in table, or ""
// when it can. Numbers are read as the library reads them: decimal digits,
// none naming a field beyond the largest int.
std::string TagPathProblem(const Descriptor* table, const std::string& tag_path, size_t index) {
    const std::string where = "tag path " + Quoted(tag_path) + " (record " + std::to_string(index) + ")";
    if (tag_path.empty()) return "record " + std::to_string(index) + " of the value set has an empty tag path";
    const std::vector<std::string> numbers = Split(tag_path, ".");
    const Descriptor* type = table;
    for (size_t i = 0; i < numbers.size(); ++i) {
        const std::string& text = numbers[i];
        if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
            return where + " holds " + Quoted(text) + ", which is not a field number";
        }
        const FieldDescriptor* field =
            text.size() <= 9 ? type->FindFieldByNumber(std::stoi(text)) : nullptr;  // more digits: above any field
        if (field == nullptr) return where + " names field number " + text + ", which " + type->full_name() + " lacks";
        if (i + 1 == numbers.size()) break;
        if (field->message_type() == nullptr || field->is_repeated()) {
            return where + " goes on after field " + text + " (" + field->name() + ") of " + type->full_name() +
                   ", which is " + (field->is_repeated() ? "repeated" : field->type_name()) +
                   ", not a singular message";
        }
        type = field->message_type();
    }
    return "";
}

}  // namespace

std::string ExplainMergeResult(int code, const Descriptor* table, const std::vector<std::string>& tag_paths) {
    if (code != CorvErrCode::GEN_ERR_INVALID_ARGUMENTS) return Unexpected(code);
    for (size_t i = 0; i < tag_paths.size(); ++i) {
        const std::string problem = TagPathProblem(table, tag_paths[i], i);
        if (!problem.empty()) {
            return problem + ": the value set was made for another table, or for another version of " +
                   table->full_name() + "; the records before it are merged";
        }
    }
    return "a tag path of the value set cannot be walked in " + table->full_name() +
           " (the log line above says which); the records before it are merged";
}

namespace {

// The first name that option (a comma-separated list) of table gives that is
// not a field of table; false when all are.
bool FindUnknownName(const Descriptor* table, const std::string& option, std::string* name) {
    for (const std::string& token : Split(option, ",")) {
        if (table->FindFieldByName(token) != nullptr) continue;
        *name = token;
        return true;
    }
    return false;
}

std::string UnknownNameText(const Descriptor* table, const std::string& what, const std::string& name) {
    return what + " of " + table->full_name() + " names " +
           (name.empty() ? std::string("an empty field name") : Quoted(name) + ", which is not a field of it");
}

std::string ExplainOptions(const Descriptor* table) {
    const auto& options = table->options();
    const std::string primary = options.GetExtension(corvidaservice::corvida_primary_key);
    std::string name;
    if (Split(primary, ",").empty()) {
        return table->full_name() + " names no primary key (option corvidaservice.corvida_primary_key)";
    }
    if (FindUnknownName(table, primary, &name)) {
        return UnknownNameText(table, "the primary key (corvida_primary_key " + Quoted(primary) + ")", name);
    }
    const std::string sharding = options.GetExtension(corvidaservice::corvida_sharding_key);
    if (FindUnknownName(table, sharding, &name)) {
        return UnknownNameText(table, "the sharding key (corvida_sharding_key " + Quoted(sharding) + ")", name);
    }
    for (int i = 0; i < options.ExtensionSize(corvidaservice::corvida_index); ++i) {
        const std::string entry = options.GetExtension(corvidaservice::corvida_index, i);
        std::string index_name, index_fields;
        PROTOBUF_UTIL::getIndexInfo(entry, index_name, index_fields);
        if (FindUnknownName(table, index_fields, &name)) {
            return UnknownNameText(table, "the index " + Quoted(index_name) + " (corvida_index " + Quoted(entry) + ")",
                                   name);
        }
    }
    return "the options of " + table->full_name() + " cannot be loaded (the log line above says why)";
}

// The short names of the top-level messages the files of blob declare,
// leaving out protobuf's own files and the option file, which hold no table.
std::vector<std::string> DeclaredTables(const google::protobuf::FileDescriptorSet& set) {
    std::vector<std::string> names;
    for (const auto& file : set.file()) {
        if (file.name().compare(0, 16, "google/protobuf/") == 0 || file.name() == "corvidaservice.optionv1.proto") {
            continue;
        }
        for (const auto& message : file.message_type()) names.push_back(message.name());
    }
    return names;
}

}  // namespace

std::string ExplainMissingTable(const std::string& tablename, const std::string& blob) {
    google::protobuf::FileDescriptorSet set;
    if (!set.ParseFromString(blob)) return "the schema blob is not a serialized FileDescriptorSet";
    const std::vector<std::string> tables = DeclaredTables(set);
    if (std::find(tables.begin(), tables.end(), tablename) != tables.end()) return "";
    std::string list;
    for (const std::string& table : tables) list += (list.empty() ? "" : ", ") + table;
    return "no file of the schema blob declares a top-level message " + Quoted(tablename) +
           (list.empty() ? std::string("; it declares none") : "; it declares: " + list);
}

std::string ExplainGroupFailure(const std::string& tablename, const std::string& blob,
                                const PROTOBUF_UTIL::MsgDescGroup& group) {
    if (group.m_desc != nullptr) return ExplainOptions(group.m_desc);
    const std::string missing = ExplainMissingTable(tablename, blob);
    if (!missing.empty()) return missing;
    return "a file of the schema blob cannot be built (the log line above names it): it imports a file the blob "
           "lacks (make the blob with --include_imports) or holds an invalid definition";
}

std::vector<std::string> IgnoredIndexEntries(const Descriptor* table) {
    std::vector<std::string> warnings;
    const auto& options = table->options();
    for (int i = 0; i < options.ExtensionSize(corvidaservice::corvida_index); ++i) {
        const std::string entry = options.GetExtension(corvidaservice::corvida_index, i);
        std::string name, fields;
        const int ret = PROTOBUF_UTIL::getIndexInfo(entry, name, fields);
        const std::string prefix = table->full_name() + ": the corvida_index entry " + Quoted(entry);
        if (ret != 0) {
            warnings.push_back(prefix + " is not NAME(FIELD,...), so the library ignores it");
        } else if (Split(fields, ",").empty()) {
            warnings.push_back(prefix + " names no field, so the library ignores it");
        }
    }
    return warnings;
}

std::string ExplainCompareResult(int code) {
    switch (code) {
        case -1:
            return "the server schema blob does not parse, or none of its files declares a top-level message of "
                   "the table's name; check the blob and the table name";
        case -2:
            return "a schema file of the blob could not be built: the blob lacks a file it imports (make it with "
                   "--include_imports) or holds an invalid definition";
        case -3:
            return "the server's file and the client's file use different syntax (proto2 against proto3); "
                   "declare the server's syntax in the client";
        case -4:
            return "the full message type names differ, or the primary keys have a different number of fields; "
                   "use the server's package, message name and corvida_primary_key";
        case -6:
            return "a primary-key field of the server is not in the client's primary key; list the server's key "
                   "fields in corvida_primary_key";
        case -7: return "the cipher suite names (corvida_field_cipher_suite) differ; use the server's suite";
        case -8:
            return "the cipher key digests (corvida_cipher_md5) differ: the client's schema was made for another "
                   "key; use the server's digest and key";
        case -9: return "the server's message type holds a field that cannot be read";
        case -10:
            return "an optional or repeated field of the server has another name or type in the client's field of "
                   "the same number; give the client field the server's name and type";
        case -11:
            return "an optional or repeated field of the server differs from the client's field of the same number "
                   "in its corvida_crypto mark; mark both or neither";
        case -12:
            return "the message type of an optional or repeated field differs between server and client (the "
                   "nested difference is logged above); make the nested types match";
        case -13: return "a required field of the server is missing in the client; add it with the same number";
        case -14:
            return "a required field of the server has another name in the client; give the client field the "
                   "server's name";
        case -15:
            return "a required field of the server has another type in the client; give the client field the "
                   "server's type";
        case -16: return "a required field of the server is not required in the client; make the client field required";
        case -17:
            return "a required field of the server differs from the client's field in its corvida_crypto mark; "
                   "mark both or neither";
        case -18:
            return "the message type of a required field differs between server and client (the nested "
                   "difference is logged above); make the nested types match";
        case -19: return "the number of indexes (corvida_index) differs; declare the server's indexes in the client";
        case -20: return "the sharding keys (corvida_sharding_key) differ; use the server's sharding key, or none";
        case -21: return "an index of the server is missing in the client; declare it under the same name";
        case -22: return "an index has other fields in the client than in the server; list the server's fields";
        default: return Unexpected(code);
    }
}

}  // namespace corvida_pb
