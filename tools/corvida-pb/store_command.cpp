#include "corvida-pb/store_command.h"

#include <iostream>

#include "corvida-pb/explain.h"
#include "corvida-pb/schema_diff.h"
#include "corvida-pb/status.h"

namespace corvida_pb {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::TableInfo;
using corvida::store::TableStore;
using google::protobuf::Descriptor;
using google::protobuf::Message;

void CheckStore(const Status& status) {
    if (!status.ok()) throw Failure(status.message());
}

void CheckRecord(const Status& status) {
    if (status.IsNotFound()) throw NegativeAnswer("not found: " + status.message());
    CheckStore(status);
}

namespace {

// The schema blob the store holds for the client type's table: the entry of
// its full name, else the one of its short name.
std::string StoredBlob(TableStore& store, const Descriptor* client) {
    std::vector<TableInfo> tables;
    if (!store.ListTables(&tables).ok()) return std::string();
    const TableInfo* by_short_name = nullptr;
    for (const TableInfo& table : tables) {
        if (table.name == client->full_name()) return table.schema_blob;
        const size_t dot = table.name.rfind('.');
        if (table.name.substr(dot == std::string::npos ? 0 : dot + 1) == client->name()) by_short_name = &table;
    }
    return by_short_name != nullptr ? by_short_name->schema_blob : std::string();
}

}  // namespace

StoreCommand::StoreCommand(CLI::App* parent, const StoreCommandTraits& traits)
    : Command(parent, traits.name, traits.summary, traits.description), m_traits(traits) {
    app()->add_option("--db", m_db, "the store: its directory, or etcd://HOST:PORT[,HOST:PORT...][/NAMESPACE]")
        ->type_name("DB")
        ->required();
    if (traits.client) {
        AddSchemaOptions("the table: its message type, by short, package-qualified or full name");
        ReadsFile(m_ciphers.Add(app()));
    }
    if (traits.message != nullptr) {
        AddTextOptions(traits.message);
        RequireOneOf({text_option(), text_file_option()});
    }
    if (traits.access != StoreAccess::kRead) {
        app()->add_flag("--sync", m_sync, "flush the write-ahead log to the disk before the write returns");
        app()->add_option("--wait", m_wait, "wait up to SECONDS for another process that holds the store")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.0, 86400.0));
    }
    app()->add_option("--timeout", m_timeout, "the deadline of each call to an etcd cluster (default 5)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 3600.0));
    app()->add_option("--etcd-cacert", m_tls.ca_file, "verify the etcd members with the certificates of FILE (PEM)")
        ->type_name("FILE");
    app()->add_option("--etcd-cert", m_tls.cert_file, "the client certificate shown to the etcd cluster (PEM)")
        ->type_name("FILE");
    app()->add_option("--etcd-key", m_tls.key_file, "the private key of --etcd-cert (PEM)")->type_name("FILE");
    AddFormatOption();
    AddLogLevelOption();
}

void StoreCommand::LoadClient() {
    if (m_loaded.schema == nullptr) m_loaded = LoadTableMessage();
}

void StoreCommand::OpenStore(StoreAccess access) {
    if (m_traits.client) LoadClient();
    CheckStore(TableStore::Open(m_db, Options(access), &m_store));
}

corvida::store::StoreOptions StoreCommand::Options(StoreAccess access) {
    if (m_log == nullptr) m_log.reset(new CliLog(log_priority(), m_log_repeats));
    corvida::store::StoreOptions options;
    options.create_if_missing = access == StoreAccess::kCreate;
    options.read_only = access == StoreAccess::kRead;
    options.sync = m_sync;
    options.wait_seconds = m_wait;
    options.timeout_seconds = m_timeout;
    options.etcd_tls = m_tls;
    options.log = m_log->category();
    return options;
}

std::unique_ptr<Message> StoreCommand::NewMessage() const { return m_loaded.schema->NewMessage(m_loaded.table); }

CLI::Option* StoreCommand::AddShardOption() {
    m_shard_option = app()->add_option("--shard-text", m_shard_text, "the sharding-key fields in protobuf text format")
                         ->type_name("TEXT");
    return m_shard_option;
}

