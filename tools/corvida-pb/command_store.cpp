// corvida-pb store: a local table store (store/table_store.h) from the
// command line: create a table, write and read its records, look them up by
// index and list them by shard.
#include <cstdint>
#include <iostream>
#include <limits>

#include <google/protobuf/text_format.h>

#include "corvida-pb/ciphers.h"
#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"
#include "store/table_store.h"

namespace corvida_pb {
namespace {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;
using google::protobuf::Descriptor;
using google::protobuf::Message;

const char kStoreSummary[] = "a local table store: create a table, write, read, find and scan its records";

// Throws Failure with what status says, unless it is ok.
void Check(const Status& status) {
    if (!status.ok()) throw Failure(status.message());
}

// The same, but "no such record" is a negative answer.
void CheckRecord(const Status& status) {
    if (status.IsNotFound()) throw NegativeAnswer("not found: " + status.message());
    Check(status);
}

std::string TextOf(const Message& msg) {
    std::string text;
    google::protobuf::TextFormat::PrintToString(msg, &text);
    return text;
}

// What a store subcommand is: its name and help, what its --text or
// --text-file holds (null: the subcommand takes no message), and whether it
// writes (and so takes --sync).
struct StoreCommandTraits {
    const char* name;
    const char* summary;
    const char* description;
    const char* message;
    bool writes;
};

// What every store subcommand shares: --db, the table's definitions, the
// cipher keys, the message, the output options, and the store and table it
// opens.
class StoreCommand : public Command {
protected:
    StoreCommand(CLI::App* parent, const StoreCommandTraits& traits)
        : Command(parent, traits.name, traits.summary, traits.description) {
        app()->add_option("--db", m_db, "the store's directory")->type_name("DIR")->required();
        AddSchemaOptions("the table: its message type, by short, package-qualified or full name");
        ReadsFile(m_ciphers.Add(app()));
        if (traits.message != nullptr) {
            AddTextOptions(traits.message);
            RequireOneOf({text_option(), text_file_option()});
        }
        if (traits.writes) {
            app()->add_flag("--sync", m_sync, "flush the write-ahead log to the disk before the write returns");
        }
        AddFormatOption();
        AddLogLevelOption();
    }

    // Opens the store (creating it when create) and loads the table's
    // definitions and the message of --text / --text-file.
    void OpenStore(bool create) {
        m_log.reset(new CliLog(log_priority()));
        m_loaded = LoadTableMessage();
        corvida::store::StoreOptions options;
        options.create_if_missing = create;
        options.sync = m_sync;
        options.log = m_log->category();
        Check(TableStore::Open(m_db, options, &m_store));
    }

    // A new empty message of the table's type.
    std::unique_ptr<Message> NewMessage() const { return m_loaded.schema->NewMessage(m_loaded.table); }

    const Message& message() const { return *m_loaded.msg; }
    const Descriptor* table_type() const { return m_loaded.table; }
    Table& table() { return *m_table; }
    const std::string& db() const { return m_db; }
    TableStore& store() { return *m_store; }

    // Prints a record: its text, or one line of JSON.
    void PrintRecord(const Message& record) const {
        if (json()) {
            PrintJson(std::cout, MessageJson(record));
        } else {
            std::cout << TextOf(record);
        }
    }

    // Prints records one after another, each after "# record N".
    void PrintRecords(const std::vector<Record>& records) const {
        for (size_t i = 0; i < records.size(); ++i) {
            WarnFailedPaths(records[i].failed_paths, "record " + std::to_string(i + 1) + ": ");
            if (!json()) std::cout << "# record " << i + 1 << "\n";
            PrintRecord(*records[i].message);
        }
    }

    // Warns about the fields of a record that did not merge.
    void WarnFailedPaths(const std::set<std::string>& failed, const std::string& which) const {
        if (failed.empty()) return;
        std::vector<std::string> items;
        for (const std::string& path : failed) items.push_back(path + " (" + NamePath(table_type(), path) + ")");
        PrintWarning(app(), which + "fields that did not merge, shown as stored: " + JoinComma(items));
    }

    // The result of a write, as text or JSON.
    void PrintWritten(const std::string& operation, const std::vector<std::string>& paths = {}) const {
        if (json()) {
            Json result = {{"table", table_type()->full_name()}, {"operation", operation}, {"records", 1}};
            if (!paths.empty()) result["paths"] = paths;
            PrintJson(std::cout, result);
        } else {
            std::cout << operation << ": 1 record of " << table_type()->full_name()
                      << (paths.empty() ? "" : " (" + JoinComma(paths) + ")") << "\n";
        }
    }

