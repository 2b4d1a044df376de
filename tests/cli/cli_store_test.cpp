// corvida-pb store: the table store from the command line, as scripts use
// it: every subcommand on the example Player table, JSON records, exit
// statuses (3 for a missing record and an incompatible client), a store that
// another process holds.
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cli_fixture.h"
#include "store/table_store.h"

namespace {

using namespace corvida_test;

const char kAlice[] = "zone: 3 uid: 1001 account: \"alice@example.com\"";
const char kBob[] = "zone: 3 uid: 1002 account: \"bob@example.com\"";

class StoreCliTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        m_db = m_tmp + "/db";
        const ProcessResult created = Store("create", {});
        ASSERT_EQ(created.status, 0) << created.err;
    }

    // corvida-pb store <command> --db DB --proto game.proto --table Player
    // <args>, with the game-aes key in the environment.
    ProcessResult Store(const std::string& command, const std::vector<std::string>& args,
                        const std::string& proto = kGame) const {
        std::vector<std::string> all = {"store", command, "--db", m_db, "--proto", proto, "--table", "Player"};
        all.insert(all.end(), args.begin(), args.end());
        ProcessOptions options;
        options.set_env[kCiphersVariable] = GameCipher();
        return Pb(all, options);
    }

    // One JSON object per line of out.
    static std::vector<Json> ParseLines(const std::string& out) {
        std::vector<Json> lines;
        size_t start = 0;
        for (size_t end = out.find('\n'); end != std::string::npos; end = out.find('\n', start)) {
            lines.push_back(Json::parse(out.substr(start, end - start), nullptr, false));
            EXPECT_TRUE(lines.back().is_object()) << out;
            start = end + 1;
        }
        EXPECT_EQ(start, out.size()) << "the output ends in a complete line";
        return lines;
    }

    void PutTwoPlayers() {
        ASSERT_EQ(Store("put", {"--text-file", kPlayerText}).status, 0);
        ASSERT_EQ(Store("put", {"--text", std::string(kBob) + " level: 40 items { id: 7 count: 2 }"}).status, 0);
    }

    std::string m_db;
};

// Every store subcommand takes every form of a table name, and takes it as
// the same table (the others are in cli_test.cpp).
TEST_F(StoreCliTest, EveryFormOfATableName) {
    int n = 0;
    for (const char* name : {"Guild", "example.Guild", "corvida.example.Guild", ".corvida.example.Guild"}) {
        const std::string db = m_tmp + "/guilds" + std::to_string(++n);
        const auto run = [&db, name](const std::string& command, const std::vector<std::string>& args) {
            std::vector<std::string> all = {"store", command, "--db", db, "--proto", kGame, "--table", name};
            all.insert(all.end(), args.begin(), args.end());
            return Pb(all);
        };
        const std::vector<std::pair<std::string, std::vector<std::string>>> steps = {
            {"create", {}},
            {"put", {"--text", "guild_id: 7 name: \"Owls\" member_count: 3"}},
            {"update", {"--text", "guild_id: 7 member_count: 4", "--paths", "member_count"}},
            {"get", {"--text", "guild_id: 7"}},
            {"find", {"--index", "by_name", "--text", "name: \"Owls\""}},
            {"scan", {"--shard-text", "guild_id: 7"}},
            {"delete", {"--text", "guild_id: 7"}},
        };
        for (const auto& step : steps) {
            const ProcessResult r = run(step.first, step.second);
            EXPECT_EQ(r.status, 0) << "store " << step.first << " --table " << name << "\n" << r.err;
            if (step.first == "get") {
                EXPECT_EQ(r.out, "guild_id: 7\nname: \"Owls\"\nmember_count: 4\n") << name;
            }
            if (step.first == "create") {
                EXPECT_EQ(r.out.rfind("created table corvida.example.Guild in ", 0), 0u) << r.out;
            }
        }
    }
}

