#include "corvida-pb/ciphers.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>
#include <utility>

#include <openssl/crypto.h>

#include "corvida-pb/files.h"
#include "corvida-pb/secrets.h"
#include "corvida-pb/status.h"
#include "corvida-pb/wire_view.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

const char kCipherEnvironmentVariable[] = "CORVIDA_PB_CIPHERS";

namespace {

constexpr char kCipherOption[] = "--cipher";
constexpr char kStandIn[] = "<hidden>";

// The values WithholdCipherValues() took, in command-line order.
std::vector<SecretString>& Withheld() {
    static std::vector<SecretString> values;
    return values;
}

// Sets *out to text[begin, end) without the white space around it, making
// no other copy: a temporary would be freed without being wiped, and
// PROTOBUF_UTIL::trim, which shifts the text within its buffer, would leave
// a copy of its end behind the string's new end.
void AssignTrimmed(const std::string& text, size_t begin, size_t end, std::string* out) {
    while (begin < end && PROTOBUF_UTIL::isWhitespace(text[begin])) ++begin;
    while (end > begin && PROTOBUF_UTIL::isWhitespace(text[end - 1])) --end;
    out->assign(text, begin, end - begin);
}

// One NAME=HEXKEY entry; where names it in messages ("--cipher",
// "ciphers.txt:3", "CORVIDA_PB_CIPHERS entry 2").
struct CipherEntry {
    std::string where;
    std::string name;
    SecretString key;
};

[[noreturn]] void Refuse(bool usage, const std::string& message) {
    if (usage) throw UsageError(message);
    throw Failure(message);
}

bool IsPrintableAscii(char c) { return c >= ' ' && c <= '~'; }

// Refuses name unless it is a valid suite name (see ciphers.h), without
// showing it or copying it: it may be a key written before "=".
void CheckSuiteName(std::string_view name, const std::string& where, bool usage) {
    if (LooksLikeKeyText(name)) {
        Refuse(usage, where + ": the text before \"=\" looks like a key, not a suite name (it is not shown); an "
                              "entry is NAME=HEXKEY");
    }
    if (!std::all_of(name.begin(), name.end(), IsPrintableAscii)) {
        Refuse(usage, where + ": the suite name before \"=\" holds a character that is not printable ASCII (it is "
                              "not shown)");
    }
}

// Splits text (which the caller wipes) into an entry. Never puts key text
// into a message, nor a copy of it anywhere but entry->key.
void ParseEntry(const std::string& text, const std::string& where, bool usage, CipherEntry* entry) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos) {
        Refuse(usage, where + " takes NAME=HEXKEY, but the value has no \"=\" (it is not shown, as it may be a key)");
    }
    if (eq == 0) Refuse(usage, where + " takes NAME=HEXKEY, but the value has no suite name before \"=\"");
    CheckSuiteName(std::string_view(text).substr(0, eq), where, usage);
    entry->where = where;
    entry->name = text.substr(0, eq);
    AssignTrimmed(text, eq + 1, text.size(), &entry->key.str());
    RememberSecret(entry->key.str());
    if (entry->key.str().empty()) Refuse(usage, where + ": cipher suite \"" + entry->name + "\" has no key after \"=\"");
}

// Adds the suites of entries to api, skipping names in *taken; a name twice
// among entries is an error.
void AddSuites(std::vector<CipherEntry>* entries, bool usage, std::set<std::string>* taken,
               CORVIDA_KV::CorvidaKVApi* api) {
    std::set<std::string> own;
    for (CipherEntry& entry : *entries) {
        if (!own.insert(entry.name).second) {
            Refuse(usage, entry.where + ": cipher suite \"" + entry.name + "\" is given more than once");
        }
        if (taken->count(entry.name) != 0) continue;
        if (!IsHexText(entry.key.str())) {
            Refuse(usage, entry.where + ": the key of cipher suite \"" + entry.name + "\" is not hex text");
        }
        std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite(entry.name));
        if (suite->Init(entry.key.str()) != 0) {
            Refuse(usage, entry.where + ": cipher suite \"" + entry.name + "\" refuses the key: " + suite->GetErrMsg());
        }
        api->AddCipherSuite(std::move(suite));
    }
    for (const CipherEntry& entry : *entries) taken->insert(entry.name);
}

// CLI11 keeps its own copy of every value given; wipe it too.
void WipeResults(CLI::Option* option) {
    for (const std::string& result : option->results()) WipeString(const_cast<std::string*>(&result));
}

