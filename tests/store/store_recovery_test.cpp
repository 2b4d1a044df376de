// The store's files under damage and hostile bytes: damaged write-ahead logs
// and their repair, files at rest (modes, what compaction removes), key
// order, table names and numbers, writes over damaged records, the lock of a
// store and writers racing for it, the upgrade from key layout 1.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "store/key_format.h"
#include "store/table_store.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

namespace fs = std::filesystem;
namespace keys = corvida::store::keys;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::Table;
using corvida::store::TableInfo;
using corvida::store::TableStore;
using corvida::test3::Player3;

Player3 PlayerNumber(int zone, uint64_t uid, const std::string& name = "") {
    Player3 player;
    player.set_zone(zone);
    player.set_uid(uid);
    player.set_name(name.empty() ? "player " + std::to_string(zone) + "/" + std::to_string(uid) : name);
    player.set_level(static_cast<int32_t>(uid % 5));
    return player;
}

Player3 KeyOf(const Player3& player) {
    Player3 key;
    key.set_zone(player.zone());
    key.set_uid(player.uid());
    return key;
}

std::string FileWithSuffix(const std::string& dir, const std::string& suffix) {
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            return entry.path().string();
        }
    }
    return "";
}

// True when some file under dir holds text.
bool AnyFileHolds(const std::string& dir, const std::string& text) {
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (bytes.find(text) != std::string::npos) return true;
    }
    return false;
}

std::string Bytes(std::initializer_list<int> bytes) {
    std::string out;
    for (int b : bytes) out.push_back(static_cast<char>(b));
    return out;
}

// The keys of every kind, byte for byte as docs/store.md draws them.
TEST(KeyLayoutTest, EveryKindOfKeyIsAsDocumented) {
    const std::string pk = Bytes({0x08, 0x03, 0x10, 0xac, 0x02});
    const std::string row = Bytes({'R', 0, 0, 0, 1, 0x08, 0x03, 0x10, 0xac, 0x02, 0x00});
    EXPECT_EQ(row, keys::RowKey(1, pk));
    EXPECT_EQ(row + "4.1", keys::RowKey(1, pk) + "4.1");
    EXPECT_EQ(row + "\xff", keys::EscapedEnd(keys::RowKey(1, pk)));
    const std::string email = Bytes({0x1a, 0x0a}) + "ann@ex.com";
    EXPECT_EQ(Bytes({'I', 0, 0, 0, 1}) + "by_email" + Bytes({0x00}) + email + Bytes({0x00}) + pk + Bytes({0x00}),
              keys::SecondaryKey(keys::kIndex, 1, "by_email", email, pk));
    EXPECT_EQ(Bytes({'S', 0, 0, 0, 1, 0x10, 0xac, 0x02, 0x00}) + pk + Bytes({0x00}),
              keys::SecondaryKey(keys::kShard, 1, "", Bytes({0x10, 0xac, 0x02}), pk));
    EXPECT_EQ("Cinv.Stock", keys::CatalogKey("inv.Stock"));
    EXPECT_EQ("Mlayout", std::string(keys::kLayoutKey));
    EXPECT_EQ("Mnext_table", std::string(keys::kNextTableKey));
    // 00 inside a key is written 00 FF; the key ends with 00.
    EXPECT_EQ(Bytes({'R', 0, 0, 1, 0, 0x0a, 0x00, 0xff, 0x41, 0x00}), keys::RowKey(256, Bytes({0x0a, 0x00, 0x41})));
    EXPECT_EQ(8u, keys::NewStamp().size());
}

