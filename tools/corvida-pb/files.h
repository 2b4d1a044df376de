// Whole-file input and output. The name "-" stands for standard input or
// standard output.
#ifndef CORVIDA_PB_FILES_H_
#define CORVIDA_PB_FILES_H_

#include <string>

namespace corvida_pb {

// The bytes of path. Throws Failure naming the file and the system's reason.
std::string ReadFile(const std::string& path);

// Replaces the contents of path with data. Throws Failure like ReadFile.
void WriteFile(const std::string& path, const std::string& data);

// Writes data to a new file at path that only its owner may read and write
// (mode 0600); refuses to replace an existing file. "-" writes to standard
// output. Throws Failure like ReadFile.
void WriteNewPrivateFile(const std::string& path, const std::string& data);

// "standard input" for "-", else path: how messages name an input.
std::string DisplayName(const std::string& path);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_FILES_H_
