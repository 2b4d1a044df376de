// The RocksDB engine: a table store in one directory of the local file
// system. Private to the store.
//
// Opening:
//   - For writing, the process takes RocksDB's LOCK file; one process writes
//     a store at a time. Another writer gets kBusy with "in use by another
//     process", or waits up to StoreOptions::wait_seconds for the store. A
//     second open in the same process is kBusy "already open in this
//     process". Whether the lock is held is asked of the file lock itself
//     (fcntl), never read from an error's text.
//   - For reading (StoreOptions::read_only), no lock is taken and nothing is
//     written: a read-only RocksDB open that sees the store as its files and
//     write-ahead log hold it at that moment, and keeps seeing that state
//     while another process writes (every table file is opened at once, so a
//     file that the writer's compaction deletes afterwards stays readable;
//     a file's index is read when a read first needs it). An open that meets
//     a file the writer deleted during the open is tried again. It works on
//     read-only media.
//   - Threads: RocksDB's background threads start when the database first
//     schedules a flush or a compaction, not at open; a reader starts none.
//     (A writer's open starts RocksDB's timer for periodic tasks.)
//   - Nothing is written before the directory is known to hold a store (or
//     to be new): a foreign RocksDB database is only ever opened read-only.
//
// Durability and recovery: a write goes through the write-ahead log before
// it returns (and is flushed to the disk first with StoreOptions::sync).
// After a crash, a torn last record of a log (a write that was in flight) is
// dropped silently; damage anywhere before it refuses the open with
// kCorruption naming the file, so that acknowledged writes are never dropped
// without a word. RepairStore salvages such a store.
//
// Files: the directory is created 0700 and every file 0600, whatever the
// umask. RocksDB's informational log goes to the store's log category
// (warnings and errors only), not to files: opening a store leaves no file
// behind but the database's own. Compaction is universal (newest small runs
// merged first), so a store written by one short command after another keeps
// a bounded number of files.
//
// Conditional commits: the engine takes, for each key a batch has a condition
// on or changes, one of 256 striped reader-writer locks (in a fixed order;
// exclusive for a key the batch changes, shared for one it only checks),
// checks the conditions against the latest state and writes the batch, all
// under those locks. Within one process that is exact; no other process
// writes. Each stripe remembers the sequence number of the last write to it,
// so a condition read at a view (EngineBatch::Condition::read_at) that no
// write to its stripe has followed holds without reading the key again.
#ifndef CORVIDA_STORE_ROCKSDB_ENGINE_H_
#define CORVIDA_STORE_ROCKSDB_ENGINE_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <rocksdb/cache.h>
#include <rocksdb/file_system.h>

#include "store/engine.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

// What the directory of a store holds before anything is opened.
enum class DirState { kMissingOrEmpty, kDatabase, kOtherFiles, kNotADirectory };

Status InspectDir(const std::string& dir, DirState* state);

struct RocksEngineOptions {
    bool create_if_missing = false;  // create the directory (0700) and the database
    bool read_only = false;
    bool sync = false;
    double wait_seconds = 0;
    // Where RocksDB's warnings and errors go; null: nowhere.
    LPPLOGCATEGORYINST log = nullptr;
    // The file system under the database (tests inject faults with it);
    // null: the local one.
    std::shared_ptr<rocksdb::FileSystem> file_system;
};

// What an open made that was not there before.
struct NewStore {
    bool directory = false;  // the store's directory
    bool database = false;   // the database in it (the directory was missing or empty)
};

// Opens the database in dir. *made says what the open created, so that the
// caller can take it away again (DiscardNewStore) when writing the store's
// first keys fails. Results as TableStore::Open says for a directory.
Status OpenRocksEngine(const std::string& dir, const RocksEngineOptions& options, std::unique_ptr<Engine>* engine,
                       NewStore* made);

// A new block cache of the size each open of a store gets. A store's options
// file does not record the cache, so whoever opens a copy of a store's
// database with those options (the benchmarks' raw RocksDB) gives it this one
// to read through a cache of the same size.
std::shared_ptr<rocksdb::Cache> NewStoreBlockCache();

// Removes what an open made: the directory, or what the open put into a
// directory that was empty. The engine must be closed.
void DiscardNewStore(const std::string& dir, const NewStore& made);

// Salvages the database in dir, which no process holds: replays its logs
// skipping damaged records, and rebuilds its file list from the table files
// when that list is damaged. *report receives one line per thing dropped or
// rebuilt, in RocksDB's words (file names and byte counts, no data).
Status RepairRocksDatabase(const std::string& dir, std::vector<std::string>* report);

// The store's Status for a RocksDB status (context names what was being
// done, "table T: writing a record"). A full disk is kIOError "the disk is
// full".
Status FromRocks(const rocksdb::Status& s, const std::string& context);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ROCKSDB_ENGINE_H_
