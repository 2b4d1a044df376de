// What the subcommands print on standard output.
#ifndef CORVIDA_PB_REPORT_H_
#define CORVIDA_PB_REPORT_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/type_resolver.h>
#include <nlohmann/json.hpp>

#include "corvida-pb/schema_diff.h"
#include "corvida-pb/schema_loader.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

// The field names along tagpath in table ("6.3" -> "profile.stats"); "?"
// stands for a number that names no field.
std::string NamePath(const google::protobuf::Descriptor* table, const std::string& tagpath);

// "<what> of <table>: N bytes", then "hex: ..." and the decoded view after
// "decoded:".
void PrintKey(std::ostream& out, const google::protobuf::Descriptor* table, const std::string& what,
              const std::string& key);

// One line per record of set: index, tag path with its names, length and
// hex, then the record's decoded view indented by two blanks. Throws
// Failure when the set is inconsistent.
void PrintValueSet(std::ostream& out, const google::protobuf::Descriptor* table, const ProtobufValueSet_& set,
                   LPPLOGCATEGORYINST log);

// msg in text format after a header line, then the failed tag paths.
void PrintMerge(std::ostream& out, const google::protobuf::Message& msg, size_t records,
                const std::set<std::string>& failed);

// The key, sharding-key and index field numbers of a filled group, with
// their names.
void PrintGroup(std::ostream& out, const PROTOBUF_UTIL::MsgDescGroup& group);

// "a, b, c".
std::string JoinComma(const std::vector<std::string>& items);

// "<explanation> (result N)": a result code of the library after the words
// that explain it, as every message of the tool shows one.
std::string WithResult(const std::string& explanation, int code);

// "incompatible (result N): <explanation>", the comparison's answer for a
// client that the server's schema refuses.
void PrintIncompatible(std::ostream& out, int code, const std::string& explanation);

// One line per difference: "FILE:LINE:COL: message" in the client's schema.
void PrintDifferences(std::ostream& out, const Schema& schema, const std::vector<SchemaDifference>& differences);

// The names of the files of a schema blob, imported files first.
std::vector<std::string> BlobFileNames(const google::protobuf::FileDescriptorSet& set);

// "6.3 (profile.stats), 9 (note)": failed tag paths of a merge into table,
// each with its field names, safe to print.
std::string FailedPathsText(const google::protobuf::Descriptor* table, const std::set<std::string>& failed);

// text safe to print on a terminal: control characters (C0, DEL and C1) and
// bytes that are not UTF-8 written as \xNN, so that stored text (a damaged
// tag path, a table name) never sends escape sequences.
std::string Printable(const std::string& text);

// ---------------------------------------------------------------------------
// Records of a table, as the store subcommands print and read them.
// ---------------------------------------------------------------------------

// Protobuf's JSON mapping of the messages of one type, both ways, with the
// type's description converted once (protobuf's own one-call functions
// convert it on every call for types outside the generated pool). A message
// is printed from its deterministic serialization, so that map entries come
// in key order and a record always prints the same bytes.
class JsonMapping {
public:
    explicit JsonMapping(const google::protobuf::Descriptor* type);
    ~JsonMapping();

    // Appends msg's JSON object, on one line, to *out. Throws Failure when
    // protobuf cannot render it (a string field that is not UTF-8).
    void Print(const google::protobuf::Message& msg, std::string* out);

    // Parses a JSON object into msg (cleared first). False, with protobuf's
    // reason in *error, when it is not one of the type.
    bool Parse(const std::string& text, google::protobuf::Message* msg, std::string* error);

private:
    std::unique_ptr<google::protobuf::util::TypeResolver> m_resolver;
    std::string m_url;
    std::string m_binary;  // reused between calls
    std::string m_json;
};

// How records are written: protobuf text format, or protobuf's JSON mapping
// one object per line.
enum class RecordFormat { kText, kJson };

// Records of one type, one after another, as get, find, scan and export
// print them. In a listing each record comes after a line "# record N" in
// text; in JSON every line is a record. When a limit cut a listing short,
// the cursor to resume from comes last: a line "# next CURSOR" in text (a
// comment to protobuf's text parser), a line {"#next":"CURSOR"} in JSON
// ("#next" is the JSON name of no field). Output is gathered and written in
// large pieces: call Flush() at the end.
class RecordPrinter {
public:
    RecordPrinter(const google::protobuf::Descriptor* type, RecordFormat format, std::ostream& out);

    // A record alone (get).
    void Print(const google::protobuf::Message& record);
    // Record number `number` (from 1) of a listing.
    void PrintListed(const google::protobuf::Message& record, uint64_t number);
    void PrintNext(const std::string& cursor);
    void Flush();

private:
    void FlushIfFull();

    RecordFormat m_format;
    std::ostream& m_out;
    std::unique_ptr<JsonMapping> m_json;  // JSON only
    std::string m_buffer;
};

// The JSON line that PrintNext writes, parsed: true, with the cursor in
// *cursor, when line is one.
bool ParseNextLine(const std::string& line, std::string* cursor);

// ---------------------------------------------------------------------------
// The same results as JSON objects (docs/cli.md lists their members). Keys
// keep the order in which they are documented.
// ---------------------------------------------------------------------------

using Json = nlohmann::ordered_json;

// json on one line; text that is not UTF-8 is replaced, never an error.
void PrintJson(std::ostream& out, const Json& json);

// {"table", "key": "primary" | "fields", "fields": [N...] (field keys only),
//  "length", "hex", "unset_fields": [NAME...]}: unset_fields names the key
// fields the key leaves out because they are not set (a primary key without
// --check; always empty for a field key, which refuses unset fields).
Json KeyJson(const google::protobuf::Descriptor* table, const std::vector<int>* fields, const std::string& key,
             const std::vector<std::string>& unset_fields);

// [{"index", "tag_path", "path", "length", "hex"}...] for the records of set.
Json RecordsJson(const google::protobuf::Descriptor* table, const ProtobufValueSet_& set, LPPLOGCATEGORYINST log);

// msg in protobuf's JSON mapping. Throws Failure when protobuf cannot render
// it (a string field that is not UTF-8, for instance).
Json MessageJson(const google::protobuf::Message& msg);

// [{"tag_path", "path"}...] for the failed tag paths of a merge into table.
Json FailedPathsJson(const google::protobuf::Descriptor* table, const std::set<std::string>& failed);

// {"table", "compatible", "code", "explanation" (when not compatible)}:
// the comparison's answer for the client type table.
Json ComparisonJson(const google::protobuf::Descriptor* table, bool compatible, int code,
                    const std::string& explanation);

// [{"file", "line", "column", "code", "message"}...]; line and column are
// null where the file has no source locations.
Json DifferencesJson(const Schema& schema, const std::vector<SchemaDifference>& differences);

// {"table", "file", "primary_key", "sharding_key": [{"number", "name"}...],
//  "indexes": [{"name", "fields": [{"number", "name"}...]}...]}.
Json GroupJson(const PROTOBUF_UTIL::MsgDescGroup& group);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_REPORT_H_
