#include "corvida-pb/schema_diff.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include <google/protobuf/descriptor.pb.h>

#include "corvida-pb/explain.h"
#include "corvida-pb/report.h"
#include "corvida-pb/schema_loader.h"
#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

namespace {

// Field numbers of descriptor.proto that source-location paths use.
constexpr int kFileMessageType = 4;
constexpr int kFileSyntax = 12;
constexpr int kMessageField = 2;
constexpr int kMessageNested = 3;
constexpr int kMessageOptions = 7;
constexpr int kFieldOptions = 8;

using Path = std::vector<int>;

std::string Quoted(const std::string& s) { return "\"" + s + "\""; }

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> tokens;
    PROTOBUF_UTIL::TokenSplit(text, ",", tokens);
    return tokens;
}

std::string Joined(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
    return out;
}

// "the empty option" rather than "" in a message.
std::string OptionText(const std::string& value) { return value.empty() ? "none" : Quoted(value); }

std::string SyntaxName(const FileDescriptor* file) {
    return FileDescriptor::SyntaxName(file->syntax());
}

// "int64", "message corvida.example.Stats", "enum corvida.example.Faction".
std::string TypeWords(const FieldDescriptor* field) {
    std::string words = field->type_name();
    if (field->message_type() != nullptr) words += " " + field->message_type()->full_name();
    if (field->enum_type() != nullptr) words += " " + field->enum_type()->full_name();
    return words;
}

std::string LabelWords(const FieldDescriptor* field) {
    switch (field->label()) {
        case FieldDescriptor::LABEL_REQUIRED: return "required";
        case FieldDescriptor::LABEL_REPEATED: return "repeated";
        default: return "optional";
    }
}

// "field level (number 4) of corvida.example.Player".
std::string FieldWords(const FieldDescriptor* field) {
    return "field " + field->name() + " (number " + std::to_string(field->number()) + ") of " +
           field->containing_type()->full_name();
}

// The source-location path of a message type in its file.
Path MessagePath(const Descriptor* type) {
    if (type->containing_type() == nullptr) return {kFileMessageType, type->index()};
    Path path = MessagePath(type->containing_type());
    path.push_back(kMessageNested);
    path.push_back(type->index());
    return path;
}

Path FieldPath(const FieldDescriptor* field) {
    Path path = MessagePath(field->containing_type());
    path.push_back(kMessageField);
    path.push_back(field->index());
    return path;
}

Path Extended(Path path, std::initializer_list<int> more) {
    path.insert(path.end(), more);
    return path;
}

// The (line, column) spans of one file's source locations, by path.
class SourceSpans {
public:
    explicit SourceSpans(const FileDescriptor* file) {
        google::protobuf::FileDescriptorProto proto;
        file->CopySourceCodeInfoTo(&proto);
        for (const auto& location : proto.source_code_info().location()) {
            if (location.span_size() < 2) continue;
            const Path path(location.path().begin(), location.path().end());
            m_spans.emplace(path, std::make_pair(location.span(0) + 1, location.span(1) + 1));
        }
    }

    // The span of path, or of its longest prefix that has one.
    std::pair<int, int> Find(Path path) const {
        for (;;) {
            auto it = m_spans.find(path);
            if (it != m_spans.end()) return it->second;
            if (path.empty()) return {0, 0};
            path.pop_back();
        }
    }

private:
    std::map<Path, std::pair<int, int>> m_spans;
};

template <typename Extension>
std::string StringOption(const Descriptor* type, const Extension& extension) {
    return type->options().GetExtension(extension);
}

bool Crypto(const FieldDescriptor* field) { return field->options().GetExtension(corvidaservice::corvida_crypto); }

// Index name -> field names, as the comparison builds it: a later entry of a
// name replaces an earlier one.
std::map<std::string, std::pair<std::vector<std::string>, int>> Indexes(const Descriptor* type) {
    std::map<std::string, std::pair<std::vector<std::string>, int>> indexes;
    const auto& options = type->options();
    for (int i = 0; i < options.ExtensionSize(corvidaservice::corvida_index); ++i) {
        std::string name, fields;
        PROTOBUF_UTIL::getIndexInfo(options.GetExtension(corvidaservice::corvida_index, i), name, fields);
        indexes[name] = {Split(fields), i};
    }
    return indexes;
}