// A store in a temporary directory holding table Player3.
class RecoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(Open(true).ok());
        ASSERT_TRUE(m_store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
        ASSERT_TRUE(OpenTable().ok());
    }

    Status Open(bool create = false, bool sync = false) {
        m_table.reset();
        m_store.reset();
        StoreOptions options;
        options.create_if_missing = create;
        options.sync = sync;
        return TableStore::Open(m_dir.path(), options, &m_store);
    }

    Status OpenTable() { return m_store->OpenTable(Player3::default_instance(), nullptr, &m_table); }

    void Close() {
        m_table.reset();
        m_store.reset();
    }

    // With the store closed: stores bytes as the level field of record (of
    // level 0), reopens, puts the record at level 3, and expects no entry
    // left under level 0 and a table that verifies.
    void DamageLevelAndMoveToLevel3(const Player3& record, const std::string& bytes) {
        RawPut(m_dir.path(), keys::RowKey(1, KeyOf(record).SerializeAsString()) + "4", bytes);
        ASSERT_TRUE(Open().ok());
        ASSERT_TRUE(OpenTable().ok());
        Player3 moved = record;
        moved.set_level(3);
        ASSERT_TRUE(m_table->Put(moved).ok());
        std::vector<Record> found;
        Player3 level;
        level.set_level(0);
        ASSERT_TRUE(m_table->FindByIndex("by_level", level, &found).ok());
        EXPECT_TRUE(found.empty()) << "no entry is left under the old value";
        EXPECT_TRUE(m_table->Verify().ok());
    }

    // Puts the players, each in a write of its own, with sync, and closes
    // the store: its log holds one record per write.
    void PutEachAndClose(const std::vector<Player3>& players) {
        ASSERT_TRUE(Open(false, true).ok());
        ASSERT_TRUE(OpenTable().ok());
        for (const Player3& player : players) ASSERT_TRUE(m_table->Put(player).ok());
        Close();
    }

    bool Holds(const Player3& player) {
        Player3 out;
        return m_table->Get(KeyOf(player), {}, &out, nullptr).ok() && out.name() == player.name();
    }

    TempDir m_dir;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
};

TEST_F(RecoveryTest, ATornLastWriteIsDroppedSilently) {
    std::vector<Player3> players;
    for (uint64_t i = 0; i < 20; ++i) players.push_back(PlayerNumber(1, i));
    PutEachAndClose(players);
    const std::string log = FileWithSuffix(m_dir.path(), ".log");
    ASSERT_FALSE(log.empty());
    fs::resize_file(log, fs::file_size(log) - 10);

    const Status s = Open();
    ASSERT_TRUE(s.ok()) << s.ToString();
    ASSERT_TRUE(OpenTable().ok());
    for (size_t i = 0; i + 1 < players.size(); ++i) EXPECT_TRUE(Holds(players[i])) << i;
    EXPECT_FALSE(Holds(players.back())) << "the torn write";
    EXPECT_TRUE(m_table->Verify().ok());
}

TEST_F(RecoveryTest, DamageBeforeTheLastRecordRefusesTheOpenAndRepairSalvages) {
    std::vector<Player3> players;
    for (uint64_t i = 0; i < 40; ++i) players.push_back(PlayerNumber(1, i, std::string(200, 'a' + i % 26)));
    PutEachAndClose(players);
    const std::string log = FileWithSuffix(m_dir.path(), ".log");
    ASSERT_FALSE(log.empty());
    {
        std::fstream file(log, std::ios::in | std::ios::out | std::ios::binary);
        file.seekg(static_cast<std::streamoff>(fs::file_size(log) / 2));
        const int byte = file.peek();
        file.seekp(static_cast<std::streamoff>(fs::file_size(log) / 2));
        file.put(static_cast<char>(byte ^ 0x5a));
    }
    Status s = Open();
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find(fs::path(log).filename().string())) << s.message();
    StoreOptions read_only;
    read_only.read_only = true;
    EXPECT_TRUE(TableStore::Open(m_dir.path(), read_only, &m_store).IsCorruption());

    std::vector<std::string> report;
    s = corvida::store::RepairStore(m_dir.path(), &report);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_FALSE(report.empty()) << "the repair says what it dropped";
    ASSERT_TRUE(Open().ok());
    ASSERT_TRUE(OpenTable().ok());
    EXPECT_TRUE(Holds(players.front()));
    size_t held = 0;
    for (const Player3& player : players) held += Holds(player) ? 1 : 0;
    EXPECT_LT(held, players.size()) << "the damaged record cannot have been salvaged";
    EXPECT_GE(held, players.size() / 2 - 1);
    EXPECT_TRUE(m_table->Verify().ok());
}

TEST_F(RecoveryTest, FilesAreReadableByTheirOwnerOnly) {
    const mode_t old_mask = ::umask(022);
    TempDir parent;
    std::unique_ptr<TableStore> store;
    StoreOptions options;
    options.create_if_missing = true;
    const std::string dir = parent.Sub("private.db");
    ASSERT_TRUE(TableStore::Open(dir, options, &store).ok());
    ASSERT_TRUE(store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
    ::umask(old_mask);
    EXPECT_EQ(fs::perms::owner_all, fs::status(dir).permissions() & fs::perms::all) << "the store's directory";
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(dir)) {
        ++files;
        const fs::perms perms = entry.status().permissions();
        EXPECT_EQ(fs::perms::none, perms & (fs::perms::group_all | fs::perms::others_all))
            << entry.path().filename() << " is open to others";
    }
    EXPECT_GT(files, 3u);
}

