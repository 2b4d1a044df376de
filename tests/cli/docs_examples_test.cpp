// Every example session of README.md and docs/cli.md, run and compared.
//
// An example is a line "$ COMMAND" inside a fenced code block, continued
// while a line ends in "\" or a single quote is open, followed by what the
// command prints (standard output and standard error together) and, when it
// fails, a line "[exit N]". The examples of one document run in order, in
// the source root, with corvida-pb on the PATH and "/tmp/" standing for a
// private directory. In the expected output a line that ends in "…" matches
// any line that starts with the text before it (for random keys).
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "subprocess.h"

namespace {

struct Example {
    int line = 0;  // of the "$ " line
    std::string command;
    std::vector<std::string> output;
    int status = 0;
};

constexpr char kEllipsis[] = "\xe2\x80\xa6";

std::vector<std::string> Lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool StartsWith(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

bool EndsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// True while command needs another line: a trailing "\" or "|", or an open
// quote.
bool Continues(const std::string& command) {
    if (EndsWith(command, "\\") || EndsWith(command, "|")) return true;
    bool quoted = false;
    for (char c : command) {
        if (c == '\'') quoted = !quoted;
    }
    return quoted;
}

std::vector<Example> Examples(const std::vector<std::string>& lines) {
    std::vector<Example> examples;
    bool in_block = false;
    bool in_example = false;  // the lines that follow belong to examples.back()
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (StartsWith(line, "```")) {
            in_block = !in_block;
            in_example = false;
        } else if (in_block && StartsWith(line, "$ ")) {
            Example example;
            example.line = static_cast<int>(i + 1);
            example.command = line.substr(2);
            while (Continues(example.command) && i + 1 < lines.size()) example.command += "\n" + lines[++i];
            examples.push_back(example);
            in_example = true;
        } else if (in_example && StartsWith(line, "[exit ")) {
            examples.back().status = std::stoi(line.substr(6));
        } else if (in_example) {
            examples.back().output.push_back(line);
        }
    }
    // The blank line between two examples belongs to neither.
    for (Example& example : examples) {
        while (!example.output.empty() && example.output.back().empty()) example.output.pop_back();
    }
    return examples;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

bool LineMatches(const std::string& expected, const std::string& actual) {
    if (!EndsWith(expected, kEllipsis)) return expected == actual;
    return StartsWith(actual, expected.substr(0, expected.size() - sizeof(kEllipsis) + 1));
}

class DocumentExamples : public ::testing::TestWithParam<const char*> {};

TEST_P(DocumentExamples, RunAsShown) {
    const std::string document = GetParam();
    const std::vector<Example> examples = Examples(Lines(std::string(CORVIDA_PB_SOURCE_DIR) + "/" + document));
    ASSERT_FALSE(examples.empty()) << document;

    char dir[] = "/tmp/corvida-pb-docs-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string tmp = dir;
    const std::string bin = tmp + "/bin";
    ASSERT_EQ(::mkdir(bin.c_str(), 0700), 0);
    ASSERT_EQ(::symlink(CORVIDA_PB_EXE, (bin + "/corvida-pb").c_str()), 0);

    corvida_test::ProcessOptions options;
    options.directory = CORVIDA_PB_SOURCE_DIR;
    options.set_env["PATH"] = bin + ":/usr/bin:/bin";
    options.unset_env.push_back("CORVIDA_PB_CIPHERS");
    for (const Example& example : examples) {
        const std::string command = Replace(example.command, "/tmp/", tmp + "/");
        // Standard error joins standard output first, so that the command's
        // own redirections still apply.
        const corvida_test::ProcessResult r =
            corvida_test::RunProcess({"/bin/sh", "-c", "exec 2>&1\n" + command}, options);
        std::vector<std::string> actual;
        std::istringstream out(Replace(r.out, tmp + "/", "/tmp/"));
        for (std::string line; std::getline(out, line);) actual.push_back(line);
        const std::string where = document + ":" + std::to_string(example.line);
        EXPECT_EQ(r.status, example.status) << where << "\n" << r.out;
        bool same = actual.size() == example.output.size();
        for (size_t i = 0; same && i < actual.size(); ++i) same = LineMatches(example.output[i], actual[i]);
        std::string expected_text;
        for (const std::string& line : example.output) expected_text += line + "\n";
        EXPECT_TRUE(same) << where << ": the output differs\n--- shown\n" << expected_text << "--- actual\n"
                          << Replace(r.out, tmp + "/", "/tmp/");
    }
    corvida_test::RunProcess({"/bin/rm", "-rf", tmp});
}

INSTANTIATE_TEST_SUITE_P(Docs, DocumentExamples, ::testing::Values("README.md", "docs/cli.md"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param) == "README.md" ? "Readme" : "CliGuide";
                         });

}  // namespace
