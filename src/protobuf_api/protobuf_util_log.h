// Logging inside the protobuf bridge (private to its .cpp files).
//
// PBU_LOG(log, priority, format, ...) writes one line when the category takes
// the priority. The test comes first and the arguments are evaluated only
// after it passed, so a rejected line costs a few comparisons and never
// computes a DebugString() or the like. A null category writes nothing.
#ifndef CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_LOG_H_
#define CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_LOG_H_

#include "plog/plog.h"

namespace PROTOBUF_UTIL {
namespace log_internal {

// Every line of the bridge carries this file text, whichever source file
// wrote it, so log filters keyed on it keep working.
constexpr const char kLogFile[] = "corvida/src/protobuf_api/protobuf_util";

inline bool BoundSet(const int* bound) { return bound != nullptr && *bound != -1; }

// The category test: bounds first, then the category's own threshold.
inline bool CanWrite(LPPLOGCATEGORYINST log, int priority) {
    if (log == nullptr) return false;
    if (BoundSet(log->piPriorityLow) && *log->piPriorityLow < priority) return false;
    if (BoundSet(log->piPriorityHigh) && *log->piPriorityHigh > priority) return false;
    return plog_category_can_write(log, priority, 0, 0) != 0;
}

}  // namespace log_internal
}  // namespace PROTOBUF_UTIL

// Tests the category, then builds the event and calls writer(category,
// &event, args...).
#define PBU_LOG_EMIT(log, priority, writer, ...)                                                   \
    do {                                                                                           \
        LPPLOGCATEGORYINST pbu_log_category_ = (log);                                              \
        if (::PROTOBUF_UTIL::log_internal::CanWrite(pbu_log_category_, (priority))) {              \
            const PLOGEVENT pbu_log_event_ = {(priority), ::PROTOBUF_UTIL::log_internal::kLogFile, \
                                              __LINE__, __func__};                                 \
            writer(pbu_log_category_, &pbu_log_event_, __VA_ARGS__);                               \
        }                                                                                          \
    } while (0)

#define PBU_LOG(log, priority, ...) PBU_LOG_EMIT((log), (priority), plog_category_logv, __VA_ARGS__)
#define PBU_LOG_ERROR(log, ...) PBU_LOG((log), PLOG_PRIORITY_ERROR, __VA_ARGS__)
#define PBU_LOG_DEBUG(log, ...) PBU_LOG((log), PLOG_PRIORITY_DEBUG, __VA_ARGS__)
#define PBU_LOG_TRACE(log, ...) PBU_LOG((log), PLOG_PRIORITY_TRACE, __VA_ARGS__)

// Hex dump of len bytes at buf, as one message of the given priority.
#define PBU_LOG_HEX(log, priority, buf, len) PBU_LOG_EMIT((log), (priority), plog_category_log_hex, (buf), (len))

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_LOG_H_
