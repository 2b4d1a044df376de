// Key material in corvida-pb: kept out of every message and wiped after use.
//
// Cipher keys reach the tool as hex text (on the command line, in a file, in
// the environment). Two promises hold for them:
//   - no message of the tool prints them: every text that goes to standard
//     error passes through RedactSecrets(), which hides each text remembered
//     with RememberSecret() (and the words of the command line that look like
//     key material, remembered by RememberCommandLineSecrets());
//   - the tool's own copies are wiped (OPENSSL_cleanse) when they are no
//     longer needed: SecretString does it on destruction, WipeString() on
//     demand.
#ifndef CORVIDA_PB_SECRETS_H_
#define CORVIDA_PB_SECRETS_H_

#include <string>
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

// Remembers text as key material: RedactSecrets() hides it from then on.
// Texts shorter than 8 characters are not remembered (they would hide
// ordinary words and reveal little).
void RememberSecret(const std::string& text);

// Remembers the parts of the command-line words that may be key material:
// every run of 16 or more letters and digits (wherever it stands in a word:
// "--colour=KEY", "NAME=KEY") of which at least three in four are hex
// digits. A key given where a name or file was expected, or mistyped, is
// still a key; table names, file names and message text stay readable.
void RememberCommandLineSecrets(const std::vector<std::string>& words);

// message with every remembered secret replaced by "<hidden>".
std::string RedactSecrets(std::string message);

// Wipes every remembered secret (called once before the program ends).
void ForgetSecrets();

}  // namespace corvida_pb

#endif  // CORVIDA_PB_SECRETS_H_
