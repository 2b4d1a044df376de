// Results of the library's operations, explained in words for the user.
#ifndef CORVIDA_PB_EXPLAIN_H_
#define CORVIDA_PB_EXPLAIN_H_

#include <string>

#include <google/protobuf/descriptor.h>

#include "protobuf_api/corvida_kv_api.h"

namespace corvida_pb {

// Why ExtractMsgKey (field_key false) or ExtractFieldKey (true) returned
// code for table, naming the table's options and the configured suites where
// they tell the user what to fix. key_length is the length the library
// reported with -10.
std::string ExplainKeyResult(int code, const google::protobuf::Descriptor* table, bool field_key,
                             CORVIDA_KV::CorvidaKVApi* api, size_t key_length);

// Why FillValueSetWithMsg returned code.
std::string ExplainCutResult(int code);

// Why FillMsgFromField returned code.
std::string ExplainMergeResult(int code);

// What differs between the server's schema and the client's type when
// GetMetaAndCompare (or CompareMessageMeta) returns code, and what to fix.
std::string ExplainCompareResult(int code);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_EXPLAIN_H_
