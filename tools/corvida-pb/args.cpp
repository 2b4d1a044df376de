#include "corvida-pb/args.h"

#include <algorithm>

#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

const OptionDef kHelpDef = {"help", 'h', "", false, "show this help and exit"};

const OptionDef* FindLong(const std::vector<OptionDef>& defs, const std::string& name) {
    if (name == kHelpDef.name) return &kHelpDef;
    for (const OptionDef& def : defs) {
        if (def.name == name) return &def;
    }
    return nullptr;
}

const OptionDef* FindShort(const std::vector<OptionDef>& defs, char c) {
    if (c == kHelpDef.short_name) return &kHelpDef;
    for (const OptionDef& def : defs) {
        if (def.short_name != 0 && def.short_name == c) return &def;
    }
    return nullptr;
}

std::string Spelling(const OptionDef& def) { return "--" + def.name; }

// The option that word names; a value written into the word itself
// ("--name=VALUE", "-XVALUE") goes to *value.
const OptionDef& Recognize(const std::vector<OptionDef>& defs, const std::string& word, std::string* value,
                           bool* has_inline_value) {
    if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
        const size_t eq = word.find('=');
        const OptionDef* def = FindLong(defs, word.substr(2, eq == std::string::npos ? std::string::npos : eq - 2));
        if (def == nullptr) throw UsageError("unknown option '" + word.substr(0, eq) + "'");
        if (eq != std::string::npos) {
            *value = word.substr(eq + 1);
            *has_inline_value = true;
        }
        return *def;
    }
    if (word.size() > 1 && word[0] == '-' && word[1] != '-') {
        const OptionDef* def = FindShort(defs, word[1]);
        if (def == nullptr) throw UsageError("unknown option '" + word.substr(0, 2) + "'");
        if (word.size() > 2) {
            if (def->value_name.empty()) throw UsageError("unknown option '" + word + "'");
            *value = word.substr(2);
            *has_inline_value = true;
        }
        return *def;
    }
    throw UsageError("unexpected argument '" + word + "'");
}

void Store(const OptionDef& def, const std::string& value, ParsedArgs* parsed) {
    if (!def.repeatable && parsed->Has(def.name)) {
        throw UsageError("option " + Spelling(def) + " given more than once");
    }
    parsed->Add(def.name, value);
}

}  // namespace

std::string ParsedArgs::Get(const std::string& name) const {
    auto it = m_values.find(name);
    return it == m_values.end() ? std::string() : it->second.back();
}

std::vector<std::string> ParsedArgs::GetAll(const std::string& name) const {
    auto it = m_values.find(name);
    return it == m_values.end() ? std::vector<std::string>() : it->second;
}

ParsedArgs ParseArgs(const std::vector<OptionDef>& defs, const std::vector<std::string>& args) {
    ParsedArgs parsed;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string value;
        bool has_inline_value = false;
        const OptionDef& def = Recognize(defs, args[i], &value, &has_inline_value);
        if (def.value_name.empty()) {
            if (has_inline_value) throw UsageError("option " + Spelling(def) + " takes no value");
        } else if (!has_inline_value) {
            if (i + 1 == args.size()) {
                throw UsageError("option " + Spelling(def) + " needs a value (" + def.value_name + ")");
            }
            value = args[++i];
        }
        Store(def, value, &parsed);
    }
    return parsed;
}

std::string FormatOptions(const std::vector<OptionDef>& defs) {
    std::vector<std::pair<std::string, std::string>> lines;
    size_t width = 0;
    auto add = [&](const OptionDef& def) {
        std::string left = def.short_name != 0 ? std::string("-") + def.short_name + ", " : "    ";
        left += Spelling(def);
        if (!def.value_name.empty()) left += " " + def.value_name;
        width = std::max(width, left.size());
        lines.emplace_back(left, def.help);
    };
    for (const OptionDef& def : defs) add(def);
    add(kHelpDef);

    std::string out;
    for (const auto& line : lines) {
        out += "  " + line.first + std::string(width - line.first.size() + 2, ' ') + line.second + "\n";
    }
    return out;
}

void RequireOption(const ParsedArgs& args, const std::string& name) {
    if (!args.Has(name)) throw UsageError("option --" + name + " is required");
}

void RefuseBoth(const ParsedArgs& args, const std::string& a, const std::string& b) {
    if (args.Has(a) && args.Has(b)) throw UsageError("options --" + a + " and --" + b + " exclude each other");
}

}  // namespace corvida_pb
