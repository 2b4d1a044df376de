#include "corvida-pb/wire_view.h"

#include <cctype>

#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>

namespace corvida_pb {

std::string HexEncode(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 0x0f];
    }
    return out;
}

bool IsHexText(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0) return false;
    for (unsigned char c : text) {
        if (!std::isxdigit(c)) return false;
    }
    return true;
}

bool DecodeRaw(const std::string& bytes, const std::string& indent, std::string* out) {
    // protoc --decode_raw parses into an UnknownFieldSet and prints it with
    // the text-format printer; doing the same guarantees the same view.
    google::protobuf::UnknownFieldSet fields;
    if (!fields.ParseFromString(bytes)) return false;
    std::string text;
    if (!google::protobuf::TextFormat::PrintUnknownFieldsToString(fields, &text)) return false;

    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        out->append(indent).append(text, start, end - start).append("\n");
        start = end + 1;
    }
    return true;
}

}  // namespace corvida_pb
