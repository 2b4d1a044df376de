// A log category whose sink keeps every line, for tests that check what an
// operation logged.
#ifndef CORVIDA_TESTS_SUPPORT_LOG_CAPTURE_H_
#define CORVIDA_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <string>
#include <vector>

#include "plog/plog.h"

namespace corvida_test {

struct CapturedLine {
    int priority;
    std::string file;
    int line;
    std::string func;
    std::string text;
};

class LogCapture {
public:
    // A category that takes every line up to `threshold`.
    explicit LogCapture(int threshold = PLOG_PRIORITY_TRACE);

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }

    const std::vector<CapturedLine>& lines() const { return m_lines; }
    void Clear() { m_lines.clear(); }

    // Texts of the lines of one priority, in order.
    std::vector<std::string> Texts(int priority) const;

    // Number of lines of that priority with exactly that text.
    int Count(int priority, const std::string& text) const;
    bool Has(int priority, const std::string& text) const { return Count(priority, text) > 0; }

    // All lines, one per row, as "priority: text" (for failure messages).
    std::string Dump() const;

private:
    static void Sink(void* ctx, const PLOGEVENT* event, const char* msg, size_t len);

    PLOGCATEGORYINST m_category;
    std::vector<CapturedLine> m_lines;
};

}  // namespace corvida_test

#endif  // CORVIDA_TESTS_SUPPORT_LOG_CAPTURE_H_
