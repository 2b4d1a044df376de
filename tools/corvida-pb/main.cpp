// corvida-pb: the protobuf bridge from the command line (docs/cli.md).
#include <iostream>
#include <string>
#include <vector>

#include "corvida-pb/cli.h"
#include "corvida-pb/status.h"

int main(int argc, char** argv) {
    // Flushed at once, so that reports and log lines keep their order in a
    // shared pipe.
    std::cout << std::unitbuf;
    std::vector<std::string> words(argv + 1, argv + argc);
    const int status = corvida_pb::RunCommandLine(&words);  // wipes words: they may hold key text
    std::cout.flush();
    return std::cout.fail() ? corvida_pb::kExitFailed : status;
}
