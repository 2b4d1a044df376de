#include "corvida-pb/cli.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <map>
#include <new>
#include <set>

#include "corvida-pb/ciphers.h"
#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/files.h"
#include "corvida-pb/secrets.h"
#include "corvida-pb/status.h"
#include "corvida-pb/version.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_pb {

// ---------------------------------------------------------------------------
// Help texts.
// ---------------------------------------------------------------------------

namespace {

constexpr char kProgram[] = "corvida-pb";
constexpr size_t kOptionColumn = 32;

// "FILE": the name of an option's value ("" for a flag), without the
// choices CLI11 adds to it (the help text lists them).
std::string ValueName(const CLI::Option* option) {
    if (option->get_type_size() == 0) return "";
    const std::string name = option->get_type_name();
    return name.substr(0, name.find(':'));
}

// "--proto FILE...": the first long name, the value's name, and "..." for an
// option that may be given more than once. A positional argument is its
// value's name alone ("FILE").
std::string OptionUsage(const CLI::Option* option) {
    std::string text = !option->nonpositional()         ? ValueName(option)
                       : option->get_lnames().empty() ? "-" + option->get_snames().front()
                                                      : "--" + option->get_lnames().front();
    if (option->nonpositional() && !ValueName(option).empty()) text += " " + ValueName(option);
    if (option->get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll) text += "...";
    return text;
}

}  // namespace

// Renders help in the tool's layout: the usage line first, with every
// required option spelled out, then the description, the subcommands and the
// options.
class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() { column_width(kOptionColumn); }

    void SetOneOf(const CLI::App* app, const std::vector<std::vector<CLI::Option*>>* groups) { m_one_of[app] = groups; }

    std::string make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const override {
        std::string out = make_usage(app, CommandPath(app));
        std::string description = app->get_description();
        if (!description.empty() && description.back() != '\n') description += "\n";
        if (!description.empty()) out += "\n" + description;
        out += make_subcommands(app, CLI::AppFormatMode::Normal);
        out += make_groups(app, CLI::AppFormatMode::Normal);
        if (app->get_parent() == nullptr) out += "\n" + app->get_footer() + "\n";
        return out;
    }

    // The options in the order they are declared: required ones spelled
    // out, each one-of group as "(a | b)" where its first option stands.
    std::string make_usage(const CLI::App* app, std::string name) const override {
        std::string out = "Usage: " + name;
        if (!app->get_subcommands({}).empty()) out += " COMMAND";
        auto it = m_one_of.find(app);
        const std::vector<std::vector<CLI::Option*>> no_groups;
        const std::vector<std::vector<CLI::Option*>>& groups = it != m_one_of.end() ? *it->second : no_groups;
        std::set<const CLI::Option*> shown;
        for (const CLI::Option* option : app->get_options({})) {
            if (shown.count(option) != 0) continue;
            for (const std::vector<CLI::Option*>& group : groups) {
                if (std::find(group.begin(), group.end(), option) == group.end()) continue;
                std::string choice;
                for (const CLI::Option* member : group) {
                    choice += (choice.empty() ? "" : " | ") + OptionUsage(member);
                    shown.insert(member);
                }
                out += " (" + choice + ")";
            }
            if (option->get_required() && shown.insert(option).second) out += " " + OptionUsage(option);
        }
        out += " [OPTIONS]\n";
        return out;
    }

    std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode) const override {
        const std::vector<const CLI::App*> subcommands = app->get_subcommands({});
        if (subcommands.empty()) return "";
        std::string out = "\nCommands:\n";
        for (const CLI::App* sub : subcommands) {
            std::string name = "  " + sub->get_name();
            name += std::string(name.size() < 12 ? 12 - name.size() : 1, ' ');
            out += name + sub->get_description().substr(0, sub->get_description().find('\n')) + "\n";
        }
        return out;
    }

    // "-I, --proto-path" or "    --proto": the short name and the first long
    // name; further long names are listed after the description.
    std::string make_option_name(const CLI::Option* option, bool) const override {
        if (!option->nonpositional()) return "    " + ValueName(option);
        const std::string short_name = option->get_snames().empty() ? "    " : "-" + option->get_snames()[0] + ", ";
        return option->get_lnames().empty() ? "-" + option->get_snames()[0] : short_name + "--" + option->get_lnames()[0];
    }

    std::string make_option_desc(const CLI::Option* option) const override {
        std::string aliases;
        for (size_t i = 1; i < option->get_lnames().size(); ++i) {
            aliases += (aliases.empty() ? " (also --" : ", --") + option->get_lnames()[i];
        }
        return option->get_description() + (aliases.empty() ? "" : aliases + ")");
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        std::string out;
        if (option->nonpositional() && !ValueName(option).empty()) out += " " + ValueName(option);
        if (option->get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll) out += "...";
        if (option->get_required()) out += " (required)";
        return out;
    }