std::unique_ptr<Message> StoreCommand::ShardFromArgs() const {
    if (!Given(m_shard_option)) return nullptr;
    std::unique_ptr<Message> shard = NewMessage();
    ParseMessageText(m_shard_text, "--shard-text", shard.get());
    return shard;
}

bool StoreCommand::OpenTable() {
    m_ciphers.Configure(&m_api);
    const Status status = m_store->OpenTable(*m_loaded.msg, &m_api, &m_table);
    if (status.IsInvalidArgument() && (status.bridge_code() == -3 || status.bridge_code() == -4)) {
        // The cipher suite is missing or holds another key: say how to give it.
        throw Failure(WithResult(ExplainKeyResult(status.bridge_code(), *m_loaded.msg, nullptr, &m_api, 0),
                                 status.bridge_code()));
    }
    if (!status.IsIncompatibleSchema()) {
        CheckStore(status);
        return true;
    }
    // Code 0: the comparison passed, but the client's type lacks a field
    // that the table's indexes or sharding key need; the store says which.
    // Otherwise every difference, as "compare --all" lists them.
    const int code = status.bridge_code();
    const std::string explanation = code != 0 ? ExplainCompareResult(code) : status.message();
    std::vector<SchemaDifference> differences;
    std::unique_ptr<Schema> server;
    if (code != 0) {
        const std::string blob = StoredBlob(*m_store, m_loaded.table);
        try {
            server = Schema::FromDescriptorSetBytes(blob, "the store");
        } catch (const Failure&) {
            server.reset();
        }
        const Descriptor* server_table = server ? server->FindTopLevelMessage(m_loaded.table->name()) : nullptr;
        differences = DifferencesReported(server_table, m_loaded.table, code);
    }
    if (json()) {
        Json result = ComparisonJson(m_loaded.table, false, code, explanation);
        result["differences"] = DifferencesJson(*m_loaded.schema, differences);
        PrintJson(std::cout, result);
    } else {
        PrintIncompatible(std::cout, code, explanation);
        PrintDifferences(std::cout, *m_loaded.schema, differences);
    }
    return false;
}

RecordPrinter& StoreCommand::printer() {
    if (m_printer == nullptr) m_printer.reset(new RecordPrinter(table_type(), record_format(), std::cout));
    return *m_printer;
}

void StoreCommand::FlushRecords() {
    if (m_printer != nullptr) m_printer->Flush();
}

void StoreCommand::PrintRecord(const Message& record) { printer().Print(record); }

void StoreCommand::PrintListed(const Record& record, size_t number) {
    WarnFailedPaths(record.failed_paths, "record " + std::to_string(number) + ": ");
    printer().PrintListed(*record.message, number);
}

void StoreCommand::WarnFailedPaths(const std::set<std::string>& failed, const std::string& which) const {
    if (failed.empty()) return;
    PrintWarning(app(), which + "fields that did not merge, shown as stored: " + FailedPathsText(table_type(), failed));
}

void StoreCommand::PrintWritten(const std::string& operation, const std::vector<std::string>& paths) const {
    if (json()) {
        Json result = {{"table", table_type()->full_name()}, {"operation", operation}, {"records", 1}};
        if (!paths.empty()) result["paths"] = paths;
        PrintJson(std::cout, result);
    } else {
        std::cout << operation << ": 1 record of " << table_type()->full_name()
                  << (paths.empty() ? "" : " (" + JoinComma(paths) + ")") << "\n";
    }
}

corvida::store::RecordVisitor VisitGuard::Wrap(std::function<void(Record&)> body) {
    return [this, body](Record& record) {
        try {
            body(record);
            return true;
        } catch (...) {
            m_thrown = std::current_exception();
            return false;
        }
    };
}

void VisitGuard::Check(const Status& status) const {
    if (m_thrown) std::rethrow_exception(m_thrown);
    CheckStore(status);
}

int TableCommand::Run() {
    OpenStore();
    if (!OpenTable()) return kExitNegative;
    int status = kExitOk;
    try {
        status = RunOnTable();
    } catch (...) {
        // What was read before the failure is shown before its message.
        FlushRecords();
        throw;
    }
    FlushRecords();
    return status;
}

}  // namespace corvida_pb
