// What the subcommands print on standard output.
#ifndef CORVIDA_PB_REPORT_H_
#define CORVIDA_PB_REPORT_H_

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

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

}  // namespace corvida_pb

#endif  // CORVIDA_PB_REPORT_H_