private:
    std::map<const CLI::App*, const std::vector<std::vector<CLI::Option*>>*> m_one_of;
};

std::string CommandPath(const CLI::App* app) {
    std::string path;
    for (const CLI::App* a = app; a != nullptr && a->get_parent() != nullptr; a = a->get_parent()) {
        path = a->get_name() + (path.empty() ? "" : " " + path);
    }
    return path.empty() ? kProgram : std::string(kProgram) + " " + path;
}

std::vector<std::string> SplitCommaList(const std::string& text) {
    std::vector<std::string> items;
    for (size_t start = 0;;) {
        const size_t comma = std::min(text.find(',', start), text.size());
        items.push_back(text.substr(start, comma - start));
        PROTOBUF_UTIL::trim(items.back());
        if (comma == text.size()) return items;
        start = comma + 1;
    }
}

CLI::Validator CommaList(const std::string& what) {
    return CLI::Validator(
        [what](std::string& text) -> std::string {
            const std::vector<std::string> items = SplitCommaList(text);
            if (items.size() == 1 && items[0].empty()) return "needs at least one " + what;
            for (const std::string& item : items) {
                if (item.empty()) {
                    return "an empty " + what + " in \"" + text + "\" (two commas in a row, or one at either end)";
                }
            }
            return "";
        },
        "");
}

void PrintWarning(const CLI::App* app, const std::string& message) {
    std::cerr << RedactSecrets(CommandPath(app) + ": warning: " + message) << "\n";
}

// ---------------------------------------------------------------------------
// Command.
// ---------------------------------------------------------------------------

Command::Command(CLI::App* parent, const std::string& name, const std::string& summary,
                 const std::string& description)
    : m_name(name), m_summary(summary), m_app(parent->add_subcommand(name, summary + "\n\n" + description)) {
    m_app->set_help_flag("-h,--help", "show this help and exit");
}

void Command::AddSchemaOptions(const std::string& table_help, bool table_required, bool one_required) {
    m_proto_option = m_app->add_option("--proto", m_protos, "a .proto file with the table definitions")
                         ->type_name("FILE")
                         ->expected(1)
                         ->allow_extra_args(false)
                         ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    // As protoc takes them, -I and --descriptor_set_in also take lists
    // separated by ':' ("-I a:b").
    m_include_option = m_app
                           ->add_option("-I,--proto-path,--proto_path", m_include_dirs,
                                        "search DIR for the .proto files and their imports (default: the current "
                                        "directory); DIR:DIR... as protoc takes it")
                           ->type_name("DIR")
                           ->expected(1)
                           ->allow_extra_args(false)
                           ->delimiter(':')
                           ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    m_descriptor_set_option =
        m_app
            ->add_option("--descriptor-set,--descriptor_set_in", m_descriptor_sets,
                         "a serialized FileDescriptorSet instead of --proto files ('-' for standard input); "
                         "FILE:FILE... as protoc takes it")
            ->type_name("FILE")
            ->expected(1)
            ->allow_extra_args(false)
            ->delimiter(':')
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    ReadsFile(m_proto_option);
    ReadsFile(m_descriptor_set_option);
    m_descriptor_set_option->excludes(m_proto_option);
    m_descriptor_set_option->excludes(m_include_option);
    CLI::Option* table = m_app->add_option("--table", m_table, table_help)->type_name("NAME");
    if (table_required) table->required();
    if (one_required) RequireOneOf({m_proto_option, m_descriptor_set_option});
}

void Command::AddTextOptions(const std::string& purpose) {
    m_text_option = m_app->add_option("--text", m_text, purpose + " in protobuf text format")->type_name("TEXT");
    m_text_file_option =
        m_app->add_option("--text-file", m_text_file, "read that message from FILE ('-' for standard input)")
            ->type_name("FILE");
    Exclusive({m_text_option, m_text_file_option});
    ReadsFile(m_text_file_option);
}

void Command::AddFormatOption() {
    m_app->add_option("--format", m_format, "text (default) or json: one JSON object per result")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"text", "json"}));
}

void Command::AddLogLevelOption() {
    m_app
        ->add_option("--log-level", m_log_level, "error (default), debug or trace: the library's log on stderr")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"error", "debug", "trace"}));
}

