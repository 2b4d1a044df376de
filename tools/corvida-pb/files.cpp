#include "corvida-pb/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

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

std::string ReadStream(std::FILE* f, const std::string& path) {
    std::string data;
    char chunk[1 << 16];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) data.append(chunk, n);
    if (std::ferror(f)) throw SystemFailure("read", path);
    return data;
}

}  // namespace

std::string DisplayName(const std::string& path) { return path == "-" ? "standard input" : path; }

std::string ReadFile(const std::string& path) {
    if (path == "-") return ReadStream(stdin, path);
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (!f) throw SystemFailure("read", path);
    return ReadStream(f.get(), path);
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

}  // namespace corvida_pb
