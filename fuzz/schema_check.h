// The checks both schema targets run on one blob: FillMessageGroup, reads of
// the filled group, CompareMessageMeta against the client's compiled type, and
// GetMetaAndCompare.
#ifndef CORVIDA_FUZZ_SCHEMA_CHECK_H_
#define CORVIDA_FUZZ_SCHEMA_CHECK_H_

#include <string>

#include <google/protobuf/descriptor.h>

#include "plog/plog.h"

namespace corvida_fuzz {

// The compiled type of the test table tablename ("Player2"), or null.
const google::protobuf::Descriptor* ClientType(const std::string& tablename);

// Loads blob as the schema of tablename both ways and checks the documented
// results; client may be null.
void CheckSchemaBlob(const std::string& tablename, const std::string& blob, const google::protobuf::Descriptor* client,
                     LPPLOGCATEGORYINST log);

}  // namespace corvida_fuzz

#endif  // CORVIDA_FUZZ_SCHEMA_CHECK_H_