class DifferenceWalker {
public:
    std::vector<SchemaDifference> TakeDifferences() { return std::move(m_differences); }

    // Compares a pair of types; top_code is the code of the outermost field
    // that led here (0 at the top), context names that field chain. A pair
    // already compared (further up, as the library does, or through another
    // field) adds nothing: its differences are listed once, under the first
    // field that leads to them.
    void Compare(const Descriptor* svr, const Descriptor* client, int top_code, const std::string& context) {
        if (!m_compared.insert(std::make_pair(svr, client)).second) return;
        CompareHeader(svr, client, top_code, context);
        CompareFields(svr, client, top_code, context);
        CompareIndexes(svr, client, top_code, context);
    }

private:
    void Add(int code, int top_code, const std::string& context, const FileDescriptor* file, const Path& path,
             const std::string& message) {
        SchemaDifference difference;
        difference.code = top_code != 0 ? top_code : code;
        difference.file = file;
        const std::pair<int, int> span = Spans(file).Find(path);
        difference.line = span.first;
        difference.column = span.second;
        difference.message = WithResult(context + message, difference.code);
        m_differences.push_back(std::move(difference));
    }

    void AddAtMessage(int code, int top_code, const std::string& context, const Descriptor* client,
                      const Path& under, const std::string& message) {
        Path path = MessagePath(client);
        path.insert(path.end(), under.begin(), under.end());
        Add(code, top_code, context, client->file(), path, message);
    }

    const SourceSpans& Spans(const FileDescriptor* file) {
        auto it = m_spans.find(file);
        if (it == m_spans.end()) it = m_spans.emplace(file, SourceSpans(file)).first;
        return it->second;
    }

    void CompareHeader(const Descriptor* svr, const Descriptor* client, int top_code, const std::string& context) {
        if (svr->file()->syntax() != client->file()->syntax()) {
            Add(-3, top_code, context, client->file(), {kFileSyntax},
                "syntax differs: the server's file of " + svr->full_name() + " is " + SyntaxName(svr->file()) +
                    ", the client's is " + SyntaxName(client->file()));
        }
        if (svr->full_name() != client->full_name() && !RenameListed(svr->full_name(), client->full_name())) {
            AddAtMessage(-4, top_code, context, client, {},
                         "message type name differs: the server's is " + svr->full_name() + ", the client's " +
                             client->full_name());
            ListRename(svr->full_name(), client->full_name());
        }
        ComparePrimaryKeys(svr, client, top_code, context);
        const std::string svr_suite = StringOption(svr, corvidaservice::corvida_field_cipher_suite);
        const std::string client_suite = StringOption(client, corvidaservice::corvida_field_cipher_suite);
        if (svr_suite != client_suite) {
            AddAtMessage(-7, top_code, context, client,
                         {kMessageOptions, corvidaservice::kCorvidaFieldCipherSuiteFieldNumber},
                         "cipher suite (corvida_field_cipher_suite) of " + client->full_name() + " differs: the "
                             "server's is " + OptionText(svr_suite) + ", the client's " + OptionText(client_suite));
        }
        const std::string svr_md5 = StringOption(svr, corvidaservice::corvida_cipher_md5);
        const std::string client_md5 = StringOption(client, corvidaservice::corvida_cipher_md5);
        if (svr_md5 != client_md5) {
            AddAtMessage(-8, top_code, context, client, {kMessageOptions, corvidaservice::kCorvidaCipherMd5FieldNumber},
                         "cipher key digest (corvida_cipher_md5) of " + client->full_name() + " differs: the "
                             "server's is " + OptionText(svr_md5) + ", the client's " + OptionText(client_md5));
        }
    }

