// The key material of corvida-pb, in process: the code the tool runs
// (corvida_pb_keys) called directly, so that the test can look where a child
// process cannot. Three promises are checked here:
//   - no copy of a key is left in freed memory: this binary replaces the
//     global operator new and delete, and while a watch is on, every block
//     freed is searched for a piece of the key (a block that still holds it
//     was never wiped);
//   - loading a key makes the process non-dumpable with a core limit of 0
//     (in a forked child, so that this process stays as it was);
//   - a key file that group or others may access is refused, and a swapped
//     entry never shows the key in its message.
#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include "corvida-pb/ciphers.h"
#include "corvida-pb/files.h"
#include "corvida-pb/secrets.h"
#include "corvida-pb/status.h"
#include "protobuf_api/corvida_kv_api.h"

namespace {

// A key of suite game-aes, and the piece of it the watch looks for.
constexpr char kKey[] = "5c1e9a3b7d2f4e6a8b0c1d3e5f7a9b2c4d6e8f0a1b3c5d7e9f2a4c6e8b0d1f3a";
constexpr char kKeyPiece[] = "7d2f4e6a8b0c1d3e";
constexpr char kVariable[] = "CORVIDA_PB_CIPHERS";

std::atomic<bool> g_watching{false};
std::atomic<int> g_unwiped{0};

}  // namespace

