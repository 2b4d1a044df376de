// What the subcommands print on standard output.
#ifndef CORVIDA_PB_REPORT_H_
#define CORVIDA_PB_REPORT_H_

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>
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
