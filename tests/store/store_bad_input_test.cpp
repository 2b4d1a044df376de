// What the store refuses, and that it writes nothing when it does: a
// directory that is not a store, a store of a newer layout, damaged database
// files, a stored schema that no longer loads, damaged stored fields, an
// incompatible client, a store held by another process.
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>
#include <rocksdb/db.h>

#include "store/key_format.h"
#include "corvida_store_catalog.pb.h"
#include "store/scratch.h"
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
using corvida::store::TableStore;
using corvida::test3::Player3;

// Names and sizes of the files in dir.
std::map<std::string, uintmax_t> Listing(const std::string& dir) {
    std::map<std::string, uintmax_t> files;
    for (const auto& entry : fs::directory_iterator(dir)) {
        files[entry.path().filename().string()] = entry.is_regular_file() ? entry.file_size() : 0;
    }
    return files;
}

Status OpenExisting(const std::string& dir, std::unique_ptr<TableStore>* store) {
    return TableStore::Open(dir, StoreOptions(), store);
}

// A store in dir holding table Player3 with one record.
void MakeStore(const std::string& dir) {
    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(OpenStore(dir, &store).ok());
    ASSERT_TRUE(store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
    std::unique_ptr<Table> table;
    ASSERT_TRUE(store->OpenTable(Player3::default_instance(), nullptr, &table).ok());
    Player3 p;
    p.set_zone(1);
    p.set_uid(2);
    p.set_name("stored");
    p.set_level(3);
    ASSERT_TRUE(table->Put(p).ok());
}

// Moves everything of the database in dir into table files.
void Flush(const std::string& dir) {
    rocksdb::DB* raw = nullptr;
    ASSERT_TRUE(rocksdb::DB::Open(rocksdb::Options(), dir, &raw).ok());
    std::unique_ptr<rocksdb::DB> db(raw);
    ASSERT_TRUE(db->Flush(rocksdb::FlushOptions()).ok());
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

TEST(StoreOpenTest, MissingOrEmptyDirectoriesAreNotStores) {
    TempDir dir;
    std::unique_ptr<TableStore> store;
    Status s = OpenExisting(dir.Sub("none"), &store);
    EXPECT_TRUE(s.IsNotFound()) << s.ToString();
    EXPECT_FALSE(fs::exists(dir.Sub("none")));
    s = OpenExisting(dir.path(), &store);
    EXPECT_TRUE(s.IsNotFound()) << s.ToString();
    EXPECT_TRUE(fs::is_empty(dir.path()));
    EXPECT_TRUE(TableStore::Open("", StoreOptions(), &store).IsInvalidArgument());
    EXPECT_TRUE(TableStore::Open(dir.path(), StoreOptions(), nullptr).IsInvalidArgument());
}

TEST(StoreOpenTest, ADirectoryOfOtherFilesIsRefusedUntouched) {
    TempDir dir;
    std::ofstream(dir.Sub("notes.txt")) << "not a store";
    const auto before = Listing(dir.path());
    std::unique_ptr<TableStore> store;
    const Status s = OpenStore(dir.path(), &store);  // even with create_if_missing
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("holds files but no table store")) << s.message();
    EXPECT_EQ(before, Listing(dir.path()));
    EXPECT_TRUE(OpenStore(dir.Sub("notes.txt"), &store).IsInvalidArgument());
}

TEST(StoreOpenTest, ARocksDBDatabaseThatIsNoStoreIsRefusedUntouched) {
    TempDir dir;
    RawPut(dir.path(), "someone else's", "data");
    const auto before = RawContents(dir.path());
    std::unique_ptr<TableStore> store;
    const Status s = OpenStore(dir.path(), &store);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("a RocksDB database but not a table store")) << s.message();
    EXPECT_EQ(before, RawContents(dir.path()));
}