// Every allocation of this binary passes through these (all the forms
// without an alignment: a sanitizer's own would not pair with them), so
// that operator delete can search a block before it is freed.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void* operator new(std::size_t size) {
    if (void* block = operator new(size, std::nothrow)) return block;
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    if (block == nullptr) return;
    if (g_watching && memmem(block, malloc_usable_size(block), kKeyPiece, sizeof(kKeyPiece) - 1) != nullptr) {
        ++g_unwiped;
    }
    std::free(block);
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return operator new(size, std::nothrow); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { operator delete(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { operator delete(block); }

namespace corvida_pb {
namespace {

// Counts the blocks freed while it lives that still hold the key.
class UnwipedCopies {
public:
    UnwipedCopies() {
        g_unwiped = 0;
        g_watching = true;
    }
    ~UnwipedCopies() { g_watching = false; }
    int count() const { return g_unwiped; }
};

// The cipher options of a command, on a CLI11 app of their own.
class Loader {
public:
    Loader() { m_options.Add(&m_app); }

    // Parses words as the command line and configures the suites.
    void Load(const std::vector<std::string>& words) {
        std::vector<std::string> args(words.rbegin(), words.rend());  // CLI11 takes them in reverse
        m_app.parse(args);
        m_options.Configure(&m_api);
    }

    bool HasSuite(const char* name) { return m_api.GetCipherSuite(name) != nullptr; }

private:
    CLI::App m_app{"key_material_test"};
    CipherOptions m_options;
    CORVIDA_KV::CorvidaKVApi m_api;
};

class KeyMaterialTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::unsetenv(kVariable);
        char dir[] = "/tmp/corvida-pb-keys-XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        m_dir = dir;
    }

    void TearDown() override {
        ForgetSecrets();
        for (const std::string& path : m_files) ::unlink(path.c_str());
        ::rmdir(m_dir.c_str());
    }

    std::string WriteFile(const std::string& name, const std::string& text, mode_t mode) {
        const std::string path = m_dir + "/" + name;
        std::ofstream(path) << text;
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        m_files.push_back(path);
        return path;
    }

    static std::string Entry() { return std::string("game-aes=") + kKey; }
    static std::string Swapped() { return std::string(kKey) + "=game-aes"; }

    std::string m_dir;
    std::vector<std::string> m_files;
};

// The watch itself: a plain string left to die holds the key when freed.
TEST_F(KeyMaterialTest, WatchFindsAnUnwipedCopy) {
    const std::string path = WriteFile("key", std::string(kKey) + "\n", 0600);
    UnwipedCopies unwiped;
    { const std::string plain = ReadFile(path); }
    EXPECT_GE(unwiped.count(), 1);
}

TEST_F(KeyMaterialTest, KeyFileReaderLeavesNoCopy) {
    const std::string path = WriteFile("key", std::string(kKey) + "\n", 0600);
    UnwipedCopies unwiped;
    {
        const SecretString key = ReadKeyFile(path, "key file");
        EXPECT_EQ(key.str().size(), sizeof(kKey));  // and the newline
        EXPECT_EQ(key.str().compare(0, sizeof(kKey) - 1, kKey), 0);
    }
    EXPECT_EQ(unwiped.count(), 0);
}

// Read from a pipe, whose size is not known, the key moves through buffers
// of 4, 8, 16 and 32 KiB: each is wiped before it is freed.
TEST_F(KeyMaterialTest, KeyFileReaderLeavesNoCopyWhenItGrows) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const std::string entry = Entry();
    const std::string text = entry + "\n" + std::string(20000, '#') + "\n";  // fits in the pipe
    ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(ends[1]);
    const std::string path = "/dev/fd/" + std::to_string(ends[0]);
    {
        UnwipedCopies unwiped;
        {
            const SecretString read = ReadKeyFile(path, "cipher file");
            EXPECT_EQ(read.str().size(), text.size());
            EXPECT_EQ(read.str().compare(0, entry.size(), entry), 0);
        }
        EXPECT_EQ(unwiped.count(), 0);
    }
    ::close(ends[0]);
}

// From the file to the suite: the lines, the entries and the remembered
// secrets are all wiped.
TEST_F(KeyMaterialTest, CipherFileLeavesNoCopy) {
    const std::string path = WriteFile("ciphers", "# keys\n" + Entry() + "\n", 0600);
    UnwipedCopies unwiped;
    {
        Loader loader;
        loader.Load({"--cipher-file", path});
        EXPECT_TRUE(loader.HasSuite("game-aes"));
        ForgetSecrets();
    }
    EXPECT_EQ(unwiped.count(), 0);
}

TEST_F(KeyMaterialTest, GroupOrWorldAccessibleKeyFilesAreRefused) {
    for (const mode_t mode : {0644, 0640, 0604, 0620, 0660}) {
        char octal[8];
        std::snprintf(octal, sizeof(octal), "%04o", static_cast<unsigned>(mode));
        const std::string path = WriteFile(std::string("key-") + octal, std::string(kKey) + "\n", mode);
        try {
            ReadKeyFile(path, "key file");
            ADD_FAILURE() << octal << " was read";
        } catch (const Failure& e) {
            EXPECT_EQ(std::string(e.what()), "the key file " + path + " is accessible by group or others (mode " +
                                                 octal + "), so it is not read; keep keys private to their owner: "
                                                 "chmod 600 " + path);
        }
    }
    for (const mode_t mode : {0600, 0400}) {
        const std::string path = WriteFile("private-" + std::to_string(mode), std::string(kKey) + "\n", mode);
        EXPECT_EQ(ReadKeyFile(path, "key file").str(), std::string(kKey) + "\n");
    }
}

TEST_F(KeyMaterialTest, RefusalQuotesAPathForTheShell) {
    const std::string path = WriteFile("my keys", std::string(kKey) + "\n", 0644);
    try {
        ReadKeyFile(path, "cipher file");
        ADD_FAILURE() << "read";
    } catch (const Failure& e) {
        const std::string message = e.what();
        EXPECT_EQ(message.substr(message.find("chmod")), "chmod 600 '" + path + "'");
    }
}

// An entry written HEXKEY=NAME: refused without the key in the message, and
// without a copy of it left behind; from each of the three places.
TEST_F(KeyMaterialTest, SwappedEntryShowsNoKeyAndLeavesNoCopy) {
    const std::string file = WriteFile("swapped", "\n" + Swapped() + "\n", 0600);
    const std::string joined = "--cipher=" + Swapped();
    const struct {
        std::vector<std::string> words;
        const char* variable;
        std::string where;
    } cases[] = {
        {{"--cipher-file", file}, nullptr, file + ":2: "},
        {{}, "environment", "CORVIDA_PB_CIPHERS entry 1: "},
        {{joined}, nullptr, "--cipher: "},
    };
    for (const auto& place : cases) {
        if (place.variable != nullptr) ::setenv(kVariable, Swapped().c_str(), 1);
        std::vector<std::string> words = place.words;
        std::string message;
        {
            UnwipedCopies unwiped;
            {
                // As the tool does before CLI11 sees the command line.
                WithholdCipherValues(&words);
                Loader loader;
                try {
                    loader.Load(words);
                } catch (const std::exception& e) {
                    message = e.what();
                }
                ForgetWithheldCipherValues();
                ForgetSecrets();
            }
            EXPECT_EQ(unwiped.count(), 0) << place.where;
        }
        EXPECT_EQ(message, place.where +
                               "the text before \"=\" looks like a key, not a suite name (it is not shown); an entry "
                               "is NAME=HEXKEY");
        for (size_t at = 0; at + 16 <= sizeof(kKey) - 1; ++at) {
            ASSERT_EQ(message.find(std::string(kKey, at, 16)), std::string::npos) << message;
        }
    }
}

TEST_F(KeyMaterialTest, SuiteNamesThatCannotBePrintedAreRefused) {
    const std::string file = WriteFile("names", "game\x1b[2Jaes=" + std::string(kKey) + "\n", 0600);
    Loader loader;
    try {
        loader.Load({"--cipher-file", file});
        ADD_FAILURE() << "loaded";
    } catch (const Failure& e) {
        EXPECT_EQ(std::string(e.what()), file + ":1: the suite name before \"=\" holds a character that is not "
                                                "printable ASCII (it is not shown)");
    }
    // Blanks, punctuation and short runs of hex digits are names.
    const std::string good = WriteFile("good", "fleet aes/2024.v1=" + std::string(kKey) + "\n", 0600);
    Loader good_loader;
    good_loader.Load({"--cipher-file", good});
    EXPECT_TRUE(good_loader.HasSuite("fleet aes/2024.v1"));
}

// ---------------------------------------------------------------------------
// Core dumps: each case runs in a forked child, which reports how it stands.
// ---------------------------------------------------------------------------

// Raises the core limit as far as the hard limit allows, runs load, and
// exits after printing "dumpable B -> A, core limit SOFT/HARD" (after load).
template <typename F>
[[noreturn]] void ReportCoreDumps(F load) {
    rlimit limit;
    ::getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_CORE, &limit);
    const int before = ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
    try {
        load();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "load failed: %s\n", e.what());
    }
    const int after = ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
    ::getrlimit(RLIMIT_CORE, &limit);
    std::fprintf(stderr, "dumpable %d -> %d, core limit %llu/%llu\n", before, after,
                 static_cast<unsigned long long>(limit.rlim_cur), static_cast<unsigned long long>(limit.rlim_max));
    std::fflush(stderr);
    ::_exit(0);
}

