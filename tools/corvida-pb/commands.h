// The subcommands of corvida-pb and what they share.
//
// Each Run* function takes the words after the subcommand's name, prints its
// result on standard output and returns the exit status. It throws
// UsageError for a malformed command line and Failure when an input cannot be
// used or the operation fails.
#ifndef CORVIDA_PB_COMMANDS_H_
#define CORVIDA_PB_COMMANDS_H_

#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "corvida-pb/args.h"
#include "corvida-pb/schema_loader.h"

namespace corvida_pb {

struct Command {
    const char* name;
    const char* summary;  // one line for the command list
    int (*run)(const std::vector<std::string>& words);
};

// Every subcommand, in the order of the help text.
const std::vector<Command>& AllCommands();

int RunKey(const std::vector<std::string>& words);
int RunCut(const std::vector<std::string>& words);
int RunMerge(const std::vector<std::string>& words);
int RunSchema(const std::vector<std::string>& words);
int RunCompare(const std::vector<std::string>& words);
int RunBlob(const std::vector<std::string>& words);
int RunDemo(const std::vector<std::string>& words);

// ---------------------------------------------------------------------------
// Shared by the subcommands.
// ---------------------------------------------------------------------------

// The help of one subcommand: "Usage: corvida-pb <name> [OPTIONS]", the
// description and the option list.
struct CommandHelp {
    const char* name;
    const char* description;  // paragraphs, each line ending in "\n"
};

// Options that load table definitions: --proto, -I/--proto-path,
// --descriptor-set and --table.
std::vector<OptionDef> SchemaOptions(const std::string& table_help);

// --text and --text-file.
std::vector<OptionDef> TextOptions(const std::string& purpose);

// --log-level.
OptionDef LogLevelOption();

// Parses words against defs. Returns false after printing the help when
// --help is given.
bool ParseCommandLine(const CommandHelp& help, const std::vector<OptionDef>& defs,
                      const std::vector<std::string>& words, ParsedArgs* args);

// The priority of --log-level (error when absent). Throws UsageError.
int LogLevelOf(const ParsedArgs& args);

// Throws UsageError unless exactly one of --proto and --descriptor-set is
// given (-I only with --proto).
void CheckSchemaArgs(const ParsedArgs& args);

// Throws UsageError when both --text and --text-file are given.
void CheckTextArgs(const ParsedArgs& args);

// Loads the files of --proto / -I or --descriptor-set.
std::unique_ptr<Schema> LoadSchema(const ParsedArgs& args);

// A message of table from --text or --text-file, or an empty one.
std::unique_ptr<google::protobuf::Message> MessageFromArgs(const ParsedArgs& args, Schema* schema,
                                                           const google::protobuf::Descriptor* table);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_COMMANDS_H_
