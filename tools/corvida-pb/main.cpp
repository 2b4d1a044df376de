// corvida-pb: the protobuf bridge from the command line.
//
// Exit status: 0 on success, 1 when an input cannot be used or an operation
// fails, 2 for a malformed command line.
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "corvida-pb/commands.h"
#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

void PrintUsage(std::ostream& out) {
    out << "corvida-pb: keys, value sets and schemas of corvida tables from the command line.\n\n"
           "Usage: corvida-pb COMMAND [OPTIONS]\n\n"
           "Commands:\n";
    for (const Command& command : AllCommands()) {
        out << "  " << command.name << std::string(10 - std::string(command.name).size(), ' ') << command.summary
            << "\n";
    }
    out << "\nRun 'corvida-pb COMMAND --help' for the options of a command.\n";
}

int Run(const std::vector<std::string>& words) {
    if (words.empty()) {
        PrintUsage(std::cerr);
        return kExitUsage;
    }
    const std::string& name = words[0];
    if (name == "-h" || name == "--help" || name == "help") {
        PrintUsage(std::cout);
        return kExitOk;
    }
    for (const Command& command : AllCommands()) {
        if (name != command.name) continue;
        const std::string prefix = "corvida-pb " + name + ": ";
        try {
            return command.run(std::vector<std::string>(words.begin() + 1, words.end()));
        } catch (const UsageError& e) {
            std::cerr << prefix << e.what() << "\nTry 'corvida-pb " << name << " --help'.\n";
            return kExitUsage;
        } catch (const Failure& e) {
            std::cerr << prefix << "error: " << e.what() << "\n";
            return kExitFailed;
        } catch (const std::bad_alloc&) {
            std::cerr << prefix << "error: out of memory\n";
            return kExitFailed;
        } catch (const std::exception& e) {
            std::cerr << prefix << "error: " << e.what() << "\n";
            return kExitFailed;
        }
    }
    std::cerr << "corvida-pb: unknown command '" << name << "'\nTry 'corvida-pb --help'.\n";
    return kExitUsage;
}

}  // namespace
}  // namespace corvida_pb

int main(int argc, char** argv) {
    // Flushed at once, so that reports and log lines keep their order in a
    // shared pipe.
    std::cout << std::unitbuf;
    const std::vector<std::string> words(argv + 1, argv + argc);
    const int status = corvida_pb::Run(words);
    std::cout.flush();
    return std::cout.fail() ? corvida_pb::kExitFailed : status;
}