TEST(StoreOpenTest, AStoreOfANewerLayoutIsRefused) {
    TempDir dir;
    MakeStore(dir.path());
    RawPut(dir.path(), std::string(keys::kLayoutKey), "3");
    const auto before = RawContents(dir.path());
    std::unique_ptr<TableStore> store;
    Status s = OpenExisting(dir.path(), &store);
    EXPECT_TRUE(s.IsNotSupported()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("key layout 3, newer than this library reads")) << s.message();
    EXPECT_EQ(before, RawContents(dir.path()));

    RawPut(dir.path(), std::string(keys::kLayoutKey), "one");
    s = OpenExisting(dir.path(), &store);
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
}

TEST(StoreOpenTest, DamagedDatabaseFilesAreCorruption) {
    TempDir dir;
    MakeStore(dir.path());
    Flush(dir.path());
    const std::string table_file = FileWithSuffix(dir.path(), ".sst");
    ASSERT_FALSE(table_file.empty());
    fs::resize_file(table_file, fs::file_size(table_file) / 2);
    std::unique_ptr<TableStore> store;
    Status s = OpenExisting(dir.path(), &store);
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();

    TempDir other;
    MakeStore(other.path());
    std::ofstream(other.Sub("CURRENT"), std::ios::trunc) << "garbage\n";
    s = OpenExisting(other.path(), &store);
    EXPECT_FALSE(s.ok());
    EXPECT_TRUE(s.IsCorruption() || s.IsIOError()) << s.ToString();
}

TEST(StoreOpenTest, GarbageInsideATableFileIsCorruptionOnRead) {
    TempDir dir;
    MakeStore(dir.path());
    Flush(dir.path());
    const std::string table_file = FileWithSuffix(dir.path(), ".sst");
    ASSERT_FALSE(table_file.empty());
    {
        std::fstream file(table_file, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(10);
        file << "garbage garbage garbage";
    }
    std::unique_ptr<TableStore> store;
    Status s = OpenExisting(dir.path(), &store);
    if (s.ok()) {
        std::unique_ptr<Table> table;
        s = store->OpenTable(Player3::default_instance(), nullptr, &table);
        if (s.ok()) {
            Player3 key;
            key.set_zone(1);
            key.set_uid(2);
            Player3 out;
            s = table->Get(key, {}, &out, nullptr);
        }
    }
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
}

TEST(StoreOpenTest, ASecondOpenerGetsBusyAtOnce) {
    TempDir dir;
    MakeStore(dir.path());
    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(OpenExisting(dir.path(), &store).ok());
    std::unique_ptr<TableStore> again;
    const Status s = OpenExisting(dir.path(), &again);
    EXPECT_TRUE(s.IsBusy()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("the store is already open in this process")) << s.message();

    Child child;
    ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"open", dir.path()}, &child));
    const std::string said = ReadAll(&child);
    EXPECT_EQ(3, WaitExit(child, 10000)) << said;
    EXPECT_NE(std::string::npos, said.find("busy: opening " + dir.path() + ": the store is in use by another process"))
        << said;
    store.reset();
    ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"open", dir.path()}, &child));
    const std::string after = ReadAll(&child);
    EXPECT_EQ(0, WaitExit(child, 10000)) << after;
}

// A store whose table Player3 holds one record, opened, with raw writes
// between a close and a reopen.
class DamagedStoreTest : public ::testing::Test {
protected:
    void SetUp() override { MakeStore(m_dir.path()); }

    Status OpenTable() {
        Status s = OpenExisting(m_dir.path(), &m_store);
        return s.ok() ? m_store->OpenTable(Player3::default_instance(), nullptr, &m_table) : s;
    }

    // The key of the stored record's row (table number 1).
    static std::string RowKey() {
        Player3 key;
        key.set_zone(1);
        key.set_uid(2);
        return keys::RowKey(1, key.SerializeAsString());
    }

    TempDir m_dir;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
};

