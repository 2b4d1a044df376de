// corvida-pb store under faults and hostile bytes, as a user meets them: a
// full disk, a damaged log and its repair, a store of the old key layout and
// its upgrade, compaction, tables of one short name in two packages, stored
// text that would drive the terminal, a create that cannot succeed, a key
// that is too long.
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <rocksdb/db.h>

#include "cli_fixture.h"
#include "store/key_format.h"
#include "store_test_support.h"

namespace {

using namespace corvida_test;
namespace fs = std::filesystem;
namespace keys = corvida::store::keys;

const char kAlice[] = "zone: 3 uid: 1001 account: \"alice@example.com\"";

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
    return n;
}

class StoreFaultsCliTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        m_db = m_tmp + "/db";
    }

    ProcessResult Store(const std::string& command, const std::vector<std::string>& args,
                        const std::string& table = "Player", const std::string& proto = kGame,
                        const std::string& key = kGameKey) const {
        std::vector<std::string> all = {"store", command, "--db", m_db, "--proto", proto, "--table", table};
        all.insert(all.end(), args.begin(), args.end());
        ProcessOptions options;
        options.set_env[kCiphersVariable] = std::string("game-aes=") + key;
        return Pb(all, options);
    }

    ProcessResult Admin(const std::string& command) const { return Pb({"store", command, "--db", m_db}); }

    void CreatePlayers(int count) {
        ASSERT_EQ(Store("create", {}).status, 0);
        for (int i = 0; i < count; ++i) {
            const ProcessResult put = Store(
                "put", {"--sync", "--text", "zone: 3 uid: " + std::to_string(i) + " account: \"p" + std::to_string(i) +
                                                "\" level: " + std::to_string(i) + " profile { nickname: \"" +
                                                std::string(300, static_cast<char>('a' + i % 26)) + "\" }"});
            ASSERT_EQ(put.status, 0) << put.err;
        }
    }

    std::string m_db;
};

TEST_F(StoreFaultsCliTest, AKeyTooLongIsOneErrorOfTheBridgeAndOneOfTheTool) {
    ASSERT_EQ(Store("create", {}).status, 0);
    const ProcessResult r =
        Store("put", {"--text", "zone: 1 uid: 2 account: \"" + std::string(1100, 'x') + "\""});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(Count(r.err, "exceed max"), 1u) << r.err;
    EXPECT_EQ(Count(r.err, "the key is longer than 1022 bytes"), 1u) << r.err;
}

TEST_F(StoreFaultsCliTest, ACreateWithAnotherKeyThanTheTablesIsRefusedBeforeAnythingIsWritten) {
    const ProcessResult r = Store("create", {}, "Player", kGame, kOtherKey);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("(result -4); nothing was created"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(m_db)) << "no directory is left behind";
    EXPECT_EQ(r.err.find(kOtherKey), std::string::npos) << "key text is never printed";
}

TEST_F(StoreFaultsCliTest, AFailedCreateLeavesNoDirectoryItMadeAndTouchesNoOldStore) {
    const ProcessResult bad = Store("create", {}, "KeyTypo", "tests/cli/data/option_mistakes.proto");
    EXPECT_EQ(bad.status, 1) << bad.err;
    EXPECT_FALSE(fs::exists(m_db));

    ASSERT_EQ(Store("create", {}).status, 0);
    const ProcessResult again = Store("create", {});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("already exists"), std::string::npos) << again.err;
    EXPECT_TRUE(fs::exists(m_db)) << "an old store stays";
    EXPECT_EQ(Store("scan", {}).status, 0);
}

TEST_F(StoreFaultsCliTest, TablesOfOneShortNameInTwoPackagesLiveSideBySide) {
    const std::string server = "tests/cli/data/renamed_server.proto";
    const std::string other = "tests/cli/data/renamed_package.proto";
    ASSERT_EQ(Store("create", {}, "Outer", server).status, 0);
    const ProcessResult second = Store("create", {}, "Outer", other);
    ASSERT_EQ(second.status, 0) << second.err;
    ASSERT_EQ(Store("put", {"--text", "id: 1 spare { a: 7 }"}, "Outer", server).status, 0);
    EXPECT_NE(Store("scan", {}, "Outer", server).out.find("a: 7"), std::string::npos);
    EXPECT_EQ(Store("scan", {}, "Outer", other).out, "") << "the other table holds nothing";
}

