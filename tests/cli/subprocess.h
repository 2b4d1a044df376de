// Runs a program as a child process, feeding its standard input and
// collecting its exit status, standard output and standard error: the way
// the command-line tests see corvida-pb, as a script would.
#ifndef CORVIDA_TEST_CLI_SUBPROCESS_H_
#define CORVIDA_TEST_CLI_SUBPROCESS_H_

#include <map>
#include <string>
#include <vector>

namespace corvida_test {

struct ProcessResult {
    int status = -1;  // the exit status; 128 + N when killed by signal N
    std::string out;
    std::string err;
};

struct ProcessOptions {
    std::string input;                          // written to standard input, which is then closed
    std::string directory;                      // the working directory; empty: the current one
    std::map<std::string, std::string> set_env;  // variables set for the child
    std::vector<std::string> unset_env;         // variables removed for the child
};

// Runs argv[0] (a path) with argv. Never throws; a program that cannot be
// started gives status 127 and the reason in err.
ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// Runs argv[0] with a new pseudo-terminal as its controlling terminal and
// its standard input, output and error: what a program shows only on a
// terminal shows. out holds everything it wrote there (as the terminal
// passes it on: "\r\n" for "\n"); err stays empty. options.input is not
// used.
ProcessResult RunOnTerminal(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// A child process that runs while the test looks at it (in /proc/PID/...):
// started with Start(), which leaves its standard input open, and ended with
// Finish(), which writes the input, closes it and waits. The destructor
// finishes a child that Finish() has not. options.input is not used.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // False when the child cannot be started.
    bool Start(const std::vector<std::string>& argv, const ProcessOptions& options);
    int pid() const { return m_pid; }
    ProcessResult Finish(const std::string& input);

private:
    int m_pid = -1;
    int m_in = -1;   // the write end of the child's standard input
    int m_out = -1;  // the read ends of its outputs
    int m_err = -1;
};

}  // namespace corvida_test

#endif  // CORVIDA_TEST_CLI_SUBPROCESS_H_
