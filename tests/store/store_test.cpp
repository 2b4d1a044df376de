// The table store's record model, on every engine of the build (RocksDB
// and etcd: store_place.h): round trips on proto2 and proto3 tables, whole
// and partial writes, writes under sub-messages, repeated fields and maps,
// encrypted key fields, indexes, shards, reopening, streaming reads resumed
// from cursors, counts, and what Verify finds.
//
// What only RocksDB has is tested on RocksDB alone: damaged files, repair,
// the writer's lock and read-only openers (store_bad_input_test,
// store_recovery_test), full disks and failed syncs (store_fault_test,
// store_media_test), crashes of a writing process (store_crash_test,
// store_index_crash_test) and the upgrade from layout 1.
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "store/key_format.h"
#include "store/table_store.h"
#include "store_place.h"
#include "store_tables.pb.h"
#include "store_test_support.h"
#include "support/log_capture.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableInfo;
using corvida::store::TableStore;
using corvida::storetest::Account;
using corvida::test::Player2;
using corvida::test3::Player3;
using google::protobuf::Message;
using google::protobuf::util::MessageDifferencer;

template <typename T>
T Parse(const std::string& text) {
    T msg;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &msg)) << text;
    return msg;
}

const char kPlayer[] = R"(
    zone: 3 uid: 1001 name: "alice" level: 42
    stats { hp: 120 mp: 30 deep { v: 7 raw: "\001\002" text: "deep" } history: [1, 2, 3] }
    pos { x: 1 y: -2 label: "gate" }
    tags: ["a", "b", "c"]
    items { id: 1 name: "sword" count: 1 } items { id: 2 name: "shield" count: 2 }
    attrs { key: "str" value: 10 } attrs { key: "dex" value: 12 }
    avatar: "\377\000png" kind: KIND3_HERO scores: [5, 6, 7] rating: 4.5 flags: 99 delta: -3
)";

// A store with the tables Player2, Player3, Secret2 and Account, opened, on
// the engine of the test's parameter.
class StoreTest : public ::testing::TestWithParam<EngineKind> {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_place.where().empty());
        ASSERT_TRUE(OpenStore(m_place.where(), &m_store).ok());
        ASSERT_TRUE(m_store->CreateTable(SchemaBlob(Player2::descriptor()), "Player2").ok());
        ASSERT_TRUE(m_store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").ok());
        ASSERT_TRUE(m_store->CreateTable(SchemaBlob(corvida::test::Secret2::descriptor()), "Secret2").ok());
        ASSERT_TRUE(m_store->CreateTable(SchemaBlob(Account::descriptor()), "Account").ok());
        Reopen();
    }

    // Closes the store: no table of it is left open.
    void Close() {
        m_players2.reset();
        m_players3.reset();
        m_accounts.reset();
        m_store.reset();
    }

    void Reopen() {
        Close();
        ASSERT_TRUE(OpenStore(m_place.where(), &m_store).ok());
        ASSERT_TRUE(m_store->OpenTable(Player2::default_instance(), nullptr, &m_players2).ok());
        ASSERT_TRUE(m_store->OpenTable(Player3::default_instance(), nullptr, &m_players3).ok());
        ASSERT_TRUE(m_store->OpenTable(Account::default_instance(), m_kv.get(), &m_accounts).ok());
    }

    // The record of key's key fields, read whole; expects it to exist.
    template <typename T>
    T Read(Table* table, const T& key, std::set<std::string>* failed = nullptr) {
        T out;
        std::set<std::string> ignored;
        const Status s = table->Get(key, {}, &out, failed != nullptr ? failed : &ignored);
        EXPECT_TRUE(s.ok()) << s.ToString();
        return out;
    }

    // The uids of records, in order.
    static std::vector<uint64_t> Uids(const std::vector<Record>& records) {
        std::vector<uint64_t> uids;
        for (const Record& r : records) {
            uids.push_back(r.message->GetReflection()->GetUInt64(*r.message,
                                                                 r.message->GetDescriptor()->FindFieldByName("uid")));
        }
        return uids;
    }

    StorePlace m_place{GetParam()};
    std::unique_ptr<CORVIDA_KV::CorvidaKVApi> m_kv = AesKv();
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_players2;
    std::unique_ptr<Table> m_players3;
    std::unique_ptr<Table> m_accounts;
};

TEST_P(StoreTest, Proto3RecordRoundTripsWhole) {
    const Player3 player = Parse<Player3>(kPlayer);
    ASSERT_TRUE(m_players3->Put(player).ok());
    Player3 key;
    key.set_zone(3);
    key.set_uid(1001);
    std::set<std::string> failed;
    const Player3 back = Read(m_players3.get(), key, &failed);
    EXPECT_TRUE(MessageDifferencer::Equals(player, back)) << back.DebugString();
    EXPECT_TRUE(failed.empty());
}

TEST_P(StoreTest, Proto2RecordRoundTripsWhole) {
    const Player2 player = Parse<Player2>(R"(
        zone: 1 uid: 7 name: "bob" level: 3
        stats { hp: 1 deep { text: "x" } history: [9, 8] }
        tags: ["t1", "t2"] items { id: 5 name: "ring" } attrs { key: "k" value: 1 }
        scores: [1, 2] kind: KIND2_VILLAIN avatar: "" flags: 0
    )");
    ASSERT_TRUE(m_players2->Put(player).ok());
    Player2 key;
    key.set_zone(1);
    key.set_uid(7);
    const Player2 back = Read(m_players2.get(), key);
    // Set-but-default proto2 fields (avatar "", flags 0) come back set.
    EXPECT_TRUE(MessageDifferencer::Equals(player, back)) << back.DebugString();
}