void Command::RequireOneOf(const std::vector<CLI::Option*>& options) { m_one_of.push_back(options); }

void Command::Exclusive(const std::vector<CLI::Option*>& options) {
    for (size_t i = 0; i < options.size(); ++i) {
        for (size_t j = i + 1; j < options.size(); ++j) options[i]->excludes(options[j]);
    }
}

int Command::log_priority() const { return ParseLogLevel(m_log_level); }

void Command::RefuseJsonBeside(const CLI::Option* option, const std::string& output, const std::string& what) const {
    if (!json() || !Given(option) || output != "-") return;
    throw UsageError("--format json reports on standard output, which " + option->get_name() + " - fills with " +
                     what + "; write " + what + " to a file");
}

std::unique_ptr<Schema> Command::LoadSchema() const {
    if (Given(m_descriptor_set_option)) return Schema::FromDescriptorSets(m_descriptor_sets);
    // As protoc does, a directory that is not there is worth a warning but
    // no error: the files may well be found in the other directories.
    for (const std::string& dir : m_include_dirs) {
        struct stat st;
        if (::stat(dir.c_str(), &st) != 0) {
            PrintWarning(m_app, "-I " + dir + ": directory does not exist");
        } else if (!S_ISDIR(st.st_mode)) {
            PrintWarning(m_app, "-I " + dir + ": not a directory");
        }
    }
    return Schema::FromProtoFiles(m_protos, m_include_dirs);
}

std::string Command::table_name() const {
    // ".pkg.Msg", as protobuf writes a fully qualified name, is "pkg.Msg".
    return !m_table.empty() && m_table[0] == '.' ? m_table.substr(1) : m_table;
}

const google::protobuf::Descriptor* Command::FindTable(const Schema& schema) const {
    return schema.FindTable(table_name());
}

std::unique_ptr<google::protobuf::Message> Command::MessageFromArgs(Schema* schema,
                                                                    const google::protobuf::Descriptor* table) const {
    std::unique_ptr<google::protobuf::Message> msg = schema->NewMessage(table);
    if (Given(m_text_option)) {
        ParseMessageText(m_text, "--text", msg.get());
    } else if (Given(m_text_file_option)) {
        ParseMessageText(ReadFile(m_text_file), DisplayName(m_text_file), msg.get());
    }
    return msg;
}

Command::TableMessage Command::LoadTableMessage() const {
    TableMessage loaded;
    loaded.schema = LoadSchema();
    loaded.table = FindTable(*loaded.schema);
    loaded.msg = MessageFromArgs(loaded.schema.get(), loaded.table);
    return loaded;
}

// ---------------------------------------------------------------------------
// Parsing, dispatch and errors.
// ---------------------------------------------------------------------------

namespace {

// The deepest subcommand the command line selected (the root when none).
CLI::App* SelectedApp(CLI::App* root) {
    CLI::App* app = root;
    for (;;) {
        const std::vector<CLI::App*> selected = app->get_subcommands();
        if (selected.empty()) return app;
        app = selected.front();
    }
}

// Throws UsageError unless exactly one option of each of the command's
// one-of groups is given (CLI11's excludes() already refuses two). CLI11's
// own way, an option group with require_option(1), moves the options out of
// the command into the group: the help would list them apart from the
// command's other options and out of their order, and the usage line could
// no longer show "(a | b)" where they stand.
void CheckOneOf(const Command& command) {
    for (const std::vector<CLI::Option*>& group : command.one_of()) {
        std::string names;
        bool given = false;
        for (const CLI::Option* option : group) {
            given = given || option->count() > 0;
            names += (names.empty() ? "" : " or ") + OptionUsage(option);
        }
        if (!given) throw UsageError("give " + names);
    }
}

// Throws UsageError when more than one option of the command reads standard
// input.
void CheckOneStandardInput(const Command& command) {
    std::vector<std::string> readers;
    for (const CLI::Option* option : command.readers()) {
        for (const std::string& value : option->results()) {
            // A positional argument is named by its value's name ("FILE").
            if (value == "-") readers.push_back(option->nonpositional() ? "--" + option->get_lnames().front() : option->get_name());
        }
    }
    if (readers.size() > 1) {
        std::string names;
        for (size_t i = 0; i < readers.size(); ++i) {
            names += (i == 0 ? "" : i + 1 == readers.size() ? " and " : ", ") + readers[i];
        }
        throw UsageError("only one option can read standard input ('-'), not " + names);
    }
}

int PrintUsageError(const CLI::App* app, const std::string& message) {
    const std::string path = CommandPath(app);
    std::cerr << RedactSecrets(path + ": " + message) << "\nTry '" << path << " --help'.\n";
    return kExitUsage;
}

int Report(const CLI::App* app, const std::string& prefix, const std::string& message, int status) {
    std::cerr << RedactSecrets(CommandPath(app) + ": " + prefix + message) << "\n";
    return status;
}

class CommandLine {
public:
    CommandLine() : m_formatter(std::make_shared<HelpFormatter>()) {
        m_root.formatter(m_formatter);
        m_root.description(
            "corvida-pb: keys, value sets, schemas and a local table store of corvida tables from the command "
            "line.\n");
        m_root.footer("Run 'corvida-pb COMMAND --help' or 'corvida-pb help COMMAND' for the options of a command.");
        m_root.set_help_flag("-h,--help", "show this help and exit");
        m_root.set_version_flag("--version", std::string(kProgram) + " " + kCorvidaPbVersion,
                                "print the version and exit");
        m_commands = MakeCommands(&m_root);
        for (const std::unique_ptr<Command>& command : m_commands) {
            m_formatter->SetOneOf(command->app(), &command->one_of());
        }
        m_help = m_root.add_subcommand("help", "show the help of a command: 'help key' equals 'key --help'");
        m_help->set_help_flag("-h,--help", "show this help and exit");
    }

