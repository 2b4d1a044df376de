#include "store/cursor.h"

#include "store/key_format.h"

namespace corvida {
namespace store {

namespace {

constexpr char kCursorVersion = '\x01';
constexpr char kHex[] = "0123456789abcdef";

std::string Bytes(const CursorScope& scope) {
    std::string bytes(1, kCursorVersion);
    keys::AppendU32(&bytes, scope.table);
    bytes.push_back(scope.kind);
    keys::AppendEscaped(&bytes, scope.name);
    keys::AppendEscaped(&bytes, scope.value);
    return bytes;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string EncodeCursor(const CursorScope& scope, std::string_view pk) {
    std::string bytes = Bytes(scope);
    keys::AppendEscaped(&bytes, pk);
    std::string text;
    text.reserve(bytes.size() * 2);
    for (char c : bytes) {
        text.push_back(kHex[static_cast<uint8_t>(c) >> 4]);
        text.push_back(kHex[static_cast<uint8_t>(c) & 0xf]);
    }
    return text;
}

Status DecodeCursor(std::string_view text, const CursorScope& scope, std::string* pk) {
    const Status not_a_cursor = Status::InvalidArgument("the cursor is not one that this store handed back");
    if (text.size() % 2 != 0 || text.size() > 16384) return not_a_cursor;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = HexDigit(text[i]);
        const int low = HexDigit(text[i + 1]);
        if (high < 0 || low < 0) return not_a_cursor;
        bytes.push_back(static_cast<char>(high << 4 | low));
    }
    const std::string expected = Bytes(scope);
    if (bytes.size() < 6 || bytes[0] != kCursorVersion) return not_a_cursor;
    if (bytes.compare(0, expected.size(), expected) != 0) {
        return Status::InvalidArgument("the cursor belongs to another table or another read");
    }
    std::string_view rest(bytes);
    rest.remove_prefix(expected.size());
    if (!keys::ReadEscaped(&rest, pk) || !rest.empty() || pk->empty()) return not_a_cursor;
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