TEST_P(StoreTest, NestedMapsAndRepeatedInsideSubMessagesRoundTrip) {
    const Account account = Parse<Account>(R"(
        region: 2 email: "ann@example.com" city: "Lyon" level: 5
        profile { nickname: "ann" stats { hp: 3 history: [4, 5] } badges: ["x", "y"]
                  counters { key: "a" value: 1 } counters { key: "b" value: 2 } }
        scores: [10, -20]
        friends { key: "bo" value { nickname: "bo" badges: "z" } }
        tags: ["p", "q"]
    )");
    ASSERT_TRUE(m_accounts->Put(account).ok());
    Account key;
    key.set_region(2);
    key.set_email("ann@example.com");
    const Account back = Read(m_accounts.get(), key);
    EXPECT_TRUE(MessageDifferencer::Equals(account, back)) << back.DebugString();
}

TEST_P(StoreTest, PutReplacesTheWholeRecord) {
    ASSERT_TRUE(m_players3->Put(Parse<Player3>(kPlayer)).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 3 uid: 1001 stats { deep { v: 99 } }"), {"stats.deep.v"}).ok());
    const Player3 second = Parse<Player3>(R"(zone: 3 uid: 1001 name: "alice2" tags: "only")");
    ASSERT_TRUE(m_players3->Put(second).ok());
    const Player3 back = Read(m_players3.get(), Parse<Player3>("zone: 3 uid: 1001"));
    // Nothing of the first record, nor of the update under stats, is left.
    EXPECT_TRUE(MessageDifferencer::Equals(second, back)) << back.DebugString();
}

TEST_P(StoreTest, UpdateWritesOnlyTheNamedFields) {
    const Player3 player = Parse<Player3>(kPlayer);
    ASSERT_TRUE(m_players3->Put(player).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>(R"(zone: 3 uid: 1001 level: 43 name: "ignored" pos { x: 5 })"),
                                   {"level", "pos.x"})
                    .ok());
    Player3 expected = player;
    expected.set_level(43);
    expected.mutable_pos()->set_x(5);
    const Player3 back = Read(m_players3.get(), Parse<Player3>("zone: 3 uid: 1001"));
    EXPECT_TRUE(MessageDifferencer::Equals(expected, back)) << back.DebugString();
}

TEST_P(StoreTest, WritingASubMessageReplacesWhatWasWrittenUnderIt) {
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 2 stats { hp: 1 mp: 2 }")).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 1 uid: 2 stats { deep { v: 5 text: \"t\" } }"),
                                   {"stats.deep"})
                    .ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 1 uid: 2 stats { hp: 9 }"), {"stats.hp"}).ok());
    EXPECT_EQ("zone: 1 uid: 2 stats { hp: 9 mp: 2 deep { v: 5 text: \"t\" } }",
              Read(m_players3.get(), Parse<Player3>("zone: 1 uid: 2")).ShortDebugString());

    // stats written whole: stats.deep and stats.hp written before are gone.
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 1 uid: 2 stats { mp: 4 }"), {"stats"}).ok());
    EXPECT_EQ("zone: 1 uid: 2 stats { mp: 4 }",
              Read(m_players3.get(), Parse<Player3>("zone: 1 uid: 2")).ShortDebugString());

    // A later field under it applies on top of the whole sub-message.
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 1 uid: 2 stats { deep { v: 6 } }"), {"stats.deep.v"}).ok());
    EXPECT_EQ("zone: 1 uid: 2 stats { mp: 4 deep { v: 6 } }",
              Read(m_players3.get(), Parse<Player3>("zone: 1 uid: 2")).ShortDebugString());

    // An unset sub-message written whole clears it.
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 1 uid: 2"), {"stats"}).ok());
    EXPECT_EQ("zone: 1 uid: 2", Read(m_players3.get(), Parse<Player3>("zone: 1 uid: 2")).ShortDebugString());
}

TEST_P(StoreTest, UpdateDoesNotChangeTheMessageItCutsFrom) {
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 2 stats { hp: 1 }")).ok());
    const Player3 update = Parse<Player3>("zone: 1 uid: 2");
    ASSERT_TRUE(m_players3->Update(update, {"stats.deep.v"}).ok());
    EXPECT_FALSE(update.has_stats());
    // The unset field under the path reads as cleared; the parents exist.
    EXPECT_EQ("zone: 1 uid: 2 stats { hp: 1 deep { } }",
              Read(m_players3.get(), Parse<Player3>("zone: 1 uid: 2")).ShortDebugString());
}

TEST_P(StoreTest, RepeatedFieldsAndMapsAreUpdatedWhole) {
    ASSERT_TRUE(m_players3->Put(Parse<Player3>(kPlayer)).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>(R"(zone: 3 uid: 1001 tags: ["x", "y"] attrs { key: "z" value: 1 })"),
                                   {"tags", "attrs", "items"})
                    .ok());
    const Player3 back = Read(m_players3.get(), Parse<Player3>("zone: 3 uid: 1001"));
    EXPECT_EQ(2, back.tags_size());
    EXPECT_EQ("y", back.tags(1));
    EXPECT_EQ(1u, back.attrs().size());
    EXPECT_EQ(0, back.items_size());
    EXPECT_EQ(3, back.scores_size());

    const Status element = m_players3->Update(Parse<Player3>("zone: 3 uid: 1001"), {"items.name"});
    EXPECT_TRUE(element.IsInvalidArgument()) << element.ToString();
    EXPECT_NE(std::string::npos, element.message().find("goes into repeated field items")) << element.message();
}

