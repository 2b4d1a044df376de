// corvida-pb store export, import, count, verify and paging, as scripts use
// them: round trips of every field kind in both formats, bad lines, pages
// that visit each record once, counts and checks of a good and a damaged
// store, and a progress bar that shows on a terminal only.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <rocksdb/db.h>

#include "cli_fixture.h"

namespace {

using namespace corvida_test;

// The records of the round trips: together they set every kind of field of
// Player (an encrypted key field, an enum, sub-messages, bytes that are not
// UTF-8, a repeated message field, a map) and leave some unset.
const char* const kPlayers[] = {
    "zone: 3 uid: 1001 account: \"alice@example.com\" level: 42 faction: FACTION_NORTH "
    "profile { nickname: \"Alice\" avatar: \"\\211PNG\\000\\377\" stats { hp: 120 mp: 80 gold: 5000 } "
    "motto: \"Onwards \\342\\230\\203\" } last_login: 1700000000",
    "zone: 3 uid: 1002 account: \"bob@example.com\" level: 40 items { id: 7 count: 2 } items { id: 9 } "
    "counters { key: \"wins\" value: 12 } counters { key: \"losses\" value: -3 } counters { key: \"a\" value: 0 }",
    "zone: 4 uid: 7 account: \"\"",
    "zone: -1 uid: 18446744073709551615 account: \"max@example.com\" faction: FACTION_SOUTH "
    "profile { avatar: \"\\001\\002\" }",
};

class StoreBulkCliTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        m_db = m_tmp + "/db";
        ASSERT_EQ(StoreAt(m_db, "create", {}).status, 0);
    }

    // corvida-pb store <command> --db db --proto game.proto --table Player
    // <args>, with the game-aes key in the environment.
    static ProcessResult StoreAt(const std::string& db, const std::string& command,
                                 const std::vector<std::string>& args, ProcessOptions options = {}) {
        std::vector<std::string> all = {"store", command, "--db", db, "--proto", kGame, "--table", "Player"};
        all.insert(all.end(), args.begin(), args.end());
        options.set_env[kCiphersVariable] = GameCipher();
        return Pb(all, options);
    }

    ProcessResult Store(const std::string& command, const std::vector<std::string>& args) const {
        return StoreAt(m_db, command, args);
    }

    void PutPlayers() {
        for (const char* player : kPlayers) ASSERT_EQ(Store("put", {"--text", player}).status, 0) << player;
    }

    // A new store with the Player table.
    std::string NewStore(const std::string& name) const {
        const std::string db = m_tmp + "/" + name;
        EXPECT_EQ(StoreAt(db, "create", {}).status, 0);
        return db;
    }

    // n players as JSON lines, uid 1 to n.
    static std::string JsonPlayers(int n) {
        std::string lines;
        for (int i = 1; i <= n; ++i) {
            lines += "{\"zone\":" + std::to_string(i % 5) + ",\"uid\":\"" + std::to_string(i) +
                     "\",\"account\":\"p" + std::to_string(i) + "@example.com\",\"level\":" + std::to_string(i % 50) +
                     "}\n";
        }
        return lines;
    }

    // The uid of each record of out, JSON lines or text.
    static std::vector<std::string> Uids(const std::string& out) {
        std::vector<std::string> uids;
        static const std::regex uid("\"uid\":\"([0-9]+)\"|\nuid: ([0-9]+)\n");
        for (std::sregex_iterator it(out.begin(), out.end(), uid), end; it != end; ++it) {
            uids.push_back((*it)[1].matched ? (*it)[1] : (*it)[2]);
        }
        return uids;
    }

    std::string m_db;
};

