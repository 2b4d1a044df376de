#include "corvida-pb/secrets.h"

#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <openssl/crypto.h>

#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

constexpr size_t kShortestSecret = 8;
constexpr size_t kShortestKeyRun = 16;

std::vector<std::string>& Remembered() {
    static std::vector<std::string> secrets;
    return secrets;
}

bool IsAlphanumeric(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

// True when run (letters and digits only) may be key material: at least 16
// characters, at least three in four of them hex digits. A mistyped key (a
// stray letter, a "0x" in front) still qualifies; names and words of that
// length hardly ever do ("PlayerInventoryItem" has 5 hex digits in 19).
bool MayBeKey(std::string_view run) {
    if (run.size() < kShortestKeyRun) return false;
    const size_t hex = static_cast<size_t>(
        std::count_if(run.begin(), run.end(), [](unsigned char c) { return std::isxdigit(c) != 0; }));
    return hex * 4 >= run.size() * 3;
}

// Calls f(run) for every run of letters and digits in text that may be key
// material. The runs are views of text: no copy is made.
template <typename F>
void ForEachKeyLikeRun(std::string_view text, F f) {
    size_t start = 0;
    while (start < text.size()) {
        if (!IsAlphanumeric(text[start])) {
            ++start;
            continue;
        }
        size_t end = start;
        while (end < text.size() && IsAlphanumeric(text[end])) ++end;
        const std::string_view run = text.substr(start, end - start);
        if (MayBeKey(run)) f(run);
        start = end;
    }
}

}  // namespace

void WipeString(std::string* s) {
    if (!s->empty()) OPENSSL_cleanse(&(*s)[0], s->size());
    s->clear();
}

void WipeStrings(std::vector<std::string>* strings) {
    for (std::string& s : *strings) WipeString(&s);
}

void KeepOutOfCoreDumps() {
    const rlimit no_core = {0, 0};
    if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0 || ::setrlimit(RLIMIT_CORE, &no_core) != 0) {
        throw Failure(std::string("cannot keep key material out of core dumps: ") + std::strerror(errno));
    }
}

void RememberSecret(const std::string& text) {
    KeepOutOfCoreDumps();
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
        ForEachKeyLikeRun(word, [](std::string_view run) {
            SecretString text{std::string(run)};
            RememberSecret(text.str());
        });
    }
}

bool LooksLikeKeyText(std::string_view text) {
    bool found = false;
    ForEachKeyLikeRun(text, [&found](std::string_view) { found = true; });
    return found;
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