TEST_P(StoreTest, UpdateRefusesBadPathsAndWritesNothing) {
    const Player3 player = Parse<Player3>(kPlayer);
    ASSERT_TRUE(m_players3->Put(player).ok());
    const Player3 update = Parse<Player3>("zone: 3 uid: 1001 level: 1 stats { hp: 1 }");
    struct Case {
        std::vector<std::string> paths;
        std::string says;
    };
    const std::vector<Case> cases = {
        {{}, "Update without paths"},
        {{"nosuch"}, "path 'nosuch': corvida.test3.Player3 has no field 'nosuch'"},
        {{"stats.nosuch"}, "path 'stats.nosuch': corvida.test3.Stats3 has no field 'nosuch'"},
        {{"level", "uid"}, "is a key field"},
        {{"stats", "stats.hp"}, "duplicated"},
        {{"level.x"}, "path 'level.x': field corvida.test3.Player3.level is not a message, so it has no field 'x'"},
        {{""}, "empty path"},
    };
    for (const Case& c : cases) {
        const Status s = m_players3->Update(update, c.paths);
        EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
        EXPECT_NE(std::string::npos, s.message().find(c.says)) << s.message();
    }
    EXPECT_TRUE(MessageDifferencer::Equals(player, Read(m_players3.get(), Parse<Player3>("zone: 3 uid: 1001"))));
}

TEST_P(StoreTest, Proto3StringsThatAreNotUtf8AreRefusedAndNothingIsStored) {
    // Protobuf serializes such a string but does not parse it back: the record
    // could never be read back whole, nor its index entries matched.
    const std::string bad = "\xff\xfe";
    struct Case {
        std::string text;
        std::string field;
    };
    const std::vector<Case> cases = {
        {"name: \"\\377\\376\"", "name"},
        {"stats { deep { text: \"\\377\" } }", "stats.deep.text"},
        {"tags: \"ok\" tags: \"\\377\"", "tags"},
        {"items { name: \"ok\" } items { name: \"\\300\\200\" }", "items.name"},
        {"attrs { key: \"\\377\" value: 1 }", "attrs.key"},
    };
    for (const Case& c : cases) {
        const Player3 player = Parse<Player3>("zone: 9 uid: 1 " + c.text);
        const Status s = m_players3->Put(player);
        EXPECT_TRUE(s.IsInvalidArgument()) << c.text << ": " << s.ToString();
        EXPECT_NE(std::string::npos, s.message().find("string field '" + c.field + "' is not valid UTF-8")) << s.message();
        Player3 out;
        EXPECT_TRUE(m_players3->Get(Parse<Player3>("zone: 9 uid: 1"), {}, &out, nullptr).IsNotFound());
    }

    // An update checks the strings it writes and the key fields, not those beside its paths.
    Player3 player = Parse<Player3>("zone: 9 uid: 2 name: \"ok\" level: 1 stats { hp: 1 }");
    ASSERT_TRUE(m_players3->Put(player).ok());
    player.set_name(bad);
    player.mutable_stats()->mutable_deep()->set_text(bad);
    player.set_level(2);
    ASSERT_TRUE(m_players3->Update(player, {"level", "stats.hp"}).ok());
    Status s = m_players3->Update(player, {"name"});
    EXPECT_NE(std::string::npos, s.message().find("string field 'name' is not valid UTF-8")) << s.ToString();
    s = m_players3->Update(player, {"stats.deep"});
    EXPECT_NE(std::string::npos, s.message().find("string field 'stats.deep.text' is not valid UTF-8")) << s.ToString();
    EXPECT_EQ("zone: 9 uid: 2 name: \"ok\" level: 2 stats { hp: 1 }",
              Read(m_players3.get(), Parse<Player3>("zone: 9 uid: 2")).ShortDebugString());

    // Many writes in one call stop at the refused one.
    std::vector<corvida::store::WriteOp> writes(2);
    const Player3 good = Parse<Player3>("zone: 9 uid: 3");
    writes[0].message = &good;
    writes[1].message = &player;
    writes[1].kind = corvida::store::WriteOp::Kind::kUpdate;
    writes[1].paths = {"name"};
    corvida::store::WriteReport report;
    s = m_players3->Write(writes, &report);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_EQ(1u, report.written);
    EXPECT_TRUE(m_players3->Verify().ok());
}

TEST_P(StoreTest, Proto2StringsAreStoredWhateverTheyHold) {
    // Protobuf parses a proto2 string back whatever its bytes.
    Player2 player = Parse<Player2>("zone: 1 uid: 7 level: 3");
    player.set_name("\xff\xfe");
    ASSERT_TRUE(m_players2->Put(player).ok());
    std::vector<Record> found;
    ASSERT_TRUE(m_players2->FindByIndex("by_name", player, &found).ok());
    ASSERT_EQ(1u, found.size());
    EXPECT_TRUE(MessageDifferencer::Equals(player, *found[0].message)) << found[0].message->DebugString();
    EXPECT_TRUE(m_players2->Verify().ok());
}