TEST_F(RecoveryTest, CompactionRemovesTheBytesOfDeletedRecords) {
    const std::string marker = "MARKER-7f3a9c-deleted-record";
    const Player3 secret = PlayerNumber(2, 77, marker);
    ASSERT_TRUE(m_table->Put(secret).ok());
    ASSERT_TRUE(m_table->Put(PlayerNumber(2, 78)).ok());
    ASSERT_TRUE(m_table->Delete(KeyOf(secret)).ok());
    EXPECT_TRUE(AnyFileHolds(m_dir.path(), marker)) << "the deleted bytes stay until a compaction";
    ASSERT_TRUE(m_store->Compact().ok());
    Close();
    EXPECT_FALSE(AnyFileHolds(m_dir.path(), marker));
    ASSERT_TRUE(Open().ok());
    ASSERT_TRUE(OpenTable().ok());
    EXPECT_TRUE(Holds(PlayerNumber(2, 78)));
}

// Keys whose byte order differs from their length order: zone 1 with a
// long uid sorts before zone 2 with a short one.
TEST_F(RecoveryTest, ScansComeInPrimaryKeyByteOrder) {
    const std::vector<Player3> players = {PlayerNumber(2, 1), PlayerNumber(1, 300000), PlayerNumber(1, 5),
                                          PlayerNumber(3, 0), PlayerNumber(1, 128)};
    for (const Player3& player : players) ASSERT_TRUE(m_table->Put(player).ok());
    std::vector<std::string> expected;
    for (const Player3& player : players) expected.push_back(KeyOf(player).SerializeAsString());
    std::sort(expected.begin(), expected.end());

    std::vector<Record> all;
    ASSERT_TRUE(m_table->Scan(nullptr, 0, &all).ok());
    ASSERT_EQ(players.size(), all.size());
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(expected[i], KeyOf(static_cast<const Player3&>(*all[i].message)).SerializeAsString()) << i;
    }
    std::vector<Record> first;
    ASSERT_TRUE(m_table->Scan(nullptr, 2, &first).ok());
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ(1, static_cast<const Player3&>(*first[0].message).zone());
    EXPECT_EQ(5u, static_cast<const Player3&>(*first[0].message).uid());
    EXPECT_EQ(128u, static_cast<const Player3&>(*first[1].message).uid());
}

// Points the type names of message's fields (and of its nested messages')
// from package corvida.test3 to package.
void MovePackage(google::protobuf::DescriptorProto* message, const std::string& package) {
    const std::string from = ".corvida.test3.";
    for (auto& field : *message->mutable_field()) {
        if (field.type_name().rfind(from, 0) == 0) {
            field.set_type_name("." + package + "." + field.type_name().substr(from.size()));
        }
    }
    for (auto& nested : *message->mutable_nested_type()) MovePackage(&nested, package);
}

// A table type whose file is built at run time in package `package`.
class PackagedType {
public:
    explicit PackagedType(const std::string& package) {
        google::protobuf::FileDescriptorSet set;
        EXPECT_TRUE(set.ParseFromString(SchemaBlob(Player3::descriptor())));
        for (google::protobuf::FileDescriptorProto& file : *set.mutable_file()) {
            if (file.name() == Player3::descriptor()->file()->name()) {
                file.set_name(package + ".proto");
                file.set_package(package);
                for (auto& message : *file.mutable_message_type()) MovePackage(&message, package);
            }
            EXPECT_NE(nullptr, m_pool.BuildFile(file)) << file.name();
            *m_set.add_file() = file;
        }
        m_prototype = m_factory.GetPrototype(m_pool.FindMessageTypeByName(package + ".Player3"));
    }
    const google::protobuf::Message& prototype() const { return *m_prototype; }
    std::string blob() const { return m_set.SerializeAsString(); }

private:
    google::protobuf::DescriptorPool m_pool;
    google::protobuf::DynamicMessageFactory m_factory;
    google::protobuf::FileDescriptorSet m_set;
    const google::protobuf::Message* m_prototype = nullptr;
};