TEST_F(DamagedStoreTest, AStoredSchemaThatNoLongerParsesIsCorruption) {
    corvida::store::format::CatalogEntry entry;
    entry.set_number(1);
    entry.set_schema_blob("\x0a\xff garbage");
    RawPut(m_dir.path(), keys::CatalogKey("corvida.test3.Player3"), entry.SerializeAsString());
    Status s = OpenTable();
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
    EXPECT_NE(std::string::npos, s.message().find("the stored schema blob no longer loads")) << s.message();

    m_store.reset();
    RawPut(m_dir.path(), keys::CatalogKey("corvida.test3.Player3"), "\x01");
    s = OpenTable();
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
    std::vector<corvida::store::TableInfo> tables;
    EXPECT_TRUE(m_store->ListTables(&tables).IsCorruption());
}

TEST_F(DamagedStoreTest, DamagedStoredFieldsAreReportedByTheirPaths) {
    RawPut(m_dir.path(), RowKey() + "4", "\xff\xff\xff");      // level: not a field's bytes
    RawPut(m_dir.path(), RowKey() + "3", "\x22\x01x");         // name: bytes of field 4
    RawPut(m_dir.path(), RowKey() + "99", "\x08\x01");         // no field 99
    RawPut(m_dir.path(), RowKey() + "8.1", "\x08\x01");        // into repeated items
    RawPut(m_dir.path(), RowKey() + "7", "\x3a\x05" "ab");        // tags: cut short
    RawPut(m_dir.path(), RowKey() + "6.x", "\x08\x01");        // not a tag path
    RawPut(m_dir.path(), RowKey() + "13", std::string(3, '\0'));  // rating: a zero tag
    ASSERT_TRUE(OpenTable().ok());
    Player3 key;
    key.set_zone(1);
    key.set_uid(2);
    Player3 out;
    std::set<std::string> failed;
    ASSERT_TRUE(m_table->Get(key, {}, &out, &failed).ok());
    EXPECT_EQ(std::set<std::string>({"13", "3", "4", "6.x", "7", "8.1", "99"}), failed);
    EXPECT_EQ(0, out.level());
    EXPECT_EQ("", out.name());
    EXPECT_EQ(0, out.tags_size());
    std::vector<Record> all;
    ASSERT_TRUE(m_table->Scan(nullptr, 0, &all).ok());
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ(failed, all[0].failed_paths);
}

TEST_F(DamagedStoreTest, ADamagedPrimaryKeyOrEntryIsCorruption) {
    RawPut(m_dir.path(), keys::RowKey(1, "\xff\xff"), "");
    ASSERT_TRUE(OpenTable().ok());
    std::vector<Record> all;
    Status s = m_table->Scan(nullptr, 0, &all);
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();

    m_table.reset();
    m_store.reset();
    Player3 key;
    key.set_zone(1);
    key.set_uid(77);
    Player3 level;
    level.set_level(3);
    RawPut(m_dir.path(), keys::SecondaryKey(keys::kIndex, 1, "by_level", level.SerializeAsString(), key.SerializeAsString()),
           "");
    ASSERT_TRUE(OpenTable().ok());
    s = m_table->FindByIndex("by_level", level, &all);
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
    s = m_table->Verify();
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
}

// The client type of table Player3 built at run time from tables3.proto,
// with edit applied to the table's FileDescriptorProto first.
class DynamicClient {
public:
    template <typename Edit>
    explicit DynamicClient(Edit edit) {
        google::protobuf::FileDescriptorSet set;
        EXPECT_TRUE(set.ParseFromString(SchemaBlob(Player3::descriptor())));
        for (google::protobuf::FileDescriptorProto& file : *set.mutable_file()) {
            if (file.name() == Player3::descriptor()->file()->name()) edit(&file);
            EXPECT_NE(nullptr, m_pool.BuildFile(file)) << file.name();
        }
        const google::protobuf::Descriptor* desc = m_pool.FindMessageTypeByName("corvida.test3.Player3");
        EXPECT_NE(nullptr, desc);
        m_prototype = m_factory.GetPrototype(desc);
    }
    const google::protobuf::Message& prototype() const { return *m_prototype; }

private:
    google::protobuf::DescriptorPool m_pool;
    google::protobuf::DynamicMessageFactory m_factory;
    const google::protobuf::Message* m_prototype = nullptr;
};

