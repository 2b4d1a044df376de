// Results of the library's operations, explained in words for the user.
//
// Each explanation is complete on its own: it names the option, field or
// path segment that is wrong and the message it was looked up in, so that a
// user who sees only this line (not the library's log) knows what to fix.
#ifndef CORVIDA_PB_EXPLAIN_H_
#define CORVIDA_PB_EXPLAIN_H_

#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "protobuf_api/corvida_kv_api.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

// Why ExtractMsgKey (fields null) or ExtractFieldKey (the numbers in fields)
// returned code for msg. key_length is the length the library reported with
// -10.
std::string ExplainKeyResult(int code, const google::protobuf::Message& msg, const std::vector<int>* fields,
                             CORVIDA_KV::CorvidaKVApi* api, size_t key_length);

// The key fields of msg's primary key that add nothing to it: unset proto2
// fields and empty repeated fields, in field-number order. Names the option
// cannot resolve are left out.
std::vector<std::string> UnsetKeyFields(const google::protobuf::Message& msg);

// Why FillValueSetWithMsg returned code for these paths of table, skipping
// paths under key_names as the library does: the first path it refuses and
// why.
std::string ExplainCutResult(int code, const google::protobuf::Descriptor* table, const std::set<std::string>& paths,
                             const std::set<std::string>& key_names);

// Why FillMsgFromField returned code when merging records with these tag
// paths (in merging order) into a message of table: the first tag path it
// cannot walk, by its record and the number that names no field, with the
// message the number was looked up in.
std::string ExplainMergeResult(int code, const google::protobuf::Descriptor* table,
                               const std::vector<std::string>& tag_paths);

// Why blob cannot serve the table called tablename (a top-level message's
// name): it does not parse, or no file of it declares that message (the
// message names the ones declared). "" when it declares the table.
std::string ExplainMissingTable(const std::string& tablename, const std::string& blob);

// Why FillMessageGroup returned null for the table called tablename in blob,
// given what it left in group.
std::string ExplainGroupFailure(const std::string& tablename, const std::string& blob,
                                const PROTOBUF_UTIL::MsgDescGroup& group);

// What differs between the server's schema and the client's type when
// GetMetaAndCompare (or CompareMessageMeta) returns code, and what to fix.
std::string ExplainCompareResult(int code);

// One warning for every corvida_index entry of table that the library
// ignores: entries that are not "NAME(FIELD,...)" and entries without a field.
std::vector<std::string> IgnoredIndexEntries(const google::protobuf::Descriptor* table);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_EXPLAIN_H_
