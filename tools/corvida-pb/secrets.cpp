#include "corvida-pb/secrets.h"

#include <algorithm>
#include <cctype>

#include <openssl/crypto.h>

namespace corvida_pb {
namespace {

constexpr size_t kShortestSecret = 8;
constexpr size_t kShortestHexWord = 16;

std::vector<std::string>& Remembered() {
    static std::vector<std::string> secrets;
    return secrets;
}

bool IsHexRun(const std::string& text) {
    return text.size() >= kShortestHexWord &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

}  // namespace

void WipeString(std::string* s) {
    if (!s->empty()) OPENSSL_cleanse(&(*s)[0], s->size());
    s->clear();
}

void RememberSecret(const std::string& text) {
    if (text.size() < kShortestSecret) return;
    std::vector<std::string>& secrets = Remembered();
    if (std::find(secrets.begin(), secrets.end(), text) != secrets.end()) return;
    secrets.push_back(text);
    // Longest first, so that a secret that contains another is hidden whole.
    std::sort(secrets.begin(), secrets.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

void RememberCommandLineSecrets(const std::vector<std::string>& words) {
    for (const std::string& word : words) {
        if (IsHexRun(word)) RememberSecret(word);
        for (size_t eq = word.find('='); eq != std::string::npos; eq = word.find('=', eq + 1)) {
            const std::string tail = word.substr(eq + 1);
            if (IsHexRun(tail)) RememberSecret(tail);
        }
    }
}

std::string RedactSecrets(std::string message) {
    static const std::string kHidden = "<hidden>";
    for (const std::string& secret : Remembered()) {
        for (size_t at = message.find(secret); at != std::string::npos; at = message.find(secret, at)) {
            message.replace(at, secret.size(), kHidden);
            at += kHidden.size();
        }
    }
    return message;
}

void ForgetSecrets() {
    for (std::string& secret : Remembered()) WipeString(&secret);
    Remembered().clear();
}

}  // namespace corvida_pb
