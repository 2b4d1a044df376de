// corvida-pb as scripts and CI gates use it: JSON output parsed member by
// member, exit statuses, cipher keys from files and the environment (never
// printed), standard input and output in pipelines, help and version.
//
// Each test runs the built tool from the source root (CORVIDA_PB_SOURCE_DIR)
// as a child process.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "cli_fixture.h"

namespace {

using namespace corvida_test;

// ---------------------------------------------------------------------------
// JSON shapes.
// ---------------------------------------------------------------------------

TEST_F(CliTest, KeyJson) {
    const ProcessResult r = Pb({"key", "--proto", kGame, "--table", "Player", "--text-file", kPlayerText,
                                "--cipher", GameCipher(), "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "key", "length", "hex", "unset_fields"}));
    EXPECT_EQ(json["table"], "corvida.example.Player");
    EXPECT_EQ(json["key"], "primary");
    EXPECT_EQ(json["length"], 40);
    EXPECT_EQ(json["hex"], "080310e9071a2179c01e7ce56616b06296f05008a0090785378874b6847d7928d4cc1a0d332c7563");
    EXPECT_EQ(json["unset_fields"], Json::array());
}

// A primary key that leaves out unset proto2 key fields succeeds (as the
// library does without --check) and says which fields it left out.
TEST_F(CliTest, KeyJsonListsTheUnsetKeyFields) {
    const ProcessResult r = Pb({"key", "--proto", "tests/protos/tables2.proto", "--table", "IntKeys2", "--text",
                                "k_int32: 1 k_bool: true k_sint64: -2", "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("warning: key fields k_int64, k_uint32"), std::string::npos) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "key", "length", "hex", "unset_fields"}));
    EXPECT_EQ(json["unset_fields"], Json::parse(R"(["k_int64", "k_uint32", "k_uint64", "k_sint32", "k_fixed32",
                                                    "k_fixed64", "k_sfixed32", "k_sfixed64"])"));
}

TEST_F(CliTest, FieldKeyJson) {
    const ProcessResult r = Pb({"key", "--proto", kGame, "--table", "Player", "--text-file", kPlayerText,
                                "--cipher", GameCipher(), "--fields", "4,1", "--format=json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "key", "fields", "length", "hex", "unset_fields"}));
    EXPECT_EQ(json["key"], "fields");
    EXPECT_EQ(json["fields"], Json::array({4, 1}));
    EXPECT_EQ(json["length"], 4);
    EXPECT_EQ(json["hex"], "202a0803");
    EXPECT_EQ(json["unset_fields"], Json::array());
}

TEST_F(CliTest, CutJson) {
    const std::string packed = m_tmp + "/player.pvs";
    const ProcessResult r = Pb({"cut", "--proto", kGame, "--table", "Player", "--text-file", kPlayerText, "--paths",
                                "level,profile.stats,uid", "--packed", packed, "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "records", "skipped_key_paths", "packed"}));
    ASSERT_EQ(json["records"].size(), 2u);
    const Json& record = json["records"][1];
    EXPECT_EQ(Keys(record), (std::vector<std::string>{"index", "tag_path", "path", "length", "hex"}));
    EXPECT_EQ(record["index"], 1);
    EXPECT_EQ(record["tag_path"], "6.3");
    EXPECT_EQ(record["path"], "profile.stats");
    EXPECT_EQ(record["length"], 9);
    EXPECT_EQ(record["hex"], "1a0708781050188827");
    EXPECT_EQ(json["skipped_key_paths"], Json::array({"uid"}));
    EXPECT_EQ(json["packed"]["output"], packed);
    struct stat st;
    ASSERT_EQ(::stat(packed.c_str(), &st), 0);
    EXPECT_EQ(json["packed"]["bytes"], st.st_size);

    // Standard output cannot carry both the packed set and the JSON object:
    // refused, as blob -o - --format json is.
    const ProcessResult both = Pb({"cut", "--proto", kGame, "--table", "Player", "--text-file", kPlayerText,
                                   "--paths", "level", "--packed", "-", "--format", "json"});
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.out, "");
    EXPECT_EQ(both.err.rfind("corvida-pb cut: --format json reports on standard output, which --packed - fills", 0),
              0u)
        << both.err;
}

TEST_F(CliTest, MergeJsonUsesProtobufsJsonMapping) {
    const std::string packed = m_tmp + "/reply.pvs";
    ASSERT_EQ(Pb({"cut", "--proto", kGame, "--table", "Player", "--text-file", kPlayerText, "--paths",
                  "account,profile.stats,last_login", "--with-keys", "--packed", packed})
                  .status,
              0);
    const ProcessResult r =
        Pb({"merge", "--proto", kGame, "--table", "Player", "--packed", packed, "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "records", "message", "failed_paths"}));
    EXPECT_EQ(json["records"], 3);
    EXPECT_EQ(json["message"]["account"], "alice@example.com");
    EXPECT_EQ(json["message"]["lastLogin"], "1700000000");  // int64 as a string, names in lowerCamelCase
    EXPECT_EQ(json["message"]["profile"]["stats"]["hp"], 120);
    EXPECT_EQ(json["failed_paths"], Json::parse(R"([{"tag_path":"3","path":"account"}])"));
}

TEST_F(CliTest, SchemaJson) {
    const ProcessResult r = Pb({"schema", "--proto", kGame, "--table", "Player", "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "file", "primary_key", "sharding_key", "indexes"}));
    EXPECT_EQ(json["file"], kGame);
    EXPECT_EQ(json["primary_key"], Json::parse(R"([{"number":1,"name":"zone"},{"number":2,"name":"uid"},
                                                  {"number":3,"name":"account"}])"));
    EXPECT_EQ(json["sharding_key"], Json::parse(R"([{"number":2,"name":"uid"}])"));
    EXPECT_EQ(json["indexes"], Json::parse(R"([{"name":"by_level","fields":[{"number":1,"name":"zone"},
                                                                             {"number":4,"name":"level"}]}])"));
}

TEST_F(CliTest, BlobJson) {
    const std::string blob = m_tmp + "/game.pb";
    const ProcessResult r = Pb({"blob", "--proto", kGame, "-o", blob, "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"files", "bytes", "output"}));
    EXPECT_EQ(json["files"].back(), kGame);
    EXPECT_EQ(json["output"], blob);
    struct stat st;
    ASSERT_EQ(::stat(blob.c_str(), &st), 0);
    EXPECT_EQ(json["bytes"], st.st_size);
    EXPECT_EQ(Pb({"blob", "--proto", kGame, "-o", "-", "--format", "json"}).status, 2);
}

class CompareTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        m_blob = m_tmp + "/evolved.pb";
        ASSERT_EQ(Pb({"blob", "--proto", "tests/cli/data/evolved_server.proto", "-o", m_blob}).status, 0);
    }

    std::string m_blob;
};

TEST_F(CompareTest, CompatibleJson) {
    const ProcessResult r = Pb({"compare", "--schema", m_blob, "--proto", "tests/cli/data/evolved_server.proto",
                                "--table", "Hero", "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ParseOne(r.out), Json::parse(R"({"table":"corvida.evolve.Hero","compatible":true,"code":0})"));
}

TEST_F(CompareTest, IncompatibleJsonListsEveryDifference) {
    const ProcessResult r = Pb({"compare", "--schema", m_blob, "--proto", "tests/cli/data/evolved_client.proto",
                                "--table", "corvida.evolve.Hero", "--all", "--format", "json"});
    ASSERT_EQ(r.status, 3) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "compatible", "code", "explanation", "differences"}));
    EXPECT_EQ(json["compatible"], false);
    EXPECT_EQ(json["code"], -10);
    std::vector<int> codes;
    for (const Json& difference : json["differences"]) {
        EXPECT_EQ(Keys(difference), (std::vector<std::string>{"file", "line", "column", "code", "message"}));
        EXPECT_EQ(difference["file"], "tests/cli/data/evolved_client.proto");
        EXPECT_TRUE(difference["line"].is_number_integer());
        codes.push_back(difference["code"]);
    }
    EXPECT_EQ(codes, (std::vector<int>{-10, -11, -12, -16, -20, -22, -21}));
    EXPECT_EQ(json["differences"][0]["code"], json["code"]);
}

TEST_F(CompareTest, ExitStatusSaysWhetherTheCheckWasMade) {
    const std::vector<std::string> client = {"--proto", "tests/cli/data/evolved_client.proto", "--table", "Hero"};
    std::vector<std::string> args = {"compare", "--schema", m_blob};
    args.insert(args.end(), client.begin(), client.end());
    EXPECT_EQ(Pb(args).status, 3);
    const std::string garbage = WriteTmp("garbage.pb", "not a descriptor set");
    args[2] = garbage;
    const ProcessResult r = Pb(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot compare"), std::string::npos) << r.err;
}

TEST_F(CompareTest, AllWithoutSourceLocationsNamesTheFile) {
    const std::string client_set = m_tmp + "/client.pb";
    ASSERT_EQ(Pb({"blob", "--proto", "tests/cli/data/evolved_client.proto", "-o", client_set}).status, 0);
    const ProcessResult r =
        Pb({"compare", "--schema", m_blob, "--descriptor_set_in", client_set, "--table", "Hero", "--all"});
    ASSERT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')),
              "tests/cli/data/evolved_client.proto: field level (number 3) of corvida.evolve.Hero is int32 on the "
              "server but int64 in the client (result -10)");
}

TEST_F(CliTest, CipherNewJsonAndText) {
    ProcessResult r = Pb({"cipher", "new", "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"bytes", "key", "corvida_cipher_md5"}));
    EXPECT_EQ(json["bytes"], 32);
    EXPECT_TRUE(IsHex(json["key"], 64)) << json["key"];
    const ProcessResult md5 = Pb({"cipher", "md5", "--format", "json"}, WithInput(json["key"].get<std::string>() + "\n"));
    ASSERT_EQ(md5.status, 0) << md5.err;
    EXPECT_EQ(ParseOne(md5.out)["corvida_cipher_md5"], json["corvida_cipher_md5"]);

    r = Pb({"cipher", "new", "--bytes", "64"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string md5_label = "\ncorvida_cipher_md5: ";
    const size_t md5_at = r.out.find(md5_label);
    ASSERT_NE(md5_at, std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(0, 5), "key: ");
    EXPECT_TRUE(IsHex(r.out.substr(5, md5_at - 5), 128)) << r.out;
    EXPECT_TRUE(IsHex(r.out.substr(md5_at + md5_label.size(), 32), 32)) << r.out;
    EXPECT_EQ(r.out.size(), md5_at + md5_label.size() + 33) << r.out;
    EXPECT_EQ(Pb({"cipher", "new", "--bytes", "16"}).status, 2);
}

TEST_F(CliTest, CipherNewWritesAPrivateFileOnce) {
    const std::string key = m_tmp + "/game.key";
    ProcessResult r = Pb({"cipher", "new", "-o", key});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "wrote a new 32-byte key to " + key);
    const std::string md5_line = r.out.substr(r.out.find('\n') + 1);
    EXPECT_EQ(md5_line.substr(0, 20), "corvida_cipher_md5: ");
    EXPECT_TRUE(IsHex(md5_line.substr(20, 32), 32) && md5_line.size() == 53) << r.out;
    struct stat st;
    ASSERT_EQ(::stat(key.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    const ProcessResult md5 = Pb({"cipher", "md5", "--key-file", key});
    EXPECT_EQ(md5.out, r.out.substr(r.out.find('\n') + 1));
    r = Pb({"cipher", "new", "-o", key});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("exists already"), std::string::npos) << r.err;
}

TEST_F(CliTest, CipherMd5TakesWhiteSpaceButNotBadKeys) {
    EXPECT_EQ(Pb({"cipher", "md5"}, WithInput(std::string("  ") + kGameKey + "\r\n\n")).out,
              std::string("corvida_cipher_md5: ") + kGameKeyMd5 + "\n");
    const ProcessResult short_key = Pb({"cipher", "md5"}, WithInput("8f3a1c5e7b9d2f4a\n"));
    EXPECT_EQ(short_key.status, 1);
    EXPECT_EQ(short_key.err.find("8f3a1c5e7b9d2f4a"), std::string::npos) << short_key.err;
    EXPECT_EQ(Pb({"cipher", "md5"}, WithInput("not hex\n")).status, 1);
    EXPECT_EQ(Pb({"cipher", "md5", "--key", kGameKey}).status, 2);  // never from the command line
}

// ---------------------------------------------------------------------------
// Cipher keys: files, the environment, precedence, and never printed.
// ---------------------------------------------------------------------------

std::vector<std::string> PlayerKeyArgs() {
    return {"key", "--proto", kGame, "--table", "Player", "--text-file", kPlayerText};
}

// --cipher values are taken out of the command line before CLI11 parses it
// and given back to the cipher options in order: both spellings, any
// number of them, still reach their suites.
TEST_F(CliTest, CipherOptionInEitherSpelling) {
    const std::string other = std::string("other-aes=") + kOtherKey;
    const std::vector<std::vector<std::string>> spellings = {
        {"--cipher", GameCipher()},
        {"--cipher=" + GameCipher()},
        {"--cipher", other, "--cipher=" + GameCipher()},
        {"--cipher=" + other, "--cipher", GameCipher()},
    };
    for (const std::vector<std::string>& spelling : spellings) {
        std::vector<std::string> args = PlayerKeyArgs();
        args.insert(args.end(), spelling.begin(), spelling.end());
        const ProcessResult r = Pb(args);
        EXPECT_EQ(r.status, 0) << spelling[0] << "\n" << r.err;
        EXPECT_NE(r.out.find("hex: 080310e9071a2179c01e"), std::string::npos) << r.out;
    }
    std::vector<std::string> wrong_order = PlayerKeyArgs();
    wrong_order.insert(wrong_order.end(), {"--cipher", "game-aes=" + std::string(kOtherKey), "--cipher", other});
    EXPECT_EQ(Pb(wrong_order).status, 1) << "game-aes gets its own value, not the next one";
}

TEST_F(CliTest, CipherFileGivesTheKey) {
    const std::string file = WriteTmp("ciphers", std::string("# demo keys\n\n  game-aes=") + kGameKey + "  \n");
    std::vector<std::string> args = PlayerKeyArgs();
    args.insert(args.end(), {"--cipher-file", file});
    const ProcessResult r = Pb(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("primary key of corvida.example.Player: 40 bytes"), std::string::npos);
}

// A key file that group or others may access is refused, as ssh refuses such
// a private key: exit 1, the mode and the fix in the message, nothing read.
TEST_F(CliTest, KeyFilesOthersMayAccessAreRefused) {
    for (const mode_t mode : {0644, 0640}) {
        const std::string octal = mode == 0644 ? "0644" : "0640";
        const std::string ciphers = WriteTmp("ciphers" + octal, GameCipher() + "\n", mode);
        std::vector<std::string> args = PlayerKeyArgs();
        args.insert(args.end(), {"--cipher-file", ciphers});
        ProcessResult r = Pb(args);
        EXPECT_EQ(r.status, 1) << octal;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "corvida-pb key: error: the cipher file " + ciphers +
                             " is accessible by group or others (mode " + octal +
                             "), so it is not read; keep keys private to their owner: chmod 600 " + ciphers + "\n");

        const std::string key = WriteTmp("key" + octal, std::string(kGameKey) + "\n", mode);
        r = Pb({"cipher", "md5", "--key-file", key});
        EXPECT_EQ(r.status, 1) << octal;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "corvida-pb cipher md5: error: the key file " + key +
                             " is accessible by group or others (mode " + octal +
                             "), so it is not read; keep keys private to their owner: chmod 600 " + key + "\n");
    }
    const ProcessResult r = Pb({"cipher", "md5", "--key-file", WriteTmp("key0600", std::string(kGameKey) + "\n")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, std::string("corvida_cipher_md5: ") + kGameKeyMd5 + "\n");
}

TEST_F(CliTest, EnvironmentGivesTheKey) {
    ProcessOptions options;
    options.set_env[kCiphersVariable] = std::string(" other=") + kOtherKey + " ; game-aes=" + kGameKey + ";";
    const ProcessResult r = Pb(PlayerKeyArgs(), options);
    EXPECT_EQ(r.status, 0) << r.err;
}

// The text of /proc/<pid>/environ: the process's environment block, which
// shows the variable's value until the process overwrites it in place.
std::string EnvironmentBlock(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Once the tool has read CORVIDA_PB_CIPHERS, the keys are gone from its
// environment. key reads the message from standard input after the keys,
// so the test looks at the child while it waits for the message.
TEST_F(CliTest, EnvironmentKeysAreWipedOnceRead) {
    // Once it holds keys the tool is not dumpable: only a process with
    // CAP_SYS_PTRACE (root) may still read its environment block.
    if (::geteuid() != 0) GTEST_SKIP() << "only root can read the environment of a non-dumpable process";
    ProcessOptions options;
    options.directory = CORVIDA_PB_SOURCE_DIR;
    options.set_env[kCiphersVariable] = GameCipher();
    std::vector<std::string> argv = {CORVIDA_PB_EXE};
    const std::vector<std::string> args = PlayerKeyArgs();
    argv.insert(argv.end(), args.begin(), args.end());
    argv.back() = "-";  // --text-file -
    // Tells the tool's environment block (after exec) from the test's.
    const std::string marker = "CORVIDA_PB_TEST_MARKER=environment-of-the-tool";
    options.set_env["CORVIDA_PB_TEST_MARKER"] = "environment-of-the-tool";
    ChildProcess child;
    ASSERT_TRUE(child.Start(argv, options));
    bool wiped = false;
    for (int i = 0; i < 600 && !wiped; ++i) {  // at most 30 seconds
        const std::string block = EnvironmentBlock(child.pid());
        wiped = block.find(marker) != std::string::npos && block.find(kGameKey) == std::string::npos;
        if (!wiped) ::usleep(50000);
    }
    std::ifstream text(std::string(CORVIDA_PB_SOURCE_DIR) + "/" + kPlayerText);
    const ProcessResult r = child.Finish(std::string((std::istreambuf_iterator<char>(text)), {}));
    EXPECT_TRUE(wiped) << "the key is still in the environment block of the running tool";
    EXPECT_EQ(r.status, 0) << r.err;  // and it was the key that made the key
    EXPECT_NE(r.out.find("primary key of corvida.example.Player: 40 bytes"), std::string::npos) << r.out;
}

TEST_F(CliTest, CommandLineWinsOverFileWinsOverEnvironment) {
    const std::string right = std::string("game-aes=") + kGameKey;
    const std::string wrong = std::string("game-aes=") + kOtherKey;
    ProcessOptions options;
    options.set_env[kCiphersVariable] = wrong;
    std::vector<std::string> args = PlayerKeyArgs();
    args.insert(args.end(), {"--cipher-file", WriteTmp("right", right + "\n")});
    EXPECT_EQ(Pb(args, options).status, 0);
    args = PlayerKeyArgs();
    args.insert(args.end(), {"--cipher-file", WriteTmp("wrong", wrong + "\n"), "--cipher", right});
    EXPECT_EQ(Pb(args, options).status, 0);
    options.set_env[kCiphersVariable] = right;
    args = PlayerKeyArgs();
    args.insert(args.end(), {"--cipher-file", m_tmp + "/wrong"});
    EXPECT_EQ(Pb(args, options).status, 1);  // the file's wrong key hides the right one
}

// Every way of giving a key badly: the message names the place, never the key.
TEST_F(CliTest, KeyMaterialIsNeverPrinted) {
    const std::string key = kGameKey;
    const std::vector<std::vector<std::string>> bad_arguments = {
        {"--cipher", "=" + key},        {"--cipher", key},
        {"--cipher", "game-aes", key},  {"--cipher=game-aes=" + key + "zz"},
        {"--cipher", "game-aes=" + key.substr(0, 40)},
        {"--cipher", "game-aes=" + key, "--cipher", "game-aes=" + key},
        {"--cipher", "Game-AES=" + key},  // a suite the table does not name
        {"--colour", key},
        // Mistyped keys where a name or a value was expected.
        {"--cipher", "game-aes", key.substr(0, 63) + "g"},
        {"--colour=" + key + "g"},
        {"--log-level", key + "g"},
        {"--table", "0x" + key},
        {"--cipher", "game-aes=" + key.substr(0, 32) + "-" + key.substr(32)},
        // NAME and HEXKEY swapped.
        {"--cipher", key + "=game-aes"},
        {"--cipher=" + key + "=game-aes"},
    };
    const auto expect_no_key = [&key](const ProcessResult& r, const std::string& what) {
        EXPECT_NE(r.status, 0) << what;
        for (size_t at = 0; at + 16 <= key.size(); ++at) {
            EXPECT_EQ(r.err.find(key.substr(at, 16)), std::string::npos) << what << "\n" << r.err;
            EXPECT_EQ(r.out.find(key.substr(at, 16)), std::string::npos) << what << "\n" << r.out;
        }
    };
    for (const std::vector<std::string>& bad : bad_arguments) {
        std::vector<std::string> args = PlayerKeyArgs();
        args.insert(args.end(), bad.begin(), bad.end());
        expect_no_key(Pb(args), bad[0]);
    }
    expect_no_key(Pb({"cipher", "md5", key + "g"}), "cipher md5 KEYg");
    expect_no_key(Pb({"cipher", "new", "--bytes", key}), "cipher new --bytes KEY");
    // The library's log line names the path too.
    expect_no_key(Pb({"cut", "--proto", kGame, "--table", "Player", "--paths", "level," + key + "g"}),
                  "cut --paths KEYg");
    const std::vector<std::string> bad_lines = {key,
                                                "=" + key,
                                                "game-aes " + key,
                                                "game-aes=" + key + "zz",
                                                key + "=game-aes",
                                                key + " = game-aes",
                                                key.substr(0, 40) + "=" + key.substr(40)};
    for (const std::string& line : bad_lines) {
        std::vector<std::string> args = PlayerKeyArgs();
        args.insert(args.end(), {"--cipher-file", WriteTmp("bad", "\n" + line + "\n")});
        const ProcessResult from_file = Pb(args);
        EXPECT_EQ(from_file.status, 1) << line;
        EXPECT_NE(from_file.err.find(m_tmp + "/bad:2"), std::string::npos) << from_file.err;
        expect_no_key(from_file, "--cipher-file line " + line);
        ProcessOptions options;
        options.set_env[kCiphersVariable] = line;
        const ProcessResult from_env = Pb(PlayerKeyArgs(), options);
        EXPECT_EQ(from_env.status, 1) << line;
        EXPECT_NE(from_env.err.find("CORVIDA_PB_CIPHERS entry 1"), std::string::npos) << from_env.err;
        expect_no_key(from_env, "CORVIDA_PB_CIPHERS entry " + line);
    }
}

// An entry written HEXKEY=NAME is refused for what it is, naming its place
// and not the text before "=".
TEST_F(CliTest, SwappedEntryIsNamedByItsPlace) {
    const std::string swapped = std::string(kGameKey) + "=game-aes";
    const std::string what = "the text before \"=\" looks like a key, not a suite name (it is not shown); an entry is "
                             "NAME=HEXKEY";
    std::vector<std::string> args = PlayerKeyArgs();
    const std::string file = WriteTmp("swapped", "# keys\n" + swapped + "\n");
    args.insert(args.end(), {"--cipher-file", file});
    EXPECT_EQ(Pb(args).err, "corvida-pb key: error: " + file + ":2: " + what + "\n");
    ProcessOptions options;
    options.set_env[kCiphersVariable] = GameCipher() + ";" + swapped;
    EXPECT_EQ(Pb(PlayerKeyArgs(), options).err, "corvida-pb key: error: CORVIDA_PB_CIPHERS entry 2: " + what + "\n");
    args = PlayerKeyArgs();
    args.insert(args.end(), {"--cipher", swapped});
    const ProcessResult r = Pb(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "corvida-pb key: --cipher: " + what + "\nTry 'corvida-pb key --help'.\n");
}

// /proc/<pid>/limits of a running process: readable by every user, even
// when the process is not dumpable.
std::string Limits(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/limits");
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The "Max core file size" line of limits, its blanks squeezed.
std::string CoreLimit(const std::string& limits) {
    std::istringstream in(limits);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("Max core file size", 0) != 0) continue;
        std::istringstream words(line.substr(18));
        std::string soft, hard;
        words >> soft >> hard;
        return soft + " " + hard;
    }
    return "";
}

// The tool's core limit ("SOFT HARD") once it is "0 0", or as it stands
// after 30 seconds, while it waits for the message on standard input.
std::string CoreLimitWhileWaiting(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {CORVIDA_PB_EXE};
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessOptions options;
    options.directory = CORVIDA_PB_SOURCE_DIR;
    options.unset_env.push_back(kCiphersVariable);
    ChildProcess child;
    if (!child.Start(argv, options)) return "not started";
    std::string limit;
    for (int i = 0; i < 600 && limit != "0 0"; ++i) {  // at most 30 seconds
        if (i > 0) ::usleep(50000);
        limit = CoreLimit(Limits(child.pid()));
    }
    std::ifstream text(std::string(CORVIDA_PB_SOURCE_DIR) + "/" + kPlayerText);
    const ProcessResult r = child.Finish(std::string((std::istreambuf_iterator<char>(text)), {}));
    EXPECT_EQ(r.status, 0) << r.err;
    return limit;
}

// Once it has read a key, the tool cannot dump core: its core limit is 0,
// soft and hard (and it is not dumpable, which key_material_test checks in
// process). The tool starts with this process's hard limit, which must not
// be 0 for the change to show.
TEST_F(CliTest, KeysTurnCoreDumpsOff) {
    rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_CORE, &limit), 0);
    if (limit.rlim_max == 0) GTEST_SKIP() << "the hard core limit is 0 already: nothing to turn off";
    std::vector<std::string> args = PlayerKeyArgs();
    args.back() = "-";  // --text-file -
    args.insert(args.end(), {"--cipher-file", WriteTmp("ciphers", GameCipher() + "\n")});
    EXPECT_EQ(CoreLimitWhileWaiting(args), "0 0");
}

// The words hidden as possible key material are hex-like runs: long names,
// paths and messages stay readable in errors.
TEST_F(CliTest, LongNamesAreNotHidden) {
    const ProcessResult table = Pb({"key", "--proto", kGame, "--table", "PlayerInventoryItemRecord"});
    EXPECT_EQ(table.status, 1);
    EXPECT_NE(table.err.find("no message type \"PlayerInventoryItemRecord\""), std::string::npos) << table.err;
    const ProcessResult file = Pb({"key", "--proto", "tests/cli/data/no_such_directory_anywhere/tables.proto",
                                   "--table", "Player"});
    EXPECT_EQ(file.status, 1);
    EXPECT_NE(file.err.find("tests/cli/data/no_such_directory_anywhere/tables.proto"), std::string::npos) << file.err;
    const ProcessResult option = Pb({"key", "--proto", kGame, "--table", "Player", "--descriptorsetfile", "x"});
    EXPECT_EQ(option.status, 2);
    EXPECT_NE(option.err.find("--descriptorsetfile"), std::string::npos) << option.err;
}

// ---------------------------------------------------------------------------
// Standard input and output, option spellings, help and version.
// ---------------------------------------------------------------------------

TEST_F(CliTest, CutToStandardOutputFeedsMergeFromStandardInput) {
    const std::vector<std::string> table = {"--proto", kGame, "--table", "Player"};
    std::vector<std::string> cut = {"cut", "--text-file", kPlayerText, "--paths", "level,profile,last_login",
                                    "--packed", "-"};
    cut.insert(cut.end(), table.begin(), table.end());
    const ProcessResult packed = Pb(cut);
    ASSERT_EQ(packed.status, 0) << packed.err;
    EXPECT_NE(packed.err.find("packed value set: "), std::string::npos) << "the report goes to stderr";
    std::vector<std::string> merge = {"merge", "--packed", "-", "--text", "zone: 3 uid: 1001"};
    merge.insert(merge.end(), table.begin(), table.end());
    const ProcessResult merged = Pb(merge, WithInput(packed.out));
    ASSERT_EQ(merged.status, 0) << merged.err;
    EXPECT_NE(merged.out.find("after merging 3 records"), std::string::npos) << merged.out;
    EXPECT_NE(merged.out.find("nickname: \"Alice\""), std::string::npos) << merged.out;
}

TEST_F(CliTest, OnlyOneOptionReadsStandardInput) {
    const ProcessResult r = Pb({"merge", "--proto", kGame, "--table", "Player", "--packed", "-", "--text-file", "-"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("only one option can read standard input"), std::string::npos) << r.err;
}

// An empty list, or an empty item in one, is a malformed command line: not
// a request for no fields ("0 records" and exit 0 before).
TEST_F(CliTest, EmptyListsAreMalformed) {
    for (const char* paths : {"", " ", "level,,faction", "level,", ",level"}) {
        const ProcessResult r = Pb({"cut", "--proto", kGame, "--table", "Player", "--paths", paths});
        EXPECT_EQ(r.status, 2) << "--paths '" << paths << "'\n" << r.out;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("corvida-pb cut: --paths: ", 0), 0u) << r.err;
    }
    // Checked before any input is read.
    EXPECT_EQ(Pb({"cut", "--proto", "tests/cli/data/no_such.proto", "--table", "Player", "--paths", ""}).status, 2);
    EXPECT_EQ(Pb({"key", "--proto", kGame, "--table", "Guild", "--fields", "", "--text", "guild_id: 1"}).status, 2);
    EXPECT_EQ(Pb({"key", "--proto", kGame, "--table", "Guild", "--fields", "1,,2", "--text", "guild_id: 1"}).status,
              2);
    EXPECT_EQ(Pb({"key", "--proto", kGame, "--table", "Guild", "--fields", " 1 ", "--text", "guild_id: 1"}).status,
              0);
}

// The cipher file is a reader too: with the message, it would leave the
// message empty and still print a key.
TEST_F(CliTest, CipherFileFromStandardInputIsAReader) {
    std::vector<std::string> args = PlayerKeyArgs();
    args.back() = "-";  // --text-file -
    args.insert(args.end(), {"--cipher-file", "-"});
    const ProcessResult r = Pb(args, WithInput(GameCipher() + "\n"));
    EXPECT_EQ(r.status, 2) << r.out;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("not --text-file and --cipher-file"), std::string::npos) << r.err;
    std::vector<std::string> alone = PlayerKeyArgs();
    alone.insert(alone.end(), {"--cipher-file", "-"});
    EXPECT_EQ(Pb(alone, WithInput(GameCipher() + "\n")).status, 0);
}

TEST_F(CliTest, ProtoFromStandardInput) {
    std::ifstream in(std::string(CORVIDA_PB_SOURCE_DIR) + "/" + kGame);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const ProcessResult r = Pb({"key", "--proto", "-", "--table", "Guild", "--text", "guild_id: 77"}, WithInput(text));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("hex: 084d"), std::string::npos) << r.out;
}

// One file reached under two names is loaded once, whichever comes first;
// so is a file given after a file that imports it.
TEST_F(CliTest, SameFileUnderAnySpellingIsLoadedOnce) {
    const std::string absolute = std::string(CORVIDA_PB_SOURCE_DIR) + "/" + kGame;
    const std::string link = m_tmp + "/game_link.proto";
    ASSERT_EQ(::symlink(absolute.c_str(), link.c_str()), 0);
    const std::vector<std::string> query = {"--table", "Guild", "--text", "guild_id: 77"};
    std::vector<std::string> once = {"key", "--proto", kGame};
    once.insert(once.end(), query.begin(), query.end());
    const ProcessResult expected = Pb(once);
    ASSERT_EQ(expected.status, 0) << expected.err;
    for (const std::string& other : {absolute, std::string("examples/../examples/tables/game.proto"), link}) {
        for (const bool other_first : {false, true}) {
            std::vector<std::string> args = {"key", "--proto", other_first ? other : kGame, "--proto",
                                             other_first ? kGame : other};
            args.insert(args.end(), query.begin(), query.end());
            const ProcessResult r = Pb(args);
            EXPECT_EQ(r.status, 0) << other << "\n" << r.err;
            EXPECT_EQ(r.out, expected.out) << other;
        }
    }
    const std::string imports = std::string(CORVIDA_PB_SOURCE_DIR) + "/tests/cli/data/imports";
    const ProcessResult imported =
        Pb({"schema", "--proto", "sub/importer.proto", "--proto", imports + "/sub/common.proto", "--table", "Holder"},
           InDirectory(imports));
    EXPECT_EQ(imported.status, 0) << imported.err;
}

TEST_F(CliTest, EveryOptionTakesItsValueAfterAnEqualsSign) {
    const ProcessResult spaced =
        Pb({"key", "--proto", kGame, "--table", "Guild", "--text", "guild_id: 77", "--log-level", "error"});
    const ProcessResult joined =
        Pb({"key", "--proto=" + std::string(kGame), "--table=Guild", "--text=guild_id: 77", "--log-level=error"});
    EXPECT_EQ(spaced.status, 0);
    EXPECT_EQ(joined.status, 0);
    EXPECT_EQ(spaced.out, joined.out);
}

TEST_F(CliTest, ProtocSpellingsAndImportRoot) {
    const ProcessResult root = Pb({"schema", "--proto", "sub/importer.proto", "--table", "Holder"},
                                  InDirectory(std::string(CORVIDA_PB_SOURCE_DIR) + "/tests/cli/data/imports"));
    EXPECT_EQ(root.status, 0) << root.err;
    const ProcessResult proto_path = Pb({"schema", "--proto_path", "tests/cli/data/imports", "--proto",
                                         "tests/cli/data/imports/sub/importer.proto", "--table", "Holder"});
    EXPECT_EQ(proto_path.status, 0) << proto_path.err;
    EXPECT_EQ(proto_path.out, root.out);
    const std::string set = m_tmp + "/game.pb";
    ASSERT_EQ(Pb({"blob", "--proto", kGame, "-o", set}).status, 0);
    EXPECT_EQ(Pb({"key", "--descriptor_set_in", set, "--table", "Guild", "--text", "guild_id: 77"}).status, 0);
}

// protoc's lists separated by ':', and its warning for a search directory
// that is not there (the outcome is still that of the load).
TEST_F(CliTest, ProtocListsAndMissingDirectories) {
    const std::string holder = "tests/cli/data/imports/sub/importer.proto";
    ProcessResult r = Pb({"schema", "--proto_path=/nonexistent:tests/cli/data/imports", "--proto", holder, "--table",
                          "Holder"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "corvida-pb schema: warning: -I /nonexistent: directory does not exist\n");
    // The import "sub/common.proto" is found only through the second
    // directory of the list.
    EXPECT_EQ(Pb({"schema", "-I", "tests/cli/data", "--proto", holder, "--table", "Holder"}).status, 1);
    r = Pb({"schema", "-I", "tests/cli/data:tests/cli/data/imports", "--proto", holder, "--table", "Holder"});
    EXPECT_EQ(r.status, 0) << r.err;
    r = Pb({"schema", "-I", "/nonexistent", "--proto", holder, "--table", "Holder"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("corvida-pb schema: warning: -I /nonexistent: directory does not exist\n", 0), 0u) << r.err;

    const std::string game = m_tmp + "/game.pb";
    const std::string other = m_tmp + "/other.pb";
    const std::string changed = m_tmp + "/changed.pb";
    ASSERT_EQ(Pb({"blob", "--proto", kGame, "-o", game}).status, 0);
    ASSERT_EQ(Pb({"blob", "--proto", "tests/cli/data/other_table.proto", "-o", other}).status, 0);
    ASSERT_EQ(Pb({"blob", "--proto", "tests/cli/data/player_level_int64.proto", "-o", changed}).status, 0);
    // Both sets hold the option file and descriptor.proto: the same copies.
    for (const char* table : {"Guild", "Other"}) {
        r = Pb({"schema", "--descriptor_set_in=" + game + ":" + other, "--table", table});
        EXPECT_EQ(r.status, 0) << table << "\n" << r.err;
    }
    EXPECT_EQ(Pb({"schema", "--descriptor-set", game, "--descriptor-set", other, "--table", "Other"}).status, 0);
    r = Pb({"schema", "--descriptor_set_in=" + game + ":" + changed, "--table", "Guild"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(changed + ": the file tests/cli/data/player_level_int64.proto cannot be added"),
              std::string::npos)
        << r.err;
}

// Every subcommand that takes --table (the store's in cli_store_test.cpp)
// takes every form of the name, and takes it as the same table.
TEST_F(CliTest, EveryFormOfATableName) {
    const std::string blob = m_tmp + "/game.pb";
    const std::string packed = m_tmp + "/guild.pvs";
    ASSERT_EQ(Pb({"blob", "--proto", kGame, "-o", blob}).status, 0);
    ASSERT_EQ(Pb({"cut", "--proto", kGame, "--table", "Guild", "--text", "guild_id: 1 name: \"Owls\"", "--paths",
                  "name", "--packed", packed})
                  .status,
              0);
    const std::vector<std::vector<std::string>> commands = {
        {"key", "--proto", kGame, "--text", "guild_id: 1"},
        {"schema", "--proto", kGame},
        {"schema", "--schema", blob},
        {"blob", "--proto", kGame, "-o", m_tmp + "/one.pb"},
        {"cut", "--proto", kGame, "--text", "guild_id: 1 name: \"Owls\"", "--paths", "name"},
        {"merge", "--proto", kGame, "--packed", packed},
        {"compare", "--schema", blob, "--proto", kGame},
        {"compare", "--schema", blob, "--descriptor-set", blob},
    };
    for (const std::vector<std::string>& command : commands) {
        std::string first_out;
        for (const char* name : {"Guild", "example.Guild", "corvida.example.Guild", ".corvida.example.Guild"}) {
            std::vector<std::string> args = command;
            args.insert(args.end(), {"--table", name});
            const ProcessResult r = Pb(args);
            EXPECT_EQ(r.status, 0) << command[0] << " " << command[1] << " --table " << name << "\n" << r.err;
            if (first_out.empty()) first_out = r.out;
            EXPECT_EQ(r.out, first_out) << command[0] << " " << command[1] << " --table " << name;
        }
    }
}

TEST_F(CliTest, HelpCommandEqualsHelpOption) {
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"key"}, {"cut"}, {"merge"}, {"schema"}, {"compare"}, {"blob"}, {"demo"}, {"cipher"},
             {"cipher", "new"}, {"cipher", "md5"}}) {
        std::vector<std::string> help = {"help"};
        help.insert(help.end(), command.begin(), command.end());
        std::vector<std::string> option = command;
        option.push_back("--help");
        const ProcessResult by_command = Pb(help);
        const ProcessResult by_option = Pb(option);
        EXPECT_EQ(by_command.status, 0);
        EXPECT_EQ(by_command.out, by_option.out) << command[0];
        EXPECT_EQ(by_command.out.rfind("Usage: corvida-pb " + command[0], 0), 0u) << by_command.out;
    }
    EXPECT_EQ(Pb({"help", "nothing"}).status, 2);
}

TEST_F(CliTest, UsageLinesMarkRequiredOptions) {
    EXPECT_EQ(Pb({"compare", "--help"}).out.substr(0, Pb({"compare", "--help"}).out.find('\n')),
              "Usage: corvida-pb compare --schema FILE (--proto FILE... | --descriptor-set FILE...) --table NAME "
              "[OPTIONS]");
    EXPECT_EQ(Pb({"schema", "--help"}).out.substr(0, Pb({"schema", "--help"}).out.find('\n')),
              "Usage: corvida-pb schema (--schema FILE | --proto FILE... | --descriptor-set FILE...) --table NAME "
              "[OPTIONS]");
}

TEST_F(CliTest, VersionIsTheProjectVersion) {
    const ProcessResult r = Pb({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string("corvida-pb ") + CORVIDA_PB_VERSION + "\n");
}

}  // namespace
