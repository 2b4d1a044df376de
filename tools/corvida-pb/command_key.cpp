// corvida-pb key: the primary key of a message, or the key of chosen fields.
#include <iostream>

#include "corvida-pb/ciphers.h"
#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/operations.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"
#include "corvidaservice.optionv1.pb.h"

namespace corvida_pb {
namespace {

const char kDescription[] =
    "Prints the primary key of a message (ExtractMsgKey) or, with --fields, the\n"
    "key of the given field numbers in the given order (ExtractFieldKey): its\n"
    "length, its bytes in hex and its fields tag by tag as protoc --decode_raw\n"
    "shows them. Key fields marked corvida_crypto are encrypted by the table's\n"
    "cipher suite, whose key --cipher-file, CORVIDA_PB_CIPHERS or --cipher gives.\n"
    "An empty primary key is an error; key fields left unset are warned about\n"
    "(or, with --check, an error).\n";

std::vector<int> ParseFieldNumbers(const std::string& text) {
    std::vector<int> numbers;
    for (const std::string& token : SplitCommaList(text)) {
        int number = 0;
        if (!ParseFieldNumber(token, &number)) throw UsageError("--fields: \"" + token + "\" is not a field number");
        numbers.push_back(number);
    }
    return numbers;
}

std::string FieldKeyName(const std::vector<int>& numbers) {
    std::vector<std::string> items;
    for (int number : numbers) items.push_back(std::to_string(number));
    return "field key (" + JoinComma(items) + ")";
}

class KeyCommand : public Command {
public:
    explicit KeyCommand(CLI::App* parent)
        : Command(parent, "key", "print the primary key of a message, or the key of chosen fields", kDescription) {
        AddSchemaOptions("the table: its message type, by full or short name");
        AddTextOptions("the message");
        m_fields_option =
            app()
                ->add_option("--fields", m_fields, "the key of these field numbers, in this order")
                ->type_name("N,N...")
                ->check(CommaList("field number"));
        ReadsFile(m_ciphers.Add(app()));
        app()->add_flag("--check", m_check, "fail when a primary-key field adds no bytes (is not set)");
        AddFormatOption();
        AddLogLevelOption();
    }

    int Run() override {
        const bool field_key = Given(m_fields_option);
        if (field_key && m_check) {
            throw UsageError("--check applies to the primary key; a field key always checks its fields");
        }
        const std::vector<int> numbers = field_key ? ParseFieldNumbers(m_fields) : std::vector<int>();
        CORVIDA_KV::CorvidaKVApi api;
        m_ciphers.Configure(&api);
        CliLog log(log_priority());

        const TableMessage loaded = LoadTableMessage();
        const google::protobuf::Descriptor* table = loaded.table;
        google::protobuf::Message* msg = loaded.msg.get();
        if (field_key) {
            RequireFields(table, numbers);
        } else {
            RequirePrimaryKey(table);
        }

        std::string key;
        const int ret =
            ComputeKey(&api, *msg, field_key ? &numbers : nullptr, m_check, log.category(), &key);
        if (ret != 0) {
            throw Failure(WithResult(ExplainKeyResult(ret, *msg, field_key ? &numbers : nullptr, &api, key.size()), ret));
        }
        const std::vector<std::string> unset = field_key ? std::vector<std::string>() : UnsetKeyFields(*msg);
        if (!field_key) CheckComplete(*msg, key, unset);
        if (json()) {
            PrintJson(std::cout, KeyJson(table, field_key ? &numbers : nullptr, key, unset));
        } else {
            PrintKey(std::cout, table, field_key ? FieldKeyName(numbers) : "primary key", key);
        }
        return kExitOk;
    }

private:
    // An empty primary key addresses nothing.
    static void RequirePrimaryKey(const google::protobuf::Descriptor* table) {
        std::vector<std::string> names;
        PROTOBUF_UTIL::TokenSplit(table->options().GetExtension(corvidaservice::corvida_primary_key), ",", names);
        if (names.empty()) {
            throw Failure(table->full_name() +
                          " names no primary key (option corvidaservice.corvida_primary_key), so its key would be "
                          "empty; give the key's fields with --fields");
        }
    }

    static void RequireFields(const google::protobuf::Descriptor* table, const std::vector<int>& numbers) {
        for (int number : numbers) {
            if (table->FindFieldByNumber(number) == nullptr) {
                throw Failure("--fields: " + table->full_name() + " has no field number " + std::to_string(number));
            }
        }
    }

    // Fails for an empty key, warns for one that lacks fields (unset, the
    // key fields of msg that are not set).
    void CheckComplete(const google::protobuf::Message& msg, const std::string& key,
                       const std::vector<std::string>& unset) const {
        if (key.empty()) {
            throw Failure("the primary key of " + msg.GetDescriptor()->full_name() +
                          " is empty: none of its key fields is set (" + JoinComma(unset) + ")");
        }
        if (unset.size() == 1) {
            PrintWarning(app(), "key field " + unset[0] +
                                    " is not set, so the key does not include it (--check makes this an error)");
        } else if (unset.size() > 1) {
            PrintWarning(app(), "key fields " + JoinComma(unset) +
                                    " are not set, so the key does not include them (--check makes this an error)");
        }
    }

    std::string m_fields;
    bool m_check = false;
    CLI::Option* m_fields_option = nullptr;
    CipherOptions m_ciphers;
};

}  // namespace

std::unique_ptr<Command> MakeKeyCommand(CLI::App* parent) { return std::make_unique<KeyCommand>(parent); }

}  // namespace corvida_pb