    // Opens the table as the client type of --table. Returns false after
    // printing the comparison's answer when the stored schema refuses it.
    bool OpenTable() {
        m_ciphers.Configure(&m_api);
        const Status status = m_store->OpenTable(*m_loaded.msg, &m_api, &m_table);
        if (status.IsInvalidArgument() && (status.bridge_code() == -3 || status.bridge_code() == -4)) {
            // The cipher suite is missing or holds another key: say how to give it.
            throw Failure(ExplainKeyResult(status.bridge_code(), *m_loaded.msg, nullptr, &m_api, 0) + " (result " +
                          std::to_string(status.bridge_code()) + ")");
        }
        if (!status.IsIncompatibleSchema()) {
            Check(status);
            return true;
        }
        // Code 0: the comparison passed, but the client's type lacks a field
        // that the table's indexes or sharding key need; the store says which.
        const int code = status.bridge_code();
        const std::string explanation = code != 0 ? ExplainCompareResult(code) : status.message();
        if (json()) {
            PrintJson(std::cout, {{"table", m_loaded.table->full_name()},
                                  {"compatible", false},
                                  {"code", code},
                                  {"explanation", explanation}});
        } else {
            std::cout << "incompatible (result " << code << "): " << explanation << "\n";
        }
        return false;
    }

private:
    std::string m_db;
    bool m_sync = false;
    CipherOptions m_ciphers;
    // Destroyed in reverse order: the table before the store, both before
    // the suites, the message and the schema they use.
    std::unique_ptr<CliLog> m_log;
    TableMessage m_loaded;
    CORVIDA_KV::CorvidaKVApi m_api;
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
};

// The subcommands that work on the records of an open table: Run() opens
// the store and the table and hands over to RunOnTable().
class TableCommand : public StoreCommand {
public:
    int Run() final {
        OpenStore(false);
        if (!OpenTable()) return kExitNegative;
        RunOnTable();
        return kExitOk;
    }

protected:
    using StoreCommand::StoreCommand;

    // The work on the open table; throws as Run() does.
    virtual void RunOnTable() = 0;
};

const StoreCommandTraits kCreate = {
    "create", "create the store if needed and add a table to it",
    "Creates the store in --db when it does not exist, and adds the table to its\n"
    "catalog with its schema blob: the table's file and every file it imports, as\n"
    "'blob --table' writes them. The blob plays the server's schema: every later\n"
    "subcommand checks its client type against it.\n",
    nullptr, false};

class CreateCommand : public StoreCommand {
public:
    explicit CreateCommand(CLI::App* parent) : StoreCommand(parent, kCreate) {}

    int Run() override {
        OpenStore(true);
        for (const std::string& warning : IgnoredIndexEntries(table_type())) PrintWarning(app(), warning);
        const google::protobuf::FileDescriptorSet files = SchemaBlobOf({table_type()->file()});
        const std::string blob = files.SerializeAsString();
        Check(store().CreateTable(blob, table_type()->name()));
        std::vector<std::string> names;
        for (const auto& file : files.file()) names.push_back(file.name());
        if (json()) {
            PrintJson(std::cout, {{"table", table_type()->full_name()},
                                  {"operation", "create"},
                                  {"files", names},
                                  {"bytes", blob.size()}});
        } else {
            std::cout << "created table " << table_type()->full_name() << " in " << db() << ": schema blob of "
                      << names.size() << " files (" << JoinComma(names) << "), " << blob.size() << " bytes\n";
        }
        return kExitOk;
    }
};

const StoreCommandTraits kPut = {
    "put", "write a whole record",
    "Writes the record of --text or --text-file whole: afterwards every field reads\n"
    "as this message holds it, absent fields included.\n",
    "the record", true};

class PutCommand : public TableCommand {
public:
    explicit PutCommand(CLI::App* parent) : TableCommand(parent, kPut) {}

private:
    void RunOnTable() override {
        Check(table().Put(message()));
        PrintWritten("put");
    }
};

const StoreCommandTraits kUpdate = {
    "update", "write some fields of a record",
    "Writes the fields at --paths of the record of --text or --text-file, whose key\n"
    "fields say which record; nothing else of the record is rewritten. A path may\n"
    "name a sub-message whole (replacing everything written under it before), a\n"
    "field inside one, or a top-level repeated field or map whole. A record that\n"
    "does not exist is created with just these fields.\n",
    "the record", true};

class UpdateCommand : public TableCommand {
public:
    explicit UpdateCommand(CLI::App* parent) : TableCommand(parent, kUpdate) {
        app()->add_option("--paths", m_paths, "the fields to write, as dotted field names (a,b.c)")
            ->type_name("PATH,PATH...")
            ->check(CommaList("path"))
            ->required();
    }

private:
    void RunOnTable() override {
        const std::vector<std::string> paths = SplitCommaList(m_paths);
        Check(table().Update(message(), paths));
        PrintWritten("update", paths);
    }

