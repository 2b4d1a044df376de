// Progress of a command that may run for more than a moment (an import, an
// export, a verification, an index build), on standard error.
//
// On a terminal, one line is drawn at the first step and redrawn at most
// ten times a second after it: a bar when the total is known, the count, the
// rate and the time left ("[#####.....] 52,000 / 100,000 records  48,200/s
// 0:01 left"). Elsewhere, as the command chooses: nothing (a pipe stays
// clean for scripts), or one plain line per second. Finish() erases the bar and prints the summary line, on a terminal
// and elsewhere ("imported 100000 records in 2.1 s").
//
// Whether standard error is a terminal is asked once, when the object is
// made; CORVIDA_PB_PROGRESS=terminal or =plain overrides the answer (for
// tests and for users who want lines in a log).
#ifndef CORVIDA_PB_PROGRESS_H_
#define CORVIDA_PB_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace corvida_pb {

class Progress {
public:
    // What to print where standard error is not a terminal.
    enum class Elsewhere { kQuiet, kLinePerSecond };

    // what: the things counted ("records"). total: how many there will be,
    // 0 when unknown.
    Progress(std::string what, uint64_t total, Elsewhere elsewhere, std::ostream& out);
    ~Progress();

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Advance(uint64_t n = 1);
    void SetTotal(uint64_t total) { m_total = total; }
    uint64_t done() const { return m_done; }
    // True when the bar is drawn: standard error is a terminal.
    bool terminal() const { return m_terminal; }
    double seconds() const;

    // Erases the bar and prints summary on a line of its own.
    void Finish(const std::string& summary);

    // "2.1 s", "0.004 s": the time since the start, for summaries.
    std::string Elapsed() const;

private:
    void Draw(bool force);
    std::string Line() const;

    std::string m_what;
    uint64_t m_total;
    uint64_t m_done = 0;
    bool m_terminal;
    Elsewhere m_elsewhere;
    std::ostream& m_out;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_last_draw;
    bool m_drawn = false;
    bool m_finished = false;
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_PROGRESS_H_