    void ComparePrimaryKeys(const Descriptor* svr, const Descriptor* client, int top_code,
                            const std::string& context) {
        const std::string svr_key = StringOption(svr, corvidaservice::corvida_primary_key);
        const std::string client_key = StringOption(client, corvidaservice::corvida_primary_key);
        const std::vector<std::string> svr_names = svr_key.empty() ? std::vector<std::string>() : Split(svr_key);
        const std::vector<std::string> client_names =
            client_key.empty() ? std::vector<std::string>() : Split(client_key);
        const Path option = {kMessageOptions, corvidaservice::kCorvidaPrimaryKeyFieldNumber};
        if (svr_names.size() != client_names.size()) {
            AddAtMessage(-4, top_code, context, client, option,
                         "primary key (corvida_primary_key) of " + client->full_name() + " has " +
                             std::to_string(client_names.size()) + " fields in the client (" + OptionText(client_key) +
                             ") but " + std::to_string(svr_names.size()) + " on the server (" + OptionText(svr_key) +
                             ")");
            return;
        }
        for (const std::string& name : svr_names) {
            if (std::find(client_names.begin(), client_names.end(), name) != client_names.end()) continue;
            AddAtMessage(-6, top_code, context, client, option,
                         "primary-key field " + Quoted(name) + " of the server is not in the client's primary key " +
                             OptionText(client_key) + " of " + client->full_name());
        }
    }

    void CompareFields(const Descriptor* svr, const Descriptor* client, int top_code, const std::string& context) {
        for (int i = 0; i < svr->field_count(); ++i) {
            const FieldDescriptor* svr_field = svr->field(i);
            const FieldDescriptor* client_field = client->FindFieldByNumber(svr_field->number());
            if (svr_field->label() == FieldDescriptor::LABEL_REQUIRED) {
                CompareRequired(svr_field, client_field, client, top_code, context);
            } else if (client_field != nullptr) {
                CompareLenient(svr_field, client_field, top_code, context);
            }
        }
    }

    void CompareRequired(const FieldDescriptor* svr_field, const FieldDescriptor* client_field,
                         const Descriptor* client, int top_code, const std::string& context) {
        if (client_field == nullptr) {
            AddAtMessage(-13, top_code, context, client, {},
                         "required " + FieldWords(svr_field) + " on the server is missing in the client");
            return;
        }
        const Path path = FieldPath(client_field);
        // The library compares full names; where the types' full names
        // differ, the type-name line already says so, and the field's own
        // name is what is left to compare.
        if (svr_field->name() != client_field->name()) {
            Add(-14, top_code, context, client_field->file(), Extended(path, {1}),
                "required field number " + std::to_string(svr_field->number()) + " of " + client->full_name() +
                    " is " + svr_field->name() + " on the server but " + client_field->name() + " in the client");
        }
        if (svr_field->type() != client_field->type()) {
            Add(-15, top_code, context, client_field->file(), path,
                "required " + FieldWords(client_field) + " is " + TypeWords(svr_field) + " on the server but " +
                    TypeWords(client_field) + " in the client");
        }
        if (svr_field->label() != client_field->label()) {
            Add(-16, top_code, context, client_field->file(), path,
                FieldWords(client_field) + " is required on the server but " + LabelWords(client_field) +
                    " in the client");
        }
        CompareCrypto(-17, svr_field, client_field, top_code, context);
        CompareNested(-18, svr_field, client_field, top_code, context);
    }

    void CompareLenient(const FieldDescriptor* svr_field, const FieldDescriptor* client_field, int top_code,
                        const std::string& context) {
        const Path path = FieldPath(client_field);
        if (svr_field->name() != client_field->name()) {  // see CompareRequired
            Add(-10, top_code, context, client_field->file(), Extended(path, {1}),
                "field number " + std::to_string(svr_field->number()) + " of " +
                    client_field->containing_type()->full_name() + " is " + svr_field->name() +
                    " on the server but " + client_field->name() + " in the client");
        }
        if (svr_field->type() != client_field->type()) {
            Add(-10, top_code, context, client_field->file(), path,
                FieldWords(client_field) + " is " + TypeWords(svr_field) + " on the server but " +
                    TypeWords(client_field) + " in the client");
        }
        CompareCrypto(-11, svr_field, client_field, top_code, context);
        CompareNested(-12, svr_field, client_field, top_code, context);
    }