// export, then import into an empty table, then export: the same bytes, in
// both formats; and either format read back gives the records of the other.
TEST_F(StoreBulkCliTest, ExportAndImportRoundTripEveryFieldKind) {
    PutPlayers();
    for (const std::string format : {"json", "text"}) {
        const ProcessResult first = Store("export", {"--format", format});
        ASSERT_EQ(first.status, 0) << first.err;
        EXPECT_TRUE(std::regex_match(first.err, std::regex("exported 4 records in [0-9.e-]+ s\n"))) << first.err;
        const std::string file = WriteTmp("players." + format, first.out);
        const std::string copy = NewStore("copy-" + format);
        const ProcessResult imported = StoreAt(copy, "import", {"--format", format, file});
        ASSERT_EQ(imported.status, 0) << imported.err;
        EXPECT_EQ(imported.out, "");
        EXPECT_TRUE(std::regex_match(imported.err, std::regex("imported 4 records in [0-9.e-]+ s\n"))) << imported.err;
        const ProcessResult second = StoreAt(copy, "export", {"--format", format});
        ASSERT_EQ(second.status, 0) << second.err;
        EXPECT_EQ(second.out, first.out) << format;
        // The other format of the copy is the other format of the original.
        const std::string other = format == "json" ? "text" : "json";
        EXPECT_EQ(StoreAt(copy, "export", {"--format", other}).out, Store("export", {"--format", other}).out);
    }
    const std::string json = Store("export", {"--format", "json"}).out;
    EXPECT_NE(json.find("\"avatar\":\"iVBORwD/\""), std::string::npos) << "bytes that are not UTF-8, in base64\n" << json;
    EXPECT_NE(json.find("\"counters\":{\"a\":\"0\",\"losses\":\"-3\",\"wins\":\"12\"}"), std::string::npos)
        << "map entries in key order\n" << json;
    EXPECT_NE(json.find("\"account\":\"alice@example.com\""), std::string::npos) << "the encrypted key field, plain";
}

TEST_F(StoreBulkCliTest, ExportWritesToAFileAndReadsLikeScan) {
    PutPlayers();
    const std::string file = m_tmp + "/out.txt";
    const ProcessResult exported = Store("export", {"-o", file});
    ASSERT_EQ(exported.status, 0) << exported.err;
    EXPECT_EQ(exported.out, "");
    std::ifstream in(file);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, Store("scan", {}).out) << "export prints what scan prints";
    EXPECT_EQ(Store("export", {"-o", m_tmp + "/no/such/dir/out.txt"}).status, 1);
}

// What scan and find print, cursor line included, reads back.
TEST_F(StoreBulkCliTest, ImportReadsWhatScanAndFindPrint) {
    PutPlayers();
    for (const std::string format : {"json", "text"}) {
        const ProcessResult page = Store("scan", {"--limit", "3", "--format", format});
        ASSERT_EQ(page.status, 0) << page.err;
        const ProcessResult found = Store("find", {"--index", "by_level", "--text", "zone: 3 level: 40", "--format", format});
        const std::string copy = NewStore("copy-" + format);
        ASSERT_EQ(StoreAt(copy, "import", {"--format", format, WriteTmp("page." + format, page.out)}).status, 0);
        const ProcessResult again = StoreAt(copy, "import", {"--format", format, "-"}, WithInput(found.out));
        ASSERT_EQ(again.status, 0) << again.err;
        EXPECT_EQ(StoreAt(copy, "count", {}).out, "3\n") << format;
    }
    // A record as get prints it, alone.
    const std::string copy = NewStore("copy-get");
    const ProcessResult got = Store("get", {"--text", "zone: 3 uid: 1002 account: \"bob@example.com\""});
    ASSERT_EQ(StoreAt(copy, "import", {"-"}, WithInput(got.out)).status, 0);
    EXPECT_EQ(StoreAt(copy, "scan", {}).out, "# record 1\n" + got.out);
}

