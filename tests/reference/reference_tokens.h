// Kept as the yardstick of the differential test (see reference/reference.h).
//
// In-place splitting of option values and paths, and field lookup by a name
// taken from them (private to the bridge's .cpp files).
//
// Key extraction and value-set cutting run on every request; splitting with
// TokenSplit would build a vector of strings each time. TokenView yields the
// very same tokens as views into the text, and FindFieldByToken looks a name
// up without building a string for it.
#ifndef CORVIDA_TESTS_REFERENCE_REFERENCE_TOKENS_H_
#define CORVIDA_TESTS_REFERENCE_REFERENCE_TOKENS_H_

#include <algorithm>
#include <string>
#include <string_view>

#include <google/protobuf/descriptor.h>

#include "reference/reference.h"

namespace corvida_reference {
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

private:
    static std::string_view Trim(std::string_view s) {
        while (!s.empty() && isWhitespace(s.front())) s.remove_prefix(1);
        while (!s.empty() && isWhitespace(s.back())) s.remove_suffix(1);
        return s;
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
}  // namespace corvida_reference

#endif  // CORVIDA_TESTS_REFERENCE_REFERENCE_TOKENS_H_
