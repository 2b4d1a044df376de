// corvida-pb schema, compare and blob: the server's view of a table.
#include <iostream>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/files.h"
#include "corvida-pb/report.h"
#include "corvida-pb/schema_diff.h"
#include "corvida-pb/status.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

using google::protobuf::Descriptor;
using google::protobuf::FileDescriptor;

namespace {

const char kSchemaDescription[] =
    "Loads a schema blob (a serialized FileDescriptorSet, as the server delivers\n"
    "it) with FillMessageGroup and prints the table's primary-key, sharding-key\n"
    "and index field numbers with their names. The blob comes from --schema, or\n"
    "is made from the files of --proto or --descriptor-set.\n";

const char kCompareDescription[] =
    "Checks the server's schema blob of a table (--schema) against the client's\n"
    "definition of it (--proto or --descriptor-set) with GetMetaAndCompare, and\n"
    "explains the first difference that makes them incompatible; with --all,\n"
    "lists every difference as FILE:LINE:COL: message, pointing at the client's\n"
    "declaration. Exit status 0 when they are compatible, 3 when not, 1 when\n"
    "the check cannot be made.\n";

const char kBlobDescription[] =
    "Writes the schema blob of the loaded .proto files to -o: a serialized\n"
    "FileDescriptorSet of the files and of every file they import, the option\n"
    "file included, as protoc --include_imports --descriptor_set_out writes it.\n"
    "With --table, only the table's file and its imports.\n";

// The table's name inside the blob: FillMessageGroup and GetMetaAndCompare
// look a top-level message up without its package.
std::string ShortName(const std::string& name) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(dot + 1);
}

// True when name (short, package-qualified or full) names type.
bool NamesType(const std::string& name, const Descriptor* type) {
    const std::string& full = type->full_name();
    return full == name ||
           (full.size() > name.size() && full.compare(full.size() - name.size(), name.size(), name) == 0 &&
            full[full.size() - name.size() - 1] == '.');
}

// whose names the side ("the server's ", "the client's ") or is empty.
void WarnIgnoredIndexes(const CLI::App* app, const Descriptor* table, const std::string& whose = "") {
    for (const std::string& warning : IgnoredIndexEntries(table)) PrintWarning(app, whose + warning);
}

class SchemaCommand : public Command {
public:
    explicit SchemaCommand(CLI::App* parent)
        : Command(parent, "schema", "load a schema blob and print the table's key, sharding-key and index fields",
                  kSchemaDescription) {
        CLI::Option* schema =
            app()->add_option("--schema", m_schema, "the schema blob ('-' for standard input)")->type_name("FILE");
        ReadsFile(schema);
        AddSchemaOptions("the table: a top-level message type, by short, package-qualified or full name", true,
                         false);
        Exclusive({schema, proto_option()});
        Exclusive({schema, descriptor_set_option()});
        Exclusive({schema, include_option()});
        RequireOneOf({schema, proto_option(), descriptor_set_option()});
        AddFormatOption();
        AddLogLevelOption();
    }

    int Run() override {
        CliLog log(log_priority());
        std::string blob;
        if (has_schema_options()) {
            std::unique_ptr<Schema> schema = LoadSchema();
            blob = SchemaBlobOf({FindTable(*schema)->file()}).SerializeAsString();
        } else {
            blob = ReadFile(m_schema);
        }

        PROTOBUF_UTIL::MsgDescGroup group;
        const Descriptor* table =
            PROTOBUF_UTIL::FillMessageGroup(ShortName(table_name()), blob, &group, log.category());
        if (group.m_desc != nullptr) WarnIgnoredIndexes(app(), group.m_desc);
        if (table == nullptr) throw Failure(ExplainGroupFailure(ShortName(table_name()), blob, group));
        if (!NamesType(table_name(), table)) {
            throw Failure("the schema blob's table \"" + table->name() + "\" is " + table->full_name() + ", not " +
                          table_name());
        }
        if (json()) {
            PrintJson(std::cout, GroupJson(group));
        } else {
            PrintGroup(std::cout, group);
        }
        return kExitOk;
    }

private:
    std::string m_schema;
};

class CompareCommand : public Command {
public:
    explicit CompareCommand(CLI::App* parent)
        : Command(parent, "compare", "check a server schema blob against the client's table definition",
                  kCompareDescription) {
        ReadsFile(app()->add_option("--schema", m_schema, "the server's schema blob ('-' for standard input)")
                      ->type_name("FILE")
                      ->required());
        AddSchemaOptions("the table: the client's top-level message type, by short, package-qualified or full name");
        app()->add_flag("--all", m_all, "list every difference, one per line as FILE:LINE:COL: message");
        AddFormatOption();
        AddLogLevelOption();
    }

