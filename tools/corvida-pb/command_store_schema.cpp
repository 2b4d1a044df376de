// corvida-pb store alter|build-index|tables|describe|drop: a table's schema
// as the store holds it, changed in place (store/schema_change.h).
#include <algorithm>
#include <iostream>
#include <sstream>

#include "corvida-pb/progress.h"
#include "corvida-pb/report.h"
#include "corvida-pb/schema_diff.h"
#include "corvida-pb/status.h"
#include "corvida-pb/store_command.h"

namespace corvida_pb {
namespace {

using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::IndexDescription;
using corvida::store::IndexState;
using corvida::store::SchemaChange;
using corvida::store::SchemaRefusal;
using corvida::store::TableDescription;
using corvida::store::TableInfo;
using corvida::store::WorkProgress;
using google::protobuf::Descriptor;

// "by_level(zone, level)", or the name alone for a dropped index.
std::string Declared(const IndexDescription& index) {
    std::string fields;
    for (const std::string& field : index.fields) fields += (fields.empty() ? "" : ", ") + field;
    return index.state == IndexState::kDropping ? index.name : index.name + "(" + fields + ")";
}

// "ready", "building, 2 of 40 records", "dropping, 2 of 40 entries removed".
std::string StateWords(const IndexDescription& index) {
    const std::string progress = std::to_string(index.done) + " of " + std::to_string(index.total);
    switch (index.state) {
        case IndexState::kBuilding: return "building, " + progress + " records";
        case IndexState::kDropping: return "dropping, " + progress + " entries removed";
        case IndexState::kReady: break;
    }
    return "ready";
}

// [{"name", "fields", "state"(, "done", "total")}...] of the table's indexes.
Json IndexesJson(const TableDescription& described) {
    Json indexes = Json::array();
    for (const IndexDescription& index : described.indexes) {
        Json item = {{"name", index.name}, {"fields", index.fields}, {"state", corvida::store::IndexStateName(index.state)}};
        if (index.state != IndexState::kReady) {
            item["done"] = index.done;
            item["total"] = index.total;
        }
        indexes.push_back(item);
    }
    return indexes;
}

// "1 record", "2 records".
std::string Count(uint64_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// What work done in batches counts, for its progress bar and summary.
struct WorkUnit {
    const char* one;   // "record"
    const char* many;  // "records"
    const char* done;  // "indexed"
};

constexpr WorkUnit kIndexed = {"record", "records", "indexed"};
constexpr WorkUnit kRemovedEntries = {"entry", "entries", "removed"};
constexpr WorkUnit kRemovedRecords = {"record", "records", "removed"};

// Runs work with a progress bar on standard error (a line per second where
// that is not a terminal), then prints "<label>: N <unit> <done> in T s".
template <typename Work>
void WithProgress(const std::string& label, const WorkUnit& unit, Work work) {
    Progress progress(unit.many, 0, Progress::Elsewhere::kLinePerSecond, std::cerr);
    CheckStore(work([&progress](uint64_t done, uint64_t total) {
        progress.SetTotal(total);
        progress.Advance(done - std::min(done, progress.done()));
        return true;
    }));
    progress.Finish(label + ": " + Count(progress.done(), unit.one, unit.many) + " " + unit.done + " in " +
                    progress.Elapsed());
}

// The table's described state, checked.
TableDescription Describe(corvida::store::TableStore& store, const std::string& table) {
    TableDescription described;
    CheckRecord(store.DescribeTable(table, &described));
    return described;
}

// The pending work of the table's indexes: each one run to its end.
void FinishIndexes(corvida::store::TableStore& store, const TableDescription& described,
                   CORVIDA_KV::CorvidaKVApi* kv) {
    for (const IndexDescription& index : described.indexes) {
        if (index.state == IndexState::kReady) continue;
        WithProgress("index " + Printable(index.name), index.state == IndexState::kBuilding ? kIndexed : kRemovedEntries,
                     [&](const WorkProgress& progress) {
                         return store.BuildIndex(described.name, index.name, kv, progress);
                     });
    }
}

// The states of the table's indexes after the work, one line each.
void PrintIndexStates(const TableDescription& described) {
    for (const IndexDescription& index : described.indexes) {
        std::cout << "index " << Printable(Declared(index)) << ": " << StateWords(index) << "\n";
    }
}

const StoreCommandTraits kAlter = {
    "alter", "change a table's stored schema to a new version of its definition",
    "Replaces the stored schema of the table with the one of the schema options,\n"
    "when the records can keep it: new fields (under numbers never used before),\n"
    "enum values and types, new indexes, dropped indexes, removed top-level fields\n"
    "that no record holds. New indexes are built online, dropped ones have their\n"
    "entries removed, both in batches with a progress bar (build-index resumes\n"
    "them when stopped). A change the records cannot keep is refused with exit\n"
    "status 3 and every reason, one line each in the form of 'compare --all',\n"
    "and nothing is written. --dry-run prints what would change and what it\n"
    "would cost, and writes nothing (it opens the store for reading only).\n",
    StoreAccess::kWrite, true, nullptr};

class AlterCommand : public StoreCommand {
public:
    explicit AlterCommand(CLI::App* parent) : StoreCommand(parent, kAlter) {
        app()->add_flag("--dry-run", m_dry_run, "print what would change and its cost; write nothing");
    }

    int Run() override {
        // A dry run only reads: it works beside a process that holds the store.
        OpenStore(m_dry_run ? StoreAccess::kRead : StoreAccess::kWrite);
        const std::string blob = SchemaBlobOf({table_type()->file()}).SerializeAsString();
        AlterOptions options;
        options.dry_run = m_dry_run;
        AlterPlan plan;
        const corvida::store::Status status = store().AlterTable(blob, table_type()->full_name(), options, &plan);
        if (status.IsIncompatibleSchema()) {
            PrintRefusals(plan);
            return kExitNegative;
        }
        CheckRecord(status);
        if (m_dry_run) {
            PrintPlan(plan);
            return kExitOk;
        }
        ciphers().Configure(&api());
        FinishIndexes(store(), Describe(store(), table_type()->full_name()), &api());
        const TableDescription described = Describe(store(), table_type()->full_name());
        if (json()) {
            Json result = PlanJson(plan);
            result["indexes"] = IndexesJson(described);
            PrintJson(std::cout, result);
            return kExitOk;
        }
        std::cout << "altered table " << table_type()->full_name() << ": " << Changes(plan) << "\n";
        for (const SchemaChange& change : plan.changes) std::cout << "  " << Printable(change.description) << "\n";
        PrintIndexStates(described);
        return kExitOk;
    }

private:
    static std::string Changes(const AlterPlan& plan) {
        return plan.changes.empty() ? "no change" : Count(plan.changes.size(), "change", "changes");
    }

    Json PlanJson(const AlterPlan& plan) const {
        Json changes = Json::array();
        for (const SchemaChange& change : plan.changes) changes.push_back(change.description);
        return {{"table", table_type()->full_name()},
                {"operation", "alter"},
                {"dry_run", m_dry_run},
                {"allowed", true},
                {"changes", changes},
                {"records_to_index", plan.records_to_index},
                {"entries_to_remove", plan.entries_to_remove}};
    }

    void PrintPlan(const AlterPlan& plan) const {
        if (json()) {
            PrintJson(std::cout, PlanJson(plan));
            return;
        }
        std::cout << "dry run: table " << table_type()->full_name() << " would take " << Changes(plan)
                  << "; nothing was written\n";
        for (const SchemaChange& change : plan.changes) std::cout << "  " << Printable(change.description) << "\n";
        std::cout << "cost: " << Count(plan.records_to_index, "record", "records") << " to index, "
                  << Count(plan.entries_to_remove, "index entry", "index entries") << " to remove\n";
    }

    // Every reason: the comparison's differences, as compare --all lists
    // them (but for indexes and the sharding key, which the evolution rules
    // judge), then the rules' own.
    void PrintRefusals(const AlterPlan& plan) {
        std::vector<SchemaDifference> differences;
        const int code = plan.compare_code;
        if (code != 0 && (code > -19 || code < -22)) {
            std::unique_ptr<Schema> stored = Schema::FromDescriptorSetBytes(
                Describe(store(), table_type()->full_name()).schema_blob,
                "the store");
            differences = DifferencesReported(stored->FindTopLevelMessage(table_type()->name()), table_type(), code);
            differences.erase(std::remove_if(differences.begin(), differences.end(),
                                             [](const SchemaDifference& d) { return d.code <= -19 && d.code >= -22; }),
                              differences.end());
        }
        const google::protobuf::DescriptorPool* pool = table_type()->file()->pool();
        for (const SchemaRefusal& refusal : plan.refusals) {
            if (refusal.code != 0) continue;  // the comparison's, listed above
            const Descriptor* type = pool->FindMessageTypeByName(refusal.type);
            differences.push_back(
                DifferenceAt(type != nullptr ? type : table_type(), refusal.field, refusal.option, 0, refusal.message));
        }
        if (json()) {
            PrintJson(std::cout, {{"table", table_type()->full_name()},
                                  {"operation", "alter"},
                                  {"allowed", false},
                                  {"code", code},
                                  {"refusals", DifferencesJson(schema(), differences)}});
            return;
        }
        std::cout << "refused: table " << table_type()->full_name() << " cannot take this schema ("
                  << Count(differences.size(), "reason", "reasons") << ")\n";
        for (const SchemaDifference& difference : differences) {
            std::cout << DifferenceLocation(schema(), difference) << ": " << Printable(difference.message) << "\n";
        }
    }

    bool m_dry_run = false;
};

// The subcommands that name a table of the store by --table (full or short
// name), without its definitions.
class StoredTableCommand : public StoreCommand {
protected:
    StoredTableCommand(CLI::App* parent, const StoreCommandTraits& traits) : StoreCommand(parent, traits) {
        app()->add_option("--table", m_table, "the table, by the full or short name of its type in the store")
            ->type_name("NAME")
            ->required();
    }

    const std::string& table_option() const { return m_table; }

private:
    std::string m_table;
};

const StoreCommandTraits kBuildIndex = {
    "build-index", "finish building an index, or removing a dropped one's entries",
    "Runs the pending work of the index --index of the table: the back-fill of an\n"
    "index that an alter added (it then becomes ready), or the removal of the\n"
    "entries of one that an alter dropped, from where an earlier run stopped (a\n"
    "kill, a crash). Writers may go on meanwhile. The cipher keys are needed for a\n"
    "table that names a cipher suite.\n",
    StoreAccess::kWrite, false, nullptr};

class BuildIndexCommand : public StoredTableCommand {
public:
    explicit BuildIndexCommand(CLI::App* parent) : StoredTableCommand(parent, kBuildIndex) {
        app()->add_option("--index", m_index, "the index, by the name of its corvida_index entry")
            ->type_name("NAME")
            ->required();
        ReadsFile(ciphers().Add(app()));
    }

    int Run() override {
        OpenStore();
        ciphers().Configure(&api());
        const TableDescription before = Describe(store(), table_option());
        const auto index = std::find_if(before.indexes.begin(), before.indexes.end(),
                                        [this](const IndexDescription& i) { return i.name == m_index; });
        if (index == before.indexes.end()) {
            throw Failure("table " + Printable(before.name) + " has no index " + Printable(m_index));
        }
        TableDescription pending = before;
        pending.indexes = {*index};
        FinishIndexes(store(), pending, &api());
        const TableDescription after = Describe(store(), before.name);
        const auto now = std::find_if(after.indexes.begin(), after.indexes.end(),
                                      [this](const IndexDescription& i) { return i.name == m_index; });
        if (json()) {
            PrintJson(std::cout, {{"table", before.name},
                                  {"operation", "build-index"},
                                  {"index", m_index},
                                  {"state", now == after.indexes.end() ? "dropped" : "ready"}});
        } else if (now == after.indexes.end()) {
            std::cout << "index " << Printable(m_index) << " of " << Printable(before.name)
                      << ": dropped, its entries removed\n";
        } else {
            std::cout << "index " << Printable(Declared(*now)) << " of " << Printable(before.name) << ": "
                      << StateWords(*now) << "\n";
        }
        return kExitOk;
    }

private:
    std::string m_index;
};

const StoreCommandTraits kTables = {
    "tables", "list the store's tables with their record counts and index states",
    "Lists every table of the store: the full name of its type, its record count\n"
    "and the state of each index (ready, building or dropping, with its progress).\n",
    StoreAccess::kRead, false, nullptr};

class TablesCommand : public StoreCommand {
public:
    explicit TablesCommand(CLI::App* parent) : StoreCommand(parent, kTables) {}

    int Run() override {
        OpenStore();
        std::vector<TableInfo> tables;
        CheckStore(store().ListTables(&tables));
        Json list = Json::array();
        for (const TableInfo& table : tables) {
            const TableDescription described = Describe(store(), table.name);
            if (json()) {
                list.push_back({{"table", described.name},
                                {"records", described.records},
                                {"dropping", described.dropping},
                                {"indexes", IndexesJson(described)}});
                continue;
            }
            std::cout << Printable(described.name) << ": " << Count(described.records, "record", "records");
            if (described.dropping) std::cout << ", being dropped";
            std::string indexes;
            for (const IndexDescription& index : described.indexes) {
                indexes += (indexes.empty() ? "" : ", ") + Printable(index.name) + " (" + StateWords(index) + ")";
            }
            std::cout << "; " << (indexes.empty() ? "no indexes" : "indexes " + indexes) << "\n";
        }
        if (json()) PrintJson(std::cout, {{"db", db()}, {"tables", list}});
        return kExitOk;
    }
};

const StoreCommandTraits kDescribe = {
    "describe", "print a table's stored schema, key, sharding key and indexes",
    "Prints what the store holds for the table: its record count, primary key,\n"
    "sharding key and indexes with their states, then its stored schema as .proto\n"
    "text (the table's file and the files of its own that it imports).\n",
    StoreAccess::kRead, false, nullptr};

class DescribeCommand : public StoredTableCommand {
public:
    explicit DescribeCommand(CLI::App* parent) : StoredTableCommand(parent, kDescribe) {}

    int Run() override {
        OpenStore();
        const TableDescription described = Describe(store(), table_option());
        std::unique_ptr<Schema> stored = Schema::FromDescriptorSetBytes(described.schema_blob, "the store");
        if (json()) {
            Json files = Json::array();
            for (const google::protobuf::FileDescriptor* file : stored->files()) {
                files.push_back({{"name", file->name()}, {"proto", file->DebugString()}});
            }
            PrintJson(std::cout, {{"table", described.name},
                                  {"records", described.records},
                                  {"dropping", described.dropping},
                                  {"primary_key", described.primary_key},
                                  {"sharding_key", described.sharding_key},
                                  {"indexes", IndexesJson(described)},
                                  {"files", files}});
            return kExitOk;
        }
        std::cout << "table " << Printable(described.name) << (described.dropping ? " (being dropped)" : "") << "\n"
                  << "records: " << described.records << "\n"
                  << "primary key: " << Printable(JoinComma(described.primary_key)) << "\n"
                  << "sharding key: "
                  << (described.sharding_key.empty() ? "none" : Printable(JoinComma(described.sharding_key)))
                  << "\n";
        PrintIndexStates(described);
        for (const google::protobuf::FileDescriptor* file : stored->files()) {
            std::cout << "\n// " << Printable(file->name()) << "\n";
            std::istringstream text(file->DebugString());
            for (std::string line; std::getline(text, line);) std::cout << Printable(line) << "\n";
        }
        return kExitOk;
    }
};

const StoreCommandTraits kDrop = {
    "drop", "remove a table with all its records and index entries",
    "Removes the table from the store: from the first moment its clients are\n"
    "refused, then its records and index entries are removed in batches, then its\n"
    "catalog entry. A drop that was stopped (a kill, a crash) is finished by the\n"
    "same command. Refused without --yes.\n",
    StoreAccess::kWrite, false, nullptr};

class DropCommand : public StoredTableCommand {
public:
    explicit DropCommand(CLI::App* parent) : StoredTableCommand(parent, kDrop) {
        app()->add_flag("--yes", m_yes, "confirm: every record of the table goes");
    }

    int Run() override {
        if (!m_yes) {
            throw UsageError("drop removes the table " + table_option() +
                             " and every record of it; give --yes to confirm");
        }
        OpenStore();
        const TableDescription described = Describe(store(), table_option());
        WithProgress("table " + Printable(described.name), kRemovedRecords,
                     [&](const WorkProgress& progress) { return store().DropTable(described.name, progress); });
        if (json()) {
            PrintJson(std::cout, {{"table", described.name}, {"operation", "drop"}, {"records", described.records}});
        } else {
            std::cout << "dropped table " << Printable(described.name) << "\n";
        }
        return kExitOk;
    }

private:
    bool m_yes = false;
};

}  // namespace

void AddStoreSchemaCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands) {
    commands->push_back(std::make_unique<AlterCommand>(group));
    commands->push_back(std::make_unique<BuildIndexCommand>(group));
    commands->push_back(std::make_unique<TablesCommand>(group));
    commands->push_back(std::make_unique<DescribeCommand>(group));
    commands->push_back(std::make_unique<DropCommand>(group));
}

}  // namespace corvida_pb
