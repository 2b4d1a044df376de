// In-place splitting of option values and paths, and field lookup by a name
// taken from them (private to the bridge's .cpp files).
//
// Key extraction and value-set cutting run on every request; splitting with
// TokenSplit would build a vector of strings each time. TokenView yields the
// very same tokens as views into the text, and FindFieldByToken looks a name
// up without building a string for it.
#ifndef CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_TOKENS_H_
#define CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_TOKENS_H_

#include <algorithm>
#include <string>
#include <string_view>

#include <google/protobuf/descriptor.h>

#include "protobuf_api/protobuf_util.h"

namespace PROTOBUF_UTIL {
namespace internal {

// Yields, as views into text, exactly the tokens that
// TokenSplit(text, std::string(1, delimiter), vec) appends: trimmed, empty
// ones between delimiters kept, none for a trailing delimiter, one empty
// token for a tail of white space alone. text must outlive the view.
class TokenView {
public:
    TokenView(std::string_view text, char delimiter) : m_text(text), m_delimiter(delimiter) {}

    // How many tokens Next() yields in all.
    size_t Count() const {
        size_t count = 0;
        size_t last = 0;
        for (size_t at = m_text.find(m_delimiter); at != std::string_view::npos; at = m_text.find(m_delimiter, last)) {
            ++count;
            last = at + 1;
        }
        return last < m_text.size() ? count + 1 : count;
    }

    bool Next(std::string_view* token) {
        if (m_done) return false;
        const size_t at = m_text.find(m_delimiter, m_last);
        if (at != std::string_view::npos) {
            *token = Trim(m_text.substr(m_last, at - m_last));
            m_last = at + 1;
            return true;
        }
        m_done = true;
        if (m_last >= m_text.size()) return false;
        *token = Trim(m_text.substr(m_last));
        return true;
    }

    // s without the white space (isWhitespace) at its ends.
    static std::string_view Trim(std::string_view s) {
        while (!s.empty() && IsSpace(s.front())) s.remove_prefix(1);
        while (!s.empty() && IsSpace(s.back())) s.remove_suffix(1);
        return s;
    }

private:
    // isWhitespace, without its call for the printable ASCII characters,
    // which are white space in no locale: names and numbers are made of them.
    static bool IsSpace(char c) {
        const unsigned char byte = static_cast<unsigned char>(c);
        return (byte <= 0x20 || byte >= 0x7f) && isWhitespace(c);
    }

    std::string_view m_text;
    char m_delimiter;
    size_t m_last = 0;
    bool m_done = false;
};

// The field of desc named token, or null; the same field FindFieldByName
// finds. Key and path fields are nearly always among the first fields a table
// declares, and comparing their names costs less than the pool's hash lookup
// (which also wants a std::string): names are unique within a message.
inline const google::protobuf::FieldDescriptor* FindFieldByToken(const google::protobuf::Descriptor* desc,
                                                                 std::string_view token) {
    constexpr int kScannedFields = 16;
    const int scanned = std::min(desc->field_count(), kScannedFields);
    for (int i = 0; i < scanned; ++i) {
        if (desc->field(i)->name() == token) return desc->field(i);
    }
    if (desc->field_count() <= kScannedFields) return nullptr;
    // A per-thread scratch string that keeps its capacity turns the lookup of
    // an ordinary name into a copy without allocation.
    thread_local std::string scratch;
    scratch.assign(token.data(), token.size());
    return desc->FindFieldByName(scratch);
}

}  // namespace internal
}  // namespace PROTOBUF_UTIL

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_TOKENS_H_