TEST_F(StoreBulkCliTest, ImportFromStandardInputWithTheCipherFileElsewhere) {
    const std::vector<std::string> args = {"store", "import", "--db", m_db, "--proto", kGame, "--table", "Player",
                                           "--format", "json", "-", "--cipher-file", "-"};
    const ProcessResult both = Pb(args, WithInput(GameCipher() + "\n"));
    EXPECT_EQ(both.status, 2);
    EXPECT_NE(both.err.find("only one option can read standard input ('-'), not --cipher-file and FILE"),
              std::string::npos)
        << both.err;
    const ProcessResult r = StoreAt(m_db, "import", {"--format", "json", "-"}, WithInput(JsonPlayers(3)));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Store("count", {}).out, "3\n");
}

TEST_F(StoreBulkCliTest, ABadLineStopsTheImport) {
    const std::string file = WriteTmp("bad.json", JsonPlayers(2) + "{\"zone\":1,\"uid\":\"x\"}\n" + JsonPlayers(3));
    const ProcessResult r = Store("import", {"--format", "json", file});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: " + file + ":3: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("the import stopped at line 3: 2 records written before it, none after it"), std::string::npos)
        << r.err;
    EXPECT_EQ(Store("count", {}).out, "2\n");

    // In text, the line is the record's line in the file.
    const std::string text = WriteTmp("bad.txt", "# record 1\nzone: 1\nuid: 5\n# record 2\nzone: 1\nuid: 6\nlevel: x\n");
    const ProcessResult t = Store("import", {text});
    EXPECT_EQ(t.status, 1);
    EXPECT_NE(t.err.find(text + ":7:8: "), std::string::npos) << t.err;
    EXPECT_NE(t.err.find("the import stopped at line 4: 1 record written before it"), std::string::npos) << t.err;
}

