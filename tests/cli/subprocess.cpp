#include "subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

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

[[noreturn]] void ExecChild(const std::vector<std::string>& argv, const ProcessOptions& options, Pipe& in,
                            Pipe& out, Pipe& err) {
    ::dup2(in.fd[0], 0);
    ::dup2(out.fd[1], 1);
    ::dup2(err.fd[1], 2);
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

// Writes input to the child and reads both outputs until they end, without
// blocking on either side.
void Exchange(const std::string& input, Pipe& in, Pipe& out, Pipe& err, ProcessResult* result) {
    size_t written = 0;
    if (input.empty()) in.Close(1);
    char buffer[1 << 16];
    while (out.fd[0] >= 0 || err.fd[0] >= 0) {
        pollfd fds[3] = {{out.fd[0], POLLIN, 0}, {err.fd[0], POLLIN, 0}, {in.fd[1], POLLOUT, 0}};
        if (::poll(fds, 3, -1) < 0 && errno != EINTR) return;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                (i == 0 ? result->out : result->err).append(buffer, static_cast<size_t>(n));
            } else {
                (i == 0 ? out : err).Close(0);
            }
        }
        if (fds[2].fd >= 0 && fds[2].revents != 0) {
            const ssize_t n = ::write(in.fd[1], input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n <= 0 || written == input.size()) in.Close(1);
        }
    }
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
    ProcessResult result;
    Pipe in, out, err;
    if (argv.empty() || !in.Open() || !out.Open() || !err.Open()) {
        result.status = 127;
        result.err = "cannot set up the child's pipes";
        return result;
    }
    // A child that stops reading must not kill the test with SIGPIPE.
    struct sigaction ignore = {}, previous = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &previous);
    const pid_t pid = ::fork();
    if (pid == 0) ExecChild(argv, options, in, out, err);
    in.Close(0);
    out.Close(1);
    err.Close(1);
    if (pid > 0) Exchange(options.input, in, out, err, &result);
    ::sigaction(SIGPIPE, &previous, nullptr);
    int wait_status = 0;
    if (pid < 0 || ::waitpid(pid, &wait_status, 0) != pid) {
        result.status = 127;
        return result;
    }
    result.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    return result;
}

}  // namespace corvida_test
