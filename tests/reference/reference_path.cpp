// Kept as the yardstick of the differential test (see reference/reference.h).
//
// The overlap test between requested paths, as the library first wrote it.
#include <cstring>

#include "reference/reference.h"
#include "protobuf_api/protobuf_util_log.h"

namespace corvida_reference {

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

}  // namespace corvida_reference
