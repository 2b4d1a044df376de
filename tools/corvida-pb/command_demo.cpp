// corvida-pb demo: every step on the example tables compiled into the tool.
#include <stdlib.h>

#include <filesystem>
#include <iostream>

#include <google/protobuf/util/message_differencer.h>

#include "corvida-pb/cli_log.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/explain.h"
#include "corvida-pb/operations.h"
#include "corvida-pb/report.h"
#include "corvida-pb/schema_loader.h"
#include "corvida-pb/status.h"
#include "game.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#if CORVIDA_PB_WITH_STORE
#include "store/table_store.h"
#endif

namespace corvida_pb {
namespace {

using corvida::example::Player;

const char kDescription[] =
    "Runs every step on the example tables (examples/tables/game.proto, compiled\n"
    "into the tool): the primary key and a field key of a Player, a value set cut\n"
    "out of it, packed, unpacked and merged back, a merge that reports the\n"
    "encrypted field, the schema of Player and Guild, and a comparison with a\n"
    "compatible and an incompatible server schema. Needs no files.\n";

// The demo key of the suite "game-aes" named by Player; never use it in
// production.
const char kGameAesKey[] = "8f3a1c5e7b9d2f4a6c8e0b1d3f5a7c9e2b4d6f8a0c1e3b5d7f9a2c4e6b8d0f1a";

const char kPlayerText[] =
    "zone: 3\n"
    "uid: 1001\n"
    "account: \"alice@example.com\"\n"
    "level: 42\n"
    "faction: FACTION_NORTH\n"
    "profile { nickname: \"Alice\" stats { hp: 120 mp: 80 gold: 5000 } }\n"
    "last_login: 1700000000\n";

void Section(int number, const std::string& title, const std::string& text) {
    std::cout << "\n== " << number << ". " << title << " ==\n" << text;
}

std::string RequireKey(CORVIDA_KV::CorvidaKVApi* api, const Player& player, const std::vector<int>* fields,
                       LPPLOGCATEGORYINST log) {
    std::string key;
    const int ret = ComputeKey(api, player, fields, true, log, &key);
    if (ret != 0) throw Failure(ExplainKeyResult(ret, player, fields, api, key.size()));
    return key;
}

void RequireCut(Player* player, const std::set<std::string>& paths, bool with_keys, ProtobufValueSet_* set,
                LPPLOGCATEGORYINST log) {
    const int ret = CutValueSet(player, paths, with_keys, set, log);
    if (ret != 0) throw Failure(ExplainCutResult(ret, Player::descriptor(), paths, {}));
}

void MergeAndPrint(const ProtobufValueSet_& set, Player* player, LPPLOGCATEGORYINST log) {
    std::set<std::string> failed;
    size_t records = 0;
    MergeValueSet(set, player, &failed, &records, log);
    PrintMerge(std::cout, *player, records, failed);
}

void KeySteps(CORVIDA_KV::CorvidaKVApi* api, const Player& player, LPPLOGCATEGORYINST log) {
    Section(1, "Primary key of a Player",
            "The key fields uid, zone and account are written in field-number order;\n"
            "account is encrypted by the AES-SIV suite game-aes (with the demo key).\n");
    PrintKey(std::cout, Player::descriptor(), "primary key", RequireKey(api, player, nullptr, log));

    Section(2, "Field key (1, 4): the fields of the index by_level", "");
    const std::vector<int> fields = {1, 4};
    PrintKey(std::cout, Player::descriptor(), "field key (1, 4)", RequireKey(api, player, &fields, log));
}

void ValueSetSteps(const Player& player, LPPLOGCATEGORYINST log) {
    Section(3, "Value set of level, faction, profile.nickname, profile.stats, last_login, uid",
            "uid is a key field, so it is not cut: the key travels apart.\n");
    Player source = player;
    std::unique_ptr<ProtobufValueSet_> set = NewValueSet();
    const std::set<std::string> paths = {"level", "faction", "profile.nickname", "profile.stats", "last_login", "uid"};
    RequireCut(&source, paths, false, set.get(), log);
    PrintValueSet(std::cout, Player::descriptor(), *set, log);
    std::cout << "skipped key fields: " << JoinComma(SkippedKeyPaths(source, paths)) << "\n";
    const std::string packed = PackValueSet(*set);
    std::cout << "packed value set: " << packed.size() << " bytes\n";

    Section(4, "Merge of the unpacked value set into a Player that holds only its key", "");
    std::unique_ptr<ProtobufValueSet_> received = NewValueSet();
    UnpackValueSet(packed, "the packed value set", received.get());
    Player merged;
    merged.set_zone(player.zone());
    merged.set_uid(player.uid());
    merged.set_account(player.account());
    MergeAndPrint(*received, &merged, log);
    if (!google::protobuf::util::MessageDifferencer::Equals(merged, player)) {
        throw Failure("the merged Player differs from the original");
    }
    std::cout << "round trip: the merged Player equals the original\n";

    Section(5, "Merge of a reply that carries the encrypted field account",
            "The module never decrypts: an encrypted string or bytes field is merged as\n"
            "stored and its path is reported as failed.\n");
    std::unique_ptr<ProtobufValueSet_> reply = NewValueSet();
    RequireCut(&source, {"account", "level"}, true, reply.get(), log);
    PrintValueSet(std::cout, Player::descriptor(), *reply, log);
    Player target;
    MergeAndPrint(*reply, &target, log);
}

void PrintSchema(const std::string& blob, const std::string& table, LPPLOGCATEGORYINST log) {
    PROTOBUF_UTIL::MsgDescGroup group;
    if (PROTOBUF_UTIL::FillMessageGroup(table, blob, &group, log) == nullptr) {
        throw Failure("the schema blob of " + table + " does not load");
    }
    PrintGroup(std::cout, group);
}

void PrintComparison(const std::string& blob, LPPLOGCATEGORYINST log) {
    const int ret = PROTOBUF_UTIL::GetMetaAndCompare("Player", blob, Player::descriptor(), log);
    if (ret == 0) {
        std::cout << "compatible: the server's Player matches corvida.example.Player\n";
    } else {
        PrintIncompatible(std::cout, ret, ExplainCompareResult(ret));
    }
}

void SchemaSteps(LPPLOGCATEGORYINST log) {
    const google::protobuf::FileDescriptorSet files = SchemaBlobOf({Player::descriptor()->file()});
    const std::vector<std::string> names = BlobFileNames(files);
    const std::string blob = files.SerializeAsString();
    Section(6, "Schema of Player and Guild",
            "The schema blob holds " + JoinComma(names) + " (" + std::to_string(blob.size()) + " bytes).\n");
    PrintSchema(blob, "Player", log);
    PrintSchema(blob, "Guild", log);

    Section(7, "The client's Player against the server's schema", "");
    PrintComparison(blob, log);

    Section(8, "The client's Player against a server where level is an int64", "");
    google::protobuf::FileDescriptorSet changed = files;
    for (auto& file : *changed.mutable_file()) {
        for (auto& message : *file.mutable_message_type()) {
            if (message.name() != "Player") continue;
            for (auto& field : *message.mutable_field()) {
                if (field.name() == "level") field.set_type(google::protobuf::FieldDescriptorProto::TYPE_INT64);
            }
        }
    }
    PrintComparison(changed.SerializeAsString(), log);
}

#if CORVIDA_PB_WITH_STORE
// A temporary directory, removed with everything in it when destroyed.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "corvida-pb-demo-XXXXXX").string();
        if (::mkdtemp(&pattern[0]) == nullptr) throw Failure("cannot make a temporary directory for the demo store");
        m_path = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

void CheckStore(const corvida::store::Status& status) {
    if (!status.ok()) throw Failure("the demo store: " + status.ToString());
}

void PrintRecords(const std::vector<corvida::store::Record>& records) {
    for (size_t i = 0; i < records.size(); ++i) {
        std::cout << "# record " << i + 1 << "\n" << records[i].message->ShortDebugString() << "\n";
    }
}

void StoreSteps(CORVIDA_KV::CorvidaKVApi* api, const Player& player, LPPLOGCATEGORYINST log) {
    Section(9, "A local table store",
            "The same steps on records kept in a table store (in a temporary directory):\n"
            "the Player table created from its schema blob, two players put whole, one\n"
            "updated in part, read back, found through the index by_level and listed by\n"
            "shard, and deleted.\n");
    const ScratchDirectory dir;
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    options.log = log;
    std::unique_ptr<corvida::store::TableStore> store;
    CheckStore(corvida::store::TableStore::Open(dir.path(), options, &store));
    CheckStore(store->CreateTable(SchemaBlobOf({Player::descriptor()->file()}).SerializeAsString(), "Player"));
    std::unique_ptr<corvida::store::Table> players;
    CheckStore(store->OpenTable(Player::default_instance(), api, &players));

    Player bob;
    ParseMessageText("zone: 3 uid: 1002 account: \"bob@example.com\" level: 40 items { id: 7 count: 2 }",
                     "the demo's second Player", &bob);
    CheckStore(players->Put(player));
    CheckStore(players->Put(bob));
    bob.set_level(42);
    bob.mutable_profile()->set_nickname("Bob");
    CheckStore(players->Update(bob, {"level", "profile.nickname"}));
    std::cout << "put alice and bob; updated bob's level and profile.nickname\n";

    Player key, read;
    key.set_zone(3);
    key.set_uid(1002);
    key.set_account("bob@example.com");
    std::set<std::string> failed;
    CheckStore(players->Get(key, {}, &read, &failed));
    std::cout << "get bob: " << read.ShortDebugString() << "\n";

    Player level42;
    level42.set_zone(3);
    level42.set_level(42);
    std::vector<corvida::store::Record> found;
    CheckStore(players->FindByIndex("by_level", level42, &found));
    std::cout << "find by_level (zone 3, level 42): " << found.size() << " records\n";
    PrintRecords(found);

    Player shard;
    shard.set_uid(1001);
    std::vector<corvida::store::Record> listed;
    CheckStore(players->Scan(&shard, 0, &listed));
    std::cout << "scan the shard uid 1001: " << listed.size() << " record\n";
    PrintRecords(listed);

    CheckStore(players->Delete(key));
    const corvida::store::Status gone = players->Get(key, {}, &read, &failed);
    std::cout << "delete bob, then get bob: " << gone.ToString() << "\n";
}
#endif

class DemoCommand : public Command {
public:
    explicit DemoCommand(CLI::App* parent)
        : Command(parent, "demo", "run every step on the bundled example tables", kDescription) {
        AddLogLevelOption();
    }

    int Run() override {
        CliLog log(log_priority());
        CORVIDA_KV::CorvidaKVApi api;
        std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("game-aes"));
        if (suite->Init(kGameAesKey) != 0) throw Failure("the demo key is refused: " + suite->GetErrMsg());
        api.AddCipherSuite(std::move(suite));
        Player player;
        ParseMessageText(kPlayerText, "the demo Player", &player);
        std::cout << "The demo Player:\n" << kPlayerText;

        KeySteps(&api, player, log.category());
        ValueSetSteps(player, log.category());
        SchemaSteps(log.category());
#if CORVIDA_PB_WITH_STORE
        StoreSteps(&api, player, log.category());
#endif
        return kExitOk;
    }
};

}  // namespace

std::unique_ptr<Command> MakeDemoCommand(CLI::App* parent) { return std::make_unique<DemoCommand>(parent); }

}  // namespace corvida_pb
