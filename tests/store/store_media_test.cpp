// The table store on real small and read-only file systems: a tmpfs of
// 2 MiB filled up, then made larger; a tmpfs remounted read-only. Mounting
// needs the right to (root in CI); elsewhere the tests skip with a message.
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "store/table_store.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::test3::Player3;

// A player with an avatar of `bytes` random letters: data that does not
// compress, so that the disk fills.
Player3 BigPlayer(int i, size_t bytes) {
    static std::mt19937 generator(7);
    std::uniform_int_distribution<int> letter('a', 'z');
    Player3 player;
    player.set_zone(1);
    player.set_uid(static_cast<uint64_t>(i));
    std::string name(bytes, ' ');
    for (char& c : name) c = static_cast<char>(letter(generator));
    player.set_avatar(name);
    player.set_name("player " + std::to_string(i));
    return player;
}

Player3 KeyOf(const Player3& player) {
    Player3 key;
    key.set_zone(player.zone());
    key.set_uid(player.uid());
    return key;
}

// A tmpfs mounted on a temporary directory for the test, unmounted after.
class TmpfsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::mount("tmpfs", m_dir.path().c_str(), "tmpfs", 0, "size=2m") != 0) {
            GTEST_SKIP() << "cannot mount a tmpfs here (" << std::strerror(errno)
                         << "); the full-disk and read-only media tests need the right to mount";
        }
        m_mounted = true;
        m_db = m_dir.Sub("db");
    }

    void TearDown() override {
        m_table.reset();
        m_store.reset();
        if (m_mounted) ::umount2(m_dir.path().c_str(), MNT_DETACH);
    }

    bool Remount(const char* options, unsigned long flags = 0) {
        return ::mount("tmpfs", m_dir.path().c_str(), "tmpfs", MS_REMOUNT | flags, options) == 0;
    }

    Status Open(bool read_only, bool create = false) {
        m_table.reset();
        m_store.reset();
        StoreOptions options;
        options.read_only = read_only;
        options.create_if_missing = create;
        Status s = TableStore::Open(m_db, options, &m_store);
        if (s.ok() && create) s = m_store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3");
        if (s.ok()) s = m_store->OpenTable(Player3::default_instance(), nullptr, &m_table);
        return s;
    }

    void ExpectAcknowledged() {
        for (const auto& [i, player] : m_acknowledged) {
            Player3 out;
            const Status s = m_table->Get(KeyOf(player), {}, &out, nullptr);
            ASSERT_TRUE(s.ok()) << "record " << i << ": " << s.ToString();
            EXPECT_EQ(player.avatar(), out.avatar()) << "record " << i;
        }
    }

    TempDir m_dir;
    bool m_mounted = false;
    std::string m_db;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
    std::map<int, Player3> m_acknowledged;
};

TEST_F(TmpfsTest, AFullDiskIsAnErrorOnWritesWhileReadsGoOnAndNothingIsLost) {
    ASSERT_TRUE(Open(false, true).ok());
    Status failed;
    for (int i = 0; i < 200 && failed.ok(); ++i) {
        const Player3 player = BigPlayer(i, 40000);
        failed = m_table->Put(player);
        if (failed.ok()) m_acknowledged[i] = player;
    }
    ASSERT_FALSE(failed.ok()) << "2 MiB never filled up";
    EXPECT_TRUE(failed.IsIOError()) << failed.ToString();
    EXPECT_NE(std::string::npos, failed.message().find("the disk is full")) << failed.message();
    EXPECT_FALSE(m_table->Put(BigPlayer(1000, 10)).ok());
    ExpectAcknowledged();

    // Every later process: a writer is refused with an error, a reader reads.
    const Status writer = Open(false);
    EXPECT_TRUE(writer.ok() || writer.IsIOError()) << writer.ToString();
    ASSERT_TRUE(Open(true).ok());
    ExpectAcknowledged();
    std::vector<Record> all;
    ASSERT_TRUE(m_table->Scan(nullptr, 0, &all).ok());
    EXPECT_EQ(m_acknowledged.size(), all.size());

    // Given room again, the store takes writes and has lost nothing.
    ASSERT_TRUE(Remount("size=16m"));
    ASSERT_TRUE(Open(false).ok());
    ExpectAcknowledged();
    const Player3 after = BigPlayer(2000, 100);
    ASSERT_TRUE(m_table->Put(after).ok());
    EXPECT_TRUE(m_table->Verify().ok());
}

TEST_F(TmpfsTest, AStoreOnReadOnlyMediaIsRead) {
    ASSERT_TRUE(Open(false, true).ok());
    for (int i = 0; i < 20; ++i) {
        const Player3 player = BigPlayer(i, 100);
        ASSERT_TRUE(m_table->Put(player).ok());
        m_acknowledged[i] = player;
    }
    m_table.reset();
    m_store.reset();
    ASSERT_TRUE(Remount("size=2m", MS_RDONLY));

    ASSERT_TRUE(Open(true).ok());
    ExpectAcknowledged();
    std::vector<Record> all;
    ASSERT_TRUE(m_table->Scan(nullptr, 5, &all).ok());
    EXPECT_EQ(5u, all.size());
    const Status writer = Open(false);
    EXPECT_FALSE(writer.ok());
    EXPECT_TRUE(writer.IsIOError()) << writer.ToString();
}

}  // namespace
}  // namespace corvida_store_test
