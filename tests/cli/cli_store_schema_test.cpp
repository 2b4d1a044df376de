// corvida-pb store alter, build-index, tables, describe and drop on work left
// half done: an index whose back-fill or removal has not run (as after a
// killed alter), a table whose drop stopped, and stored names that would
// send escape sequences to a terminal.
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "cli_fixture.h"
#include "store/table_store.h"

namespace {

using namespace corvida_test;
using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::TableStore;

class StoreSchemaCliTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        m_db = m_tmp + "/db";
        ASSERT_EQ(Store("create", {}).status, 0);
        ASSERT_EQ(Store("put", {"--text-file", kPlayerText}).status, 0);
        ASSERT_EQ(Store("put", {"--text", "zone: 3 uid: 1002 account: \"bob@example.com\" faction: FACTION_SOUTH"})
                      .status,
                  0);
    }

    // corvida-pb store <command> --db DB <args>, with the game-aes key in the
    // environment; the table's definitions from proto unless it is empty,
    // and --table Player but for "tables".
    ProcessResult Store(const std::string& command, const std::vector<std::string>& args,
                        const std::string& proto = kGame, const std::string& progress = "") const {
        std::vector<std::string> all = {"store", command, "--db", m_db};
        if (!proto.empty()) all.insert(all.end(), {"--proto", proto});
        if (command != "tables") all.insert(all.end(), {"--table", "Player"});
        all.insert(all.end(), args.begin(), args.end());
        ProcessOptions options;
        options.set_env[kCiphersVariable] = GameCipher();
        if (!progress.empty()) options.set_env["CORVIDA_PB_PROGRESS"] = progress;
        return Pb(all, options);
    }

    // game.proto with from replaced by to, written under name.
    std::string Variant(const std::string& name, const std::string& from, const std::string& to) const {
        std::ifstream game(std::string(CORVIDA_PB_SOURCE_DIR) + "/" + kGame);
        std::string text((std::istreambuf_iterator<char>(game)), std::istreambuf_iterator<char>());
        const size_t at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        if (at != std::string::npos) text.replace(at, from.size(), to);
        return WriteTmp(name, text);
    }

    // Alters the table to proto's Player with the library, which leaves the
    // work on indexes to BuildIndex: what a killed alter leaves behind.
    void AlterWithoutTheWork(const std::string& proto) {
        const std::string blob = m_tmp + "/blob.pb";
        ASSERT_EQ(Pb({"blob", "--proto", proto, "--table", "Player", "-o", blob}).status, 0);
        std::ifstream in(blob, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(TableStore::Open(m_db, {}, &store).ok());
        AlterPlan plan;
        const corvida::store::Status s = store->AlterTable(bytes, "corvida.example.Player", AlterOptions(), &plan);
        ASSERT_TRUE(s.ok()) << s.ToString();
    }

    std::string WithFactionIndex() {
        return Variant("faction.proto", "\"by_level(zone,level)\";",
                       "\"by_level(zone,level)\";\n  option (corvidaservice.corvida_index) = \"by_faction(faction)\";");
    }

    std::string m_db;
};

TEST_F(StoreSchemaCliTest, BuildIndexResumesABuildLeftHalfDone) {
    const std::string v2 = WithFactionIndex();
    AlterWithoutTheWork(v2);
    ProcessResult r = Store("describe", {}, "");
    EXPECT_NE(r.out.find("index by_faction(faction): building, 0 of 2 records\n"), std::string::npos) << r.out;
    r = Store("tables", {}, "");
    EXPECT_EQ(r.out, "corvida.example.Player: 2 records; indexes by_faction (building, 0 of 2 records), "
                     "by_level (ready)\n");
    r = Store("find", {"--index", "by_faction", "--text", "faction: FACTION_SOUTH"}, v2);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "corvida-pb store find: error: table corvida.example.Player: index by_faction is being built, "
                     "0 of 2 records; lookups on it are refused until it is ready\n");

    r = Store("build-index", {"--index", "by_faction"}, "", "plain");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "index by_faction(faction) of corvida.example.Player: ready\n");
    EXPECT_EQ(r.err.rfind("index by_faction: 2 records indexed in ", 0), 0u) << r.err;
    r = Store("find", {"--index", "by_faction", "--text", "faction: FACTION_SOUTH"}, v2);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("uid: 1002"), std::string::npos) << r.out;
}

TEST_F(StoreSchemaCliTest, BuildIndexFinishesARemovalLeftHalfDone) {
    AlterWithoutTheWork(Variant("no_index.proto", "  option (corvidaservice.corvida_index) = \"by_level(zone,level)\";\n",
                                ""));
    ProcessResult r = Store("describe", {"--format", "json"}, "");
    const Json described = ParseOne(r.out);
    ASSERT_EQ(described["indexes"].size(), 1u) << r.out;
    EXPECT_EQ(described["indexes"][0], Json::parse(R"({"name":"by_level","fields":[],"state":"dropping","done":0,
                                                        "total":2})"));
    r = Store("build-index", {"--index", "by_level", "--format", "json"}, "");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ParseOne(r.out), Json::parse(R"({"table":"corvida.example.Player","operation":"build-index",
                                               "index":"by_level","state":"dropped"})"));
    EXPECT_EQ(Store("tables", {}, "").out, "corvida.example.Player: 2 records; no indexes\n");
}

// A later alter finishes what an earlier one left.
TEST_F(StoreSchemaCliTest, AlterFinishesEarlierWork) {
    const std::string v2 = WithFactionIndex();
    AlterWithoutTheWork(v2);
    const ProcessResult r = Store("alter", {}, v2);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "altered table corvida.example.Player: no change\nindex by_faction(faction): ready\n"
                     "index by_level(zone, level): ready\n");
}

TEST_F(StoreSchemaCliTest, DropLeftHalfDoneIsFinishedByDropAgain) {
    {
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(TableStore::Open(m_db, {}, &store).ok());
        ASSERT_TRUE(store->DropTable("Player", [](uint64_t, uint64_t) { return false; }).ok());
    }
    EXPECT_EQ(Store("tables", {}, "").out, "corvida.example.Player: 2 records, being dropped; indexes by_level (ready)\n");
    const ProcessResult get = Store("get", {"--text", "zone: 3 uid: 1002 account: \"bob@example.com\""});
    EXPECT_EQ(get.status, 1);
    EXPECT_NE(get.err.find("is being dropped"), std::string::npos) << get.err;
    const ProcessResult drop = Store("drop", {"--yes"}, "");
    ASSERT_EQ(drop.status, 0) << drop.err;
    EXPECT_EQ(Store("tables", {}, "").out, "");
    EXPECT_EQ(Store("create", {}).status, 0) << "the name is free again";
}

// Stored text reaches the terminal escaped: an index name holding an escape
// sequence.
TEST_F(StoreSchemaCliTest, StoredNamesArePrintable) {
    const std::string v2 = Variant("escape.proto", "\"by_level(zone,level)\";",
                                   "\"by_level(zone,level)\";\n"
                                   "  option (corvidaservice.corvida_index) = \"by\\033[2Jfaction(faction)\";");
    ProcessResult r = Store("alter", {}, v2);
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* command : {"tables", "describe"}) {
        r = Store(command, {}, "");
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out.find('\033'), std::string::npos) << command;
        EXPECT_NE(r.out.find("by\\x1b[2Jfaction"), std::string::npos) << command << "\n" << r.out;
    }
}

}  // namespace
