// The command line of corvida-pb, parsed by CLI11.
//
// Every subcommand is a Command: it declares its options on its own CLI11
// app when constructed and does its work in Run() after the command line has
// been parsed. The options that several subcommands share (table
// definitions, message text, output format, log level) are declared here, so
// that they read and behave the same everywhere: "--opt value" and
// "--opt=value", protoc's spellings as aliases, "-" for standard input or
// output wherever a file is read or written.
//
// RunCommandLine() parses argv, runs the chosen subcommand and turns every
// error into the exit status of status.h, with the message on standard
// error.
#ifndef CORVIDA_PB_CLI_H_
#define CORVIDA_PB_CLI_H_

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "corvida-pb/schema_loader.h"

namespace corvida_pb {

class Command {
public:
    virtual ~Command() = default;

    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    const std::string& name() const { return m_name; }
    const std::string& summary() const { return m_summary; }
    CLI::App* app() const { return m_app; }
    // The groups of options of which exactly one must be given.
    const std::vector<std::vector<CLI::Option*>>& one_of() const { return m_one_of; }
    // The options that read a file.
    const std::vector<CLI::Option*>& readers() const { return m_readers; }

    // Does the work once the command line is parsed; returns the exit
    // status. Throws UsageError, Failure or NegativeAnswer.
    virtual int Run() = 0;

protected:
    // Declares the subcommand name of parent. description is the help text:
    // paragraphs, each line ending in "\n".
    Command(CLI::App* parent, const std::string& name, const std::string& summary, const std::string& description);

    // --proto FILE... (-I/--proto-path/--proto_path DIR...) or
    // --descriptor-set/--descriptor_set_in FILE..., and --table NAME. -I and
    // --descriptor-set also take protoc's lists separated by ':'. With
    // one_required, exactly one of --proto and --descriptor-set must be given.
    void AddSchemaOptions(const std::string& table_help, bool table_required = true, bool one_required = true);
    CLI::Option* proto_option() const { return m_proto_option; }
    CLI::Option* include_option() const { return m_include_option; }
    CLI::Option* descriptor_set_option() const { return m_descriptor_set_option; }
    CLI::Option* text_option() const { return m_text_option; }
    CLI::Option* text_file_option() const { return m_text_file_option; }
    // --text TEXT or --text-file FILE.
    void AddTextOptions(const std::string& purpose);
    // --format text|json.
    void AddFormatOption();
    // --log-level error|debug|trace.
    void AddLogLevelOption();

    // Declares that exactly one of options must be given (shown in the usage
    // line as "(a | b)"); options must already exclude each other.
    void RequireOneOf(const std::vector<CLI::Option*>& options);
    // Declares that options may not be given together.
    static void Exclusive(const std::vector<CLI::Option*>& options);
    // Declares that option names a file to read, where "-" is standard
    // input: at most one such option may read it.
    void ReadsFile(CLI::Option* option) { m_readers.push_back(option); }

    // After parsing.
    bool Given(const CLI::Option* option) const { return option != nullptr && option->count() > 0; }
    // Throws UsageError when --format json is given together with output
    // "-" of option, which fills standard output with what (binary data):
    // the JSON report would have nowhere to go.
    void RefuseJsonBeside(const CLI::Option* option, const std::string& output, const std::string& what) const;
    bool has_schema_options() const { return Given(m_proto_option) || Given(m_descriptor_set_option); }
    bool json() const { return m_format == "json"; }
    int log_priority() const;
    // --table: a short, package-qualified or full name ("" when absent).
    std::string table_name() const;
    // Loads --proto or --descriptor-set, warning about -I directories that
    // do not exist.
    std::unique_ptr<Schema> LoadSchema() const;
    // The table named by --table in schema.
    const google::protobuf::Descriptor* FindTable(const Schema& schema) const;
    // A message of table from --text or --text-file, or an empty one.
    std::unique_ptr<google::protobuf::Message> MessageFromArgs(Schema* schema,
                                                               const google::protobuf::Descriptor* table) const;

    // The schema, the table of --table in it and the message of --text or
    // --text-file. Members are destroyed in reverse order: the message
    // before the schema that made it.
    struct TableMessage {
        std::unique_ptr<Schema> schema;
        const google::protobuf::Descriptor* table = nullptr;
        std::unique_ptr<google::protobuf::Message> msg;
    };
    TableMessage LoadTableMessage() const;
    // True when --text or --text-file is given.
    bool has_text() const { return Given(m_text_option) || Given(m_text_file_option); }
    // Where --text-file reads from ("" when absent).
    const std::string& text_file() const { return m_text_file; }

private:
    std::string m_name;
    std::string m_summary;
    CLI::App* m_app;

    std::vector<std::string> m_protos;
    std::vector<std::string> m_include_dirs;
    std::vector<std::string> m_descriptor_sets;
    std::string m_table;
    std::string m_text;
    std::string m_text_file;
    std::string m_log_level = "error";
    std::string m_format = "text";

    CLI::Option* m_proto_option = nullptr;
    CLI::Option* m_include_option = nullptr;
    CLI::Option* m_descriptor_set_option = nullptr;
    CLI::Option* m_text_option = nullptr;
    CLI::Option* m_text_file_option = nullptr;
    std::vector<std::vector<CLI::Option*>> m_one_of;
    std::vector<CLI::Option*> m_readers;
};

// The CLI11 check of a comma-separated list option ("--paths a,b.c"); what
// names an item in messages ("path"). Refuses, as a malformed command line,
// a list without items or with an empty item (two commas in a row, or one at
// either end): that is a mistake, not a request for nothing.
CLI::Validator CommaList(const std::string& what);

// The items of a list that CommaList() accepted, each trimmed of white space.
// (CLI11's delimiter(',') would drop empty items without a word, and its
// conversion of a list of numbers reports a bad item as "not in range
// 0.000000 to 1.79e308".)
std::vector<std::string> SplitCommaList(const std::string& text);

// "corvida-pb store get" for the app of that subcommand.
std::string CommandPath(const CLI::App* app);

// Prints "<command path>: warning: <message>" on standard error.
void PrintWarning(const CLI::App* app, const std::string& message);

// Parses *words (argv without the program name), runs the subcommand and
// returns the exit status; *words is wiped by then, as it may hold key text.
// Prints errors on standard error; never throws.
int RunCommandLine(std::vector<std::string>* words);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_CLI_H_
