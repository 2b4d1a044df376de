#include "subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace corvida_test {
namespace {

// A pipe whose ends are closed when it goes out of scope.
struct Pipe {
    int fd[2] = {-1, -1};
    bool Open() { return ::pipe2(fd, O_CLOEXEC) == 0; }
    void Close(int end) {
        if (fd[end] >= 0) ::close(fd[end]);
        fd[end] = -1;
    }
    ~Pipe() {
        Close(0);
        Close(1);
    }
};

// In the child: enters the directory, sets the environment and runs argv.
[[noreturn]] void Exec(const std::vector<std::string>& argv, const ProcessOptions& options) {
    if (!options.directory.empty() && ::chdir(options.directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot enter %s: %s\n", options.directory.c_str(), std::strerror(errno));
        ::_exit(127);
    }
    for (const std::string& name : options.unset_env) ::unsetenv(name.c_str());
    for (const auto& variable : options.set_env) ::setenv(variable.first.c_str(), variable.second.c_str(), 1);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
    ::_exit(127);
}

[[noreturn]] void ExecChild(const std::vector<std::string>& argv, const ProcessOptions& options, Pipe& in,
                            Pipe& out, Pipe& err) {
    ::dup2(in.fd[0], 0);
    ::dup2(out.fd[1], 1);
    ::dup2(err.fd[1], 2);
    Exec(argv, options);
}

// Ignores SIGPIPE while it lives: a child that stops reading must not kill
// the test.
class IgnoredSigpipe {
public:
    IgnoredSigpipe() {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        ::sigaction(SIGPIPE, &ignore, &m_previous);
    }
    ~IgnoredSigpipe() { ::sigaction(SIGPIPE, &m_previous, nullptr); }
    IgnoredSigpipe(const IgnoredSigpipe&) = delete;
    IgnoredSigpipe& operator=(const IgnoredSigpipe&) = delete;

private:
    struct sigaction m_previous = {};
};

// Writes input to the child and reads both outputs until they end, without
// blocking on either side; closes the three descriptors.
void Exchange(const std::string& input, int* in, int* out, int* err, ProcessResult* result) {
    const auto close_fd = [](int* fd) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    };
    size_t written = 0;
    if (input.empty()) close_fd(in);
    char buffer[1 << 16];
    while (*out >= 0 || *err >= 0) {
        pollfd fds[3] = {{*out, POLLIN, 0}, {*err, POLLIN, 0}, {*in, POLLOUT, 0}};
        if (::poll(fds, 3, -1) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                (i == 0 ? result->out : result->err).append(buffer, static_cast<size_t>(n));
            } else {
                close_fd(i == 0 ? out : err);
            }
        }
        if (fds[2].fd >= 0 && fds[2].revents != 0) {
            const ssize_t n = ::write(*in, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n <= 0 || written == input.size()) close_fd(in);
        }
    }
    close_fd(in);
    close_fd(out);
    close_fd(err);
}

}  // namespace

bool ChildProcess::Start(const std::vector<std::string>& argv, const ProcessOptions& options) {
    Pipe in, out, err;
    if (argv.empty() || m_pid >= 0 || !in.Open() || !out.Open() || !err.Open()) return false;
    pid_t pid;
    {
        const IgnoredSigpipe ignored;  // the child starts with it ignored too
        pid = ::fork();
        if (pid == 0) ExecChild(argv, options, in, out, err);
    }
    if (pid < 0) return false;
    m_pid = pid;
    std::swap(m_in, in.fd[1]);
    std::swap(m_out, out.fd[0]);
    std::swap(m_err, err.fd[0]);
    return true;
}

ProcessResult ChildProcess::Finish(const std::string& input) {
    ProcessResult result;
    if (m_pid < 0) {
        result.status = 127;
        result.err = "no child was started";
        return result;
    }
    {
        const IgnoredSigpipe ignored;
        Exchange(input, &m_in, &m_out, &m_err, &result);
    }
    int wait_status = 0;
    const pid_t pid = m_pid;
    m_pid = -1;
    if (::waitpid(pid, &wait_status, 0) != pid) {
        result.status = 127;
        return result;
    }
    result.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    return result;
}

ChildProcess::~ChildProcess() {
    if (m_pid >= 0) Finish("");
}

ProcessResult RunOnTerminal(const std::vector<std::string>& argv, const ProcessOptions& options) {
    ProcessResult result;
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) Exec(argv, options);
    if (pid < 0) {
        result.status = 127;
        result.err = std::string("cannot open a pseudo-terminal: ") + std::strerror(errno);
        return result;
    }
    // The terminal reads as ended (EIO) once the child and its descendants
    // have closed it.
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::read(terminal, buffer, sizeof(buffer));
        if (n > 0) {
            result.out.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(terminal);
    int wait_status = 0;
    if (::waitpid(pid, &wait_status, 0) != pid) return result;
    result.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    return result;
}

ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
    ChildProcess child;
    if (!child.Start(argv, options)) {
        ProcessResult result;
        result.status = 127;
        result.err = "cannot set up the child's pipes";
        return result;
    }
    return child.Finish(options.input);
}

}  // namespace corvida_test