TEST_P(StoreTest, UpdateOfAMissingRecordCreatesIt) {
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 4 uid: 8 level: 6"), {"level"}).ok());
    EXPECT_EQ("zone: 4 uid: 8 level: 6", Read(m_players3.get(), Parse<Player3>("zone: 4 uid: 8")).ShortDebugString());
    // Its index entries exist, the unwritten name as its default.
    std::vector<Record> found;
    ASSERT_TRUE(m_players3->FindByIndex("by_name", Parse<Player3>("zone: 4"), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({8}), Uids(found));
    EXPECT_TRUE(m_players3->Verify().ok());
}

TEST_P(StoreTest, GetReturnsOnlyTheNamedFields) {
    ASSERT_TRUE(m_players3->Put(Parse<Player3>(kPlayer)).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 3 uid: 1001 stats { deep { v: 8 } }"), {"stats.deep.v"}).ok());
    Player3 out = Parse<Player3>("name: \"stale\"");
    ASSERT_TRUE(m_players3->Get(Parse<Player3>("zone: 3 uid: 1001"), {"stats.deep", "tags", "zone"}, &out, nullptr).ok());
    // stats was written whole by the put: only its deep field is returned.
    EXPECT_EQ("zone: 3 uid: 1001 stats { deep { v: 8 raw: \"\\001\\002\" text: \"deep\" } } tags: \"a\" tags: \"b\" "
              "tags: \"c\"",
              out.ShortDebugString());
    const Status bad = m_players3->Get(Parse<Player3>("zone: 3 uid: 1001"), {"items.id"}, &out, nullptr);
    EXPECT_TRUE(bad.IsInvalidArgument()) << bad.ToString();
}

TEST_P(StoreTest, MissingRecordsAreNotFound) {
    Player3 out;
    EXPECT_TRUE(m_players3->Get(Parse<Player3>("zone: 1 uid: 1"), {}, &out, nullptr).IsNotFound());
    EXPECT_TRUE(m_players3->Delete(Parse<Player3>("zone: 1 uid: 1")).IsNotFound());
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 1")).ok());
    ASSERT_TRUE(m_players3->Delete(Parse<Player3>("zone: 1 uid: 1")).ok());
    EXPECT_TRUE(m_players3->Get(Parse<Player3>("zone: 1 uid: 1"), {}, &out, nullptr).IsNotFound());
}

TEST_P(StoreTest, IndexesFollowPutUpdateAndDelete) {
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 10 name: \"a\" level: 5")).ok());
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 11 name: \"b\" level: 5")).ok());
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 2 uid: 12 name: \"a\" level: 6")).ok());
    std::vector<Record> found;
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 5"), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({10, 11}), Uids(found));
    EXPECT_EQ("b", static_cast<const Player3&>(*found[1].message).name());
    found.clear();
    ASSERT_TRUE(m_players3->FindByIndex("by_name", Parse<Player3>("zone: 1 name: \"a\""), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({10}), Uids(found));

    // An update of an indexed field moves the entry.
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 1 uid: 10 level: 6"), {"level"}).ok());
    found.clear();
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 5"), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({11}), Uids(found));
    found.clear();
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 6"), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({10, 12}), Uids(found));

    // A put that changes it moves it too; a delete removes it.
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 11 name: \"c\" level: 7")).ok());
    ASSERT_TRUE(m_players3->Delete(Parse<Player3>("zone: 2 uid: 12")).ok());
    found.clear();
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 6"), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({10}), Uids(found));
    found.clear();
    ASSERT_TRUE(m_players3->FindByIndex("by_name", Parse<Player3>("zone: 1 name: \"c\""), &found).ok());
    EXPECT_EQ(std::vector<uint64_t>({11}), Uids(found));
    found.clear();
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 6"), &found, 0).ok());
    EXPECT_TRUE(m_players3->Verify().ok());

    // A limit, and the names of unknown indexes.
    found.clear();
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 uid: 13 level: 6")).ok());
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 6"), &found, 1).ok());
    EXPECT_EQ(std::vector<uint64_t>({10}), Uids(found));
    const Status unknown = m_players3->FindByIndex("by_rank", Parse<Player3>("level: 6"), &found);
    EXPECT_TRUE(unknown.IsInvalidArgument());
    EXPECT_NE(std::string::npos, unknown.message().find("its indexes: by_level, by_name")) << unknown.message();
    EXPECT_EQ(std::vector<std::string>({"by_level", "by_name"}), m_players3->IndexNames());
}

TEST_P(StoreTest, PagesOfAFindHandEveryRecordOnceAndACursorOnlyWhileMoreRemain) {
    std::vector<uint64_t> all;
    for (uint64_t uid = 1; uid <= 7; ++uid) {
        ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 1 level: 6 uid: " + std::to_string(uid))).ok());
        all.push_back(uid);
    }
    const Player3 level = Parse<Player3>("level: 6");
    for (size_t limit : {1, 2, 3, 6, 7, 8}) {
        std::vector<uint64_t> uids;
        corvida::store::Page page;
        page.limit = limit;
        size_t pages = 0;
        do {
            std::vector<Record> found;
            std::string next;
            const Status s = m_players3->FindEach("by_level", level, page, [&found](Record& record) {
                found.push_back(std::move(record));
                return true;
            }, &next);
            ASSERT_TRUE(s.ok()) << s.ToString();
            ASSERT_LE(found.size(), limit);
            for (uint64_t uid : Uids(found)) uids.push_back(uid);
            page.after = next;
            ++pages;
        } while (!page.after.empty() && pages <= all.size());
        EXPECT_EQ(all, uids) << "limit " << limit;
        EXPECT_EQ((all.size() + limit - 1) / limit, pages) << "limit " << limit;
    }
}

