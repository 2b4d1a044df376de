#include "corvida-pb/cli_log.h"

#include <cstdio>

#include <google/protobuf/stubs/logging.h>

#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

// The priority of the CliLog alive, for protobuf's log handler, which takes
// no context.
int g_protobuf_priority = PLOG_PRIORITY_ERROR;

void WriteLine(void*, const PLOGEVENT* event, const char* message, size_t length) {
    std::fprintf(stderr, "[%s] %s: %.*s\n", plog_priority_name(event->iPriority), event->pszFunc,
                 static_cast<int>(length), message);
}

// The runtime's lines are diagnostics below the library's own: for instance
// the library adds protobuf's descriptor.proto to every schema pool, and the
// runtime reports each blob that brings its own copy.
void WriteProtobufLine(google::protobuf::LogLevel level, const char*, int, const std::string& message) {
    if (g_protobuf_priority < PLOG_PRIORITY_DEBUG) return;
    const int priority = level >= google::protobuf::LOGLEVEL_ERROR     ? PLOG_PRIORITY_ERROR
                         : level == google::protobuf::LOGLEVEL_WARNING ? PLOG_PRIORITY_WARN
                                                                       : PLOG_PRIORITY_INFO;
    std::fprintf(stderr, "[%s] protobuf: %s\n", plog_priority_name(priority), message.c_str());
}

}  // namespace

int ParseLogLevel(const std::string& level) {
    if (level == "error") return PLOG_PRIORITY_ERROR;
    if (level == "debug") return PLOG_PRIORITY_DEBUG;
    if (level == "trace") return PLOG_PRIORITY_TRACE;
    throw UsageError("invalid log level '" + level + "' (choose error, debug or trace)");
}

CliLog::CliLog(int priority) {
    plog_category_init(&m_category, "corvida-pb", priority);
    m_category.pfnWrite = &WriteLine;
    g_protobuf_priority = priority;
    m_previous_handler = google::protobuf::SetLogHandler(&WriteProtobufLine);
}

CliLog::~CliLog() { google::protobuf::SetLogHandler(m_previous_handler); }

}  // namespace corvida_pb
