// The list of corvida-pb's subcommands.
#include "corvida-pb/commands.h"

namespace corvida_pb {

std::vector<std::unique_ptr<Command>> MakeCommands(CLI::App* root) {
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(MakeKeyCommand(root));
    commands.push_back(MakeCutCommand(root));
    commands.push_back(MakeMergeCommand(root));
    commands.push_back(MakeSchemaCommand(root));
    commands.push_back(MakeCompareCommand(root));
    commands.push_back(MakeBlobCommand(root));
    for (std::unique_ptr<Command>& command : MakeCipherCommands(root)) commands.push_back(std::move(command));
#if CORVIDA_PB_WITH_STORE
    for (std::unique_ptr<Command>& command : MakeStoreCommands(root)) commands.push_back(std::move(command));
#endif
    commands.push_back(MakeDemoCommand(root));
    return commands;
}

}  // namespace corvida_pb
