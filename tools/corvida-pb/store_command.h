// What every "corvida-pb store" subcommand shares: where the store is
// (--db, a directory or an etcd:// locator, with the etcd options), how it
// is opened (for reading only, for writing with --wait and --sync, or
// created), the table's definitions and cipher keys when the subcommand
// works on a table as a client, and the printing of records and results.
//
// Subcommands that only read open the store without its lock (a reader
// works beside a writing process and on read-only media); those that write
// take it, waiting --wait seconds for another writer.
#ifndef CORVIDA_PB_STORE_COMMAND_H_
#define CORVIDA_PB_STORE_COMMAND_H_

#include <exception>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "corvida-pb/ciphers.h"
#include "corvida-pb/cli.h"
#include "corvida-pb/cli_log.h"
#include "corvida-pb/report.h"
#include "protobuf_api/corvida_kv_api.h"
#include "store/table_store.h"

namespace corvida_pb {

// How a subcommand opens the store.
enum class StoreAccess {
    kRead,    // read-only: no lock, nothing written
    kWrite,   // for writing: the lock, --wait, --sync
    kCreate,  // for writing, creating the store when there is none
};

// What a store subcommand is: its name and help, how it opens the store,
// whether it works on a table as a client (and so takes the table's
// definitions and cipher keys), and what its --text or --text-file holds
// (null: the subcommand takes no message).
struct StoreCommandTraits {
    const char* name;
    const char* summary;
    const char* description;
    StoreAccess access;
    bool client;
    const char* message;
};

// Throws Failure with what status says, unless it is ok.
void CheckStore(const corvida::store::Status& status);

// The same, but "not found" is a negative answer (exit status 3).
void CheckRecord(const corvida::store::Status& status);

class StoreCommand : public Command {
protected:
    StoreCommand(CLI::App* parent, const StoreCommandTraits& traits);

    // Loads the table's definitions and the message of --text / --text-file.
    void LoadClient();

    // Opens the store as the traits say (or as access says), with the client
    // loaded first for a client command.
    void OpenStore() { OpenStore(m_traits.access); }
    void OpenStore(StoreAccess access);

    // The options the store is opened with, from the command line (and the
    // log category of --log-level, made on the first call).
    corvida::store::StoreOptions Options() { return Options(m_traits.access); }
    corvida::store::StoreOptions Options(StoreAccess access);

    // For a command over many records: each distinct line of the library's
    // log is written once, its repeats counted (CliLog::Repeats::kCounted).
    void CountRepeatedLogLines() { m_log_repeats = CliLog::Repeats::kCounted; }

    // Opens the table as the client type of --table. Returns false after
    // printing the comparison's answer (every incompatibility, named) when
    // the stored schema refuses it.
    bool OpenTable();

    // A new empty message of the table's type.
    std::unique_ptr<google::protobuf::Message> NewMessage() const;

    // --shard-text: the sharding-key fields of a shard. ShardFromArgs()
    // parses them after the table is open; null when the option is absent.
    CLI::Option* AddShardOption();
    std::unique_ptr<google::protobuf::Message> ShardFromArgs() const;

    const google::protobuf::Message& message() const { return *m_loaded.msg; }
    const Schema& schema() const { return *m_loaded.schema; }
    const google::protobuf::Descriptor* table_type() const { return m_loaded.table; }
    corvida::store::Table& table() { return *m_table; }
    corvida::store::TableStore& store() { return *m_store; }
    const std::string& db() const { return m_db; }
    const StoreCommandTraits& traits() const { return m_traits; }
    CipherOptions& ciphers() { return m_ciphers; }
    CORVIDA_KV::CorvidaKVApi& api() { return m_api; }

    // The format of records: that of --format.
    RecordFormat record_format() const { return json() ? RecordFormat::kJson : RecordFormat::kText; }
    // Where records go on standard output, in the format of --format.
    RecordPrinter& printer();
    // Writes out what printer() holds (TableCommand does at the end, and
    // before the message of a failure).
    void FlushRecords();
    // Prints a record: its text, or one line of JSON.
    void PrintRecord(const google::protobuf::Message& record);
    // Prints a record of a listing (after "# record N" in text), warning
    // first about its fields that did not merge.
    void PrintListed(const corvida::store::Record& record, size_t number);
    // Warns about the fields of a record that did not merge.
    void WarnFailedPaths(const std::set<std::string>& failed, const std::string& which) const;
    // The result of a write, as text or JSON.
    void PrintWritten(const std::string& operation, const std::vector<std::string>& paths = {}) const;

private:
    StoreCommandTraits m_traits;
    std::string m_db;
    bool m_sync = false;
    double m_wait = 0;
    double m_timeout = 5;
    corvida::store::EtcdTlsOptions m_tls;
    CipherOptions m_ciphers;
    // Destroyed in reverse order: the table before the store, both before
    // the suites, the message and the schema they use.
    CliLog::Repeats m_log_repeats = CliLog::Repeats::kWritten;
    std::unique_ptr<CliLog> m_log;
    TableMessage m_loaded;
    CORVIDA_KV::CorvidaKVApi m_api;
    std::unique_ptr<corvida::store::TableStore> m_store;
    std::unique_ptr<corvida::store::Table> m_table;
    std::unique_ptr<RecordPrinter> m_printer;
    std::string m_shard_text;
    CLI::Option* m_shard_option = nullptr;
};

// The visitor of a streaming read of the library, around body: an exception
// that body throws stops the read and is kept (the library, which throws
// nothing, would turn it into an error without its message), and Check()
// throws it again after the read, or Failure for the read's own error.
class VisitGuard {
public:
    corvida::store::RecordVisitor Wrap(std::function<void(corvida::store::Record&)> body);
    void Check(const corvida::store::Status& status) const;

private:
    std::exception_ptr m_thrown;
};

// The subcommands that work on the records of an open table: Run() opens
// the store and the table and hands over to RunOnTable().
class TableCommand : public StoreCommand {
public:
    int Run() final;

protected:
    using StoreCommand::StoreCommand;

    // The work on the open table; throws as Run() does. Returns the exit
    // status.
    virtual int RunOnTable() = 0;
};

// The subcommands of "store", each group in its own file, appended to
// *commands under the group app.
void AddStoreRecordCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands);
void AddStoreAdminCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands);
void AddStoreSchemaCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands);
// import, export, count, verify.
void AddStoreBulkCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_STORE_COMMAND_H_
