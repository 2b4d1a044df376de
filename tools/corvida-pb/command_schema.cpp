// corvida-pb schema, compare and blob: the server's view of a table.
#include <iostream>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/files.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {
namespace {

const CommandHelp kSchemaHelp = {
    "schema",
    "Loads a schema blob (a serialized FileDescriptorSet, as the server delivers\n"
    "it) with FillMessageGroup and prints the table's primary-key, sharding-key\n"
    "and index field numbers with their names. The blob comes from --schema, or\n"
    "is made from the files of --proto or --descriptor-set.\n",
};

const CommandHelp kCompareHelp = {
    "compare",
    "Checks the server's schema blob of a table (--schema) against the client's\n"
    "definition of it (--proto or --descriptor-set) with GetMetaAndCompare, and\n"
    "explains the first difference that makes them incompatible. Exit status 0\n"
    "when they are compatible, 1 when not.\n",
};

const CommandHelp kBlobHelp = {
    "blob",
    "Writes the schema blob of the loaded .proto files to -o: a serialized\n"
    "FileDescriptorSet of the files and of every file they import, the option\n"
    "file included, as protoc --include_imports --descriptor_set_out writes it.\n"
    "With --table, only the table's file and its imports.\n",
};

// The table's name inside the blob: FillMessageGroup and GetMetaAndCompare
// look a top-level message up without its package.
std::string ShortName(const std::string& name) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(dot + 1);
}

std::string BlobOfTable(const google::protobuf::Descriptor* table) {
    return SchemaBlobOf({table->file()}).SerializeAsString();
}

}  // namespace

int RunSchema(const std::vector<std::string>& words) {
    std::vector<OptionDef> defs = {
        {"schema", 0, "FILE", false, "the schema blob ('-' for standard input)"},
    };
    for (const OptionDef& def : SchemaOptions("the table: the name of a top-level message type")) {
        defs.push_back(def);
    }
    defs.push_back(LogLevelOption());

    ParsedArgs args;
    if (!ParseCommandLine(kSchemaHelp, defs, words, &args)) return kExitOk;
    RequireOption(args, "table");
    RefuseBoth(args, "schema", "proto");
    RefuseBoth(args, "schema", "descriptor-set");
    if (!args.Has("schema")) CheckSchemaArgs(args);
    if (args.Has("schema") && args.Has("proto-path")) throw UsageError("-I/--proto-path applies to --proto files only");
    CliLog log(LogLevelOf(args));

    const std::string table_name = args.Get("table");
    std::string blob;
    if (args.Has("schema")) {
        blob = ReadFile(args.Get("schema"));
    } else {
        std::unique_ptr<Schema> schema = LoadSchema(args);
        blob = BlobOfTable(schema->FindTable(table_name));
    }

    PROTOBUF_UTIL::MsgDescGroup group;
    const google::protobuf::Descriptor* table =
        PROTOBUF_UTIL::FillMessageGroup(ShortName(table_name), blob, &group, log.category());
    if (table == nullptr) {
        throw Failure(group.m_desc != nullptr
                          ? "the options of " + group.m_desc->full_name() +
                                " name no primary key, or name a field it does not have (the log line above says "
                                "which)"
                          : "the schema blob does not parse, holds a file that cannot be built, or has no top-level "
                            "message \"" +
                                ShortName(table_name) + "\"");
    }
    if (table_name.find('.') != std::string::npos && table->full_name() != table_name) {
        throw Failure("the schema blob's table \"" + table->name() + "\" is " + table->full_name() + ", not " +
                      table_name);
    }
    PrintGroup(std::cout, group);
    return kExitOk;
}

int RunCompare(const std::vector<std::string>& words) {
    std::vector<OptionDef> defs = {
        {"schema", 0, "FILE", false, "the server's schema blob ('-' for standard input)"},
    };
    for (const OptionDef& def : SchemaOptions("the table: the client's top-level message type")) {
        defs.push_back(def);
    }
    defs.push_back(LogLevelOption());

    ParsedArgs args;
    if (!ParseCommandLine(kCompareHelp, defs, words, &args)) return kExitOk;
    RequireOption(args, "schema");
    RequireOption(args, "table");
    CheckSchemaArgs(args);
    if (args.Get("schema") == "-" && args.Get("descriptor-set") == "-") {
        throw UsageError("--schema and --descriptor-set cannot both read standard input");
    }
    CliLog log(LogLevelOf(args));

    const std::string blob = ReadFile(args.Get("schema"));
    std::unique_ptr<Schema> schema = LoadSchema(args);
    const google::protobuf::Descriptor* client = schema->FindTable(args.Get("table"));
    const int ret = PROTOBUF_UTIL::GetMetaAndCompare(client->name(), blob, client, log.category());
    if (ret == 0) {
        std::cout << "compatible: the server's " << client->name() << " matches " << client->full_name() << "\n";
        return kExitOk;
    }
    std::cout << "incompatible (result " << ret << "): " << ExplainCompareResult(ret) << "\n";
    return kExitFailed;
}

int RunBlob(const std::vector<std::string>& words) {
    std::vector<OptionDef> defs = SchemaOptions("write only this table's file and its imports");
    defs.push_back({"output", 'o', "FILE", false, "where to write the blob ('-' for standard output)"});
    defs.push_back(LogLevelOption());

    ParsedArgs args;
    if (!ParseCommandLine(kBlobHelp, defs, words, &args)) return kExitOk;
    RequireOption(args, "output");
    CheckSchemaArgs(args);
    CliLog log(LogLevelOf(args));

    std::unique_ptr<Schema> schema = LoadSchema(args);
    std::vector<const google::protobuf::FileDescriptor*> roots = schema->files();
    if (args.Has("table")) roots = {schema->FindTable(args.Get("table"))->file()};
    const google::protobuf::FileDescriptorSet set = SchemaBlobOf(roots);
    const std::string blob = set.SerializeAsString();
    const std::string output = args.Get("output");
    WriteFile(output, blob);
    if (output != "-") {
        std::vector<std::string> names;
        for (const auto& file : set.file()) names.push_back(file.name());
        std::cout << "schema blob of " << names.size() << " files: " << JoinComma(names) << "\n"
                  << "wrote " << blob.size() << " bytes to " << output << "\n";
    }
    return kExitOk;
}

}  // namespace corvida_pb