TEST_F(RecoveryTest, TablesAreNamedByTheirFullTypeNames) {
    PackagedType inv("inv");
    PackagedType inv2("inv2");
    ASSERT_TRUE(m_store->CreateTable(inv.blob(), "Player3").ok()) << "its own full name differs";
    const Status second = m_store->CreateTable(inv2.blob(), "inv2.Player3");
    ASSERT_TRUE(second.ok()) << second.ToString();
    EXPECT_TRUE(m_store->CreateTable(inv2.blob(), "inv2.Player3").IsAlreadyExists());
    std::vector<TableInfo> tables;
    ASSERT_TRUE(m_store->ListTables(&tables).ok());
    ASSERT_EQ(3u, tables.size());
    EXPECT_EQ("corvida.test3.Player3", tables[0].name);
    EXPECT_EQ("inv.Player3", tables[1].name);
    EXPECT_EQ("inv2.Player3", tables[2].name);

    std::unique_ptr<Table> a;
    std::unique_ptr<Table> b;
    ASSERT_TRUE(m_store->OpenTable(inv.prototype(), nullptr, &a).ok());
    ASSERT_TRUE(m_store->OpenTable(inv2.prototype(), nullptr, &b).ok());
    EXPECT_EQ("inv.Player3", a->name());
    EXPECT_EQ("inv2.Player3", b->name());
    std::unique_ptr<google::protobuf::Message> record(inv.prototype().New());
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString("zone: 1 uid: 1 name: \"in inv\"", record.get()));
    ASSERT_TRUE(a->Put(*record).ok());
    std::vector<Record> in_b;
    ASSERT_TRUE(b->Scan(nullptr, 0, &in_b).ok());
    EXPECT_TRUE(in_b.empty()) << "the tables share no rows";

    // A client of a third package finds no table of its full name, and the
    // short name is ambiguous: the candidates are named.
    PackagedType other("other");
    std::unique_ptr<Table> c;
    const Status ambiguous = m_store->OpenTable(other.prototype(), nullptr, &c);
    EXPECT_TRUE(ambiguous.IsInvalidArgument()) << ambiguous.ToString();
    EXPECT_NE(std::string::npos,
              ambiguous.message().find("corvida.test3.Player3, inv.Player3, inv2.Player3"))
        << ambiguous.message();
}

TEST_F(RecoveryTest, AStoreWithoutAFreeTableNumberRefusesNewTables) {
    Close();
    std::string exhausted;
    keys::AppendU32(&exhausted, 1);
    keys::AppendU32(&exhausted, 0);  // 2^32, as 8 bytes
    RawPut(m_dir.path(), std::string(keys::kNextTableKey), exhausted);
    ASSERT_TRUE(Open().ok());
    PackagedType inv("inv");
    const Status s = m_store->CreateTable(inv.blob(), "inv.Player3");
    EXPECT_TRUE(s.IsNotSupported()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("no free table number")) << s.message();
}

TEST_F(RecoveryTest, AWriteOverADamagedIndexedFieldMovesItsEntries) {
    const Player3 first = PlayerNumber(1, 10);   // level 0
    const Player3 healthy = PlayerNumber(1, 11);  // level 1
    ASSERT_TRUE(m_table->Put(first).ok());
    ASSERT_TRUE(m_table->Put(healthy).ok());
    Close();
    DamageLevelAndMoveToLevel3(first, "\xff\xff\xff");

    Close();
    RawPut(m_dir.path(), keys::RowKey(1, KeyOf(first).SerializeAsString()) + "4", "\xff\xff\xff");
    ASSERT_TRUE(Open().ok());
    ASSERT_TRUE(OpenTable().ok());
    ASSERT_TRUE(m_table->Delete(KeyOf(first)).ok());
    EXPECT_TRUE(m_table->Verify().ok());
    Player3 level;
    level.set_level(1);
    std::vector<Record> found;
    ASSERT_TRUE(m_table->FindByIndex("by_level", level, &found).ok()) << "healthy records are still found";
    EXPECT_EQ(1u, found.size());
}

// A stored indexed field damaged into another value that still merges (the
// bytes of another record's field): its entry is not where the field says,
// and a write finds it by the primary key all the same.
TEST_F(RecoveryTest, AWriteOverAnIndexedFieldDamagedIntoAnotherValueMovesItsEntries) {
    const Player3 first = PlayerNumber(1, 10);   // level 0
    const Player3 healthy = PlayerNumber(1, 11);  // level 1
    ASSERT_TRUE(m_table->Put(first).ok());
    ASSERT_TRUE(m_table->Put(healthy).ok());
    Close();
    const std::string level_of_healthy =
        RawContents(m_dir.path()).at(keys::RowKey(1, KeyOf(healthy).SerializeAsString()) + "4");
    DamageLevelAndMoveToLevel3(first, level_of_healthy);
}

