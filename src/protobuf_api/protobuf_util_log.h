// Logging inside the protobuf bridge (private to its .cpp files).
//
// PBU_LOG(log, priority, format, ...) writes one line when the category takes
// the priority; the event names the calling function. The test comes first and the arguments are evaluated only
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

}  // namespace log_internal

// The log category of one call, for lines an operation writes many of (one
// per field or path, at a priority production categories reject): whether
// the category takes that priority is asked once, and again after every line
// that may have been written (a sink may change its category) and after
// anything else that may change it, instead of before every such line.
class CallLog {
public:
    CallLog(LPPLOGCATEGORYINST log, int priority) : m_log(log), m_priority(priority) { Wrote(); }

    LPPLOGCATEGORYINST get() const { return m_log; }
    // Whether the category took the priority when last asked.
    bool open() const { return m_open; }

    // To be called after a line may have been written, or the category may
    // have changed otherwise.
    void Wrote() { m_open = plog_category_accepts(m_log, m_priority) != 0; }

private:
    LPPLOGCATEGORYINST m_log;
    int m_priority;
    bool m_open;
};

}  // namespace PROTOBUF_UTIL

#define PBU_LOG_EMIT(func, log, priority, writer, ...) \
    PLOG_WRITE_IF_IN((func), (log), (priority), ::PROTOBUF_UTIL::log_internal::kLogFile, writer, __VA_ARGS__)

#define PBU_LOG(log, priority, ...) PBU_LOG_EMIT(__func__, (log), (priority), plog_category_logv, __VA_ARGS__)
#define PBU_LOG_ERROR(log, ...) PBU_LOG((log), PLOG_PRIORITY_ERROR, __VA_ARGS__)
#define PBU_LOG_DEBUG(log, ...) PBU_LOG((log), PLOG_PRIORITY_DEBUG, __VA_ARGS__)
#define PBU_LOG_TRACE(log, ...) PBU_LOG((log), PLOG_PRIORITY_TRACE, __VA_ARGS__)

// Hex dump of len bytes at buf, as one message of the given priority.
#define PBU_LOG_HEX(log, priority, buf, len) \
    PBU_LOG_EMIT(__func__, (log), (priority), plog_category_log_hex, (buf), (len))

// A line of the priority call_log (a CallLog) was made for, when the category
// took it when last asked; PBU_LOG_IN asks again, as for every line.
#define PBU_FREQUENT_LINE(func, call_log, priority, ...)                   \
    do {                                                                   \
        if ((call_log).open()) {                                           \
            PBU_LOG_IN((func), (call_log).get(), (priority), __VA_ARGS__); \
            (call_log).Wrote();                                            \
        }                                                                  \
    } while (0)

// For helpers that log on behalf of an operation: the event names `func`
// (the operation) rather than the helper.
#define PBU_LOG_IN(func, log, priority, ...) PBU_LOG_EMIT((func), (log), (priority), plog_category_logv, __VA_ARGS__)
#define PBU_LOG_HEX_IN(func, log, priority, buf, len) \
    PBU_LOG_EMIT((func), (log), (priority), plog_category_log_hex, (buf), (len))

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_LOG_H_
