// Cipher keys of the tables' AES-SIV suites, given to corvida-pb.
//
// A key is hex text (64 digits for AES-128-SIV, 128 for AES-256-SIV) under a
// suite name, written NAME=HEXKEY. Three places give them, most specific
// first:
//   --cipher NAME=HEXKEY     on the command line (repeatable; visible to
//                            other local users in the process list);
//   --cipher-file FILE       one NAME=HEXKEY per line; blank lines and lines
//                            starting with '#' are skipped; refused when
//                            FILE is a regular file that group or others
//                            may access (ReadKeyFile() in files.h);
//   CORVIDA_PB_CIPHERS       NAME=HEXKEY entries separated by ';'.
// A name given in a more specific place hides the same name further down; a
// name given twice in one place is an error. White space around an entry and
// around a key is ignored; a name is taken exactly as written (tables name
// their suite exactly).
//
// A valid suite name is the text before the first "=" when it is printable
// ASCII (letters, digits, punctuation and blanks: nothing that drives a
// terminal) and holds no run that looks like key text, by the test that hides
// key material on the command line (RememberCommandLineSecrets() in
// secrets.h: 16 or more letters and digits, three in four of them hex
// digits). An entry whose name is not valid is refused without showing the
// name: it is most often a key written before "=" (NAME and HEXKEY swapped).
//
// Nothing of these places reaches a message, a log line or JSON output but
// valid suite names and where an entry stands ("ciphers.txt:3",
// "CORVIDA_PB_CIPHERS entry 2"); key text is never printed. Every copy the
// tool makes of key text is wiped once the suites hold the keys; the
// variable is overwritten and removed from the environment once read; and
// reading any of the places keeps the process out of core dumps
// (KeepOutOfCoreDumps() in secrets.h).
#ifndef CORVIDA_PB_CIPHERS_H_
#define CORVIDA_PB_CIPHERS_H_

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "protobuf_api/corvida_kv_api.h"

namespace corvida_pb {

// The environment variable of cipher keys.
extern const char kCipherEnvironmentVariable[];

class CipherOptions {
public:
    // Declares --cipher and --cipher-file on app. Returns the option
    // --cipher-file, which reads a file ('-': standard input), so that the
    // command counts it among the readers of standard input.
    CLI::Option* Add(CLI::App* app);

    // Adds to api a suite for every name given (see above). Throws
    // UsageError for a malformed --cipher, Failure for a malformed line of
    // the file or entry of the environment, or a key the suite refuses.
    void Configure(CORVIDA_KV::CorvidaKVApi* api);

    // How to give the key of suite_name: "--cipher NAME=HEXKEY" quoted for
    // the shell where the name needs it, and the other places.
    static std::string Suggestion(const std::string& suite_name);

private:
    std::vector<std::string> m_ciphers;
    std::string m_file;
    CLI::Option* m_cipher_option = nullptr;
    CLI::Option* m_file_option = nullptr;
};

// Takes the value of every --cipher out of words (the command line without
// the program name, before CLI11 parses it) and puts the stand-in
// "<hidden>" in its place; CipherOptions::Configure takes the values back,
// in order. CLI11 copies every word it parses and frees the copies without
// wiping them: so it never holds key text given with --cipher. The words
// after "--" and values that start with "-" (which CLI11 does not take as
// values) are left as they are.
void WithholdCipherValues(std::vector<std::string>* words);

// Wipes the withheld values that no Configure took (a command without
// --cipher, or one that failed before).
void ForgetWithheldCipherValues();

// The lowercase hex MD5 of the raw key bytes of hex_key: the value of the
// corvida_cipher_md5 option of tables encrypted with that key. Throws
// Failure when the text is not a key an AES-SIV suite takes.
std::string CipherKeyMd5(const std::string& hex_key, const std::string& source);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_CIPHERS_H_
