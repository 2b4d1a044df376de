// Key material in corvida-pb: kept out of every message and wiped after use.
//
// Cipher keys reach the tool as hex text (on the command line, in a file, in
// the environment). Three promises hold for them:
//   - no message of the tool prints them: every text that goes to standard
//     error passes through RedactSecrets(), which hides each text remembered
//     with RememberSecret() (and the words of the command line that look like
//     key material, remembered by RememberCommandLineSecrets());
//   - the tool's own copies are wiped (OPENSSL_cleanse) when they are no
//     longer needed: SecretString does it on destruction, WipeString() on
//     demand;
//   - no other process sees them: once the tool holds key material, the
//     process is not dumpable and cannot dump core (KeepOutOfCoreDumps()).
#ifndef CORVIDA_PB_SECRETS_H_
#define CORVIDA_PB_SECRETS_H_

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvida_pb {

// Overwrites the characters of s with zeros, then empties it.
void WipeString(std::string* s);

// WipeString() for every string of strings.
void WipeStrings(std::vector<std::string>* strings);

// Wipes the strings of a vector when it goes out of scope, on every way out.
class StringsWiper {
public:
    explicit StringsWiper(std::vector<std::string>* strings) : m_strings(strings) {}
    ~StringsWiper() { WipeStrings(m_strings); }

    StringsWiper(const StringsWiper&) = delete;
    StringsWiper& operator=(const StringsWiper&) = delete;

private:
    std::vector<std::string>* m_strings;
};

// A string that wipes its characters when destroyed.
class SecretString {
public:
    SecretString() = default;
    explicit SecretString(std::string text) : m_text(std::move(text)) {}
    ~SecretString() { WipeString(&m_text); }

    SecretString(SecretString&& other) noexcept : m_text(std::move(other.m_text)) { WipeString(&other.m_text); }
    SecretString(const SecretString&) = delete;
    SecretString& operator=(const SecretString&) = delete;

    std::string& str() { return m_text; }
    const std::string& str() const { return m_text; }

private:
    std::string m_text;
};

// Makes the process non-dumpable (prctl PR_SET_DUMPABLE 0: no core file, no
// debugger or /proc/PID/mem for other processes of the same user) and sets
// its core size limit to 0, soft and hard. Both only ever lower what the
// process may do, so calling again is harmless. Called wherever key material
// enters the tool: by RememberSecret(), which every key passes through
// whatever its place, and by the readers of key files and of the cipher
// variable before they read. Throws Failure when the system refuses: the
// tool then stops rather than hold keys unprotected.
void KeepOutOfCoreDumps();

// Remembers text as key material: RedactSecrets() hides it from then on,
// and the process is kept out of core dumps (KeepOutOfCoreDumps()). Texts
// shorter than 8 characters are not remembered (they would hide ordinary
// words and reveal little), but are kept out of core dumps all the same.
void RememberSecret(const std::string& text);

// Remembers the parts of the command-line words that may be key material:
// every run of 16 or more letters and digits (wherever it stands in a word:
// "--colour=KEY", "NAME=KEY") of which at least three in four are hex
// digits. A key given where a name or file was expected, or mistyped, is
// still a key; table names, file names and message text stay readable.
void RememberCommandLineSecrets(const std::vector<std::string>& words);

// True when text holds a run that RememberCommandLineSecrets() would take
// for key material. Makes no copy of text.
bool LooksLikeKeyText(std::string_view text);

// message with every remembered secret replaced by "<hidden>".
std::string RedactSecrets(std::string message);

// Wipes every remembered secret (called once before the program ends).
void ForgetSecrets();

}  // namespace corvida_pb

#endif  // CORVIDA_PB_SECRETS_H_
