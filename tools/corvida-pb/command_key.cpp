// corvida-pb key: the primary key of a message, or the key of chosen fields.
#include <iostream>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/operations.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

const CommandHelp kHelp = {
    "key",
    "Prints the primary key of a message (ExtractMsgKey) or, with --fields, the\n"
    "key of the given field numbers in the given order (ExtractFieldKey): its\n"
    "length, its bytes in hex and its fields tag by tag as protoc --decode_raw\n"
    "shows them. Key fields marked corvida_crypto are encrypted by the table's\n"
    "cipher suite, which --cipher configures.\n",
};

std::vector<int> ParseFieldNumbers(const std::string& text) {
    std::vector<std::string> tokens;
    PROTOBUF_UTIL::TokenSplit(text, ",", tokens);
    if (tokens.empty()) throw UsageError("--fields needs at least one field number");
    std::vector<int> numbers;
    for (const std::string& token : tokens) {
        int number = 0;
        if (!ParseFieldNumber(token, &number)) throw UsageError("--fields: \"" + token + "\" is not a field number");
        numbers.push_back(number);
    }
    return numbers;
}

std::string FieldKeyName(const std::vector<int>& numbers) {
    std::vector<std::string> items;
    for (int number : numbers) items.push_back(std::to_string(number));
    return "field key (" + JoinComma(items) + ")";
}

}  // namespace

int RunKey(const std::vector<std::string>& words) {
    std::vector<OptionDef> defs = SchemaOptions("the table: its message type, by full or short name");
    for (const OptionDef& def : TextOptions("the message")) defs.push_back(def);
    defs.push_back({"fields", 0, "N,N...", false, "the key of these field numbers, in this order"});
    defs.push_back({"cipher", 0, "NAME=HEXKEY", true, "the AES-SIV suite NAME with a key of 64 or 128 hex digits"});
    defs.push_back({"check", 0, "", false, "fail when a primary-key field adds no bytes (is not set)"});
    defs.push_back(LogLevelOption());

    ParsedArgs args;
    if (!ParseCommandLine(kHelp, defs, words, &args)) return kExitOk;
    RequireOption(args, "table");
    CheckSchemaArgs(args);
    CheckTextArgs(args);
    const bool field_key = args.Has("fields");
    if (field_key && args.Has("check")) {
        throw UsageError("--check applies to the primary key; a field key always checks its fields");
    }
    const std::vector<int> numbers = field_key ? ParseFieldNumbers(args.Get("fields")) : std::vector<int>();
    CORVIDA_KV::CorvidaKVApi api;
    for (const std::string& cipher : args.GetAll("cipher")) {
        const size_t eq = cipher.find('=');
        if (eq == std::string::npos || eq == 0) throw UsageError("--cipher takes NAME=HEXKEY, not \"" + cipher + "\"");
        AddAesSivSuite(cipher.substr(0, eq), cipher.substr(eq + 1), &api);
    }
    CliLog log(LogLevelOf(args));

    std::unique_ptr<Schema> schema = LoadSchema(args);
    const google::protobuf::Descriptor* table = schema->FindTable(args.Get("table"));
    std::unique_ptr<google::protobuf::Message> msg = MessageFromArgs(args, schema.get(), table);

    std::string key;
    const int ret = ComputeKey(&api, *msg, field_key ? &numbers : nullptr, args.Has("check"), log.category(), &key);
    if (ret != 0) {
        throw Failure(ExplainKeyResult(ret, table, field_key, &api, key.size()) + " (result " + std::to_string(ret) +
                      ")");
    }
    PrintKey(std::cout, table, field_key ? FieldKeyName(numbers) : "primary key", key);
    return kExitOk;
}

}  // namespace corvida_pb
