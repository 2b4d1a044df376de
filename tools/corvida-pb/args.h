// Command-line options of the corvida-pb subcommands.
//
// Each subcommand declares the options it accepts as a list of OptionDef.
// Accepted forms: "--name VALUE", "--name=VALUE", "-X VALUE", "-XVALUE" and
// "--flag". Positional arguments are refused. Every subcommand also accepts
// "-h" / "--help".
#ifndef CORVIDA_PB_ARGS_H_
#define CORVIDA_PB_ARGS_H_

#include <map>
#include <string>
#include <vector>

namespace corvida_pb {

struct OptionDef {
    std::string name;        // long name without the dashes: "proto"
    char short_name;         // 'I', or 0 for none
    std::string value_name;  // "FILE"; empty for a flag without value
    bool repeatable;         // may be given more than once
    std::string help;        // one line
};

// The options of one command line, by long name.
class ParsedArgs {
public:
    bool Has(const std::string& name) const { return m_values.count(name) != 0; }

    // The value of an option given once; "" when it is absent.
    std::string Get(const std::string& name) const;

    // Every value of a repeatable option, in command-line order.
    std::vector<std::string> GetAll(const std::string& name) const;

    void Add(const std::string& name, const std::string& value) { m_values[name].push_back(value); }

private:
    std::map<std::string, std::vector<std::string>> m_values;
};

// Parses args (the words after the subcommand's name) against defs.
// Throws UsageError for an unknown option, a missing value, a value given to
// a flag, a non-repeatable option given twice or a positional argument.
ParsedArgs ParseArgs(const std::vector<OptionDef>& defs, const std::vector<std::string>& args);

// The option list of a help text: one aligned line per option, help last.
std::string FormatOptions(const std::vector<OptionDef>& defs);

// Throws UsageError unless the option is present.
void RequireOption(const ParsedArgs& args, const std::string& name);

// Throws UsageError when both options are present.
void RefuseBoth(const ParsedArgs& args, const std::string& a, const std::string& b);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_ARGS_H_
