// The log category through which the library's own log lines reach stderr.
//
// Each line reads "[priority] function: message". From level debug on, the
// lines of protobuf's runtime (for example a string field with invalid UTF-8)
// are written the same way with "protobuf" in place of the function, and
// those of gRPC (the etcd engine's connections) with "grpc".
#ifndef CORVIDA_PB_CLI_LOG_H_
#define CORVIDA_PB_CLI_LOG_H_

#include <string>

#include <google/protobuf/stubs/logging.h>

#include "plog/plog.h"

namespace corvida_pb {

// The priority of a --log-level value: "error", "debug" or "trace". Throws
// UsageError for anything else.
int ParseLogLevel(const std::string& level);

class CliLog {
public:
    // Writes lines up to and including priority (PLOG_PRIORITY_ERROR,
    // PLOG_PRIORITY_DEBUG or PLOG_PRIORITY_TRACE) and routes the log lines
    // of protobuf and gRPC to stderr until destroyed.
    explicit CliLog(int priority);
    ~CliLog();

    CliLog(const CliLog&) = delete;
    CliLog& operator=(const CliLog&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }

private:
    PLOGCATEGORYINST m_category;
    google::protobuf::LogHandler* m_previous_handler;
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_CLI_LOG_H_
