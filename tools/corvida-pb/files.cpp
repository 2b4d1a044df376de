#include "corvida-pb/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

Failure SystemFailure(const std::string& what, const std::string& path) {
    return Failure("cannot " + what + " " + DisplayName(path) + ": " + std::strerror(errno));
}

// The first buffer for an input of unknown size (a pipe, a terminal).
constexpr size_t kFirstBuffer = 4096;

// An input open for reading: path, or standard input for "-", which stays
// open.
class Input {
public:
    explicit Input(const std::string& path)
        : m_path(path), m_fd(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (m_fd < 0) throw SystemFailure("read", path);
    }
    ~Input() {
        if (m_fd != STDIN_FILENO) ::close(m_fd);
    }

    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    bool standard_input() const { return m_fd == STDIN_FILENO; }

    struct stat Stat() const {
        struct stat st;
        if (::fstat(m_fd, &st) != 0) throw SystemFailure("read", m_path);
        return st;
    }

    // Everything up to the end, read straight into the result's buffer.
    SecretString ReadAll() const {
        const struct stat st = Stat();
        // One byte more than a regular file holds, so that the read that
        // finds the end needs no larger buffer.
        const size_t expected = S_ISREG(st.st_mode) ? static_cast<size_t>(st.st_size) + 1 : 0;
        SecretString data;
        std::string& text = data.str();
        text.resize(std::max(expected, kFirstBuffer));
        size_t used = 0;
        for (;;) {
            if (used == text.size()) Grow(&text);
            const ssize_t n = ::read(m_fd, &text[used], text.size() - used);
            if (n == 0) break;
            if (n < 0) {
                if (errno == EINTR) continue;
                throw SystemFailure("read", m_path);
            }
            used += static_cast<size_t>(n);
        }
        text.resize(used);
        return data;
    }

private:
    // Moves *text to a buffer twice its size and wipes the old one before
    // it is freed.
    static void Grow(std::string* text) {
        std::string larger(text->size() * 2, '\0');
        std::memcpy(&larger[0], text->data(), text->size());
        text->swap(larger);
        WipeString(&larger);
    }

    const std::string m_path;
    const int m_fd;
};

}  // namespace

std::string DisplayName(const std::string& path) { return path == "-" ? "standard input" : path; }

std::string ReadFile(const std::string& path) { return std::move(Input(path).ReadAll().str()); }

SecretString ReadKeyFile(const std::string& path, const std::string& what) {
    const Input input(path);
    if (!input.standard_input()) {
        const struct stat st = input.Stat();
        if (S_ISREG(st.st_mode) && (st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
            char mode[8];
            std::snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(st.st_mode & 07777));
            throw Failure("the " + what + " " + path + " is accessible by group or others (mode " + mode +
                          "), so it is not read; keep keys private to their owner: chmod 600 " + ShellWord(path));
        }
    }
    KeepOutOfCoreDumps();
    return input.ReadAll();
}

void WriteFile(const std::string& path, const std::string& data) {
    if (path == "-") {
        if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size() || std::fflush(stdout) != 0) {
            throw Failure("cannot write to standard output");
        }
        return;
    }
    FilePtr f(std::fopen(path.c_str(), "wb"));
    if (!f) throw SystemFailure("write", path);
    if (std::fwrite(data.data(), 1, data.size(), f.get()) != data.size()) throw SystemFailure("write", path);
    if (std::fclose(f.release()) != 0) throw SystemFailure("write", path);
}

void WriteNewPrivateFile(const std::string& path, const std::string& data) {
    if (path == "-") return WriteFile(path, data);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (errno == EEXIST) throw Failure(path + " exists already; choose a new file for a new key");
        throw SystemFailure("write", path);
    }
    FilePtr f(::fdopen(fd, "wb"));
    if (!f) {
        ::close(fd);
        throw SystemFailure("write", path);
    }
    if (std::fwrite(data.data(), 1, data.size(), f.get()) != data.size()) throw SystemFailure("write", path);
    if (std::fclose(f.release()) != 0) throw SystemFailure("write", path);
}

std::string ShellWord(const std::string& text) {
    static const char kSafe[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.:/+,@%=";
    if (!text.empty() && text.find_first_not_of(kSafe) == std::string::npos) return text;
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace corvida_pb
