#include "corvida-pb/cli_log.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <google/protobuf/stubs/logging.h>
#if CORVIDA_PB_WITH_STORE
#include "store/table_store.h"
#endif

#include "corvida-pb/secrets.h"
#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

// The priority of the CliLog alive, for the log handlers of protobuf and
// gRPC, which take no context.
int g_runtime_priority = PLOG_PRIORITY_ERROR;

// The most distinct lines a CliLog counts the repeats of.
constexpr size_t kCountedLines = 1000;

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
    if (g_runtime_priority < PLOG_PRIORITY_DEBUG) return;
    const int priority = level >= google::protobuf::LOGLEVEL_ERROR     ? PLOG_PRIORITY_ERROR
                         : level == google::protobuf::LOGLEVEL_WARNING ? PLOG_PRIORITY_WARN
                                                                       : PLOG_PRIORITY_INFO;
    WriteRedacted(priority, "protobuf", message.data(), message.size());
}

#if CORVIDA_PB_WITH_STORE
// gRPC's lines, of the etcd engine's connections, are below the tool's
// message too: a member that refuses the client's certificate makes gRPC log
// "Corruption detected." and more, while the store's error says what
// happened. gRPC calls this from its own threads, at any time.
void WriteRuntimeLine(int priority, const char* source, const char* text, size_t length) {
    if (g_runtime_priority < PLOG_PRIORITY_DEBUG) return;
    WriteRedacted(priority, source, text, length);
}
#endif

}  // namespace

int ParseLogLevel(const std::string& level) {
    if (level == "error") return PLOG_PRIORITY_ERROR;
    if (level == "debug") return PLOG_PRIORITY_DEBUG;
    if (level == "trace") return PLOG_PRIORITY_TRACE;
    throw UsageError("invalid log level '" + level + "' (choose error, debug or trace)");
}

CliLog::CliLog(int priority, Repeats repeats) {
    plog_category_init(&m_category, "corvida-pb", priority);
    m_category.pfnWrite = repeats == Repeats::kCounted ? &CliLog::WriteCounted : &WriteLine;
    m_category.pvWriteCtx = this;
    g_runtime_priority = priority;
    m_previous_handler = google::protobuf::SetLogHandler(&WriteProtobufLine);
#if CORVIDA_PB_WITH_STORE
    corvida::store::SetRuntimeLog(&WriteRuntimeLine);
#endif
}

// gRPC has no way back to its own handler: its lines are dropped from now on.
CliLog::~CliLog() {
    g_runtime_priority = PLOG_PRIORITY_ERROR;
    google::protobuf::SetLogHandler(m_previous_handler);
    for (const auto& line : m_repeats) {
        if (line.second > 0) std::fprintf(stderr, "%s (%llu more times)\n", line.first.c_str(), static_cast<unsigned long long>(line.second));
    }
}

void CliLog::WriteCounted(void* log, const PLOGEVENT* event, const char* message, size_t length) {
    CliLog* self = static_cast<CliLog*>(log);
    try {
        const std::string line = std::string("[") + plog_priority_name(event->iPriority) + "] " + event->pszFunc +
                                 ": " + RedactSecrets(std::string(message, length));
        const std::lock_guard<std::mutex> lock(self->m_mutex);
        const auto counted = self->m_repeats.find(line);
        if (counted != self->m_repeats.end()) {
            ++counted->second;
            return;
        }
        // Lines that differ each time (naming a record) are not kept.
        if (self->m_repeats.size() < kCountedLines) self->m_repeats.emplace(line, 0);
    } catch (const std::exception&) {
        // Without memory to count it, the line is written.
    }
    WriteLine(log, event, message, length);
}

}  // namespace corvida_pb
