// The subcommands of corvida-pb.
//
// Each Make*Command declares one subcommand (its options, help and work) as
// a child of parent. MakeCommands declares them all, in the order of the
// help text.
#ifndef CORVIDA_PB_COMMANDS_H_
#define CORVIDA_PB_COMMANDS_H_

#include <memory>
#include <vector>

#include "corvida-pb/cli.h"

namespace corvida_pb {

std::vector<std::unique_ptr<Command>> MakeCommands(CLI::App* root);

std::unique_ptr<Command> MakeKeyCommand(CLI::App* parent);
std::unique_ptr<Command> MakeCutCommand(CLI::App* parent);
std::unique_ptr<Command> MakeMergeCommand(CLI::App* parent);
std::unique_ptr<Command> MakeSchemaCommand(CLI::App* parent);
std::unique_ptr<Command> MakeCompareCommand(CLI::App* parent);
std::unique_ptr<Command> MakeBlobCommand(CLI::App* parent);
std::unique_ptr<Command> MakeDemoCommand(CLI::App* parent);
// "cipher new" and "cipher md5", under the group app "cipher".
std::vector<std::unique_ptr<Command>> MakeCipherCommands(CLI::App* parent);
#if CORVIDA_PB_WITH_STORE
// "store create", "store put", ... "store scan", under the group app "store".
std::vector<std::unique_ptr<Command>> MakeStoreCommands(CLI::App* parent);
#endif

}  // namespace corvida_pb

#endif  // CORVIDA_PB_COMMANDS_H_