TEST_P(StoreTest, AnIndexFieldUnsetInProto2LeavesTheRecordOutOfThatIndex) {
    ASSERT_TRUE(m_players2->Put(Parse<Player2>("zone: 1 uid: 1 level: 3")).ok());
    std::vector<Record> found;
    const Status unset = m_players2->FindByIndex("by_name", Parse<Player2>("zone: 1"), &found);
    EXPECT_TRUE(unset.IsInvalidArgument()) << unset.ToString();
    ASSERT_TRUE(m_players2->FindByIndex("by_level", Parse<Player2>("level: 3"), &found).ok());
    EXPECT_EQ(1u, found.size());
    // Setting the name adds the entry; unsetting it removes it again.
    ASSERT_TRUE(m_players2->Update(Parse<Player2>("zone: 1 uid: 1 name: \"n\""), {"name"}).ok());
    found.clear();
    ASSERT_TRUE(m_players2->FindByIndex("by_name", Parse<Player2>("zone: 1 name: \"n\""), &found).ok());
    EXPECT_EQ(1u, found.size());
    ASSERT_TRUE(m_players2->Update(Parse<Player2>("zone: 1 uid: 1"), {"name"}).ok());
    found.clear();
    ASSERT_TRUE(m_players2->FindByIndex("by_name", Parse<Player2>("zone: 1 name: \"n\""), &found).ok());
    EXPECT_TRUE(found.empty());
    EXPECT_TRUE(m_players2->Verify().ok());
}

// A record outside a sparse index is no error: nothing reaches the log.
class StoreLogTest : public ::testing::TestWithParam<EngineKind> {
protected:
    StorePlace m_place{GetParam()};
};