    int Run(const std::vector<std::string>& words) {
        // "help CMD..." names a command rather than running it.
        if (!words.empty() && words[0] == m_help->get_name()) {
            return RunHelp(std::vector<std::string>(words.begin() + 1, words.end()));
        }
        std::vector<std::string> args(words.rbegin(), words.rend());  // CLI11 takes them in reverse
        const StringsWiper wiper(&args);
        try {
            m_root.parse(args);
        } catch (const CLI::CallForHelp&) {
            std::cout << SelectedApp(&m_root)->help();
            return kExitOk;
        } catch (const CLI::CallForVersion& e) {
            std::cout << e.what() << "\n";
            return kExitOk;
        } catch (const CLI::ParseError& e) {
            return PrintUsageError(SelectedApp(&m_root), e.what());
        }
        CLI::App* selected = SelectedApp(&m_root);
        for (const std::unique_ptr<Command>& command : m_commands) {
            if (command->app() == selected) return RunCommand(command.get());
        }
        if (selected == &m_root) {
            std::cerr << m_root.help();
            return kExitUsage;
        }
        std::cerr << selected->help();  // a command of commands, given without one
        return kExitUsage;
    }

private:
    int RunHelp(const std::vector<std::string>& names) {
        CLI::App* app = &m_root;
        for (const std::string& word : names) {
            if (word == "-h" || word == "--help") break;
            CLI::App* next = nullptr;
            for (CLI::App* sub : app->get_subcommands({})) {
                if (sub->get_name() == word) next = sub;
            }
            if (next == nullptr) return PrintUsageError(m_help, "unknown command '" + word + "'");
            app = next;
        }
        std::cout << app->help();
        return kExitOk;
    }

    int RunCommand(Command* command) {
        const CLI::App* app = command->app();
        try {
            CheckOneOf(*command);
            CheckOneStandardInput(*command);
            return command->Run();
        } catch (const UsageError& e) {
            return PrintUsageError(app, e.what());
        } catch (const NegativeAnswer& e) {
            return Report(app, "", e.what(), kExitNegative);
        } catch (const Failure& e) {
            return Report(app, "error: ", e.what(), kExitFailed);
        } catch (const std::bad_alloc&) {
            return Report(app, "error: ", "out of memory", kExitFailed);
        } catch (const std::exception& e) {
            return Report(app, "error: ", e.what(), kExitFailed);
        }
    }

    std::shared_ptr<HelpFormatter> m_formatter;
    CLI::App m_root{"", kProgram};
    std::vector<std::unique_ptr<Command>> m_commands;
    CLI::App* m_help = nullptr;
};

}  // namespace

int RunCommandLine(std::vector<std::string>* words) {
    int status = kExitFailed;
    try {
        RememberCommandLineSecrets(*words);
        WithholdCipherValues(words);
        CommandLine command_line;
        status = command_line.Run(*words);
    } catch (const std::exception& e) {
        std::cerr << kProgram << ": error: " << RedactSecrets(e.what()) << "\n";
    }
    WipeStrings(words);
    ForgetWithheldCipherValues();
    ForgetSecrets();
    return status;
}

}  // namespace corvida_pb
