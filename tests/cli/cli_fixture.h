// The fixture of the command-line tests: corvida-pb run from the source
// root as a child process, a scratch directory per test, and helpers for
// its JSON output.
#ifndef CORVIDA_TEST_CLI_CLI_FIXTURE_H_
#define CORVIDA_TEST_CLI_CLI_FIXTURE_H_

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "subprocess.h"

namespace corvida_test {

using Json = nlohmann::ordered_json;

constexpr char kGame[] = "examples/tables/game.proto";
constexpr char kPlayerText[] = "tests/cli/data/player.txt";
// The demo key of the suite game-aes, and its MD5.
constexpr char kGameKey[] = "8f3a1c5e7b9d2f4a6c8e0b1d3f5a7c9e2b4d6f8a0c1e3b5d7f9a2c4e6b8d0f1a";
constexpr char kGameKeyMd5[] = "4fe4e04a1c2dfccd3b275039396038c6";
constexpr char kOtherKey[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr char kCiphersVariable[] = "CORVIDA_PB_CIPHERS";


class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/corvida-pb-cli-XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        m_tmp = dir;
    }

    void TearDown() override {
        RunProcess({"/bin/rm", "-rf", m_tmp});
    }

    // Runs corvida-pb with args from the source root, without the cipher
    // variable unless options set it.
    static ProcessResult Pb(const std::vector<std::string>& args, ProcessOptions options = {}) {
        std::vector<std::string> argv = {CORVIDA_PB_EXE};
        argv.insert(argv.end(), args.begin(), args.end());
        if (options.directory.empty()) options.directory = CORVIDA_PB_SOURCE_DIR;
        if (options.set_env.count(kCiphersVariable) == 0) options.unset_env.push_back(kCiphersVariable);
        return RunProcess(argv, options);
    }

    // The single JSON object of out; fails the test when out is not one.
    static Json ParseOne(const std::string& out) {
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
        Json json = Json::parse(out, nullptr, false);
        EXPECT_TRUE(json.is_object()) << out;
        return json;
    }

    static std::vector<std::string> Keys(const Json& object) {
        std::vector<std::string> keys;
        for (auto it = object.begin(); it != object.end(); ++it) keys.push_back(it.key());
        return keys;
    }

    std::string WriteTmp(const std::string& name, const std::string& text, mode_t mode = 0600) const {
        const std::string path = m_tmp + "/" + name;
        std::ofstream(path) << text;
        ::chmod(path.c_str(), mode);
        return path;
    }

    std::string m_tmp;
};

inline ProcessOptions WithInput(const std::string& input) {
    ProcessOptions options;
    options.input = input;
    return options;
}

inline ProcessOptions InDirectory(const std::string& directory) {
    ProcessOptions options;
    options.directory = directory;
    return options;
}

// True when text is exactly digits lowercase hex digits.
inline bool IsHex(const std::string& text, size_t digits) {
    return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

inline std::string GameCipher() { return std::string("game-aes=") + kGameKey; }

}  // namespace corvida_test

#endif  // CORVIDA_TEST_CLI_CLI_FIXTURE_H_
