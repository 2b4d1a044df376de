// TableStore: a persistent store of corvida tables on an ordered key-value
// engine: an embedded RocksDB database in one directory (the default), or an
// etcd cluster shared by many processes and machines.
//
// A store holds a catalog of tables, each created from its schema blob (the
// serialized FileDescriptorSet that FillMessageGroup takes, playing the
// server's schema) and its type, and the records of every table, kept as the
// service's record model says: a primary key from ExtractMsgKey, one stored
// field per tag path as FillValueSetWithMsg cuts it, index entries keyed by
// ExtractFieldKey, records grouped by their sharding key. Table
// (store/table.h) reads and writes the records of one table.
//
//   std::unique_ptr<TableStore> store;
//   StoreOptions options;
//   options.create_if_missing = true;
//   Status s = TableStore::Open("/var/lib/game", options, &store);
//   if (s.ok()) s = store->CreateTable(blob, "game.Player");   // once
//   std::unique_ptr<Table> players;
//   if (s.ok()) s = store->OpenTable(Player::default_instance(), &kv, &players);
//
// Every operation returns a Status (store/status.h) and throws nothing.
//
// Where: a directory ("/var/lib/game") opens the RocksDB engine;
// "etcd://HOST:PORT[,HOST:PORT...][/NAMESPACE]" opens the etcd engine, every
// key of the store under NAMESPACE, so that several stores share a cluster.
// The etcd engine is the shared object libcorvida_store_etcd.so, loaded the
// first time a process opens an etcd:// locator (from the directory of
// libcorvida_table_store.so or of the program, ../lib from there, or the
// dynamic linker's path; the environment variable CORVIDA_STORE_ETCD_MODULE
// names another file): a program that opens directories only never loads
// gRPC. Without it, opening an etcd:// locator is kNotSupported naming the
// file; a module that cannot be loaded, or of another build, is kIOError.
//
// Threads: a TableStore and the Tables opened from it may be used from any
// number of threads at once without outside locking. A reader sees each
// write whole or not at all.
//
// Processes: on RocksDB one process writes a store at a time; a second
// writer gets kBusy, or waits StoreOptions::wait_seconds for it. Readers
// (StoreOptions::read_only) take no lock and work beside the writer, and on
// read-only media. On etcd, any number of processes on any machines read and
// write at once.
//
// Layout: the store records the version of its key layout; a store written
// by a newer version of this library is refused with kNotSupported, never
// read, and a store of layout 1 is refused with kNotSupported naming
// UpgradeStore (corvida-pb store upgrade). docs/store.md describes the
// layout and what the store is and is not.
#ifndef CORVIDA_STORE_TABLE_STORE_H_
#define CORVIDA_STORE_TABLE_STORE_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/message.h>

#include "plog/plog.h"
#include "protobuf_api/corvida_kv_api.h"
#include "store/schema_change.h"
#include "store/status.h"
#include "store/table.h"

namespace corvida {
namespace store {

// How to reach the members of an etcd cluster over TLS. TLS is on when any
// of the three is set; the members are verified against ca_file (or the
// system's certificate authorities when it is empty), and the client shows
// cert_file and key_file when the cluster asks for a client certificate.
struct EtcdTlsOptions {
    std::string ca_file;    // PEM certificates of the authorities that sign the members'
    std::string cert_file;  // PEM certificate of the client
    std::string key_file;   // PEM private key of the client
};

struct StoreOptions {
    // Create the store when the directory does not exist or is empty (or the
    // etcd namespace holds nothing). Otherwise a missing store is kNotFound.
    bool create_if_missing = false;

    // Flush the write-ahead log to the disk before a write returns, so that
    // an acknowledged write survives a crash of the machine, not only of the
    // process. Off: a write survives a crash of the process (the log is in
    // the operating system's hands) and costs far less; docs/store.md has the
    // figures. On etcd every write is durable on a quorum of members.
    bool sync = false;

    // Open for reading only: nothing is written, no lock is taken, so a
    // reader works beside a process that writes, and on read-only media.
    // Writes are refused with kNotSupported.
    bool read_only = false;