TEST_F(StoreBulkCliTest, SkipBadWritesTheRestAndListsEveryBadLine) {
    const std::string too_long(1100, 'a');  // the primary key would be over 1022 bytes
    const std::string file = WriteTmp(
        "bad.json", JsonPlayers(2) + "{\"zone\":1,\"uid\":\"x\"}\n" + "not json\n" +
                        "{\"zone\":1,\"uid\":\"99\",\"account\":\"" + too_long + "\"}\n" + "{\"zone\":1,\"uid\":\"98\"}\n");
    const ProcessResult r = Store("import", {"--format", "json", "--skip-bad", file});
    EXPECT_EQ(r.status, 1) << "the input was not all written";
    EXPECT_EQ(Store("count", {}).out, "3\n");
    EXPECT_NE(r.err.find("imported 3 records in "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("; 3 bad lines skipped\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("3 bad lines were skipped:\n" + file + ":3: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\n" + file + ":4: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\n" + file + ":5: the store refuses the record: "), std::string::npos) << r.err;

    // Nothing bad: exit status 0.
    EXPECT_EQ(Store("import", {"--format", "json", "--skip-bad", WriteTmp("good.json", JsonPlayers(4))}).status, 0);
    EXPECT_EQ(Store("count", {}).out, "5\n");
}

// Pages of 97 through the records visit each once, in the order of the
// whole listing, in both formats (the library's test pages through 10,000).
TEST_F(StoreBulkCliTest, PagesVisitEveryRecordOnceInOrder) {
    ASSERT_EQ(Store("import", {"--format", "json", WriteTmp("players.json", JsonPlayers(500))}).status, 0);
    const std::vector<std::string> all = Uids(Store("scan", {"--format", "json"}).out);
    ASSERT_EQ(all.size(), 500u);
    for (const std::string format : {"json", "text"}) {
        // The last line of a cut page: {"#next":"CURSOR"} or # next CURSOR.
        const std::regex cursor(format == "json" ? "\\{\"#next\":\"([0-9a-f]+)\"\\}\n$" : "# next ([0-9a-f]+)\n$");
        std::string visited;
        std::string after;
        int pages = 0;
        for (;;) {
            std::vector<std::string> args = {"--limit", "97", "--format", format};
            if (!after.empty()) args.insert(args.end(), {"--after", after});
            const ProcessResult page = Store("scan", args);
            ASSERT_EQ(page.status, 0) << page.err;
            ++pages;
            std::smatch next;
            if (!std::regex_search(page.out, next, cursor)) {
                visited += page.out;
                break;
            }
            visited += page.out.substr(0, static_cast<size_t>(next.position(0)));
            after = next[1];
            ASSERT_LE(pages, 10);
        }
        EXPECT_EQ(pages, 6) << format;
        EXPECT_EQ(Uids(visited), all) << format;
    }
    // find pages the same way; a cursor of another read is refused.
    const ProcessResult found = Store("find", {"--index", "by_level", "--text", "zone: 1 level: 1", "--limit", "2"});
    ASSERT_EQ(found.status, 0) << found.err;
    std::smatch next;
    ASSERT_TRUE(std::regex_search(found.out, next, std::regex("# next ([0-9a-f]+)\n$"))) << found.out;
    const ProcessResult rest = Store("find", {"--index", "by_level", "--text", "zone: 1 level: 1", "--after", next[1]});
    ASSERT_EQ(rest.status, 0) << rest.err;
    EXPECT_EQ(rest.out.find("# next"), std::string::npos);
    const ProcessResult mixed = Store("scan", {"--after", next[1]});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_NE(mixed.err.find("cursor"), std::string::npos) << mixed.err;
}

TEST_F(StoreBulkCliTest, CountsATableAShardAndAnIndexValue) {
    PutPlayers();
    EXPECT_EQ(Store("count", {}).out, "4\n");
    EXPECT_EQ(Store("count", {"--shard-text", "uid: 1002"}).out, "1\n");
    EXPECT_EQ(Store("count", {"--index", "by_level", "--text", "zone: 3 level: 40"}).out, "1\n");
    EXPECT_EQ(Store("count", {"--index", "by_level", "--text", "zone: 3 level: 41"}).out, "0\n");
    const ProcessResult json = Store("count", {"--format", "json"});
    EXPECT_EQ(ParseOne(json.out), Json::parse(R"({"table":"corvida.example.Player","records":4})"));
    EXPECT_EQ(Store("count", {"--index", "by_level"}).status, 2) << "the index fields are needed";
    EXPECT_EQ(Store("count", {"--text", "zone: 3"}).status, 2) << "--text goes with --index";
    EXPECT_EQ(Store("count", {"--index", "by_level", "--text", "level: 1", "--shard-text", "uid: 1"}).status, 2);
}

TEST_F(StoreBulkCliTest, VerifyAGoodAndADamagedStore) {
    PutPlayers();
    ProcessResult r = Store("verify", {});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "corvida.example.Player: 4 records, 8 index and shard entries: nothing wrong\n");
    EXPECT_TRUE(std::regex_match(r.err, std::regex("verified 4 records in [0-9.e-]+ s\n"))) << r.err;

    // One index entry goes, and one entry names no record.
    {
        rocksdb::DB* raw = nullptr;
        ASSERT_TRUE(rocksdb::DB::Open(rocksdb::Options(), m_db, &raw).ok());
        std::unique_ptr<rocksdb::DB> db(raw);
        std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
        it->Seek("I");
        ASSERT_TRUE(it->Valid() && it->key().starts_with("I"));
        const std::string entry = it->key().ToString();
        it.reset();
        ASSERT_TRUE(db->Delete(rocksdb::WriteOptions(), entry).ok());
        ASSERT_TRUE(db->Put(rocksdb::WriteOptions(), "S" + entry.substr(1, 4) + std::string("\x01\x00", 2), "").ok());
    }
    r = Store("verify", {});
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(r.out, "corvida.example.Player: 4 records, 8 index and shard entries: 1 missing, 1 without their record\n");
    r = Store("verify", {"--format", "json"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(ParseOne(r.out), Json::parse(R"({"table":"corvida.example.Player","records":4,"entries":8,"missing":1,
                                             "orphans":1})"));
}

// The bar shows on a terminal, and only there; the summary line shows in
// both places.
TEST_F(StoreBulkCliTest, ProgressShowsOnlyOnATerminal) {
    const std::string file = WriteTmp("players.json", JsonPlayers(300));
    ProcessOptions options;
    options.directory = CORVIDA_PB_SOURCE_DIR;
    options.set_env[kCiphersVariable] = GameCipher();
    options.unset_env = {"CORVIDA_PB_PROGRESS"};
    const ProcessResult terminal = RunOnTerminal(
        {CORVIDA_PB_EXE, "store", "import", "--db", m_db, "--proto", kGame, "--table", "Player", "--format", "json",
         file},
        options);
    EXPECT_EQ(terminal.status, 0) << terminal.out;
    EXPECT_NE(terminal.out.find("\r\033[K["), std::string::npos) << "a bar is drawn\n" << terminal.out;
    EXPECT_NE(terminal.out.find(" / 300 records "), std::string::npos) << terminal.out;
    EXPECT_TRUE(std::regex_search(terminal.out, std::regex("\r\033\\[Kimported 300 records in [0-9.e-]+ s\r\n$")))
        << "the bar is erased before the summary\n" << terminal.out;

    const ProcessResult piped = StoreAt(m_db, "export", {"--format", "json"}, options);
    EXPECT_EQ(piped.status, 0);
    EXPECT_TRUE(std::regex_match(piped.err, std::regex("exported 300 records in [0-9.e-]+ s\n"))) << piped.err;
    EXPECT_EQ(piped.err.find('\033'), std::string::npos);

    const ProcessResult verified = RunOnTerminal(
        {CORVIDA_PB_EXE, "store", "verify", "--db", m_db, "--proto", kGame, "--table", "Player"}, options);
    EXPECT_EQ(verified.status, 0) << verified.out;
    EXPECT_NE(verified.out.find("verified 300 records in "), std::string::npos) << verified.out;
}

// An encrypted field outside the key does not merge: export writes it as
// stored, says so once for all records, and import writes it back.
TEST_F(StoreBulkCliTest, ExportNamesFieldsThatDidNotMergeOnce) {
    const std::string db = m_tmp + "/accounts";
    const auto account = [&db](const std::string& command, const std::vector<std::string>& args,
                               ProcessOptions options = {}) {
        std::vector<std::string> all = {"store", command, "--db", db, "--proto", "tests/store/protos/store_tables.proto",
                                        "--table", "Account", "--cipher", std::string("aes128=") + kOtherKey};
        all.insert(all.end(), args.begin(), args.end());
        return Pb(all, options);
    };
    ASSERT_EQ(account("create", {}).status, 0);
    for (int i = 0; i < 3; ++i) {
        const std::string text = "region: 1 email: \"e" + std::to_string(i) +
                                 "@x\" note: \"\\377secret\" friends { key: \"f\" value { badges: \"b\" } } tags: \"t\"";
        ASSERT_EQ(account("put", {"--text", text}).status, 0) << text;
    }
    const ProcessResult exported = account("export", {"--format", "json"});
    ASSERT_EQ(exported.status, 0) << exported.err;
    EXPECT_NE(exported.err.find("warning: fields that did not merge in 3 of 3 records, written as stored: 9 (note)\n"),
              std::string::npos)
        << exported.err;
    // The library's line of each merge is written once, its repeats counted.
    EXPECT_TRUE(std::regex_match(exported.err, std::regex("(\\[error\\] [A-Za-z_]+: [^\n]*)\ncorvida-pb store export: "
                                                          "warning: [^\n]*\nexported 3 records in [^\n]*\n\\1 \\(2 more times\\)\n")))
        << exported.err;
    ASSERT_EQ(account("delete", {"--text", "region: 1 email: \"e1@x\""}).status, 0);
    ASSERT_EQ(account("import", {"--format", "json", "-"}, WithInput(exported.out)).status, 0);
    EXPECT_EQ(account("export", {"--format", "json"}).out, exported.out);
}

}  // namespace
