// Every incompatibility between a server's table type and the client's.
//
// GetMetaAndCompare stops at the first difference; schema-evolution checks
// want them all. ListSchemaDifferences walks the two types with the same
// checks, in the same order and with the same leniencies (a client may lack
// optional fields, sharding keys are compared only between types with the
// same, non-zero number of indexes, index field order does not matter, a
// pair of types already being compared counts as compatible), but goes on
// after each difference. So the first difference it lists is the one
// GetMetaAndCompare reports, with the same code, and an empty list means the
// library finds the types compatible.
//
// Each difference is listed once: a nested pair of types under the first
// field that leads to it; a renamed type or package in one line (fields are
// compared by their own names, and the types in a renamed scope are not
// listed again); a map field's key and value types at the map field, not at
// its generated entry type.
//
// Each difference points at the client's declaration that must change: the
// field, the option or the message, with its line and column where the
// client's file carries source locations (files loaded from .proto text).
#ifndef CORVIDA_PB_SCHEMA_DIFF_H_
#define CORVIDA_PB_SCHEMA_DIFF_H_

#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>

namespace corvida_pb {

class Schema;

struct SchemaDifference {
    // What GetMetaAndCompare returns when this is the first difference:
    // for a difference inside a nested type, the code of the outermost field
    // that leads to it (-12 or -18).
    int code = 0;
    const google::protobuf::FileDescriptor* file = nullptr;  // the client's file
    int line = 0;                                            // 1-based; 0 when unknown
    int column = 0;                                          // 1-based; 0 when unknown
    std::string message;                                     // in words: names, types, labels
};

std::vector<SchemaDifference> ListSchemaDifferences(const google::protobuf::Descriptor* server,
                                                    const google::protobuf::Descriptor* client);

// Every difference, the one GetMetaAndCompare reported (code) first: when the
// walk did not find that one (or server is null), a difference in words of
// the code alone leads the list.
std::vector<SchemaDifference> DifferencesReported(const google::protobuf::Descriptor* server,
                                                  const google::protobuf::Descriptor* client, int code);

// "FILE:LINE:COL" of a difference in the client's schema (without line and
// column when they are unknown).
std::string DifferenceLocation(const Schema& schema, const SchemaDifference& difference);

// A difference found elsewhere (the table store's evolution rules), pointed
// at a declaration of the client's type: its field of number field, or, with
// field 0, its message option of number option (or the type itself, with
// option 0 too). message is taken as it is.
SchemaDifference DifferenceAt(const google::protobuf::Descriptor* type, int field, int option, int code,
                              const std::string& message);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_SCHEMA_DIFF_H_
