// corvida-pb cut and merge: value sets out of a message and back into one.
#include <iostream>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/files.h"
#include "corvida-pb/operations.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

const CommandHelp kCutHelp = {
    "cut",
    "Cuts the fields at --paths out of a message into a value set\n"
    "(FillValueSetWithMsg) and prints one line per record: its tag path (the\n"
    "field numbers along the path), the field names, its length and its bytes in\n"
    "hex, followed by the bytes decoded as protoc --decode_raw shows them. The\n"
    "records follow the byte order of the paths. Key fields are not cut (the key\n"
    "travels apart from the value set) unless --with-keys is given; repeated\n"
    "fields cannot be cut.\n",
};

const CommandHelp kMergeHelp = {
    "merge",
    "Reads a packed value set (as cut --packed writes it) and merges its records\n"
    "into a message (FillMsgFromField): each record replaces the field at its tag\n"
    "path. Prints the message in text format and the tag paths that could not be\n"
    "merged; encrypted string and bytes fields are never decrypted, so their\n"
    "paths are always listed. The message starts empty, or as --text or\n"
    "--text-file give it.\n",
};

}  // namespace

int RunCut(const std::vector<std::string>& words) {
    std::vector<OptionDef> defs = SchemaOptions("the table: its message type, by full or short name");
    for (const OptionDef& def : TextOptions("the message")) defs.push_back(def);
    defs.push_back({"paths", 0, "PATH,PATH...", false, "the fields to cut, as dotted field names (a,b.c)"});
    defs.push_back({"packed", 0, "FILE", false, "also write the packed value set to FILE"});
    defs.push_back({"with-keys", 0, "", false, "cut key fields too, as a server's reply carries them"});
    defs.push_back(LogLevelOption());

    ParsedArgs args;
    if (!ParseCommandLine(kCutHelp, defs, words, &args)) return kExitOk;
    RequireOption(args, "table");
    RequireOption(args, "paths");
    CheckSchemaArgs(args);
    CheckTextArgs(args);
    if (args.Get("packed") == "-") throw UsageError("--packed needs a file name; the report goes to standard output");
    CliLog log(LogLevelOf(args));

    std::unique_ptr<Schema> schema = LoadSchema(args);
    const google::protobuf::Descriptor* table = schema->FindTable(args.Get("table"));
    std::unique_ptr<google::protobuf::Message> msg = MessageFromArgs(args, schema.get(), table);

    std::vector<std::string> path_list;
    PROTOBUF_UTIL::TokenSplit(args.Get("paths"), ",", path_list);
    const std::set<std::string> paths(path_list.begin(), path_list.end());
    const bool with_keys = args.Has("with-keys");
    std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
    const int ret = CutValueSet(msg.get(), paths, with_keys, set.get(), log.category());
    if (ret != 0) throw Failure(ExplainCutResult(ret) + " (result " + std::to_string(ret) + ")");

    PrintValueSet(std::cout, table, *set, log.category());
    const std::vector<std::string> skipped = with_keys ? std::vector<std::string>() : SkippedKeyPaths(*msg, paths);
    if (!skipped.empty()) std::cout << "skipped key fields: " << JoinComma(skipped) << "\n";
    if (args.Has("packed")) {
        const std::string packed = PackValueSet(*set);
        WriteFile(args.Get("packed"), packed);
        std::cout << "packed value set: " << packed.size() << " bytes written to " << args.Get("packed") << "\n";
    }
    return kExitOk;
}

int RunMerge(const std::vector<std::string>& words) {
    std::vector<OptionDef> defs = SchemaOptions("the table: its message type, by full or short name");
    for (const OptionDef& def : TextOptions("the message to merge into")) defs.push_back(def);
    defs.push_back({"packed", 0, "FILE", false, "the packed value set ('-' for standard input)"});
    defs.push_back(LogLevelOption());

    ParsedArgs args;
    if (!ParseCommandLine(kMergeHelp, defs, words, &args)) return kExitOk;
    RequireOption(args, "table");
    RequireOption(args, "packed");
    CheckSchemaArgs(args);
    CheckTextArgs(args);
    if (args.Get("packed") == "-" && args.Get("text-file") == "-") {
        throw UsageError("--packed and --text-file cannot both read standard input");
    }
    CliLog log(LogLevelOf(args));

    std::unique_ptr<Schema> schema = LoadSchema(args);
    const google::protobuf::Descriptor* table = schema->FindTable(args.Get("table"));
    std::unique_ptr<google::protobuf::Message> msg = MessageFromArgs(args, schema.get(), table);

    const std::string packed_path = args.Get("packed");
    std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
    UnpackValueSet(ReadFile(packed_path), DisplayName(packed_path), set.get());
    std::set<std::string> failed;
    size_t records = 0;
    const int ret = MergeValueSet(*set, msg.get(), &failed, &records, log.category());
    if (ret != 0) throw Failure(ExplainMergeResult(ret) + " (result " + std::to_string(ret) + ")");
    PrintMerge(std::cout, *msg, records, failed);
    return kExitOk;
}

}  // namespace corvida_pb
