// What the subcommands share: the command list, the common options and the
// loading of table definitions and messages.
#include <iostream>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/files.h"
#include "corvida-pb/status.h"

namespace corvida_pb {

const std::vector<Command>& AllCommands() {
    static const std::vector<Command> kCommands = {
        {"key", "print the primary key of a message, or the key of chosen fields", &RunKey},
        {"cut", "cut fields of a message into a value set", &RunCut},
        {"merge", "merge a packed value set into a message", &RunMerge},
        {"schema", "load a schema blob and print the table's key, sharding-key and index fields", &RunSchema},
        {"compare", "check a server schema blob against the client's table definition", &RunCompare},
        {"blob", "write the schema blob of .proto files", &RunBlob},
        {"demo", "run every step on the bundled example tables", &RunDemo},
    };
    return kCommands;
}

std::vector<OptionDef> SchemaOptions(const std::string& table_help) {
    return {
        {"proto", 0, "FILE", true, "a .proto file with the table definitions (repeatable)"},
        {"proto-path", 'I', "DIR", true, "search DIR for imports, before the --proto files' own directories"},
        {"descriptor-set", 0, "FILE", false, "a serialized FileDescriptorSet instead of --proto files"},
        {"table", 0, "NAME", false, table_help},
    };
}

std::vector<OptionDef> TextOptions(const std::string& purpose) {
    return {
        {"text", 0, "TEXT", false, purpose + " in protobuf text format"},
        {"text-file", 0, "FILE", false, "read that message from FILE ('-' for standard input)"},
    };
}

OptionDef LogLevelOption() {
    return {"log-level", 0, "LEVEL", false, "error (default), debug or trace: the library's log on stderr"};
}

bool ParseCommandLine(const CommandHelp& help, const std::vector<OptionDef>& defs,
                      const std::vector<std::string>& words, ParsedArgs* args) {
    *args = ParseArgs(defs, words);
    if (!args->Has("help")) return true;
    std::cout << "Usage: corvida-pb " << help.name << " [OPTIONS]\n\n"
              << help.description << "\nOptions:\n"
              << FormatOptions(defs);
    return false;
}

int LogLevelOf(const ParsedArgs& args) {
    return ParseLogLevel(args.Has("log-level") ? args.Get("log-level") : "error");
}

void CheckSchemaArgs(const ParsedArgs& args) {
    RefuseBoth(args, "proto", "descriptor-set");
    if (args.Has("descriptor-set") && args.Has("proto-path")) {
        throw UsageError("-I/--proto-path applies to --proto files only");
    }
    if (!args.Has("proto") && !args.Has("descriptor-set")) {
        throw UsageError("give the table definitions with --proto FILE or --descriptor-set FILE");
    }
}

void CheckTextArgs(const ParsedArgs& args) { RefuseBoth(args, "text", "text-file"); }

std::unique_ptr<Schema> LoadSchema(const ParsedArgs& args) {
    if (args.Has("descriptor-set")) return Schema::FromDescriptorSet(args.Get("descriptor-set"));
    return Schema::FromProtoFiles(args.GetAll("proto"), args.GetAll("proto-path"));
}

std::unique_ptr<google::protobuf::Message> MessageFromArgs(const ParsedArgs& args, Schema* schema,
                                                           const google::protobuf::Descriptor* table) {
    std::unique_ptr<google::protobuf::Message> msg = schema->NewMessage(table);
    if (args.Has("text")) {
        ParseMessageText(args.Get("text"), "--text", msg.get());
    } else if (args.Has("text-file")) {
        const std::string path = args.Get("text-file");
        ParseMessageText(ReadFile(path), DisplayName(path), msg.get());
    }
    return msg;
}

}  // namespace corvida_pb
