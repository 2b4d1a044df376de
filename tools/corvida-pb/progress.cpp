#include "corvida-pb/progress.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace corvida_pb {

namespace {

using Clock = std::chrono::steady_clock;

bool StderrIsTerminal() {
    const char* forced = std::getenv("CORVIDA_PB_PROGRESS");
    if (forced != nullptr && std::strcmp(forced, "terminal") == 0) return true;
    if (forced != nullptr && std::strcmp(forced, "plain") == 0) return false;
    return ::isatty(STDERR_FILENO) == 1;
}

// 1234567 -> "1,234,567".
std::string Grouped(uint64_t n) {
    std::string digits = std::to_string(n);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) digits.insert(static_cast<size_t>(at), ",");
    return digits;
}

// 75 -> "1:15", 3700 -> "1:01:40".
std::string Clocktime(double seconds) {
    const uint64_t s = static_cast<uint64_t>(seconds + 0.5);
    char text[32];
    if (s >= 3600) {
        std::snprintf(text, sizeof(text), "%llu:%02llu:%02llu", static_cast<unsigned long long>(s / 3600),
                      static_cast<unsigned long long>(s / 60 % 60), static_cast<unsigned long long>(s % 60));
    } else {
        std::snprintf(text, sizeof(text), "%llu:%02llu", static_cast<unsigned long long>(s / 60),
                      static_cast<unsigned long long>(s % 60));
    }
    return text;
}

}  // namespace

Progress::Progress(std::string what, uint64_t total, Elsewhere elsewhere, std::ostream& out)
    : m_what(std::move(what)),
      m_total(total),
      m_terminal(StderrIsTerminal()),
      m_elsewhere(elsewhere),
      m_out(out),
      m_start(Clock::now()),
      m_last_draw(m_start) {}

Progress::~Progress() {
    // A command that failed leaves no half-drawn bar before its error.
    if (m_drawn && m_terminal && !m_finished) m_out << "\r\033[K" << std::flush;
}

double Progress::seconds() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }

std::string Progress::Elapsed() const {
    const double s = seconds();
    char text[32];
    std::snprintf(text, sizeof(text), s < 10 ? "%.3g s" : "%.1f s", s);
    return text;
}

void Progress::Advance(uint64_t n) {
    m_done += n;
    Draw(false);
}

std::string Progress::Line() const {
    const double elapsed = seconds();
    const double rate = elapsed > 0 ? static_cast<double>(m_done) / elapsed : 0;
    std::string line;
    if (m_total > 0 && m_terminal) {
        const uint64_t filled = m_done >= m_total ? 20 : m_done * 20 / m_total;
        line = "[" + std::string(filled, '#') + std::string(20 - filled, '.') + "] ";
    }
    line += Grouped(m_done);
    if (m_total > 0) line += " / " + Grouped(m_total);
    line += " " + m_what + "  " + Grouped(static_cast<uint64_t>(rate)) + "/s";
    if (m_total > 0 && rate > 0 && m_done < m_total) {
        line += "  " + Clocktime(static_cast<double>(m_total - m_done) / rate) + " left";
    }
    return line;
}

void Progress::Draw(bool force) {
    const Clock::time_point now = Clock::now();
    if (m_terminal) {
        // The first step draws at once, so that the bar shows from the start.
        if (!force && m_drawn && now - m_last_draw < std::chrono::milliseconds(100)) return;
        m_out << "\r\033[K" << Line() << std::flush;
        m_drawn = true;
    } else {
        if (m_elsewhere == Elsewhere::kQuiet || now - m_last_draw < std::chrono::seconds(1)) return;
        m_out << Line() << "\n" << std::flush;
    }
    m_last_draw = now;
}

void Progress::Finish(const std::string& summary) {
    if (m_drawn && m_terminal) m_out << "\r\033[K";
    m_out << summary << "\n" << std::flush;
    m_finished = true;
}

}  // namespace corvida_pb