    // How long to wait for a store that another process holds for writing
    // before answering kBusy (RocksDB; seconds, 0: answer at once).
    double wait_seconds = 0;

    // The deadline of each call to an etcd cluster, in seconds: a cluster
    // that cannot answer in time (no quorum, no member reachable) gives an
    // error instead of a hang.
    double timeout_seconds = 5;

    EtcdTlsOptions etcd_tls;

    // Where the bridge's own log lines go (priorities as the bridge logs
    // them). Null: nowhere. The category must outlive the store and may be
    // used from several threads at once (see plog/plog.h).
    LPPLOGCATEGORYINST log = nullptr;
};

// One table of the catalog.
struct TableInfo {
    std::string name;         // the table's full type name
    std::string schema_blob;  // the schema blob stored for it
};

class TableStore {
public:
    // Opens the store at where (a directory, or an etcd:// locator). Results:
    //   kNotFound         no store there (and create_if_missing is off)
    //   kInvalidArgument  where holds something that is not a table store:
    //                     files without a RocksDB database, or a database
    //                     that is not a table store (none of its keys is
    //                     written); a malformed locator
    //   kNotSupported     a store of a newer key layout, or of layout 1
    //   kCorruption       the database files are damaged: a table file, or a
    //                     write-ahead log damaged before its last record (the
    //                     message names the file; RepairStore salvages it)
    //   kBusy             another process holds the store for writing (after
    //                     waiting wait_seconds), or this one has it open
    //   kIOError          the file system or the network refused, or the
    //                     cluster did not answer within timeout_seconds; the
    //                     etcd engine's module cannot be loaded
    // and kNotSupported for an etcd:// locator when the etcd engine's module
    // is not installed, or the library was built without it.
    static Status Open(std::string_view where, const StoreOptions& options, std::unique_ptr<TableStore>* store);

    // Closes the store once every Table opened from it is gone too.
    virtual ~TableStore() = default;

    TableStore(const TableStore&) = delete;
    TableStore& operator=(const TableStore&) = delete;

    // Adds the table of type type_name (its full name, or its name without
    // package) with its schema blob to the catalog, under the type's full
    // name. The blob must load: it parses, holds the type as a top-level
    // message, and the type names a primary key and only existing fields in
    // its key, sharding-key and index options. kAlreadyExists when the
    // catalog has the name; kInvalidArgument for a blob that does not load
    // (the bridge's error lines in the message).
    virtual Status CreateTable(std::string_view schema_blob, std::string_view type_name) = 0;

    // Every table of the catalog, ordered by name.
    virtual Status ListTables(std::vector<TableInfo>* tables) const = 0;

    // Opens the table of prototype's type for reading and writing, as a
    // client whose type is prototype's and whose cipher suites are kv's. The
    // table is the one of the type's full name, else the one table whose
    // name has the type's short name (a client whose package was renamed).
    // The client type is checked against the stored schema blob with
    // GetMetaAndCompare; an incompatible one gets kIncompatibleSchema with
    // the comparison's code (bridge_code()) and its explanation, and nothing
    // is read or written. A client that passes the comparison but lacks a
    // field of the table's indexes or sharding key could not keep their
    // entries: it also gets kIncompatibleSchema, with bridge_code() 0 and the
    // field in the message. The blob is loaded once, with FillMessageGroup,
    // for the table's key, sharding-key and index fields.
    //
    // prototype may be a generated type's default instance or a message of
    // a type loaded at run time (a DynamicMessage): records read back are
    // created with prototype.New(). prototype, its descriptor and kv must
    // outlive the table. kv may be null for a table that encrypts nothing.
    //
    // kNotFound when the catalog has no such table (the message lists the
    // tables it has); kInvalidArgument for a short name that several tables
    // have; kCorruption when the stored blob no longer loads;
    // kInvalidArgument, with ExtractMsgKey's result in bridge_code(), when
    // the table names a cipher suite that kv lacks (-3) or holds with another
    // key than the table records in corvida_cipher_md5 (-4): such a client
    // could neither build keys nor decrypt the stored ones.
    virtual Status OpenTable(const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                             std::unique_ptr<Table>* table) = 0;