// store create --format json: {"table", "operation", "files", "bytes"},
// the files and size of the blob that blob --table writes.
TEST_F(StoreCliTest, CreateJson) {
    const std::string db = m_tmp + "/json.db";
    const ProcessResult r = Pb({"store", "create", "--db", db, "--proto", kGame, "--table", "Guild", "--format",
                                "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json json = ParseOne(r.out);
    EXPECT_EQ(Keys(json), (std::vector<std::string>{"table", "operation", "files", "bytes"}));
    EXPECT_EQ(json["table"], "corvida.example.Guild");
    EXPECT_EQ(json["operation"], "create");
    const ProcessResult blob =
        Pb({"blob", "--proto", kGame, "--table", "Guild", "-o", m_tmp + "/guild.pb", "--format", "json"});
    ASSERT_EQ(blob.status, 0) << blob.err;
    const Json blob_json = ParseOne(blob.out);
    EXPECT_EQ(json["files"], blob_json["files"]);
    EXPECT_EQ(json["files"].back(), kGame);
    EXPECT_TRUE(json["bytes"].is_number_unsigned());
    EXPECT_EQ(json["bytes"], blob_json["bytes"]);
}

TEST_F(StoreCliTest, CreateTwiceFails) {
    const ProcessResult again = Store("create", {});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("already exists"), std::string::npos) << again.err;
}

TEST_F(StoreCliTest, PutThenGetReturnsTheRecord) {
    PutTwoPlayers();
    const ProcessResult got = Store("get", {"--text", kBob});
    ASSERT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out,
              "zone: 3\nuid: 1002\naccount: \"bob@example.com\"\nlevel: 40\nitems {\n  id: 7\n  count: 2\n}\n");
}

