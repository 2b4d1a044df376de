// The log category through which the library's own log lines reach stderr.
//
// Each line reads "[priority] function: message". From level debug on, the
// lines of protobuf's runtime (for example a string field with invalid UTF-8)
// are written the same way with "protobuf" in place of the function, and
// those of gRPC (the etcd engine's connections) with "grpc".
//
// A command that goes through many records (an export of a table whose
// records each log the same line) may write each distinct line of the
// library once: the repeats are counted and said at the end ("[error] F:
// message (41 more times)").
#ifndef CORVIDA_PB_CLI_LOG_H_
#define CORVIDA_PB_CLI_LOG_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include <google/protobuf/stubs/logging.h>

#include "plog/plog.h"

namespace corvida_pb {

// The priority of a --log-level value: "error", "debug" or "trace". Throws
// UsageError for anything else.
int ParseLogLevel(const std::string& level);

class CliLog {
public:
    enum class Repeats { kWritten, kCounted };

    // Writes lines up to and including priority (PLOG_PRIORITY_ERROR,
    // PLOG_PRIORITY_DEBUG or PLOG_PRIORITY_TRACE) and routes the log lines
    // of protobuf and gRPC to stderr until destroyed. With kCounted, a line
    // of the library that was written already is counted instead, and the
    // counts are written when the object goes.
    explicit CliLog(int priority, Repeats repeats = Repeats::kWritten);
    ~CliLog();

    CliLog(const CliLog&) = delete;
    CliLog& operator=(const CliLog&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }

private:
    static void WriteCounted(void* log, const PLOGEVENT* event, const char* message, size_t length);

    PLOGCATEGORYINST m_category;
    google::protobuf::LogHandler* m_previous_handler;
    std::mutex m_mutex;
    std::map<std::string, uint64_t> m_repeats;  // by the line as written: how many times it came again
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_CLI_LOG_H_