    // Rewrites the engine's files so that the bytes of deleted records leave
    // them (RocksDB: a full compaction). kNotSupported for a store opened
    // read-only.
    virtual Status Compact() = 0;

    // --- Schema evolution (store/schema_change.h; docs/store.md) ----------

    // Replaces the stored schema of the table of type_name (either form of its
    // name) with schema_blob, when the change is one the records can keep:
    // new fields, enum values and types, new indexes (left building), dropped
    // indexes (left dropping), removed top-level fields that no record holds.
    // *plan receives the changes and what they cost. A change the records
    // cannot keep is kIncompatibleSchema, with every reason in
    // plan->refusals and the message, bridge_code() the comparison's code (0
    // when the comparison accepts the new type); nothing is written. With
    // options.dry_run nothing is written either way. Once the alter commits,
    // every client is checked against the new schema before its next write
    // (and lookup), as OpenTable checks it. kInvalidArgument for a blob that
    // does not load or holds another type.
    virtual Status AlterTable(std::string_view schema_blob, std::string_view type_name, const AlterOptions& options,
                              AlterPlan* plan) = 0;

    // Runs the pending work of the index `index` of table: the back-fill of a
    // building index (which then becomes ready), or the removal of a dropped
    // index's entries; ok at once for a ready index. Resumes where an earlier
    // run stopped (after a crash, or progress returning false). kv holds the
    // table's cipher suite when it names one (null otherwise). kNotFound for
    // an index the table has not.
    virtual Status BuildIndex(std::string_view table, std::string_view index, CORVIDA_KV::CorvidaKVApi* kv,
                              const WorkProgress& progress) = 0;

    // The table's stored schema, key, sharding key, indexes with their states
    // and record count.
    virtual Status DescribeTable(std::string_view table, TableDescription* description) = 0;

    // Drops the table: from the first batch on its clients are refused and its
    // name reads as being dropped; its records and entries are removed in
    // batches, then its catalog entry. Resumes a drop that a crash (or
    // progress returning false) stopped.
    virtual Status DropTable(std::string_view table, const WorkProgress& progress) = 0;

    // Where the store is: its directory, or its etcd locator.
    virtual const std::string& dir() const = 0;

protected:
    TableStore() = default;
};

// Rewrites a RocksDB store of key layout 1 in directory dir into the current
// layout, in place and in one atomic write: a crash during the upgrade leaves
// the store of layout 1 or of the current layout, never a mix. Tables named
// by their short name become named by their full type name. *upgraded is
// false (and the status ok) when the store is of the current layout already.
// Holds the store for writing while it runs (options.wait_seconds applies).
Status UpgradeStore(std::string_view dir, const StoreOptions& options, bool* upgraded);

// Where the lines an engine's runtime writes on its own go: gRPC's, about
// the etcd engine's connections (a member refusing the client's certificate,
// for instance), with a priority of plog.h (PLOG_PRIORITY_ERROR, _INFO or
// _DEBUG) and source "grpc". The function is called from the runtime's own
// threads, at any time until the process ends, and must be thread-safe.
// Process-wide; applies to engines opened before and after. Until a function
// is set the runtime writes its errors to stderr itself; a null function
// changes nothing. A build without the etcd engine has no such lines.
using RuntimeLogFunction = void (*)(int priority, const char* source, const char* text, size_t length);
void SetRuntimeLog(RuntimeLogFunction function);

// Salvages the RocksDB store in directory dir, which no process holds: its
// write-ahead logs are replayed skipping damaged records, and its file list is
// rebuilt from its table files when that list is damaged. *report receives
// one line per thing dropped or rebuilt (file names and byte counts, never
// stored data). Run Table::Verify on each table afterwards.
Status RepairStore(std::string_view dir, std::vector<std::string>* report);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_TABLE_STORE_H_
