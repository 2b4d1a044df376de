// corvida-pb cut and merge: value sets out of a message and back into one.
#include <iostream>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/files.h"
#include "corvida-pb/operations.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"

namespace corvida_pb {
namespace {

const char kCutDescription[] =
    "Cuts the fields at --paths out of a message into a value set\n"
    "(FillValueSetWithMsg) and prints one line per record: its tag path (the\n"
    "field numbers along the path), the field names, its length and its bytes in\n"
    "hex, followed by the bytes decoded as protoc --decode_raw shows them. The\n"
    "records follow the byte order of the paths. Key fields are not cut (the key\n"
    "travels apart from the value set) unless --with-keys is given; repeated\n"
    "fields cannot be cut. With --packed -, the packed value set goes to standard\n"
    "output (for 'merge --packed -') and the report to standard error.\n";

const char kMergeDescription[] =
    "Reads a packed value set (as cut --packed writes it) and merges its records\n"
    "into a message (FillMsgFromField): each record replaces the field at its tag\n"
    "path. Prints the message in text format and the tag paths that could not be\n"
    "merged; encrypted string and bytes fields are never decrypted, so their\n"
    "paths are always listed. The message starts empty, or as --text or\n"
    "--text-file give it.\n";

class CutCommand : public Command {
public:
    explicit CutCommand(CLI::App* parent)
        : Command(parent, "cut", "cut fields of a message into a value set", kCutDescription) {
        AddSchemaOptions("the table: its message type, by full or short name");
        AddTextOptions("the message");
        app()->add_option("--paths", m_paths, "the fields to cut, as dotted field names (a,b.c)")
            ->type_name("PATH,PATH...")
            ->check(CommaList("path"))
            ->required();
        m_packed_option = app()
                              ->add_option("--packed", m_packed,
                                           "also write the packed value set to FILE ('-' for standard output)")
                              ->type_name("FILE");
        app()->add_flag("--with-keys", m_with_keys, "cut key fields too, as a server's reply carries them");
        AddFormatOption();
        AddLogLevelOption();
    }

    int Run() override {
        RefuseJsonBeside(m_packed_option, m_packed, "the packed value set");
        CliLog log(log_priority());
        const TableMessage loaded = LoadTableMessage();
        const google::protobuf::Descriptor* table = loaded.table;
        google::protobuf::Message* msg = loaded.msg.get();

        const std::vector<std::string> path_list = SplitCommaList(m_paths);
        const std::set<std::string> paths(path_list.begin(), path_list.end());
        std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
        const int ret = CutValueSet(msg, paths, m_with_keys, set.get(), log.category());
        if (ret != 0) {
            const std::set<std::string> key_names = m_with_keys ? std::set<std::string>() : KeyNames(*msg);
            throw Failure(WithResult(ExplainCutResult(ret, table, paths, key_names), ret));
        }

        const std::vector<std::string> skipped =
            m_with_keys ? std::vector<std::string>() : SkippedKeyPaths(*msg, paths);
        // With --packed -, the packed set fills standard output and the text
        // report goes to standard error (JSON is refused above).
        const bool packed_to_stdout = Given(m_packed_option) && m_packed == "-";
        std::ostream& report = packed_to_stdout ? std::cerr : std::cout;
        const std::string packed = Given(m_packed_option) ? PackValueSet(*set) : std::string();
        if (json()) {
            Json result = {{"table", table->full_name()}, {"records", RecordsJson(table, *set, log.category())}};
            result["skipped_key_paths"] = skipped;
            if (Given(m_packed_option)) result["packed"] = {{"output", m_packed}, {"bytes", packed.size()}};
            PrintJson(report, result);
        } else {
            PrintValueSet(report, table, *set, log.category());
            if (!skipped.empty()) report << "skipped key fields: " << JoinComma(skipped) << "\n";
        }
        if (Given(m_packed_option)) {
            WriteFile(m_packed, packed);
            if (!json()) {
                report << "packed value set: " << packed.size() << " bytes written to "
                       << (packed_to_stdout ? "standard output" : m_packed) << "\n";
            }
        }
        return kExitOk;
    }

private:
    static std::set<std::string> KeyNames(const google::protobuf::Message& msg) {
        std::set<std::string> names;
        PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(msg, names);
        return names;
    }

    std::string m_paths;
    std::string m_packed;
    bool m_with_keys = false;
    CLI::Option* m_packed_option = nullptr;
};

class MergeCommand : public Command {
public:
    explicit MergeCommand(CLI::App* parent)
        : Command(parent, "merge", "merge a packed value set into a message", kMergeDescription) {
        AddSchemaOptions("the table: its message type, by full or short name");
        AddTextOptions("the message to merge into");
        ReadsFile(app()->add_option("--packed", m_packed, "the packed value set ('-' for standard input)")
                      ->type_name("FILE")
                      ->required());
        AddFormatOption();
        AddLogLevelOption();
    }

    int Run() override {
        CliLog log(log_priority());
        const TableMessage loaded = LoadTableMessage();
        const google::protobuf::Descriptor* table = loaded.table;
        google::protobuf::Message* msg = loaded.msg.get();

        std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
        UnpackValueSet(ReadFile(m_packed), DisplayName(m_packed), set.get());
        std::set<std::string> failed;
        size_t records = 0;
        MergeValueSet(*set, msg, &failed, &records, log.category());
        if (json()) {
            PrintJson(std::cout, {{"table", table->full_name()},
                                  {"records", records},
                                  {"message", MessageJson(*msg)},
                                  {"failed_paths", FailedPathsJson(table, failed)}});
        } else {
            PrintMerge(std::cout, *msg, records, failed);
        }
        return kExitOk;
    }

private:
    std::string m_packed;
};

}  // namespace

std::unique_ptr<Command> MakeCutCommand(CLI::App* parent) { return std::make_unique<CutCommand>(parent); }

std::unique_ptr<Command> MakeMergeCommand(CLI::App* parent) { return std::make_unique<MergeCommand>(parent); }

}  // namespace corvida_pb