TEST_P(StoreLogTest, ARecordOutsideAnIndexLogsNoError) {
    corvida_test::LogCapture log(PLOG_PRIORITY_ERROR);
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    options.log = log.category();
    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(TableStore::Open(m_place.where(), options, &store).ok());
    ASSERT_TRUE(store->CreateTable(SchemaBlob(Player2::descriptor()), "Player2").ok());
    std::unique_ptr<Table> players;
    ASSERT_TRUE(store->OpenTable(Player2::default_instance(), nullptr, &players).ok());
    ASSERT_TRUE(players->Put(Parse<Player2>("zone: 1 uid: 1 level: 3")).ok());
    ASSERT_TRUE(players->Update(Parse<Player2>("zone: 1 uid: 1 level: 4"), {"level"}).ok());
    std::vector<Record> found;
    ASSERT_TRUE(players->Scan(nullptr, 0, &found).ok());
    EXPECT_EQ(1u, found.size());
    EXPECT_TRUE(players->Verify().ok());
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST_P(StoreTest, ScanListsAShardOrTheWholeTable) {
    for (uint64_t uid : {5, 6, 7}) {
        for (int zone : {2, 1}) {
            Player3 p;
            p.set_zone(zone);
            p.set_uid(uid);
            p.set_level(zone * 100 + static_cast<int>(uid));
            ASSERT_TRUE(m_players3->Put(p).ok());
        }
    }
    std::vector<Record> shard;
    const Player3 uid6 = Parse<Player3>("uid: 6");
    ASSERT_TRUE(m_players3->Scan(&uid6, 0, &shard).ok());
    ASSERT_EQ(2u, shard.size());
    EXPECT_EQ("zone: 1 uid: 6 level: 106", shard[0].message->ShortDebugString());
    EXPECT_EQ("zone: 2 uid: 6 level: 206", shard[1].message->ShortDebugString());

    std::vector<Record> all;
    ASSERT_TRUE(m_players3->Scan(nullptr, 0, &all).ok());
    EXPECT_EQ(6u, all.size());
    std::vector<Record> some;
    ASSERT_TRUE(m_players3->Scan(nullptr, 4, &some).ok());
    EXPECT_EQ(4u, some.size());
    EXPECT_TRUE(m_players3->HasShardingKey());

    std::unique_ptr<Table> secrets;
    ASSERT_TRUE(m_store->OpenTable(corvida::test::Secret2::default_instance(), m_kv.get(), &secrets).ok());
    EXPECT_FALSE(secrets->HasShardingKey());
    EXPECT_TRUE(secrets->Scan(&corvida::test::Secret2::default_instance(), 0, &some).IsInvalidArgument());
}

TEST_P(StoreTest, EncryptedKeyFieldsAreStoredAsCiphertextAndReadBackPlain) {
    const Account account = Parse<Account>(R"(region: 9 email: "carol@example.com" city: "Oslo" level: 2)");
    ASSERT_TRUE(m_accounts->Put(account).ok());
    std::vector<Record> found;
    ASSERT_TRUE(m_accounts->FindByIndex("by_level_city", Parse<Account>(R"(level: 2 city: "Oslo")"), &found).ok());
    ASSERT_EQ(1u, found.size());
    EXPECT_TRUE(MessageDifferencer::Equals(account, *found[0].message)) << found[0].message->DebugString();
    std::vector<Record> shard;
    const Account region9 = Parse<Account>("region: 9");
    ASSERT_TRUE(m_accounts->Scan(&region9, 0, &shard).ok());
    ASSERT_EQ(1u, shard.size());
    EXPECT_EQ("carol@example.com", static_cast<const Account&>(*shard[0].message).email());

    Close();
    for (const auto& kv : m_place.Contents()) {
        EXPECT_EQ(std::string::npos, kv.first.find("carol")) << "plain key field in a stored key";
        EXPECT_EQ(std::string::npos, kv.second.find("carol")) << "plain key field in a stored value";
    }
}

TEST_P(StoreTest, EncryptedFieldsOutsideTheKeyAreReportedInFailedPaths) {
    ASSERT_TRUE(m_accounts->Put(Parse<Account>(R"(region: 1 email: "d@e.f" note: "sealed")")).ok());
    std::set<std::string> failed;
    const Account back = Read(m_accounts.get(), Parse<Account>(R"(region: 1 email: "d@e.f")"), &failed);
    EXPECT_EQ(std::set<std::string>({"9"}), failed);
    EXPECT_EQ("sealed", back.note());
    std::vector<Record> found;
    ASSERT_TRUE(m_accounts->Scan(nullptr, 0, &found).ok());
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(std::set<std::string>({"9"}), found[0].failed_paths);
}

TEST_P(StoreTest, AWrongCipherKeyIsRefusedAndStoresNothing) {
    std::unique_ptr<CORVIDA_KV::CorvidaKVApi> wrong = AesKv(kOtherAesKeyHex);
    std::unique_ptr<Table> accounts;
    const Status s = m_store->OpenTable(Account::default_instance(), wrong.get(), &accounts);
    EXPECT_TRUE(s.IsInvalidArgument());
    EXPECT_EQ(-4, s.bridge_code());
    EXPECT_NE(std::string::npos, s.message().find("does not match the table's corvida_cipher_md5")) << s.message();
    EXPECT_EQ(std::string::npos, s.message().find(kOtherAesKeyHex));
    EXPECT_EQ(nullptr, accounts);

    const Status without = m_store->OpenTable(Account::default_instance(), nullptr, &accounts);
    EXPECT_EQ(-3, without.bridge_code()) << without.ToString();
    EXPECT_NE(std::string::npos, without.message().find("cipher suite 'aes128' is not configured")) << without.message();

    // Tables that name no suite need no KV API at all.
    EXPECT_TRUE(m_store->OpenTable(Player2::default_instance(), nullptr, &accounts).ok());
    std::vector<Record> all;
    ASSERT_TRUE(m_accounts->Scan(nullptr, 0, &all).ok());
    EXPECT_TRUE(all.empty());
}

TEST_P(StoreTest, KeysThatCannotBeBuiltAreRefused) {
    const Status unset = m_players2->Put(Parse<Player2>("zone: 1 name: \"no uid\""));
    EXPECT_TRUE(unset.IsInvalidArgument());
    EXPECT_EQ(-9, unset.bridge_code());
    EXPECT_NE(std::string::npos, unset.message().find("key field uid is not set")) << unset.message();
    const Status other_type = m_players2->Put(Parse<Player3>("zone: 1 uid: 1"));
    EXPECT_TRUE(other_type.IsInvalidArgument());
    EXPECT_NE(std::string::npos, other_type.message().find("not a corvida.test.Player2")) << other_type.message();
    Player2 big = Parse<Player2>("zone: 1 uid: 1");
    big.set_avatar(std::string(9u << 20, 'x'));
    EXPECT_TRUE(m_players2->Put(big).IsInvalidArgument());
}

TEST_P(StoreTest, ReopeningKeepsEverything) {
    const Player3 player = Parse<Player3>(kPlayer);
    ASSERT_TRUE(m_players3->Put(player).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 3 uid: 1001 level: 1"), {"level"}).ok());
    Reopen();
    Player3 expected = player;
    expected.set_level(1);
    EXPECT_TRUE(MessageDifferencer::Equals(expected, Read(m_players3.get(), Parse<Player3>("zone: 3 uid: 1001"))));
    std::vector<Record> found;
    ASSERT_TRUE(m_players3->FindByIndex("by_level", Parse<Player3>("level: 1"), &found).ok());
    EXPECT_EQ(1u, found.size());
    std::vector<TableInfo> tables;
    ASSERT_TRUE(m_store->ListTables(&tables).ok());
    ASSERT_EQ(4u, tables.size());
    EXPECT_EQ("corvida.storetest.Account", tables[0].name);
    EXPECT_EQ(SchemaBlob(Account::descriptor()), tables[0].schema_blob);
    EXPECT_EQ("corvida.test.Player2", tables[1].name);
    EXPECT_EQ("corvida.test.Secret2", tables[2].name);
    EXPECT_EQ("corvida.test3.Player3", tables[3].name);
}

TEST_P(StoreTest, TheCatalogRefusesDuplicatesAndBlobsThatDoNotLoad) {
    EXPECT_TRUE(m_store->CreateTable(SchemaBlob(Player3::descriptor()), "Player3").IsAlreadyExists());
    const Status garbage = m_store->CreateTable("\x0a\xff garbage", "Player3");
    EXPECT_TRUE(garbage.IsInvalidArgument());
    EXPECT_NE(std::string::npos, garbage.message().find("ParseFromArray")) << garbage.message();
    const Status missing = m_store->CreateTable(SchemaBlob(Player3::descriptor()), "Nobody");
    EXPECT_TRUE(missing.IsInvalidArgument());
    EXPECT_NE(std::string::npos, missing.message().find("no top-level message Nobody")) << missing.message();
    const Status no_key = m_store->CreateTable(SchemaBlob(corvida::test::NoKey2::descriptor()), "NoKey2");
    EXPECT_TRUE(no_key.IsInvalidArgument());
    EXPECT_NE(std::string::npos, no_key.message().find("primary key not set")) << no_key.message();
    EXPECT_TRUE(m_store->CreateTable(SchemaBlob(Player3::descriptor()), "").IsInvalidArgument());
    std::unique_ptr<Table> table;
    const Status unknown = m_store->OpenTable(corvida::test::LongKey2::default_instance(), nullptr, &table);
    EXPECT_TRUE(unknown.IsNotFound());
    EXPECT_NE(std::string::npos,
              unknown.message().find("no table corvida.test.LongKey2 in the store (it holds corvida.storetest.Account, "
                                     "corvida.test.Player2, corvida.test.Secret2, corvida.test3.Player3)"))
        << unknown.message();
}

// Records of one shard (uid 5, zones 1 to 7) and of another (uid 6), levels
// 0 and 1 in turn; the test reads them in pages.
class PagedReadTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        for (int zone = 1; zone <= 7; ++zone) {
            for (uint64_t uid : {5, 6}) {
                Player3 p;
                p.set_zone(zone);
                p.set_uid(uid);
                p.set_level(zone % 2);
                ASSERT_TRUE(m_players3->Put(p).ok());
            }
        }
    }

    // The records of a streaming read, page after page of `limit`, each page
    // resumed from the cursor of the one before; the "zone/uid" of each,
    // with "|" after each page that handed a cursor back.
    template <typename Read>
    std::string Paged(size_t limit, Read read) {
        std::string listed;
        corvida::store::Page page;
        page.limit = limit;
        for (int pages = 0; pages < 100; ++pages) {
            std::string next = "stale";
            const Status s = read(page, Lister(&listed), &next);
            EXPECT_TRUE(s.ok()) << s.ToString();
            if (!s.ok() || next.empty()) return listed;
            listed += "| ";
            page.after = next;
        }
        ADD_FAILURE() << "the read never ended";
        return listed;
    }

    // "zone/uid " of a record.
    static std::string Named(const Record& record) {
        const Player3& p = static_cast<const Player3&>(*record.message);
        return std::to_string(p.zone()) + "/" + std::to_string(p.uid()) + " ";
    }

    // A visitor that appends the name of each record to *listed.
    static corvida::store::RecordVisitor Lister(std::string* listed) {
        return [listed](Record& record) {
            *listed += Named(record);
            return true;
        };
    }

    // The same records read in one call, as Paged lists them.
    static std::string Whole(const std::vector<Record>& records) {
        std::string listed;
        for (const Record& record : records) listed += Named(record);
        return listed;
    }

    // Removes the separators of a paged listing.
    static std::string Joined(std::string listed) {
        for (size_t at = listed.find("| "); at != std::string::npos; at = listed.find("| ")) listed.erase(at, 2);
        return listed;
    }
};