    std::string m_paths;
};

const StoreCommandTraits kGet = {
    "get", "read a record by its key fields",
    "Reads the record whose key fields --text or --text-file give and prints it in\n"
    "protobuf text format (or, with --format json, in protobuf's JSON mapping).\n"
    "With --paths, only those fields. Exit status 3 when there is no such record.\n",
    "the key fields", false};

class GetCommand : public TableCommand {
public:
    explicit GetCommand(CLI::App* parent) : TableCommand(parent, kGet) {
        m_paths_option =
            app()
                ->add_option("--paths", m_paths, "read only these fields (dotted field names)")
                ->type_name("PATH,...")
                ->check(CommaList("path"));
    }

private:
    void RunOnTable() override {
        std::unique_ptr<Message> record = NewMessage();
        std::set<std::string> failed;
        const std::vector<std::string> paths =
            Given(m_paths_option) ? SplitCommaList(m_paths) : std::vector<std::string>();
        CheckRecord(table().Get(message(), paths, record.get(), &failed));
        WarnFailedPaths(failed, "");
        PrintRecord(*record);
    }

    std::string m_paths;
    CLI::Option* m_paths_option = nullptr;
};

const StoreCommandTraits kDelete = {
    "delete", "remove a record by its key fields",
    "Removes the record whose key fields --text or --text-file give, with its index\n"
    "entries. Exit status 3 when there is no such record.\n",
    "the key fields", true};

class DeleteCommand : public TableCommand {
public:
    explicit DeleteCommand(CLI::App* parent) : TableCommand(parent, kDelete) {}

private:
    void RunOnTable() override {
        CheckRecord(table().Delete(message()));
        PrintWritten("delete");
    }
};

const StoreCommandTraits kFind = {
    "find", "list the records whose index fields equal the given ones",
    "Lists every record whose fields of the index --index equal those of --text or\n"
    "--text-file, each after a line '# record N' (or, with --format json, one\n"
    "JSON object per line).\n",
    "the index fields", false};

class FindCommand : public TableCommand {
public:
    explicit FindCommand(CLI::App* parent) : TableCommand(parent, kFind) {
        app()->add_option("--index", m_index, "the index, by the name of its corvida_index entry")
            ->type_name("NAME")
            ->required();
    }

private:
    void RunOnTable() override {
        std::vector<Record> records;
        Check(table().FindByIndex(m_index, message(), &records));
        PrintRecords(records);
    }

    std::string m_index;
};

const StoreCommandTraits kScan = {
    "scan", "list the records of a shard, or of the whole table",
    "Lists the records of the shard whose sharding-key fields --shard-text gives,\n"
    "or of the whole table, in primary-key order, each after a line '# record N'\n"
    "(or, with --format json, one JSON object per line).\n",
    nullptr, false};

class ScanCommand : public TableCommand {
public:
    explicit ScanCommand(CLI::App* parent) : TableCommand(parent, kScan) {
        m_shard_option =
            app()->add_option("--shard-text", m_shard_text, "the sharding-key fields in protobuf text format")
                ->type_name("TEXT");
        // The range check refuses what strtoull would wrap ("-1") or saturate.
        app()->add_option("--limit", m_limit, "list at most N records (0: all)")
            ->type_name("N")
            ->check(CLI::Range(size_t{0}, size_t{std::numeric_limits<int32_t>::max()}));
    }

private:
    void RunOnTable() override {
        std::unique_ptr<Message> shard;
        if (Given(m_shard_option)) {
            shard = NewMessage();
            ParseMessageText(m_shard_text, "--shard-text", shard.get());
        }
        std::vector<Record> records;
        Check(table().Scan(shard.get(), m_limit, &records));
        PrintRecords(records);
    }

    std::string m_shard_text;
    size_t m_limit = 0;
    CLI::Option* m_shard_option = nullptr;
};

}  // namespace

std::vector<std::unique_ptr<Command>> MakeStoreCommands(CLI::App* parent) {
    CLI::App* group = parent->add_subcommand("store", kStoreSummary);
    group->set_help_flag("-h,--help", "show this help and exit");
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<CreateCommand>(group));
    commands.push_back(std::make_unique<PutCommand>(group));
    commands.push_back(std::make_unique<UpdateCommand>(group));
    commands.push_back(std::make_unique<GetCommand>(group));
    commands.push_back(std::make_unique<DeleteCommand>(group));
    commands.push_back(std::make_unique<FindCommand>(group));
    commands.push_back(std::make_unique<ScanCommand>(group));
    return commands;
}

}  // namespace corvida_pb