TEST_F(StoreCliTest, WritesReportInJson) {
    ProcessResult r = Store("put", {"--text-file", kPlayerText, "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ParseOne(r.out), Json::parse(R"({"table":"corvida.example.Player","operation":"put","records":1})"));
    r = Store("update", {"--text", std::string(kAlice) + " level: 50", "--paths", "level", "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ParseOne(r.out), Json::parse(R"({"table":"corvida.example.Player","operation":"update","records":1,
                                               "paths":["level"]})"));
    r = Store("delete", {"--text", kAlice, "--format", "json", "--sync"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ParseOne(r.out), Json::parse(R"({"table":"corvida.example.Player","operation":"delete","records":1})"));
}

TEST_F(StoreCliTest, UpdateWritesOnlyTheNamedFields) {
    PutTwoPlayers();
    const ProcessResult updated =
        Store("update", {"--paths", "level,profile.nickname", "--text",
                         std::string(kBob) + " level: 42 profile { nickname: \"Bob\" } last_login: 5"});
    ASSERT_EQ(updated.status, 0) << updated.err;
    const ProcessResult got = Store("get", {"--text", kBob, "--format", "json"});
    ASSERT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(ParseOne(got.out), Json::parse(R"({"zone":3,"uid":"1002","account":"bob@example.com","level":42,
                                                "profile":{"nickname":"Bob"},"items":[{"id":7,"count":2}]})"));
}

TEST_F(StoreCliTest, GetWithPathsReadsThoseFields) {
    PutTwoPlayers();
    const ProcessResult got = Store("get", {"--text", kAlice, "--paths", "level,profile.stats"});
    ASSERT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out,
              "zone: 3\nuid: 1001\naccount: \"alice@example.com\"\nlevel: 42\nprofile {\n  stats {\n    hp: 120\n"
              "    mp: 80\n    gold: 5000\n  }\n}\n");
}

TEST_F(StoreCliTest, FindListsEveryRecordOfTheIndexValue) {
    PutTwoPlayers();
    ASSERT_EQ(Store("update", {"--paths", "level", "--text", std::string(kBob) + " level: 42"}).status, 0);
    const ProcessResult found = Store("find", {"--index", "by_level", "--text", "zone: 3 level: 42"});
    ASSERT_EQ(found.status, 0) << found.err;
    EXPECT_EQ(std::count(found.out.begin(), found.out.end(), '#'), 2) << found.out;
    EXPECT_EQ(found.out.rfind("# record 1\nzone: 3\nuid: 1001\n", 0), 0u) << found.out;
    EXPECT_NE(found.out.find("# record 2\nzone: 3\nuid: 1002\n"), std::string::npos) << found.out;

    const ProcessResult json = Store("find", {"--index", "by_level", "--text", "zone: 3 level: 42", "--format=json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const std::vector<Json> records = ParseLines(json.out);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]["uid"], "1001");
    EXPECT_EQ(records[1]["uid"], "1002");

    const ProcessResult none = Store("find", {"--index", "by_level", "--text", "zone: 3 level: 99"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(Store("find", {"--index", "by_colour", "--text", "zone: 3"}).status, 1);
}

TEST_F(StoreCliTest, ScanListsAShardOrTheTable) {
    PutTwoPlayers();
    const ProcessResult shard = Store("scan", {"--shard-text", "uid: 1002", "--format", "json"});
    ASSERT_EQ(shard.status, 0) << shard.err;
    const std::vector<Json> records = ParseLines(shard.out);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["account"], "bob@example.com");

    const ProcessResult all = Store("scan", {});
    ASSERT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '#'), 2) << all.out;
    const ProcessResult limited = Store("scan", {"--limit", "1"});
    EXPECT_EQ(limited.out.rfind("# record 1\n", 0), 0u) << limited.out;
    EXPECT_EQ(limited.out.find("# record 2"), std::string::npos) << limited.out;
    EXPECT_NE(limited.out.find("\n# next "), std::string::npos) << "the cursor of the next page comes last";
}

TEST_F(StoreCliTest, MissingRecordIsANegativeAnswer) {
    PutTwoPlayers();
    ASSERT_EQ(Store("delete", {"--text", kBob}).status, 0);
    const ProcessResult get = Store("get", {"--text", kBob});
    EXPECT_EQ(get.status, 3);
    EXPECT_EQ(get.out, "");
    EXPECT_NE(get.err.find("not found"), std::string::npos) << get.err;
    EXPECT_EQ(Store("delete", {"--text", kBob}).status, 3);
}

TEST_F(StoreCliTest, IncompatibleClientIsRefusedWithTheComparisonsCode) {
    PutTwoPlayers();
    for (const char* command : {"put", "get", "delete", "scan"}) {
        std::vector<std::string> args;
        if (std::string(command) != "scan") args = {"--text", kAlice};
        const ProcessResult r = Store(command, args, "tests/cli/data/player_level_int64.proto");
        EXPECT_EQ(r.status, 3) << command;
        EXPECT_EQ(r.out.rfind("incompatible (result -10): ", 0), 0u) << r.out;
    }
    const ProcessResult json =
        Store("get", {"--text", kAlice, "--format", "json"}, "tests/cli/data/player_level_int64.proto");
    EXPECT_EQ(json.status, 3);
    const Json answer = ParseOne(json.out);
    EXPECT_EQ(answer["compatible"], false);
    EXPECT_EQ(answer["code"], -10);
    // Nothing was written: alice reads as she was put.
    EXPECT_NE(Store("get", {"--text", kAlice}).out.find("level: 42"), std::string::npos);
}

// A client that renumbers an index field passes the comparison (it looks
// fields up by name) but could not keep the index: the store's reason is
// the explanation.
TEST_F(StoreCliTest, ClientWithoutAnIndexFieldsNumberIsIncompatible) {
    PutTwoPlayers();
    std::ifstream game(std::string(CORVIDA_PB_SOURCE_DIR) + "/" + kGame);
    std::string text((std::istreambuf_iterator<char>(game)), std::istreambuf_iterator<char>());
    const size_t at = text.find("int32 level = 4;");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 16, "int32 level = 40;");
    const std::string renumbered = WriteTmp("renumbered.proto", text);
    const ProcessResult r = Store("get", {"--text", kAlice}, renumbered);
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(r.out,
              "incompatible (result 0): table corvida.example.Player: index by_level: field 4 is missing in the client's type "
              "corvida.example.Player\n");
}

TEST_F(StoreCliTest, ScanLimitMustBeACount) {
    for (const char* limit : {"-1", "99999999999999999999999", "x"}) {
        const ProcessResult r = Store("scan", {"--limit", limit});
        EXPECT_EQ(r.status, 2) << limit;
        EXPECT_EQ(r.out, "") << limit;
    }
}

TEST_F(StoreCliTest, WrongCipherKeyIsRefusedAndNothingIsWritten) {
    std::vector<std::string> args = {"store", "put", "--db", m_db, "--proto", kGame, "--table", "Player",
                                     "--text-file", kPlayerText};
    ProcessOptions options;
    options.set_env[kCiphersVariable] = std::string("game-aes=") + kOtherKey;
    const ProcessResult r = Pb(args, options);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("(result -4)"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find(kOtherKey), std::string::npos) << r.err;
    EXPECT_EQ(Store("get", {"--text", kAlice}).status, 3);
}

TEST_F(StoreCliTest, EmptyPathListsAreMalformed) {
    PutTwoPlayers();
    for (const char* paths : {"", "level,,faction"}) {
        const ProcessResult update = Store("update", {"--text", std::string(kAlice) + " level: 7", "--paths", paths});
        EXPECT_EQ(update.status, 2) << update.err;
        EXPECT_EQ(update.err.rfind("corvida-pb store update: --paths: ", 0), 0u) << update.err;
        EXPECT_EQ(Store("get", {"--text", kAlice, "--paths", paths}).status, 2);
    }
    EXPECT_NE(Store("get", {"--text", kAlice}).out.find("level: 42"), std::string::npos) << "nothing was written";
}

TEST_F(StoreCliTest, CipherFileFromStandardInputIsAReader) {
    const std::vector<std::string> args = {"store", "put", "--db", m_db, "--proto", kGame, "--table", "Player",
                                           "--text-file", "-", "--cipher-file", "-"};
    const ProcessResult r = Pb(args, WithInput(GameCipher() + "\n"));
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("only one option can read standard input ('-'), not --cipher-file and --text-file"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(Store("scan", {}).out, "") << "nothing was written";
}

TEST_F(StoreCliTest, StoreHeldByAnotherProcessIsAClearErrorForWritersOnly) {
    PutTwoPlayers();
    std::unique_ptr<corvida::store::TableStore> held;
    ASSERT_TRUE(corvida::store::TableStore::Open(m_db, {}, &held).ok());
    // Readers take no lock.
    const ProcessResult scan = Store("scan", {});
    EXPECT_EQ(scan.status, 0) << scan.err;
    EXPECT_NE(scan.out.find("# record 2"), std::string::npos) << scan.out;
    EXPECT_EQ(Store("get", {"--text", kAlice}).status, 0);
    // A writer is told at once, with the busy message and nothing else.
    const ProcessResult put = Store("put", {"--text", std::string(kAlice) + " level: 1"});
    EXPECT_EQ(put.status, 1);
    EXPECT_EQ(put.err, "corvida-pb store put: error: opening " + m_db + ": the store is in use by another process\n");
    // With --wait, it goes on once the store is free.
    std::thread release([&held] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        held.reset();
    });
    const ProcessResult waited = Store("put", {"--text", std::string(kAlice) + " level: 1", "--wait", "10"});
    release.join();
    EXPECT_EQ(waited.status, 0) << waited.err;
    EXPECT_NE(Store("get", {"--text", kAlice}).out.find("level: 1"), std::string::npos);
}

TEST_F(StoreCliTest, DirectoryThatIsNoStore) {
    const std::vector<std::string> args = {"store", "scan", "--db", m_tmp + "/nothing", "--proto", kGame,
                                           "--table", "Guild"};
    EXPECT_EQ(Pb(args).status, 1);
    WriteTmp("plain/file.txt", "");
    std::vector<std::string> plain = args;
    plain[3] = m_tmp;  // holds files, but no store
    const ProcessResult r = Pb(plain);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: "), std::string::npos) << r.err;
}

}  // namespace