TEST_P(PagedReadTest, StreamingReadsResumeFromTheirCursors) {
    std::vector<Record> all;
    ASSERT_TRUE(m_players3->Scan(nullptr, 0, &all).ok());
    ASSERT_EQ(14u, all.size());
    const std::string table = Paged(4, [&](const corvida::store::Page& page, const corvida::store::RecordVisitor& v,
                                           std::string* next) { return m_players3->ScanEach(nullptr, page, v, next); });
    EXPECT_EQ(Joined(table), Whole(all));
    EXPECT_EQ(3, std::count(table.begin(), table.end(), '|')) << table;

    const Player3 shard = Parse<Player3>("uid: 5");
    const std::string listed = Paged(3, [&](const corvida::store::Page& page, const corvida::store::RecordVisitor& v,
                                            std::string* next) { return m_players3->ScanEach(&shard, page, v, next); });
    EXPECT_EQ(listed, "1/5 2/5 3/5 | 4/5 5/5 6/5 | 7/5 ");

    const Player3 level = Parse<Player3>("level: 1");
    std::vector<Record> found;
    ASSERT_TRUE(m_players3->FindByIndex("by_level", level, &found).ok());
    ASSERT_EQ(8u, found.size());
    const std::string indexed = Paged(5, [&](const corvida::store::Page& page, const corvida::store::RecordVisitor& v,
                                             std::string* next) {
        return m_players3->FindEach("by_level", level, page, v, next);
    });
    EXPECT_EQ(Joined(indexed), Whole(found));
    EXPECT_EQ(1, std::count(indexed.begin(), indexed.end(), '|')) << indexed;
}

TEST_P(PagedReadTest, ACursorResumesAfterItsRecordEvenWhenThatRecordIsGone) {
    const Player3 shard = Parse<Player3>("uid: 5");
    std::string listed;
    std::string next;
    ASSERT_TRUE(m_players3->ScanEach(&shard, {2, ""}, Lister(&listed), &next).ok());
    EXPECT_EQ(listed, "1/5 2/5 ");
    ASSERT_FALSE(next.empty());
    // The cursor's record and the one after it go; one before it comes.
    ASSERT_TRUE(m_players3->Delete(Parse<Player3>("zone: 2 uid: 5")).ok());
    ASSERT_TRUE(m_players3->Delete(Parse<Player3>("zone: 3 uid: 5")).ok());
    ASSERT_TRUE(m_players3->Put(Parse<Player3>("zone: 0 uid: 5")).ok());
    listed.clear();
    ASSERT_TRUE(m_players3->ScanEach(&shard, {2, next}, Lister(&listed), &next).ok());
    EXPECT_EQ(listed, "4/5 5/5 ");

    // A visitor that stops the read gets no cursor back.
    listed.clear();
    next = "stale";
    ASSERT_TRUE(m_players3->ScanEach(&shard, {2, ""}, [](Record&) { return false; }, &next).ok());
    EXPECT_TRUE(next.empty()) << next;
}