TEST_F(DamagedStoreTest, AnIncompatibleClientIsRefusedWithTheComparisonsCode) {
    DynamicClient changed([](google::protobuf::FileDescriptorProto* file) {
        for (auto& message : *file->mutable_message_type()) {
            if (message.name() != "Player3") continue;
            for (auto& field : *message.mutable_field()) {
                if (field.name() == "level") field.set_type(google::protobuf::FieldDescriptorProto::TYPE_INT64);
            }
        }
    });
    ASSERT_TRUE(OpenExisting(m_dir.path(), &m_store).ok());
    const Status s = m_store->OpenTable(changed.prototype(), nullptr, &m_table);
    EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
    EXPECT_EQ(-10, s.bridge_code());
    EXPECT_NE(std::string::npos,
              s.message().find("svrField->full_name:corvida.test3.Player3.level. "
                               "clientField->full_name():corvida.test3.Player3.level ) not match or type"))
        << s.message();
    EXPECT_EQ(nullptr, m_table);
}

// The comparison looks fields up by name, so a client that renumbers an
// index field passes it; such a client could not keep the index's entries.
TEST_F(DamagedStoreTest, AClientWithoutAnIndexFieldsNumberIsRefused) {
    DynamicClient renumbered([](google::protobuf::FileDescriptorProto* file) {
        for (auto& message : *file->mutable_message_type()) {
            if (message.name() != "Player3") continue;
            for (auto& field : *message.mutable_field()) {
                if (field.name() == "level") field.set_number(40);
            }
        }
    });
    ASSERT_TRUE(OpenExisting(m_dir.path(), &m_store).ok());
    const Status s = m_store->OpenTable(renumbered.prototype(), nullptr, &m_table);
    EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
    EXPECT_EQ(0, s.bridge_code());
    EXPECT_NE(std::string::npos, s.message().find("field 4 is missing in the client's type corvida.test3.Player3"))
        << s.message();
    EXPECT_EQ(nullptr, m_table);
}

TEST_F(DamagedStoreTest, ADynamicClientReadsAndWritesLikeAGeneratedOne) {
    DynamicClient same([](google::protobuf::FileDescriptorProto*) {});
    ASSERT_TRUE(OpenExisting(m_dir.path(), &m_store).ok());
    ASSERT_TRUE(m_store->OpenTable(same.prototype(), nullptr, &m_table).ok());
    std::unique_ptr<google::protobuf::Message> record(same.prototype().New());
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString("zone: 1 uid: 5 name: \"dyn\" level: 3 tags: \"x\"",
                                                              record.get()));
    ASSERT_TRUE(m_table->Put(*record).ok());
    std::vector<Record> found;
    std::unique_ptr<google::protobuf::Message> level(same.prototype().New());
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString("level: 3", level.get()));
    ASSERT_TRUE(m_table->FindByIndex("by_level", *level, &found).ok());
    ASSERT_EQ(2u, found.size());
    EXPECT_EQ(&same.prototype(), found[0].message->GetReflection()->GetMessageFactory()->GetPrototype(
                                     found[0].message->GetDescriptor()));
    EXPECT_EQ("zone: 1 uid: 2 name: \"stored\" level: 3", found[0].message->ShortDebugString());
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(*record, *found[1].message));
}

// Every public operation runs under NoThrow: an allocation that fails deep
// inside becomes a Status, never an exception out of the store.
TEST(NoThrowTest, ExceptionsBecomeStatuses) {
    using corvida::store::NoThrow;
    const Status out_of_memory = NoThrow([]() -> Status { throw std::bad_alloc(); });
    EXPECT_TRUE(out_of_memory.IsIOError());
    EXPECT_EQ("out of memory", out_of_memory.message());
    const Status other = NoThrow([]() -> Status { throw std::runtime_error("a library threw"); });
    EXPECT_TRUE(other.IsIOError());
    const Status passed = NoThrow([] { return Status::NotFound("as returned"); });
    EXPECT_TRUE(passed.IsNotFound());
    EXPECT_EQ("as returned", passed.message());
}

}  // namespace
}  // namespace corvida_store_test
