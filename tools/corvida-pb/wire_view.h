// Views of protobuf wire bytes for people.
#ifndef CORVIDA_PB_WIRE_VIEW_H_
#define CORVIDA_PB_WIRE_VIEW_H_

#include <string>

namespace corvida_pb {

// Lowercase hex digits of bytes, two per byte, no separators.
std::string HexEncode(const std::string& bytes);

// True when text is a non-empty, even-length run of hex digits.
bool IsHexText(const std::string& text);

// The fields of bytes tag by tag, exactly as "protoc --decode_raw" prints
// them: "N: value" for varints, "N: 0x%08x" and "N: 0x%016x" for fixed32 and
// fixed64, "N: \"escaped\"" for length-delimited data that does not parse as
// a message, "N {" ... "}" with two-space indentation for embedded messages
// and groups. Each line is preceded by indent. Returns false (and leaves out
// untouched) when bytes are not a sequence of protobuf fields.
bool DecodeRaw(const std::string& bytes, const std::string& indent, std::string* out);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_WIRE_VIEW_H_
