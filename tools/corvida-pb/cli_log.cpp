#include "corvida-pb/cli_log.h"

#include <cstdio>
#include <exception>
#include <string>

#include <google/protobuf/stubs/logging.h>

#include "corvida-pb/secrets.h"
#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

// The priority of the CliLog alive, for protobuf's log handler, which takes
// no context.
int g_protobuf_priority = PLOG_PRIORITY_ERROR;

// Writes "[priority] source: text" with text passed through RedactSecrets(),
// as every other message is: a line may quote the message text or a name
// taken from the command line. Throws nothing, as it is called from within
// the library: without memory for the copy, the line is left out.
void WriteRedacted(int priority, const char* source, const char* text, size_t length) noexcept {
    try {
        const std::string redacted = RedactSecrets(std::string(text, length));
        std::fprintf(stderr, "[%s] %s: %s\n", plog_priority_name(priority), source, redacted.c_str());
    } catch (const std::exception&) {
        std::fprintf(stderr, "[%s] %s: (a log line left out: out of memory)\n", plog_priority_name(priority), source);
    }
}

void WriteLine(void*, const PLOGEVENT* event, const char* message, size_t length) {
    WriteRedacted(event->iPriority, event->pszFunc, message, length);
}

// The runtime's lines are diagnostics below the library's own: for instance
// the library adds protobuf's descriptor.proto to every schema pool, and the
// runtime reports each blob that brings its own copy.
void WriteProtobufLine(google::protobuf::LogLevel level, const char*, int, const std::string& message) {
    if (g_protobuf_priority < PLOG_PRIORITY_DEBUG) return;
    const int priority = level >= google::protobuf::LOGLEVEL_ERROR     ? PLOG_PRIORITY_ERROR
                         : level == google::protobuf::LOGLEVEL_WARNING ? PLOG_PRIORITY_WARN
                                                                       : PLOG_PRIORITY_INFO;
    WriteRedacted(priority, "protobuf", message.data(), message.size());
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
