// corvida-pb store create|put|update|get|delete|find|scan: a table's records
// from the command line (store/table_store.h).
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <limits>

#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/operations.h"
#include "corvida-pb/status.h"
#include "corvida-pb/store_command.h"

namespace corvida_pb {
namespace {

using corvida::store::Page;
using corvida::store::Record;
using google::protobuf::Message;

const char kStoreSummary[] = "a table store: create tables, write, read, find, scan, export, import and look after them";

const StoreCommandTraits kCreate = {
    "create", "create the store if needed and add a table to it",
    "Creates the store in --db when it does not exist, and adds the table to its\n"
    "catalog with its schema blob: the table's file and every file it imports, as\n"
    "'blob --table' writes them. The blob plays the server's schema: every later\n"
    "subcommand checks its client type against it. With the table's cipher key\n"
    "given, the key is checked against the table's corvida_cipher_md5 first. A\n"
    "create that fails leaves no store or directory that it made.\n",
    StoreAccess::kCreate, true, nullptr};

class CreateCommand : public StoreCommand {
public:
    explicit CreateCommand(CLI::App* parent) : StoreCommand(parent, kCreate) {}

    int Run() override {
        std::error_code ec;
        const bool existed = IsEtcd() || std::filesystem::exists(db(), ec);
        try {
            Create();
        } catch (...) {
            if (!existed) RemoveMade();
            throw;
        }
        return kExitOk;
    }

private:
    bool IsEtcd() const { return db().rfind("etcd://", 0) == 0; }

    void Create() {
        // The key given for the table's suite must be the one the table
        // records, or every later write would fail.
        LoadKeysAndCheck();
        OpenStore();
        for (const std::string& warning : IgnoredIndexEntries(table_type())) PrintWarning(app(), warning);
        const google::protobuf::FileDescriptorSet files = SchemaBlobOf({table_type()->file()});
        const std::string blob = files.SerializeAsString();
        CheckStore(store().CreateTable(blob, table_type()->full_name()));
        const std::vector<std::string> names = BlobFileNames(files);
        if (json()) {
            PrintJson(std::cout, {{"table", table_type()->full_name()},
                                  {"operation", "create"},
                                  {"files", names},
                                  {"bytes", blob.size()}});
        } else {
            std::cout << "created table " << table_type()->full_name() << " in " << db() << ": schema blob of "
                      << names.size() << " files (" << JoinComma(names) << "), " << blob.size() << " bytes\n";
        }
    }

    void LoadKeysAndCheck() {
        LoadClient();
        ciphers().Configure(&api());
        // The suite checks of the key encoder come before any field: an empty
        // message tells whether the key given matches.
        CliLog quiet(PLOG_PRIORITY_FATAL);
        std::string key;
        const int code = ComputeKey(&api(), message(), nullptr, false, quiet.category(), &key);
        if (code == -4) {
            throw Failure(ExplainKeyResult(code, message(), nullptr, &api(), 0) + " (result -4); nothing was created");
        }
    }

    // The store's directory, made by this command, goes again.
    void RemoveMade() {
        std::error_code ec;
        std::filesystem::remove_all(db(), ec);
    }
};

const StoreCommandTraits kPut = {
    "put", "write a whole record",
    "Writes the record of --text or --text-file whole: afterwards every field reads\n"
    "as this message holds it, absent fields included.\n",
    StoreAccess::kWrite, true, "the record"};

class PutCommand : public TableCommand {
public:
    explicit PutCommand(CLI::App* parent) : TableCommand(parent, kPut) {}

private:
    int RunOnTable() override {
        CheckStore(table().Put(message()));
        PrintWritten("put");
        return kExitOk;
    }
};

const StoreCommandTraits kUpdate = {
    "update", "write some fields of a record",
    "Writes the fields at --paths of the record of --text or --text-file, whose key\n"
    "fields say which record; nothing else of the record is rewritten. A path may\n"
    "name a sub-message whole (replacing everything written under it before), a\n"
    "field inside one, or a top-level repeated field or map whole. A record that\n"
    "does not exist is created with just these fields.\n",
    StoreAccess::kWrite, true, "the record"};

class UpdateCommand : public TableCommand {
public:
    explicit UpdateCommand(CLI::App* parent) : TableCommand(parent, kUpdate) {
        app()->add_option("--paths", m_paths, "the fields to write, as dotted field names (a,b.c)")
            ->type_name("PATH,PATH...")
            ->check(CommaList("path"))
            ->required();
    }

private:
    int RunOnTable() override {
        const std::vector<std::string> paths = SplitCommaList(m_paths);
        CheckStore(table().Update(message(), paths));
        PrintWritten("update", paths);
        return kExitOk;
    }

    std::string m_paths;
};

const StoreCommandTraits kGet = {
    "get", "read a record by its key fields",
    "Reads the record whose key fields --text or --text-file give and prints it in\n"
    "protobuf text format (or, with --format json, in protobuf's JSON mapping).\n"
    "With --paths, only those fields. Exit status 3 when there is no such record.\n",
    StoreAccess::kRead, true, "the key fields"};

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
    int RunOnTable() override {
        std::unique_ptr<Message> record = NewMessage();
        std::set<std::string> failed;
        const std::vector<std::string> paths =
            Given(m_paths_option) ? SplitCommaList(m_paths) : std::vector<std::string>();
        CheckRecord(table().Get(message(), paths, record.get(), &failed));
        WarnFailedPaths(failed, "");
        PrintRecord(*record);
        return kExitOk;
    }