    void CompareCrypto(int code, const FieldDescriptor* svr_field, const FieldDescriptor* client_field, int top_code,
                       const std::string& context) {
        if (Crypto(svr_field) == Crypto(client_field)) return;
        Add(code, top_code, context, client_field->file(),
            Extended(FieldPath(client_field), {kFieldOptions, corvidaservice::kCorvidaCryptoFieldNumber}),
            FieldWords(client_field) + " is " + (Crypto(svr_field) ? "" : "not ") +
                "marked corvida_crypto on the server but " + (Crypto(client_field) ? "" : "not ") +
                "in the client");
    }

    void CompareNested(int code, const FieldDescriptor* svr_field, const FieldDescriptor* client_field,
                       int top_code, const std::string& context) {
        const bool svr_nested =
            svr_field->type() == FieldDescriptor::TYPE_MESSAGE || svr_field->type() == FieldDescriptor::TYPE_GROUP;
        if (!svr_nested || svr_field->type() != client_field->type()) return;
        const std::string inner_context =
            context + "in " + client_field->containing_type()->name() + "." + client_field->name() + ": ";
        if (svr_field->is_map() && client_field->is_map()) {
            CompareMap(code, svr_field, client_field, top_code, context, inner_context);
            return;
        }
        Compare(svr_field->message_type(), client_field->message_type(), top_code != 0 ? top_code : code,
                inner_context);
    }

    // The entry types of two map fields are generated from the fields: their
    // names follow the field's name and scope (differences there have lines
    // of their own), their fields are always key and value, and they carry
    // no options. What can differ is the type of the keys or of the values,
    // reported at the map field, and a value type's own differences.
    void CompareMap(int code, const FieldDescriptor* svr_field, const FieldDescriptor* client_field, int top_code,
                    const std::string& context, const std::string& inner_context) {
        for (int number : {1, 2}) {
            const FieldDescriptor* svr_part = svr_field->message_type()->FindFieldByNumber(number);
            const FieldDescriptor* client_part = client_field->message_type()->FindFieldByNumber(number);
            if (svr_part == nullptr || client_part == nullptr) continue;
            if (svr_part->type() != client_part->type()) {
                Add(code, top_code, context, client_field->file(), FieldPath(client_field),
                    "map " + FieldWords(client_field) + " has " + svr_part->name() + "s of type " +
                        TypeWords(svr_part) + " on the server but " + TypeWords(client_part) + " in the client");
            } else if (svr_part->message_type() != nullptr) {
                Compare(svr_part->message_type(), client_part->message_type(), top_code != 0 ? top_code : code,
                        inner_context);
            }
        }
    }

    // True when the full names svr and client differ only in an enclosing
    // scope (a package, an outer message) whose rename a line already
    // lists: "a.Outer.Sub" against "a.Outer2.Sub" once "a.Outer" against
    // "a.Outer2" is listed, "p.Inner" against "q.Inner" once "p.Outer"
    // against "q.Outer" is.
    bool RenameListed(const std::string& svr, const std::string& client) const {
        return ForEachEnclosingScope(svr, client, [this](const std::pair<std::string, std::string>& scopes) {
            return m_renames.count(scopes) != 0;
        });
    }

    // Records that a line lists the rename of svr to client, and so the
    // rename of the scopes in which alone they differ.
    void ListRename(const std::string& svr, const std::string& client) {
        m_renames.insert(std::make_pair(svr, client));
        ForEachEnclosingScope(svr, client, [this](const std::pair<std::string, std::string>& scopes) {
            m_renames.insert(scopes);
            return false;
        });
    }

    // Calls visit with the enclosing scopes of svr and client, innermost
    // first, while the names they enclose agree ("a.Outer" and "a.Outer2"
    // for "a.Outer.Sub" and "a.Outer2.Sub"); stops when visit returns true,
    // and returns whether it did.
    template <typename Visit>
    static bool ForEachEnclosingScope(std::string svr, std::string client, Visit visit) {
        while (LastName(svr) == LastName(client) && svr.find('.') != std::string::npos &&
               client.find('.') != std::string::npos) {
            svr.erase(svr.rfind('.'));
            client.erase(client.rfind('.'));
            if (visit(std::make_pair(svr, client))) return true;
        }
        return false;
    }

    static std::string LastName(const std::string& full_name) {
        const size_t dot = full_name.rfind('.');
        return dot == std::string::npos ? full_name : full_name.substr(dot + 1);
    }

