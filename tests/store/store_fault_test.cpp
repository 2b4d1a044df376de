// The table store under a failing file system: a full disk and failed syncs
// injected at chosen points of RocksDB's writes. Every failure is an error
// Status (never an abort), reads go on, and every acknowledged write is
// there after the store is opened again on a healthy file system.
#include <atomic>
#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <rocksdb/file_system.h>

#include "store/rocksdb_engine.h"
#include "store/store_open.h"
#include "store/table_store.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::test3::Player3;

// When to fail, shared by every file of the file system. A countdown of 0
// fails every call of its kind; a positive one fails the call that brings it
// to 0 and every later one; -1 fails nothing.
struct Faults {
    std::atomic<int> writes{-1};  // Append, PositionedAppend, Flush: "no space left on device"
    std::atomic<int> syncs{-1};   // Sync, Fsync, RangeSync: an I/O error

    void Heal() {
        writes = -1;
        syncs = -1;
    }

    static bool Due(std::atomic<int>* countdown) {
        int left = countdown->load();
        while (left > 0 && !countdown->compare_exchange_weak(left, left - 1)) {
        }
        return left == 0 || left == 1;
    }
};

class FaultyFile : public rocksdb::FSWritableFileOwnerWrapper {
public:
    FaultyFile(std::unique_ptr<rocksdb::FSWritableFile> file, Faults* faults)
        : rocksdb::FSWritableFileOwnerWrapper(std::move(file)), m_faults(faults) {}

    rocksdb::IOStatus Append(const rocksdb::Slice& data, const rocksdb::IOOptions& options,
                             rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->writes)) return NoSpace();
        return FSWritableFileOwnerWrapper::Append(data, options, dbg);
    }
    rocksdb::IOStatus Append(const rocksdb::Slice& data, const rocksdb::IOOptions& options,
                             const rocksdb::DataVerificationInfo& info, rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->writes)) return NoSpace();
        return FSWritableFileOwnerWrapper::Append(data, options, info, dbg);
    }
    rocksdb::IOStatus PositionedAppend(const rocksdb::Slice& data, uint64_t offset,
                                       const rocksdb::IOOptions& options, rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->writes)) return NoSpace();
        return FSWritableFileOwnerWrapper::PositionedAppend(data, offset, options, dbg);
    }
    rocksdb::IOStatus Flush(const rocksdb::IOOptions& options, rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->writes)) return NoSpace();
        return FSWritableFileOwnerWrapper::Flush(options, dbg);
    }
    rocksdb::IOStatus Sync(const rocksdb::IOOptions& options, rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->syncs)) return rocksdb::IOStatus::IOError("injected: sync failed");
        return FSWritableFileOwnerWrapper::Sync(options, dbg);
    }
    rocksdb::IOStatus Fsync(const rocksdb::IOOptions& options, rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->syncs)) return rocksdb::IOStatus::IOError("injected: sync failed");
        return FSWritableFileOwnerWrapper::Fsync(options, dbg);
    }
    rocksdb::IOStatus RangeSync(uint64_t offset, uint64_t nbytes, const rocksdb::IOOptions& options,
                                rocksdb::IODebugContext* dbg) override {
        if (Faults::Due(&m_faults->syncs)) return rocksdb::IOStatus::IOError("injected: sync failed");
        return FSWritableFileOwnerWrapper::RangeSync(offset, nbytes, options, dbg);
    }

private:
    static rocksdb::IOStatus NoSpace() {
        rocksdb::IOStatus s = rocksdb::IOStatus::NoSpace("injected", "No space left on device");
        return s;
    }

    Faults* m_faults;
};

class FaultyFileSystem : public rocksdb::FileSystemWrapper {
public:
    explicit FaultyFileSystem(Faults* faults)
        : rocksdb::FileSystemWrapper(rocksdb::FileSystem::Default()), m_faults(faults) {}

    const char* Name() const override { return "FaultyFileSystem"; }

    rocksdb::IOStatus NewWritableFile(const std::string& name, const rocksdb::FileOptions& options,
                                      std::unique_ptr<rocksdb::FSWritableFile>* result,
                                      rocksdb::IODebugContext* dbg) override {
        rocksdb::IOStatus s = target()->NewWritableFile(name, options, result, dbg);
        if (s.ok()) result->reset(new FaultyFile(std::move(*result), m_faults));
        return s;
    }
    rocksdb::IOStatus ReopenWritableFile(const std::string& name, const rocksdb::FileOptions& options,
                                         std::unique_ptr<rocksdb::FSWritableFile>* result,
                                         rocksdb::IODebugContext* dbg) override {
        rocksdb::IOStatus s = target()->ReopenWritableFile(name, options, result, dbg);
        if (s.ok()) result->reset(new FaultyFile(std::move(*result), m_faults));
        return s;
    }
    rocksdb::IOStatus ReuseWritableFile(const std::string& name, const std::string& old_name,
                                        const rocksdb::FileOptions& options,
                                        std::unique_ptr<rocksdb::FSWritableFile>* result,
                                        rocksdb::IODebugContext* dbg) override {
        rocksdb::IOStatus s = target()->ReuseWritableFile(name, old_name, options, result, dbg);
        if (s.ok()) result->reset(new FaultyFile(std::move(*result), m_faults));
        return s;
    }

private:
    Faults* m_faults;
};