TEST_P(PagedReadTest, CursorsOfAnotherReadAreRefused) {
    const Player3 shard = Parse<Player3>("uid: 5");
    std::string listed;
    std::string next;
    ASSERT_TRUE(m_players3->ScanEach(&shard, {1, ""}, Lister(&listed), &next).ok());
    ASSERT_FALSE(next.empty());
    const Player3 other = Parse<Player3>("uid: 6");
    const Status shard_cursor = m_players3->ScanEach(&other, {1, next}, Lister(&listed), nullptr);
    EXPECT_TRUE(shard_cursor.IsInvalidArgument()) << shard_cursor.ToString();
    const Status table_cursor = m_players3->ScanEach(nullptr, {1, next}, Lister(&listed), nullptr);
    EXPECT_TRUE(table_cursor.IsInvalidArgument()) << table_cursor.ToString();
    const Status index_cursor =
        m_players3->FindEach("by_level", Parse<Player3>("level: 1"), {1, next}, Lister(&listed), nullptr);
    EXPECT_TRUE(index_cursor.IsInvalidArgument()) << index_cursor.ToString();
    const Status garbage = m_players3->ScanEach(nullptr, {1, "not a cursor"}, Lister(&listed), nullptr);
    EXPECT_TRUE(garbage.IsInvalidArgument()) << garbage.ToString();
    EXPECT_EQ(listed, "1/5 ");
}

TEST_P(PagedReadTest, CountsFollowTheWrites) {
    uint64_t count = 0;
    ASSERT_TRUE(m_players3->Count(nullptr, &count).ok());
    EXPECT_EQ(count, 14u);
    const Player3 shard = Parse<Player3>("uid: 5");
    ASSERT_TRUE(m_players3->Count(&shard, &count).ok());
    EXPECT_EQ(count, 7u);
    ASSERT_TRUE(m_players3->CountIndex("by_level", Parse<Player3>("level: 1"), &count).ok());
    EXPECT_EQ(count, 8u);

    ASSERT_TRUE(m_players3->Delete(Parse<Player3>("zone: 1 uid: 5")).ok());
    ASSERT_TRUE(m_players3->Update(Parse<Player3>("zone: 3 uid: 6 level: 0"), {"level"}).ok());
    ASSERT_TRUE(m_players3->Count(nullptr, &count).ok());
    EXPECT_EQ(count, 13u);
    ASSERT_TRUE(m_players3->Count(&shard, &count).ok());
    EXPECT_EQ(count, 6u);
    ASSERT_TRUE(m_players3->CountIndex("by_level", Parse<Player3>("level: 1"), &count).ok());
    EXPECT_EQ(count, 6u);
    ASSERT_TRUE(m_players3->CountIndex("by_level", Parse<Player3>("level: 0"), &count).ok());
    EXPECT_EQ(count, 7u);
    EXPECT_TRUE(m_players3->CountIndex("by_rank", Parse<Player3>("level: 0"), &count).IsInvalidArgument());
    EXPECT_TRUE(m_players3->Verify().ok());
}

// Verify counts index and shard entries that are missing, and entries whose
// record is gone, made by writing around the store.
TEST_P(StoreTest, VerifyCountsMissingEntriesAndEntriesWithoutTheirRecord) {
    for (uint64_t uid : {1, 2, 3}) {
        Player3 p = Parse<Player3>("zone: 1 name: \"n\"");
        p.set_uid(uid);
        p.set_level(static_cast<int32_t>(uid));
        ASSERT_TRUE(m_players3->Put(p).ok());
    }
    ASSERT_TRUE(m_players3->Verify().ok());
    Close();

    // Every stored key of a row or an entry by the primary key it belongs to
    // (only Player3 holds records).
    namespace keys = corvida::store::keys;
    std::map<std::string, std::vector<std::string>> rows;
    std::map<std::string, std::vector<std::string>> index_entries;
    for (const auto& pair : m_place.Contents()) {
        const std::string& key = pair.first;
        std::string_view rest = std::string_view(key).substr(std::min<size_t>(key.size(), 5));
        std::string pk;
        std::string value;
        std::string name;
        std::string_view tag_path;
        if (key[0] == keys::kRow && keys::SplitRowKey(rest, &pk, &tag_path)) rows[pk].push_back(key);
        if (key[0] == keys::kIndex && keys::ReadEscaped(&rest, &name) && keys::SplitSecondaryKey(rest, &value, &pk)) {
            index_entries[pk].push_back(key);
        }
    }
    ASSERT_EQ(rows.size(), 3u);
    ASSERT_EQ(index_entries.size(), 3u);
    // The row of the last record goes, leaving its two index entries and its
    // shard entry behind; one index entry of the first record goes too.
    std::vector<std::string> deletes = rows.rbegin()->second;
    deletes.push_back(index_entries.begin()->second.front());
    m_place.RawWrite({}, deletes);

    Reopen();
    const Status s = m_players3->Verify();
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
    EXPECT_EQ(s.message(),
              "table corvida.test3.Player3: 1 index or shard entries missing, 3 entries without their record, in 2 "
              "records");
}

INSTANTIATE_TEST_SUITE_P(Engines, StoreTest, ::testing::ValuesIn(StoreEngines()), EngineName);
INSTANTIATE_TEST_SUITE_P(Engines, StoreLogTest, ::testing::ValuesIn(StoreEngines()), EngineName);
INSTANTIATE_TEST_SUITE_P(Engines, PagedReadTest, ::testing::ValuesIn(StoreEngines()), EngineName);

}  // namespace
}  // namespace corvida_store_test