TEST_F(RecoveryTest, AStoredFieldUnderAKeyFieldIsReportedAndNeverMergedOverTheKey) {
    // Key fields live in the primary key; a row's field under one is damage.
    Player3 player = PlayerNumber(1, 10);
    player.set_name("alice");
    ASSERT_TRUE(m_table->Put(player).ok());
    Close();
    RawPut(m_dir.path(), keys::RowKey(1, KeyOf(player).SerializeAsString()) + "1", "");
    ASSERT_TRUE(Open().ok());
    ASSERT_TRUE(OpenTable().ok());
    Player3 out;
    std::set<std::string> failed;
    ASSERT_TRUE(m_table->Get(KeyOf(player), {}, &out, &failed).ok());
    EXPECT_EQ(player.zone(), out.zone());
    EXPECT_EQ(std::set<std::string>({"1"}), failed);
    // A write over it still moves the record's entries.
    player.set_name("bob");
    ASSERT_TRUE(m_table->Put(player).ok());
    Player3 name;
    name.set_zone(player.zone());
    name.set_name("alice");
    std::vector<Record> found;
    ASSERT_TRUE(m_table->FindByIndex("by_name", name, &found).ok());
    EXPECT_TRUE(found.empty());
    EXPECT_TRUE(m_table->Verify().ok());
}

TEST(StoreLockTest, AnErrorOfAStoreNamedLikeALockIsNotBusy) {
    TempDir dir;
    const std::string path = dir.Sub("blocks.db");
    {
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(OpenStore(path, &store).ok());
    }
    std::ofstream(path + "/CURRENT", std::ios::trunc) << "MANIFEST-999999\n";
    std::unique_ptr<TableStore> store;
    const Status s = TableStore::Open(path, StoreOptions(), &store);
    EXPECT_FALSE(s.ok());
    EXPECT_FALSE(s.IsBusy()) << s.ToString();
}

TEST(StoreLockTest, WritersRacingForAStoreGetItOrTheBusyAnswerOnly) {
    TempDir dir;
    {
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(OpenStore(dir.path(), &store).ok());
        ASSERT_TRUE(store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
    }
    const int attempts = EnvInt("CORVIDA_STORE_RACE_ATTEMPTS", 200);
    std::vector<Child> children(4);
    for (Child& child : children) {
        ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"race", dir.path(), std::to_string(attempts)}, &child));
    }
    size_t opened = 0;
    size_t busy = 0;
    for (Child& child : children) {
        const std::string said = ReadAll(&child);
        EXPECT_EQ(0, WaitExit(child, 120000)) << said;
        size_t start = 0;
        for (size_t end = said.find('\n'); end != std::string::npos; end = said.find('\n', start)) {
            const std::string line = said.substr(start, end - start);
            start = end + 1;
            if (line == "ok") {
                ++opened;
            } else if (line == "busy") {
                ++busy;
            } else {
                ADD_FAILURE() << "an answer that is neither the store nor busy: " << line;
            }
        }
    }
    EXPECT_EQ(static_cast<size_t>(4 * attempts), opened + busy);
    EXPECT_GT(opened, 0u);
    std::printf("racing writers: %zu opened the store, %zu were told it is busy\n", opened, busy);
}

TEST_F(RecoveryTest, AStoreOfLayout1IsRefusedUntilUpgraded) {
    std::vector<Player3> players;
    for (uint64_t i = 0; i < 30; ++i) players.push_back(PlayerNumber(static_cast<int>(i % 3), i * 1000));
    for (const Player3& player : players) ASSERT_TRUE(m_table->Put(player).ok());
    Close();
    RewriteInLayout1(m_dir.path());

    Status s = Open();
    EXPECT_TRUE(s.IsNotSupported()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("corvida-pb store upgrade --db " + m_dir.path())) << s.message();

    bool upgraded = false;
    s = corvida::store::UpgradeStore(m_dir.path(), StoreOptions(), &upgraded);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_TRUE(upgraded);
    ASSERT_TRUE(Open().ok());
    ASSERT_TRUE(OpenTable().ok());
    for (const Player3& player : players) EXPECT_TRUE(Holds(player)) << player.ShortDebugString();
    EXPECT_TRUE(m_table->Verify().ok());
    std::vector<Record> all;
    ASSERT_TRUE(m_table->Scan(nullptr, 0, &all).ok());
    EXPECT_EQ(players.size(), all.size());
    Close();
    ASSERT_TRUE(corvida::store::UpgradeStore(m_dir.path(), StoreOptions(), &upgraded).ok());
    EXPECT_FALSE(upgraded) << "a second upgrade finds the current layout";
}

}  // namespace
}  // namespace corvida_store_test
