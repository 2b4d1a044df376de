// Splitting of option values, index declarations and dotted paths.
#include <cctype>

#include "protobuf_api/protobuf_util.h"

namespace PROTOBUF_UTIL {

bool isWhitespace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string& trim(std::string& s) {
    size_t first = 0;
    while (first < s.size() && isWhitespace(s[first])) ++first;
    s.erase(0, first);
    size_t end = s.size();
    while (end > 0 && isWhitespace(s[end - 1])) --end;
    s.erase(end);
    return s;
}

void TokenSplit(const std::string& source, const std::string& delimiter, std::vector<std::string>& vec) {
    size_t last = 0;
    size_t index = source.find_first_of(delimiter, last);
    while (index != std::string::npos) {
        std::string token = source.substr(last, index - last);
        vec.push_back(std::move(trim(token)));
        last = index + 1;
        index = source.find_first_of(delimiter, last);
    }
    // Only a non-empty tail becomes a token: a trailing delimiter adds none,
    // while a tail of white space adds one empty token.
    if (last < source.size()) {
        std::string token = source.substr(last);
        vec.push_back(std::move(trim(token)));
    }
}

int getIndexInfo(const std::string& source, std::string& indexName, std::string& indexFields) {
    if (source.empty()) return -1;
    const size_t open = source.find('(');
    if (open == std::string::npos) return -2;
    indexName = source.substr(0, open);
    const size_t close = source.find(')');
    if (close == std::string::npos || close != source.size() - 1) return -3;
    // The ")" is the last character, so it follows the first "(".
    indexFields = source.substr(open + 1, close - open - 1);
    return 0;
}

}  // namespace PROTOBUF_UTIL
