// How corvida-pb reports trouble.
//
// Commands throw UsageError for a malformed command line (exit status 2) and
// Failure when an input cannot be used or an operation fails (exit status 1).
// main() catches both and prints the message; nothing else escapes.
#ifndef CORVIDA_PB_STATUS_H_
#define CORVIDA_PB_STATUS_H_

#include <stdexcept>
#include <string>

namespace corvida_pb {

enum ExitStatus {
    kExitOk = 0,
    kExitFailed = 1,
    kExitUsage = 2,
};

// A malformed command line: unknown option, missing or malformed value.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

// An input that cannot be used (missing file, bad schema, bad text) or an
// operation that failed. The message may span several lines.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_STATUS_H_
