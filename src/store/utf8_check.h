// Strings that protobuf would not parse back. Private to the store.
//
// A string field of a proto3 file (and so a string key or value of a proto3
// map) must hold valid UTF-8: protobuf serializes one that does not, logging
// an error, and then refuses to parse it. A store that kept such a field
// could never read its record back whole: the stored field would fail to
// merge, a key field would fail to parse back from the primary key, and an
// index entry would not match the fields a read finds. So writes check their
// strings first and refuse the record, nothing stored. Strings of proto2
// files are taken as they are: protobuf parses them back whatever they hold.
#ifndef CORVIDA_STORE_UTF8_CHECK_H_
#define CORVIDA_STORE_UTF8_CHECK_H_

#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

namespace corvida {
namespace store {

// True when field's value (every element of a repeated one, every map entry,
// every message below it) holds a string that protobuf checks and that is not
// valid UTF-8; *where is then the dotted path of that string's field from
// msg's type (elements are not numbered: "items.name"). field belongs to msg's
// type; an unset singular field holds nothing.
bool FieldHoldsInvalidUtf8(const google::protobuf::Message& msg, const google::protobuf::FieldDescriptor* field,
                           std::string* where);

// The same for every field msg holds.
bool HoldsInvalidUtf8(const google::protobuf::Message& msg, std::string* where);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_UTF8_CHECK_H_
