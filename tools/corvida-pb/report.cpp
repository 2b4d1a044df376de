#include "corvida-pb/report.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/type_resolver_util.h>

#include "corvida-pb/operations.h"
#include "corvida-pb/status.h"
#include "corvida-pb/wire_view.h"

namespace corvida_pb {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

namespace {

// "1 zone, 2 uid" for the numbers of fields of table.
std::string NumberedNames(const Descriptor* table, const std::vector<int>& numbers) {
    if (numbers.empty()) return "none";
    std::vector<std::string> items;
    for (int number : numbers) {
        const FieldDescriptor* field = table->FindFieldByNumber(number);
        items.push_back(std::to_string(number) + " " + (field != nullptr ? field->name() : "?"));
    }
    return JoinComma(items);
}

Json NumberedNamesJson(const Descriptor* table, const std::vector<int>& numbers) {
    Json list = Json::array();
    for (int number : numbers) {
        const FieldDescriptor* field = table->FindFieldByNumber(number);
        list.push_back({{"number", number}, {"name", field != nullptr ? field->name() : "?"}});
    }
    return list;
}

}  // namespace

std::string JoinComma(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
    return out;
}

std::string WithResult(const std::string& explanation, int code) {
    return explanation + " (result " + std::to_string(code) + ")";
}

void PrintIncompatible(std::ostream& out, int code, const std::string& explanation) {
    out << "incompatible (result " << code << "): " << explanation << "\n";
}

void PrintDifferences(std::ostream& out, const Schema& schema, const std::vector<SchemaDifference>& differences) {
    for (const SchemaDifference& difference : differences) {
        out << DifferenceLocation(schema, difference) << ": " << difference.message << "\n";
    }
}

std::vector<std::string> BlobFileNames(const google::protobuf::FileDescriptorSet& set) {
    std::vector<std::string> names;
    for (const auto& file : set.file()) names.push_back(file.name());
    return names;
}

std::string FailedPathsText(const Descriptor* table, const std::set<std::string>& failed) {
    std::vector<std::string> items;
    for (const std::string& path : failed) items.push_back(Printable(path) + " (" + Printable(NamePath(table, path)) + ")");
    return JoinComma(items);
}

std::string NamePath(const Descriptor* table, const std::string& tagpath) {
    std::vector<std::string> numbers;
    PROTOBUF_UTIL::TokenSplit(tagpath, ".", numbers);
    std::string names;
    const Descriptor* type = table;
    for (const std::string& number : numbers) {
        int value = 0;
        const FieldDescriptor* field =
            type != nullptr && ParseFieldNumber(number, &value) ? type->FindFieldByNumber(value) : nullptr;
        names += (names.empty() ? "" : ".") + (field != nullptr ? field->name() : std::string("?"));
        type = field != nullptr ? field->message_type() : nullptr;
    }
    return names;
}

void PrintKey(std::ostream& out, const Descriptor* table, const std::string& what, const std::string& key) {
    out << what << " of " << table->full_name() << ": " << key.size() << " bytes\n";
    out << "hex:" << (key.empty() ? "" : " " + HexEncode(key)) << "\n";
    std::string decoded;
    if (DecodeRaw(key, "", &decoded)) {
        out << "decoded:\n" << decoded;
    } else {
        out << "decoded: the bytes are not protobuf fields\n";
    }
}

void PrintValueSet(std::ostream& out, const Descriptor* table, const ProtobufValueSet_& set, LPPLOGCATEGORYINST log) {
    const std::vector<CorvidaCommon::PbValueSetBuffer::Field> fields = ValueSetFields(set, log);
    out << "value set of " << table->full_name() << ": " << fields.size() << " records\n";
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string bytes = fields[i].buf_len > 0 ? std::string(fields[i].buf, fields[i].buf_len) : "";
        out << "record " << i << ": tag path " << fields[i].path << " (" << NamePath(table, fields[i].path) << "), "
            << bytes.size() << " bytes";
        if (bytes.empty()) {
            out << ", the field is not set\n";
            continue;
        }
        out << ": " << HexEncode(bytes) << "\n";
        std::string decoded;
        out << (DecodeRaw(bytes, "  ", &decoded) ? decoded : "  the bytes are not protobuf fields\n");
    }
}