    void CompareIndexes(const Descriptor* svr, const Descriptor* client, int top_code, const std::string& context) {
        const int svr_count = svr->options().ExtensionSize(corvidaservice::corvida_index);
        const int client_count = client->options().ExtensionSize(corvidaservice::corvida_index);
        const Path option = {kMessageOptions, corvidaservice::kCorvidaIndexFieldNumber};
        if (svr_count != client_count) {
            AddAtMessage(-19, top_code, context, client, option,
                         client->full_name() + " declares " + std::to_string(client_count) +
                             " indexes (corvida_index) in the client but " + std::to_string(svr_count) +
                             " on the server");
        }
        if (svr_count == 0 || client_count == 0) return;
        const std::string svr_sharding = StringOption(svr, corvidaservice::corvida_sharding_key);
        const std::string client_sharding = StringOption(client, corvidaservice::corvida_sharding_key);
        if (!client_sharding.empty() && client_sharding != svr_sharding) {
            AddAtMessage(-20, top_code, context, client,
                         {kMessageOptions, corvidaservice::kCorvidaShardingKeyFieldNumber},
                         "sharding key (corvida_sharding_key) of " + client->full_name() + " differs: the server's is " +
                             OptionText(svr_sharding) + ", the client's " + OptionText(client_sharding));
        }
        const auto client_indexes = Indexes(client);
        for (const auto& index : Indexes(svr)) {
            auto it = client_indexes.find(index.first);
            if (it == client_indexes.end()) {
                AddAtMessage(-21, top_code, context, client, option,
                             "index " + Quoted(index.first) + " of the server is not declared in the client's " +
                                 client->full_name());
                continue;
            }
            if (!PROTOBUF_UTIL::is_vecEqual(index.second.first, it->second.first)) {
                AddAtMessage(-22, top_code, context, client, Extended(option, {it->second.second}),
                             "index " + Quoted(index.first) + " of " + client->full_name() + " has the fields (" +
                                 Joined(index.second.first) + ") on the server but (" + Joined(it->second.first) +
                                 ") in the client");
            }
        }
    }

    std::set<std::pair<const Descriptor*, const Descriptor*>> m_compared;
    std::set<std::pair<std::string, std::string>> m_renames;  // server and client full names
    std::map<const FileDescriptor*, SourceSpans> m_spans;
    std::vector<SchemaDifference> m_differences;
};

}  // namespace

std::vector<SchemaDifference> ListSchemaDifferences(const Descriptor* server, const Descriptor* client) {
    DifferenceWalker walker;
    walker.Compare(server, client, 0, "");
    return walker.TakeDifferences();
}

std::vector<SchemaDifference> DifferencesReported(const google::protobuf::Descriptor* server,
                                                  const google::protobuf::Descriptor* client, int code) {
    std::vector<SchemaDifference> differences;
    if (server != nullptr) differences = ListSchemaDifferences(server, client);
    if (differences.empty() || differences.front().code != code) {
        // Not expected: the library found a difference the walk did not.
        SchemaDifference first;
        first.code = code;
        first.file = client->file();
        first.message = WithResult(ExplainCompareResult(code), code);
        differences.insert(differences.begin(), first);
    }
    return differences;
}

SchemaDifference DifferenceAt(const Descriptor* type, int field, int option, int code, const std::string& message) {
    const FieldDescriptor* at = field != 0 ? type->FindFieldByNumber(field) : nullptr;
    Path path = at != nullptr ? FieldPath(at) : MessagePath(type);
    if (at == nullptr && option != 0) path = Extended(path, {kMessageOptions, option});
    SchemaDifference difference;
    difference.code = code;
    difference.file = type->file();
    const std::pair<int, int> span = SourceSpans(type->file()).Find(path);
    difference.line = span.first;
    difference.column = span.second;
    difference.message = message;
    return difference;
}

std::string DifferenceLocation(const Schema& schema, const SchemaDifference& difference) {
    std::string location = schema.FileDisplayName(difference.file);
    if (difference.line > 0) {
        location += ":" + std::to_string(difference.line) + ":" + std::to_string(difference.column);
    }
    return location;
}

}  // namespace corvida_pb
