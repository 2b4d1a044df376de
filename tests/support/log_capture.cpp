#include "support/log_capture.h"

namespace corvida_test {

LogCapture::LogCapture(int threshold) {
    plog_category_init(&m_category, "test", threshold);
    m_category.pfnWrite = &LogCapture::Sink;
    m_category.pvWriteCtx = this;
}

void LogCapture::Sink(void* ctx, const PLOGEVENT* event, const char* msg, size_t len) {
    auto* self = static_cast<LogCapture*>(ctx);
    self->m_lines.push_back(CapturedLine{event->iPriority, event->pszFile ? event->pszFile : "", event->iLine,
                                         event->pszFunc ? event->pszFunc : "", std::string(msg, len)});
}

std::vector<std::string> LogCapture::Texts(int priority) const {
    std::vector<std::string> texts;
    for (const auto& line : m_lines) {
        if (line.priority == priority) texts.push_back(line.text);
    }
    return texts;
}

int LogCapture::Count(int priority, const std::string& text) const {
    int n = 0;
    for (const auto& line : m_lines) {
        if (line.priority == priority && line.text == text) ++n;
    }
    return n;
}

std::string LogCapture::Dump() const {
    std::string out;
    for (const auto& line : m_lines) {
        out += std::to_string(line.priority) + ": " + line.text + "\n";
    }
    return out;
}

}  // namespace corvida_test