void PrintMerge(std::ostream& out, const google::protobuf::Message& msg, size_t records,
                const std::set<std::string>& failed) {
    std::string text;
    google::protobuf::TextFormat::PrintToString(msg, &text);
    out << msg.GetDescriptor()->full_name() << " after merging " << records << " records:\n" << text;
    out << "failed paths: " << (failed.empty() ? "none" : FailedPathsText(msg.GetDescriptor(), failed)) << "\n";
}

void PrintGroup(std::ostream& out, const PROTOBUF_UTIL::MsgDescGroup& group) {
    const Descriptor* table = group.m_desc;
    out << "table " << table->full_name() << " (file " << table->file()->name() << ")\n";
    out << "primary key: " << NumberedNames(table, group.vecKeyTag) << "\n";
    out << "sharding key: " << NumberedNames(table, group.vecSplitKeyTag) << "\n";
    if (group.m_mapIndex.empty()) out << "indexes: none\n";
    for (const auto& index : group.m_mapIndex) {
        out << "index " << index.first << ": " << NumberedNames(table, index.second) << "\n";
    }
}


namespace {

constexpr char kTypeUrlPrefix[] = "type.googleapis.com";
constexpr char kNextMember[] = "#next";
// Output gathered before it is written.
constexpr size_t kPrintBuffer = 1 << 16;

}  // namespace

JsonMapping::JsonMapping(const Descriptor* type)
    : m_resolver(google::protobuf::util::NewTypeResolverForDescriptorPool(kTypeUrlPrefix, type->file()->pool())),
      m_url(std::string(kTypeUrlPrefix) + "/" + type->full_name()) {}

JsonMapping::~JsonMapping() = default;

void JsonMapping::Print(const google::protobuf::Message& msg, std::string* out) {
    m_binary.clear();
    {
        google::protobuf::io::StringOutputStream stream(&m_binary);
        google::protobuf::io::CodedOutputStream coded(&stream);
        coded.SetSerializationDeterministic(true);
        msg.SerializeToCodedStream(&coded);
    }
    m_json.clear();
    const auto status = google::protobuf::util::BinaryToJsonString(m_resolver.get(), m_url, m_binary, &m_json);
    if (!status.ok()) {
        throw Failure("the " + msg.GetDescriptor()->full_name() + " cannot be shown as JSON: " +
                      std::string(status.message()));
    }
    out->append(m_json);
}

bool JsonMapping::Parse(const std::string& text, google::protobuf::Message* msg, std::string* error) {
    m_binary.clear();
    const auto status = google::protobuf::util::JsonToBinaryString(m_resolver.get(), m_url, text, &m_binary);
    if (!status.ok()) {
        *error = std::string(status.message());
        return false;
    }
    msg->Clear();
    if (!msg->ParseFromString(m_binary)) {
        *error = "not a " + msg->GetDescriptor()->full_name();
        return false;
    }
    return true;
}

RecordPrinter::RecordPrinter(const Descriptor* type, RecordFormat format, std::ostream& out)
    : m_format(format), m_out(out) {
    if (format == RecordFormat::kJson) m_json.reset(new JsonMapping(type));
}

void RecordPrinter::Print(const google::protobuf::Message& record) {
    if (m_format == RecordFormat::kJson) {
        m_json->Print(record, &m_buffer);
        m_buffer.push_back('\n');
    } else {
        std::string text;
        google::protobuf::TextFormat::PrintToString(record, &text);
        m_buffer += text;
    }
    FlushIfFull();
}

void RecordPrinter::PrintListed(const google::protobuf::Message& record, uint64_t number) {
    if (m_format == RecordFormat::kText) m_buffer += "# record " + std::to_string(number) + "\n";
    Print(record);
}

void RecordPrinter::PrintNext(const std::string& cursor) {
    if (m_format == RecordFormat::kJson) {
        m_buffer += Json({{kNextMember, cursor}}).dump() + "\n";
    } else {
        m_buffer += "# next " + cursor + "\n";
    }
}

void RecordPrinter::FlushIfFull() {
    if (m_buffer.size() >= kPrintBuffer) Flush();
}