Player3 PlayerNumber(int i) {
    Player3 player;
    player.set_zone(i % 3);
    player.set_uid(static_cast<uint64_t>(i));
    player.set_name("player " + std::to_string(i));
    player.set_level(i % 7);
    return player;
}

Player3 KeyOf(const Player3& player) {
    Player3 key;
    key.set_zone(player.zone());
    key.set_uid(player.uid());
    return key;
}

// A store over the faulty file system in a temporary directory, holding
// table Player3; the records written and acknowledged so far.
class StoreFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::unique_ptr<TableStore> store;
        ASSERT_TRUE(OpenStore(m_dir.path(), &store).ok());
        ASSERT_TRUE(store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
    }

    Status Open(bool sync) {
        m_table.reset();
        m_store.reset();
        corvida::store::RocksEngineOptions rocks;
        rocks.sync = sync;
        rocks.file_system = std::make_shared<FaultyFileSystem>(&m_faults);
        std::unique_ptr<corvida::store::Engine> engine;
        corvida::store::NewStore made;
        Status s = corvida::store::OpenRocksEngine(m_dir.path(), rocks, &engine, &made);
        if (s.ok()) s = corvida::store::OpenStoreOnEngine(std::move(engine), {}, &m_store);
        if (s.ok()) s = m_store->OpenTable(Player3::default_instance(), nullptr, &m_table);
        return s;
    }

    // Puts record i; remembers it when acknowledged.
    Status Put(int i) {
        const Player3 player = PlayerNumber(i);
        const Status s = m_table->Put(player);
        if (s.ok()) m_acknowledged[i] = player;
        return s;
    }

    // Closes the store, heals the file system, opens it again and checks
    // that every acknowledged record is there and the table verifies.
    void ExpectAcknowledgedAfterReopen() {
        m_faults.Heal();
        const Status s = Open(false);
        ASSERT_TRUE(s.ok()) << s.ToString();
        for (const auto& [i, player] : m_acknowledged) {
            Player3 out;
            const Status got = m_table->Get(KeyOf(player), {}, &out, nullptr);
            ASSERT_TRUE(got.ok()) << "record " << i << ": " << got.ToString();
            EXPECT_EQ(player.name(), out.name());
        }
        const Status verified = m_table->Verify();
        EXPECT_TRUE(verified.ok()) << verified.ToString();
    }

    TempDir m_dir;
    Faults m_faults;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
    std::map<int, Player3> m_acknowledged;
};

TEST_F(StoreFaultTest, AFullDiskFailsWritesWithOneClearErrorAndReadsGoOn) {
    ASSERT_TRUE(Open(false).ok());
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(Put(i).ok());
    m_faults.writes = 0;
    const Status failed = Put(100);
    EXPECT_TRUE(failed.IsIOError()) << failed.ToString();
    EXPECT_NE(std::string::npos, failed.message().find("the disk is full")) << failed.message();
    // Later writes fail the same way; reads of what is there go on.
    EXPECT_FALSE(Put(101).ok());
    Player3 out;
    const Status read = m_table->Get(KeyOf(PlayerNumber(3)), {}, &out, nullptr);
    EXPECT_TRUE(read.ok()) << read.ToString();
    EXPECT_EQ("player 3", out.name());
    ExpectAcknowledgedAfterReopen();
}

TEST_F(StoreFaultTest, AFailedSyncFailsTheWriteAndLosesNothingAcknowledged) {
    ASSERT_TRUE(Open(true).ok());
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(Put(i).ok());
    m_faults.syncs = 0;
    const Status failed = Put(50);
    EXPECT_TRUE(failed.IsIOError()) << failed.ToString();
    ExpectAcknowledgedAfterReopen();
}

TEST_F(StoreFaultTest, OpeningOnAFullDiskIsAnErrorNotAnAbort) {
    ASSERT_TRUE(Open(false).ok());
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(Put(i).ok());
    m_table.reset();
    m_store.reset();
    m_faults.writes = 0;
    const Status s = Open(false);
    EXPECT_FALSE(s.ok());
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    ExpectAcknowledgedAfterReopen();
}

// Each round fails the n-th write or sync call from its start and every
// later one, then puts until a put fails; nothing acknowledged may be lost.
TEST_F(StoreFaultTest, FaultsAtEveryPointLoseNothingAcknowledged) {
    int next = 0;
    for (int point = 1; point <= 24; ++point) {
        for (bool sync_fault : {false, true}) {
            const Status opened = Open(sync_fault);
            if (!opened.ok()) continue;  // the fault hit the open itself: an error, and nothing written
            if (sync_fault) {
                m_faults.syncs = point;
            } else {
                m_faults.writes = point;
            }
            for (int tries = 0; tries < 8; ++tries) {
                if (!Put(next++).ok()) break;
            }
            ExpectAcknowledgedAfterReopen();
            if (HasFatalFailure()) return;
        }
    }
}

}  // namespace
}  // namespace corvida_store_test
