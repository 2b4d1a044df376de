// The library operations as corvida-pb calls them: the buffers and records
// each one needs, set up once here for the subcommands and the demo.
#ifndef CORVIDA_PB_OPERATIONS_H_
#define CORVIDA_PB_OPERATIONS_H_

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/message.h>

#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

// The primary key of msg (ExtractMsgKey), or with fields the key of those
// field numbers (ExtractFieldKey). Returns the library's result; on 0 *key
// holds the key bytes, on -10 (key too long) as many bytes as the key has.
int ComputeKey(CORVIDA_KV::CorvidaKVApi* api, const google::protobuf::Message& msg, const std::vector<int>* fields,
               bool check, LPPLOGCATEGORYINST log, std::string* key);

// The field number written as text: plain decimal digits, at most nine (so
// that it fits an int). False for anything else.
bool ParseFieldNumber(const std::string& text, int* number);

// An empty value set on the heap; only the bytes in use are ever touched.
std::unique_ptr<ProtobufValueSet_> NewValueSet();

// Cuts the fields at paths (dotted names) of msg into set
// (FillValueSetWithMsg). Key fields are skipped unless with_keys, as the
// library skips the names it is given. Returns the library's result. Throws
// Failure when the table's primary-key option names a missing field.
int CutValueSet(google::protobuf::Message* msg, const std::set<std::string>& paths, bool with_keys,
                ProtobufValueSet_* set, LPPLOGCATEGORYINST log);

// The key field names of msg's table that the paths start with: the paths
// that a cut without with_keys skips.
std::vector<std::string> SkippedKeyPaths(const google::protobuf::Message& msg, const std::set<std::string>& paths);

// The fields of set, borrowing its storage. Throws Failure when the set is
// inconsistent.
std::vector<CorvidaCommon::PbValueSetBuffer::Field> ValueSetFields(const ProtobufValueSet_& set,
                                                                   LPPLOGCATEGORYINST log);

// The packed form of set. Throws Failure when the set cannot be packed.
std::string PackValueSet(const ProtobufValueSet_& set);

// Reads a packed set from data into set; source names the data in messages.
// Throws Failure when data is not exactly one packed value set.
void UnpackValueSet(const std::string& data, const std::string& source, ProtobufValueSet_* set);

// Merges the fields of set into msg (FillMsgFromField), adding the tag paths
// it could not merge to *failed; *records is the number of fields in the
// set. Throws Failure when the library stops at a tag path it cannot walk in
// msg's type (one that names no field, or goes on after a field that is not
// a singular message: a set made for another table), naming that tag path
// and the message it was looked up in; the records before it stay merged.
void MergeValueSet(const ProtobufValueSet_& set, google::protobuf::Message* msg, std::set<std::string>* failed,
                   size_t* records, LPPLOGCATEGORYINST log);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_OPERATIONS_H_
