// Whole-file input and output. The name "-" stands for standard input or
// standard output.
//
// Inputs are read with read(2) straight into the string returned: no stdio
// buffer or chunk between the file and the result holds a copy, and a result
// that outgrows its buffer moves to a larger one and wipes the one it leaves.
// So the bytes of a key file live in one buffer only, which ReadKeyFile()
// hands over as a SecretString.
#ifndef CORVIDA_PB_FILES_H_
#define CORVIDA_PB_FILES_H_

#include <string>

#include "corvida-pb/secrets.h"

namespace corvida_pb {

// The bytes of path. Throws Failure naming the file and the system's reason.
std::string ReadFile(const std::string& path);

// The bytes of a file of key material, read as ReadFile() reads them, by a
// process kept out of core dumps from then on (KeepOutOfCoreDumps()). A
// regular file that group or others may access in any way (a mode bit of
// 077 set) is refused, as ssh refuses such a private key: Failure naming the
// file as what ("cipher file"), its mode (0644) and the fix
// ("chmod 600 FILE"), before a byte is read. The mode checked is that of the
// open descriptor (fstat), so the file checked is the file read. Standard
// input ("-") is not checked: the shell opened it, not the tool, and a pipe
// or terminal has no mode that says who may read the key.
SecretString ReadKeyFile(const std::string& path, const std::string& what);

// Replaces the contents of path with data. Throws Failure like ReadFile.
void WriteFile(const std::string& path, const std::string& data);

// Writes data to a new file at path that only its owner may read and write
// (mode 0600); refuses to replace an existing file. "-" writes to standard
// output. Throws Failure like ReadFile.
void WriteNewPrivateFile(const std::string& path, const std::string& data);

// "standard input" for "-", else path: how messages name an input.
std::string DisplayName(const std::string& path);

// text as one shell word, for the commands that messages suggest: unchanged
// when it is safe, else in single quotes.
std::string ShellWord(const std::string& text);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_FILES_H_
