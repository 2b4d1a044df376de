// Field paths: field names to tag paths, number lists to tag paths, and the
// overlap test between requested paths.
#include <cstdio>
#include <cstring>

#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_log.h"

namespace PROTOBUF_UTIL {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

int TransFieldNameToTagPath(std::vector<std::string>& fieldnames, std::string& tagpath, const Descriptor* msgDesc,
                            int& depth, LPPLOGCATEGORYINST log) {
    const int size = static_cast<int>(fieldnames.size());
    if (depth >= size) return 0;  // nothing left to resolve
    if (depth < 0 || msgDesc == nullptr) return CorvErrCode::API_ERR_FIELD_NOT_EXSIST;

    for (int i = 0; i < msgDesc->field_count(); ++i) {
        const FieldDescriptor* field = msgDesc->field(i);
        PBU_LOG_DEBUG(log, "field:%s, tag:%d", field->name().c_str(), field->number());
        if (field->name() != fieldnames[depth]) continue;

        PBU_LOG_DEBUG(log, "transfer field name: %s", field->name().c_str());
        if (!tagpath.empty()) tagpath += '.';
        tagpath += std::to_string(field->number());
        if (++depth == size) return 0;
        if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
            return TransFieldNameToTagPath(fieldnames, tagpath, field->message_type(), depth, log);
        }
        // A name after a non-message field is looked up among the later
        // siblings of that field: callers rely on paths such as "x.y" with a
        // scalar x resolving to two numbers of the same level.
    }
    PBU_LOG_ERROR(log, "invalid field name: %s", fieldnames[depth].c_str());
    return CorvErrCode::API_ERR_FIELD_NOT_EXSIST;
}

void ConcatFieldPath(const std::vector<int>& vec, const std::string& delimiter, std::string& tag) {
    for (size_t i = 0; i < vec.size(); ++i) {
        char number[16];  // an unsigned 32-bit number has at most 10 digits
        std::memset(number, 0, sizeof(number));
        std::snprintf(number, 15, "%u", static_cast<unsigned>(vec[i]));
        tag += number;
        if (i + 1 < vec.size()) tag += delimiter;
    }
}

int VerifyTagPath(const std::string& path, const std::set<std::string>& setPaths, LPPLOGCATEGORYINST log) {
    // The prefix is the NUL-terminated text of path; the boundary is looked
    // for at path.size(). Elements beginning with the prefix form one run of
    // the ordered set starting at its lower bound, so walking that run finds
    // the same first offender as a walk of the whole set, without visiting
    // the unrelated elements.
    const char* prefix = path.c_str();
    const size_t prefix_len = std::strlen(prefix);
    auto it =
        prefix_len == path.size() ? setPaths.lower_bound(path) : setPaths.lower_bound(std::string(prefix, prefix_len));
    for (; it != setPaths.end(); ++it) {
        const std::string& element = *it;
        if (element.compare(0, prefix_len, prefix, prefix_len) != 0) break;  // past the run
        if (element.size() <= path.size()) continue;
        if (element[path.size()] == '.') {
            PBU_LOG_ERROR(log, "path:%s contained in %s at the beginning", path.c_str(), element.c_str());
            return -1;
        }
    }
    return 0;
}

}  // namespace PROTOBUF_UTIL