    std::string m_paths;
    CLI::Option* m_paths_option = nullptr;
};

const StoreCommandTraits kDelete = {
    "delete", "remove a record by its key fields",
    "Removes the record whose key fields --text or --text-file give, with its index\n"
    "entries. Exit status 3 when there is no such record.\n",
    StoreAccess::kWrite, true, "the key fields"};

class DeleteCommand : public TableCommand {
public:
    explicit DeleteCommand(CLI::App* parent) : TableCommand(parent, kDelete) {}

private:
    int RunOnTable() override {
        CheckRecord(table().Delete(message()));
        PrintWritten("delete");
        return kExitOk;
    }
};

// find and scan: records listed one after another, each after "# record N"
// (one JSON object per line with --format json), at most --limit of them,
// after the record of --after. When the limit cut the listing short, the
// cursor of its last record comes last ("# next CURSOR", or the JSON line
// {"#next":"CURSOR"}), for --after of the next page.
class ListingCommand : public TableCommand {
protected:
    ListingCommand(CLI::App* parent, const StoreCommandTraits& traits) : TableCommand(parent, traits) {
        // The range check refuses what strtoull would wrap ("-1") or saturate.
        app()->add_option("--limit", m_page.limit, "list at most N records (0: all)")
            ->type_name("N")
            ->check(CLI::Range(size_t{0}, size_t{std::numeric_limits<int32_t>::max()}));
        app()->add_option("--after", m_page.after, "list the records after the one of CURSOR, which a limited listing printed last")
            ->type_name("CURSOR");
    }

    // Lists the records of read, which takes the page, the visitor and where
    // the cursor goes.
    template <typename Read>
    int List(Read read) {
        size_t listed = 0;
        std::string next;
        VisitGuard guard;
        guard.Check(read(m_page, guard.Wrap([this, &listed](Record& record) { PrintListed(record, ++listed); }), &next));
        if (!next.empty()) printer().PrintNext(next);
        return kExitOk;
    }

private:
    Page m_page;
};

const StoreCommandTraits kFind = {
    "find", "list the records whose index fields equal the given ones",
    "Lists every record whose fields of the index --index equal those of --text or\n"
    "--text-file, in primary-key order, each after a line '# record N' (or, with\n"
    "--format json, one JSON object per line). With --limit, when the limit cut\n"
    "the listing short, a last line '# next CURSOR' (in JSON: {\"#next\":\"CURSOR\"})\n"
    "gives the cursor from which --after lists the next page.\n",
    StoreAccess::kRead, true, "the index fields"};

class FindCommand : public ListingCommand {
public:
    explicit FindCommand(CLI::App* parent) : ListingCommand(parent, kFind) {
        app()->add_option("--index", m_index, "the index, by the name of its corvida_index entry")
            ->type_name("NAME")
            ->required();
    }

private:
    int RunOnTable() override {
        return List([this](const Page& page, const corvida::store::RecordVisitor& visit, std::string* next) {
            return table().FindEach(m_index, message(), page, visit, next);
        });
    }

    std::string m_index;
};

const StoreCommandTraits kScan = {
    "scan", "list the records of a shard, or of the whole table",
    "Lists the records of the shard whose sharding-key fields --shard-text gives,\n"
    "or of the whole table, in primary-key order, each after a line '# record N'\n"
    "(or, with --format json, one JSON object per line). With --limit, when the\n"
    "limit cut the listing short, a last line '# next CURSOR' (in JSON:\n"
    "{\"#next\":\"CURSOR\"}) gives the cursor from which --after lists the next page.\n",
    StoreAccess::kRead, true, nullptr};

class ScanCommand : public ListingCommand {
public:
    explicit ScanCommand(CLI::App* parent) : ListingCommand(parent, kScan) { AddShardOption(); }

private:
    int RunOnTable() override {
        const std::unique_ptr<Message> shard = ShardFromArgs();
        return List([this, &shard](const Page& page, const corvida::store::RecordVisitor& visit, std::string* next) {
            return table().ScanEach(shard.get(), page, visit, next);
        });
    }
};

}  // namespace

void AddStoreRecordCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands) {
    commands->push_back(std::make_unique<CreateCommand>(group));
    commands->push_back(std::make_unique<PutCommand>(group));
    commands->push_back(std::make_unique<UpdateCommand>(group));
    commands->push_back(std::make_unique<GetCommand>(group));
    commands->push_back(std::make_unique<DeleteCommand>(group));
    commands->push_back(std::make_unique<FindCommand>(group));
    commands->push_back(std::make_unique<ScanCommand>(group));
}

std::vector<std::unique_ptr<Command>> MakeStoreCommands(CLI::App* parent) {
    CLI::App* group = parent->add_subcommand("store", kStoreSummary);
    group->set_help_flag("-h,--help", "show this help and exit");
    std::vector<std::unique_ptr<Command>> commands;
    AddStoreRecordCommands(group, &commands);
    AddStoreAdminCommands(group, &commands);
    AddStoreSchemaCommands(group, &commands);
    AddStoreBulkCommands(group, &commands);
    return commands;
}

}  // namespace corvida_pb