void RecordPrinter::Flush() {
    m_out.write(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
    m_out.flush();
    m_buffer.clear();
}

bool ParseNextLine(const std::string& line, std::string* cursor) {
    if (line.find(kNextMember) == std::string::npos) return false;
    const Json json = Json::parse(line, nullptr, false);
    if (!json.is_object() || json.size() != 1 || !json.contains(kNextMember) || !json[kNextMember].is_string()) {
        return false;
    }
    *cursor = json[kNextMember].get<std::string>();
    return true;
}

void PrintJson(std::ostream& out, const Json& json) {
    out << json.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

Json KeyJson(const Descriptor* table, const std::vector<int>* fields, const std::string& key,
             const std::vector<std::string>& unset_fields) {
    Json json = {{"table", table->full_name()}, {"key", fields == nullptr ? "primary" : "fields"}};
    if (fields != nullptr) json["fields"] = *fields;
    json["length"] = key.size();
    json["hex"] = HexEncode(key);
    json["unset_fields"] = unset_fields;
    return json;
}

Json RecordsJson(const Descriptor* table, const ProtobufValueSet_& set, LPPLOGCATEGORYINST log) {
    Json records = Json::array();
    const std::vector<CorvidaCommon::PbValueSetBuffer::Field> fields = ValueSetFields(set, log);
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string bytes = fields[i].buf_len > 0 ? std::string(fields[i].buf, fields[i].buf_len) : "";
        records.push_back({{"index", i},
                           {"tag_path", fields[i].path},
                           {"path", NamePath(table, fields[i].path)},
                           {"length", bytes.size()},
                           {"hex", HexEncode(bytes)}});
    }
    return records;
}

Json MessageJson(const google::protobuf::Message& msg) {
    std::string text;
    const auto status = google::protobuf::util::MessageToJsonString(msg, &text);
    if (!status.ok()) {
        throw Failure("the " + msg.GetDescriptor()->full_name() + " cannot be shown as JSON: " +
                      std::string(status.message()));
    }
    return Json::parse(text);
}

Json FailedPathsJson(const Descriptor* table, const std::set<std::string>& failed) {
    Json list = Json::array();
    for (const std::string& path : failed) list.push_back({{"tag_path", path}, {"path", NamePath(table, path)}});
    return list;
}

Json ComparisonJson(const Descriptor* table, bool compatible, int code, const std::string& explanation) {
    Json result = {{"table", table->full_name()}, {"compatible", compatible}, {"code", code}};
    if (!compatible) result["explanation"] = explanation;
    return result;
}

Json DifferencesJson(const Schema& schema, const std::vector<SchemaDifference>& differences) {
    Json list = Json::array();
    for (const SchemaDifference& difference : differences) {
        Json item = {{"file", schema.FileDisplayName(difference.file)}};
        item["line"] = difference.line > 0 ? Json(difference.line) : Json(nullptr);
        item["column"] = difference.line > 0 ? Json(difference.column) : Json(nullptr);
        item["code"] = difference.code;
        item["message"] = difference.message;
        list.push_back(item);
    }
    return list;
}

Json GroupJson(const PROTOBUF_UTIL::MsgDescGroup& group) {
    const Descriptor* table = group.m_desc;
    Json indexes = Json::array();
    for (const auto& index : group.m_mapIndex) {
        indexes.push_back({{"name", index.first}, {"fields", NumberedNamesJson(table, index.second)}});
    }
    return {{"table", table->full_name()},
            {"file", table->file()->name()},
            {"primary_key", NumberedNamesJson(table, group.vecKeyTag)},
            {"sharding_key", NumberedNamesJson(table, group.vecSplitKeyTag)},
            {"indexes", indexes}};
}

namespace {

// The length of the UTF-8 sequence at text[at] when it is a valid one and
// not a C1 control character; 0 otherwise.
size_t PrintableSequence(const std::string& text, size_t at) {
    const unsigned char lead = static_cast<unsigned char>(text[at]);
    size_t length = lead >= 0xf0 && lead <= 0xf4 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc2 && lead < 0xe0 ? 2 : 0;
    if (length == 0 || at + length > text.size()) return 0;
    uint32_t code = lead & (0xff >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xc0) != 0x80) return 0;
        code = (code << 6) | (next & 0x3f);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool invalid = code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff);
    const bool c1 = code >= 0x80 && code <= 0x9f;
    return overlong || invalid || c1 ? 0 : length;
}

}  // namespace

std::string Printable(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        if (c >= 0x20 && c < 0x7f) {
            out.push_back(static_cast<char>(c));
            ++at;
            continue;
        }
        const size_t sequence = c >= 0x80 ? PrintableSequence(text, at) : 0;
        if (sequence > 0) {
            out.append(text, at, sequence);
            at += sequence;
            continue;
        }
        out += "\\x";
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xf]);
        ++at;
    }
    return out;
}

}  // namespace corvida_pb
