// What a TableStore shares with the Tables opened from it: the database, the
// write options, the log category, the pool of scratch records and the
// per-record locks. Private to the store.
#ifndef CORVIDA_STORE_STORE_CORE_H_
#define CORVIDA_STORE_STORE_CORE_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <rocksdb/db.h>

#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"
#include "protocol/idl_tbl.h"
#include "store/status.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

// Runs body, which returns a Status, and returns what it returns. An
// exception thrown inside (an allocation that failed, or one of the
// libraries below) becomes an error Status instead: nothing thrown leaves the
// store's API. The messages of the fallbacks fit a string without an
// allocation.
template <typename Body>
Status NoThrow(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return Status::IOError("out of memory");
    } catch (...) {
        return Status::IOError("unexpected");
    }
}

// The large records one call of the bridge needs: a value set (about 44 MB)
// and the key encoders' scratch record (about 10 MB). Allocated once, never
// initialised beyond construct(): only the bytes a call uses are touched.
struct Scratch {
    Scratch() : values(new ProtobufValueSet_), idl(new tagtbl_idl) { values->construct(); }

    std::unique_ptr<ProtobufValueSet_> values;
    std::unique_ptr<tagtbl_idl> idl;
};

// Scratch records for concurrent calls: one per call in flight, reused. The
// pool grows to the largest number of calls that ran at once.
class ScratchPool {
public:
    class Lease {
    public:
        Lease(ScratchPool* pool, std::unique_ptr<Scratch> scratch) : m_pool(pool), m_scratch(std::move(scratch)) {}
        ~Lease() { m_pool->Return(std::move(m_scratch)); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        Scratch* operator->() const { return m_scratch.get(); }

    private:
        ScratchPool* m_pool;
        std::unique_ptr<Scratch> m_scratch;
    };

    Lease Acquire();

private:
    void Return(std::unique_ptr<Scratch> scratch);

    std::mutex m_mutex;
    std::vector<std::unique_ptr<Scratch>> m_free;
};

// Striped locks over records: every write of a record holds the lock of its
// stripe, so that the old values it reads stay true until its batch lands.
class RecordLocks {
public:
    std::mutex& For(uint32_t table_id, std::string_view pk) {
        const size_t h = std::hash<std::string_view>()(pk) ^ (static_cast<size_t>(table_id) * 0x9e3779b97f4a7c15ULL);
        return m_stripes[h % m_stripes.size()];
    }

private:
    std::array<std::mutex, 256> m_stripes;
};

// A log category that keeps the error lines written to it, for the messages
// of a Status. Used once, on one thread.
class ErrorLines {
public:
    ErrorLines();
    ErrorLines(const ErrorLines&) = delete;
    ErrorLines& operator=(const ErrorLines&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }
    // The lines, joined by "; ".
    const std::string& text() const { return m_text; }

private:
    static void Sink(void* ctx, const PLOGEVENT* event, const char* msg, size_t len);

    PLOGCATEGORYINST m_category;
    std::string m_text;
};

class TableStore::Core {
public:
    Core(std::string dir, std::unique_ptr<rocksdb::DB> db, const StoreOptions& options, uint32_t next_table_id);

    const std::string& dir() const { return m_dir; }
    rocksdb::DB* db() const { return m_db.get(); }
    const rocksdb::WriteOptions& write_options() const { return m_write_options; }
    // Never null: the caller's category, or a silent one.
    LPPLOGCATEGORYINST log() { return m_log; }
    ScratchPool& scratch() { return m_scratch; }
    RecordLocks& locks() { return m_locks; }

    // Adds a catalog entry under a fresh table number. kAlreadyExists when
    // the name is taken.
    Status AddTable(std::string_view name, std::string_view blob);

private:
    std::string m_dir;
    std::unique_ptr<rocksdb::DB> m_db;
    rocksdb::WriteOptions m_write_options;
    PLOGCATEGORYINST m_silent;
    LPPLOGCATEGORYINST m_log;
    ScratchPool m_scratch;
    RecordLocks m_locks;
    std::mutex m_catalog_mutex;
    uint32_t m_next_table_id;  // guarded by m_catalog_mutex
};

// Loads table `name` (number id, schema blob) for the client type of
// prototype: the work of TableStore::OpenTable after the catalog lookup.
Status LoadTable(std::shared_ptr<TableStore::Core> core, const std::string& name, uint32_t id,
                 const std::string& blob, const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                 std::unique_ptr<Table>* table);

// The store's Status for a RocksDB status (context names what was being
// done, "reading table Player"). A held lock is kBusy.
Status FromRocks(const rocksdb::Status& s, const std::string& context);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_STORE_CORE_H_