std::vector<CipherEntry> FileEntries(const std::string& path) {
    const SecretString text = ReadKeyFile(path, "cipher file");
    std::vector<CipherEntry> entries;
    size_t line_number = 0;
    size_t start = 0;
    while (start < text.str().size()) {
        size_t end = text.str().find('\n', start);
        if (end == std::string::npos) end = text.str().size();
        ++line_number;
        SecretString line;
        AssignTrimmed(text.str(), start, end, &line.str());
        start = end + 1;
        if (line.str().empty() || line.str()[0] == '#') continue;
        entries.emplace_back();
        ParseEntry(line.str(), DisplayName(path) + ":" + std::to_string(line_number), false, &entries.back());
    }
    return entries;
}

// The entries of the environment variable, which is then overwritten and
// removed: nothing later in the process (or started by it) needs the keys.
std::vector<CipherEntry> EnvironmentEntries() {
    char* value = std::getenv(kCipherEnvironmentVariable);
    std::vector<CipherEntry> entries;
    if (value == nullptr) return entries;
    KeepOutOfCoreDumps();
    SecretString text(value);
    OPENSSL_cleanse(value, std::strlen(value));
    ::unsetenv(kCipherEnvironmentVariable);
    size_t index = 0;
    size_t start = 0;
    while (start <= text.str().size()) {
        size_t end = text.str().find(';', start);
        if (end == std::string::npos) end = text.str().size();
        SecretString entry;
        AssignTrimmed(text.str(), start, end, &entry.str());
        start = end + 1;
        if (entry.str().empty()) continue;
        entries.emplace_back();
        ParseEntry(entry.str(), std::string(kCipherEnvironmentVariable) + " entry " + std::to_string(++index), false,
                   &entries.back());
    }
    return entries;
}

}  // namespace

CLI::Option* CipherOptions::Add(CLI::App* app) {
    m_cipher_option = app->add_option("--cipher", m_ciphers,
                                      "the AES-SIV suite NAME with a key of 64 or 128 hex digits (shown in the "
                                      "process list: prefer --cipher-file or " +
                                          std::string(kCipherEnvironmentVariable) + ")")
                          ->type_name("NAME=HEXKEY")
                          ->expected(1)
                          ->allow_extra_args(false)
                          ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    m_file_option =
        app->add_option("--cipher-file", m_file, "NAME=HEXKEY lines ('-' for standard input)")->type_name("FILE");
    return m_file_option;
}

void CipherOptions::Configure(CORVIDA_KV::CorvidaKVApi* api) {
    std::set<std::string> taken;
    {
        std::vector<CipherEntry> entries;
        std::vector<SecretString>& withheld = Withheld();
        size_t next_withheld = 0;
        for (std::string& cipher : m_ciphers) {
            SecretString value(std::move(cipher));
            WipeString(&cipher);
            if (value.str() == kStandIn && next_withheld < withheld.size()) {
                std::swap(value.str(), withheld[next_withheld++].str());
            }
            const size_t eq = value.str().find('=');
            if (eq != std::string::npos) {
                SecretString tail(value.str().substr(eq + 1));
                RememberSecret(tail.str());
            }
            entries.emplace_back();
            ParseEntry(value.str(), "--cipher", true, &entries.back());
        }
        ForgetWithheldCipherValues();
        m_ciphers.clear();
        WipeResults(m_cipher_option);
        AddSuites(&entries, true, &taken, api);
    }
    if (m_file_option->count() > 0) {
        std::vector<CipherEntry> entries = FileEntries(m_file);
        AddSuites(&entries, false, &taken, api);
    }
    std::vector<CipherEntry> entries = EnvironmentEntries();
    AddSuites(&entries, false, &taken, api);
}

void WithholdCipherValues(std::vector<std::string>* words) {
    const std::string option = kCipherOption;
    const std::string joined = option + "=";
    for (size_t i = 0; i < words->size(); ++i) {
        std::string& word = (*words)[i];
        if (word == "--") return;  // the rest is positional
        if (word == option && i + 1 < words->size() && (*words)[i + 1].compare(0, 1, "-") != 0) {
            std::string& value = (*words)[++i];
            Withheld().emplace_back(std::move(value));
            value = kStandIn;
        } else if (word.compare(0, joined.size(), joined) == 0) {
            Withheld().emplace_back(word.substr(joined.size()));
            WipeString(&word);
            word = joined + kStandIn;
        }
    }
}

void ForgetWithheldCipherValues() { Withheld().clear(); }

std::string CipherOptions::Suggestion(const std::string& suite_name) {
    return "--cipher " + ShellWord(suite_name + "=HEXKEY") + ", or as that NAME=HEXKEY entry in --cipher-file or " +
           kCipherEnvironmentVariable;
}

std::string CipherKeyMd5(const std::string& hex_key, const std::string& source) {
    if (!IsHexText(hex_key)) throw Failure(source + " does not hold a key in hex text");
    AesSivCipherSuite suite("key");
    if (suite.Init(hex_key) != 0) throw Failure(source + ": " + suite.GetErrMsg());
    return suite.GetCipherKeyMD5();
}

}  // namespace corvida_pb
