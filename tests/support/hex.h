// Lowercase hex text of bytes, for test expectations and failure messages.
#ifndef CORVIDA_TESTS_SUPPORT_HEX_H_
#define CORVIDA_TESTS_SUPPORT_HEX_H_

#include <cstddef>
#include <string>

namespace corvida_test {

inline std::string Hex(const void* data, size_t len) {
    static const char kDigits[] = "0123456789abcdef";
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    std::string hex;
    hex.reserve(2 * len);
    for (size_t i = 0; i < len; ++i) {
        hex += kDigits[bytes[i] >> 4];
        hex += kDigits[bytes[i] & 0xf];
    }
    return hex;
}

inline std::string Hex(const std::string& bytes) { return Hex(bytes.data(), bytes.size()); }

}  // namespace corvida_test

#endif  // CORVIDA_TESTS_SUPPORT_HEX_H_