TEST_F(StoreFaultsCliTest, StoredTextReachesTheTerminalEscaped) {
    CreatePlayers(1);
    // A field stored under a crafted tag path that holds escape sequences.
    {
        rocksdb::DB* raw = nullptr;
        ASSERT_TRUE(rocksdb::DB::Open(rocksdb::Options(), m_db, &raw).ok());
        std::unique_ptr<rocksdb::DB> db(raw);
        std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
        std::string marker;
        for (it->Seek("R"); it->Valid() && it->key().starts_with("R"); it->Next()) {
            std::string pk;
            std::string_view tag;
            if (keys::SplitRowKey(std::string_view(it->key().data(), it->key().size()).substr(5), &pk, &tag) &&
                tag.empty()) {
                marker = it->key().ToString();
            }
        }
        ASSERT_FALSE(marker.empty());
        ASSERT_TRUE(db->Put(rocksdb::WriteOptions(), marker + "4\x1b]0;owned\x07\x1b[31m", "x").ok());
    }
    const ProcessResult r = Store("get", {"--text", "zone: 3 uid: 0 account: \"p0\""});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find('\x1b'), std::string::npos) << "no escape byte reaches the terminal";
    EXPECT_NE(r.err.find("4\\x1b]0;owned\\x07\\x1b[31m"), std::string::npos) << r.err;
}

TEST_F(StoreFaultsCliTest, ADamagedLogIsReportedAndRepaired) {
    CreatePlayers(30);
    std::string log;
    for (const auto& entry : fs::directory_iterator(m_db)) {
        if (entry.path().extension() == ".log") log = entry.path().string();
    }
    ASSERT_FALSE(log.empty());
    {
        std::fstream file(log, std::ios::in | std::ios::out | std::ios::binary);
        const auto middle = static_cast<std::streamoff>(fs::file_size(log) / 2);
        file.seekg(middle);
        const int byte = file.peek();
        file.seekp(middle);
        file.put(static_cast<char>(byte ^ 0x5a));
    }
    const ProcessResult refused = Store("get", {"--text", "zone: 3 uid: 0 account: \"p0\""});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find(fs::path(log).filename().string()), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("corvida-pb store repair"), std::string::npos) << refused.err;

    const ProcessResult repaired = Admin("repair");
    EXPECT_EQ(repaired.status, 0) << repaired.err;
    EXPECT_NE(repaired.out.find("dropped or rebuilt"), std::string::npos) << repaired.out;
    const ProcessResult after = Store("get", {"--text", "zone: 3 uid: 0 account: \"p0\""});
    EXPECT_EQ(after.status, 0) << after.err;
}

TEST_F(StoreFaultsCliTest, AStoreOfTheOldLayoutNamesTheUpgradeWhichRewritesIt) {
    CreatePlayers(3);
    corvida_store_test::RewriteInLayout1(m_db);
    const ProcessResult refused = Store("get", {"--text", "zone: 3 uid: 1 account: \"p1\""});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("corvida-pb store upgrade --db " + m_db), std::string::npos) << refused.err;
    const ProcessResult upgraded = Admin("upgrade");
    EXPECT_EQ(upgraded.status, 0) << upgraded.err;
    EXPECT_EQ(upgraded.out, "upgraded " + m_db + " to the current key layout\n");
    EXPECT_NE(Store("get", {"--text", "zone: 3 uid: 1 account: \"p1\""}).out.find("level: 1"), std::string::npos);
    EXPECT_EQ(Admin("upgrade").out, m_db + " is of the current key layout already\n");
    const ProcessResult compacted = Admin("compact");
    EXPECT_EQ(compacted.status, 0) << compacted.err;
    EXPECT_EQ(compacted.out, "compacted " + m_db + "\n");
}

// A 2 MiB tmpfs filled by puts (needs the right to mount; skipped elsewhere).
TEST_F(StoreFaultsCliTest, OnAFullDiskWritesFailWithOneErrorAndReadsGoOn) {
    const std::string mount_point = m_tmp + "/small";
    fs::create_directory(mount_point);
    if (::mount("tmpfs", mount_point.c_str(), "tmpfs", 0, "size=2m") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here (" << std::strerror(errno) << ")";
    }
    m_db = mount_point + "/db";
    ASSERT_EQ(Store("create", {}).status, 0);
    ASSERT_EQ(Store("put", {"--text", std::string(kAlice) + " level: 42"}).status, 0);
    {
        std::ofstream filler(mount_point + "/filler", std::ios::binary);
        const std::string block(64 * 1024, 'f');
        while (filler.write(block.data(), static_cast<std::streamsize>(block.size()))) {
        }
    }
    for (int i = 0; i < 3; ++i) {
        const ProcessResult put = Store("put", {"--text", "zone: 3 uid: 9 account: \"x\" level: 1"});
        EXPECT_EQ(put.status, 1) << "a full disk is an error, never an abort: " << put.err;
        EXPECT_EQ(Count(put.err, "\n"), 1u) << put.err;
        EXPECT_NE(put.err.find("the disk is full"), std::string::npos) << put.err;
    }
    const ProcessResult get = Store("get", {"--text", kAlice});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_NE(get.out.find("level: 42"), std::string::npos);
    EXPECT_EQ(Store("scan", {}).status, 0);
    fs::remove(mount_point + "/filler");
    EXPECT_EQ(Store("put", {"--text", "zone: 3 uid: 9 account: \"x\" level: 1"}).status, 0) << "room again";
    ::umount2(mount_point.c_str(), MNT_DETACH);
}

}  // namespace