    int Run() override {
        CliLog log(log_priority());
        const std::string blob = ReadFile(m_schema);
        std::unique_ptr<Schema> schema = LoadSchema();
        const Descriptor* client = FindTable(*schema);
        std::unique_ptr<Schema> server = ServerSchema(blob);
        const Descriptor* server_table = server ? server->FindTopLevelMessage(client->name()) : nullptr;
        if (server_table != nullptr) WarnIgnoredIndexes(app(), server_table, "the server's ");
        WarnIgnoredIndexes(app(), client, "the client's ");

        const int ret = PROTOBUF_UTIL::GetMetaAndCompare(client->name(), blob, client, log.category());
        if (ret == -1 || ret == -2) {
            const std::string missing = ret == -1 ? ExplainMissingTable(client->name(), blob) : std::string();
            throw Failure(WithResult("cannot compare: " + (missing.empty() ? ExplainCompareResult(ret) : missing), ret));
        }
        std::vector<SchemaDifference> differences;
        if (ret != 0 && m_all) differences = DifferencesReported(server_table, client, ret);
        if (json()) {
            PrintJsonResult(*schema, client, ret, differences);
        } else if (ret == 0) {
            std::cout << "compatible: the server's " << client->name() << " matches " << client->full_name() << "\n";
        } else if (!m_all) {
            PrintIncompatible(std::cout, ret, ExplainCompareResult(ret));
        } else {
            PrintDifferences(std::cout, *schema, differences);
        }
        return ret == 0 ? kExitOk : kExitNegative;
    }

private:
    // The server's files for warnings and --all; null when the blob cannot be
    // loaded (the library's result then says why).
    std::unique_ptr<Schema> ServerSchema(const std::string& blob) const {
        try {
            return Schema::FromDescriptorSetBytes(blob, DisplayName(m_schema));
        } catch (const Failure&) {
            return nullptr;
        }
    }

    void PrintJsonResult(const Schema& schema, const Descriptor* client, int ret,
                         const std::vector<SchemaDifference>& differences) const {
        Json result = ComparisonJson(client, ret == 0, ret, ret != 0 ? ExplainCompareResult(ret) : std::string());
        if (m_all) result["differences"] = DifferencesJson(schema, differences);
        PrintJson(std::cout, result);
    }

    std::string m_schema;
    bool m_all = false;
};

class BlobCommand : public Command {
public:
    explicit BlobCommand(CLI::App* parent)
        : Command(parent, "blob", "write the schema blob of .proto files", kBlobDescription) {
        AddSchemaOptions("write only this table's file and its imports", false);
        m_output_option = app()
                              ->add_option("-o,--output", m_output, "where to write the blob ('-' for standard output)")
                              ->type_name("FILE")
                              ->required();
        AddFormatOption();
        AddLogLevelOption();
    }

    int Run() override {
        RefuseJsonBeside(m_output_option, m_output, "the blob");
        CliLog log(log_priority());
        std::unique_ptr<Schema> schema = LoadSchema();
        std::vector<const FileDescriptor*> roots = schema->files();
        if (!table_name().empty()) roots = {FindTable(*schema)->file()};
        for (const FileDescriptor* file : roots) {
            for (int i = 0; i < file->message_type_count(); ++i) WarnIgnoredIndexes(app(), file->message_type(i));
        }
        const google::protobuf::FileDescriptorSet set = SchemaBlobOf(roots);
        const std::string blob = set.SerializeAsString();
        WriteFile(m_output, blob);
        const std::vector<std::string> names = BlobFileNames(set);
        if (json()) {
            PrintJson(std::cout, {{"files", names}, {"bytes", blob.size()}, {"output", m_output}});
        } else if (m_output != "-") {
            std::cout << "schema blob of " << names.size() << " files: " << JoinComma(names) << "\n"
                      << "wrote " << blob.size() << " bytes to " << m_output << "\n";
        }
        return kExitOk;
    }

private:
    std::string m_output;
    CLI::Option* m_output_option = nullptr;
};

}  // namespace

std::unique_ptr<Command> MakeSchemaCommand(CLI::App* parent) { return std::make_unique<SchemaCommand>(parent); }

std::unique_ptr<Command> MakeCompareCommand(CLI::App* parent) { return std::make_unique<CompareCommand>(parent); }

std::unique_ptr<Command> MakeBlobCommand(CLI::App* parent) { return std::make_unique<BlobCommand>(parent); }

}  // namespace corvida_pb