constexpr char kProtected[] = "dumpable 1 -> 0, core limit 0/0";

using KeyMaterialDeathTest = KeyMaterialTest;

TEST_F(KeyMaterialDeathTest, CipherFileMakesTheProcessNonDumpable) {
    const std::string path = WriteFile("ciphers", Entry() + "\n", 0600);
    EXPECT_EXIT(ReportCoreDumps([&path] { Loader().Load({"--cipher-file", path}); }), ::testing::ExitedWithCode(0),
                kProtected);
}

TEST_F(KeyMaterialDeathTest, VariableMakesTheProcessNonDumpable) {
    EXPECT_EXIT(ReportCoreDumps([] {
                    ::setenv(kVariable, Entry().c_str(), 1);
                    Loader().Load({});
                }),
                ::testing::ExitedWithCode(0), kProtected);
}

TEST_F(KeyMaterialDeathTest, CipherOptionMakesTheProcessNonDumpable) {
    EXPECT_EXIT(ReportCoreDumps([] { Loader().Load({"--cipher", Entry()}); }), ::testing::ExitedWithCode(0),
                kProtected);
}

TEST_F(KeyMaterialDeathTest, KeyFileMakesTheProcessNonDumpable) {
    const std::string path = WriteFile("key", std::string(kKey) + "\n", 0600);
    EXPECT_EXIT(ReportCoreDumps([&path] { ReadKeyFile(path, "key file"); }), ::testing::ExitedWithCode(0),
                kProtected);
}

// Without key material the process stays as it was.
TEST_F(KeyMaterialDeathTest, NoKeyLeavesTheProcessDumpable) {
    EXPECT_EXIT(ReportCoreDumps([] { Loader().Load({}); }), ::testing::ExitedWithCode(0), "dumpable 1 -> 1, ");
}

}  // namespace
}  // namespace corvida_pb
