// How corvida-pb reports trouble.
//
// One exit-status convention for every subcommand:
//   0  success;
//   1  an input cannot be used or an operation fails (Failure);
//   2  a malformed command line (UsageError, or CLI11's own parse errors);
//   3  a negative answer: the schemas are incompatible, the record is not
//      found (NegativeAnswer).
// Commands throw; main() catches, prints the message and returns the status.
// Nothing else escapes.
#ifndef CORVIDA_PB_STATUS_H_
#define CORVIDA_PB_STATUS_H_

#include <stdexcept>
#include <string>

namespace corvida_pb {

enum ExitStatus {
    kExitOk = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitNegative = 3,
};

// A malformed command line: a missing or malformed value, options that
// cannot go together.
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

// A question answered "no": the record is not there. The message says what
// was asked.
class NegativeAnswer : public std::runtime_error {
public:
    explicit NegativeAnswer(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_STATUS_H_
