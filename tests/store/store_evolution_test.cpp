// Schema evolution of a table that holds records: each allowed change and
// each refused one, indexes built online and dropped, what the store tells
// about a table, the drop of a table, and clients of two versions side by
// side. On every engine (store_place.h); the index work killed halfway is
// store_index_crash_test's, on RocksDB.
#include <algorithm>
#include <atomic>
#include <set>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "schema_versions.h"
#include "store/table_store.h"
#include "store_place.h"
#include "store_test_support.h"
#include "support/log_capture.h"

namespace corvida_store_test {
namespace {

using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::IndexState;
using corvida::store::ProgressCallback;
using corvida::store::Record;
using corvida::store::SchemaChange;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableDescription;
using corvida::store::TableStore;
using corvida::store::VerifyCounts;
using corvida::store::WriteOp;
using corvida::store::WriteReport;
using google::protobuf::Message;

const char kItem[] = "evo.Item";

// The first version of the table.
const char kBase[] = R"proto(
syntax = "proto3";
package evo;
import "corvidaservice.optionv1.proto";

enum Color {
  COLOR_NONE = 0;
  COLOR_RED = 1;
}

message Inner {
  int32 a = 1;
  string b = 2;
}

message Item {
  option (corvidaservice.corvida_primary_key) = "id";
  option (corvidaservice.corvida_index) = "by_name(name)";
  option (corvidaservice.corvida_sharding_key) = "id";

  int64 id = 1;
  string name = 2;
  int32 level = 3;
  Inner inner = 4;
  Color color = 5;
  repeated string tags = 6;
  int64 score = 7;
}
)proto";

// text with `from` replaced by `to` (which must be there).
std::string Edited(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

std::string WithItemField(const std::string& declaration) {
    return Edited(kBase, "  int64 score = 7;\n", "  int64 score = 7;\n  " + declaration + "\n");
}

// The first version with these indexes instead of by_name(name).
std::string WithIndexes(const std::vector<std::string>& indexes) {
    std::string options;
    for (const std::string& index : indexes) options += "  option (corvidaservice.corvida_index) = \"" + index + "\";\n";
    return Edited(kBase, "  option (corvidaservice.corvida_index) = \"by_name(name)\";\n", options);
}

std::vector<std::string> Descriptions(const AlterPlan& plan) {
    std::vector<std::string> out;
    for (const SchemaChange& change : plan.changes) out.push_back(change.description);
    return out;
}

std::vector<std::string> Reasons(const AlterPlan& plan) {
    std::vector<std::string> out;
    for (const auto& refusal : plan.refusals) out.push_back(refusal.message);
    return out;
}

// A store holding the table at its first version, with kRecords records, on
// the engine of the test's parameter.
class EvolutionTest : public ::testing::TestWithParam<EngineKind> {
protected:
    static constexpr int kRecords = 40;

    void SetUp() override {
        ASSERT_TRUE(m_v1.ok());
        ASSERT_FALSE(m_place.where().empty());
        ASSERT_TRUE(OpenStore(m_place.where(), &m_store).ok());
        ASSERT_TRUE(m_store->CreateTable(m_v1.blob(), kItem).ok());
        ASSERT_TRUE(m_store->OpenTable(m_v1.Prototype(kItem), nullptr, &m_table).ok());
        for (int i = 1; i <= kRecords; ++i) {
            ASSERT_TRUE(m_table->Put(*Record1(i)).ok());
        }
    }

    std::unique_ptr<Message> Record1(int i) {
        return m_v1.Parse(kItem, "id: " + std::to_string(i) + " name: \"n" + std::to_string(i % 7) +
                                     "\" level: " + std::to_string(i % 5) + " inner { a: " + std::to_string(i) +
                                     " b: \"x\" } color: COLOR_RED tags: \"t\" score: " + std::to_string(i * 10));
    }

    Status Alter(const SchemaVersion& version, AlterPlan* plan, bool dry_run = false) {
        AlterOptions options;
        options.dry_run = dry_run;
        return m_store->AlterTable(version.blob(), kItem, options, plan);
    }

    // The stored schema is still the first version.
    void ExpectUnchanged() {
        TableDescription described;
        ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
        EXPECT_EQ(described.schema_blob, m_v1.blob());
    }

    // Alters to text and expects the refusal with reason `reason` (and code).
    void ExpectRefused(const std::string& text, const std::string& reason, int code = 0) {
        SchemaVersion next(text);
        ASSERT_TRUE(next.ok());
        AlterPlan plan;
        const Status s = Alter(next, &plan);
        EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
        EXPECT_EQ(s.bridge_code(), code) << s.ToString();
        const std::vector<std::string> reasons = Reasons(plan);
        EXPECT_NE(std::find(reasons.begin(), reasons.end(), reason), reasons.end())
            << "refused for:\n" << s.message();
        EXPECT_NE(s.message().find(reason), std::string::npos) << s.message();
        ExpectUnchanged();
    }

    // Alters to text and expects it allowed, with the change `change`.
    void ExpectAllowed(const std::string& text, const std::string& change) {
        SchemaVersion next(text);
        ASSERT_TRUE(next.ok());
        AlterPlan plan;
        const Status s = Alter(next, &plan);
        ASSERT_TRUE(s.ok()) << s.ToString();
        EXPECT_TRUE(plan.refusals.empty());
        const std::vector<std::string> changes = Descriptions(plan);
        EXPECT_NE(std::find(changes.begin(), changes.end(), change), changes.end())
            << "changes: " << ::testing::PrintToString(changes);
        TableDescription described;
        ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
        EXPECT_EQ(described.schema_blob, next.blob());
        // A client of the new version opens the table and reads every record.
        std::unique_ptr<Table> table;
        ASSERT_TRUE(m_store->OpenTable(next.Prototype(kItem), nullptr, &table).ok());
        uint64_t count = 0;
        ASSERT_TRUE(table->Count(nullptr, &count).ok());
        EXPECT_EQ(count, static_cast<uint64_t>(kRecords));
        EXPECT_TRUE(table->Verify().ok());
    }

    StorePlace m_place{GetParam()};
    SchemaVersion m_v1{kBase};
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
};

// --- Allowed changes --------------------------------------------------------

TEST_P(EvolutionTest, NewFieldIsAllowed) {
    ExpectAllowed(WithItemField("string title = 8;"), "new field title (number 8) of evo.Item");
}

TEST_P(EvolutionTest, NewEnumValueIsAllowed) {
    ExpectAllowed(Edited(kBase, "  COLOR_RED = 1;\n", "  COLOR_RED = 1;\n  COLOR_BLUE = 2;\n"),
                  "new value COLOR_BLUE (number 2) of enum evo.Color");
}

TEST_P(EvolutionTest, NewNestedTypeIsAllowed) {
    const std::string text = Edited(WithItemField("Badge badge = 8;"), "message Item {",
                                    "message Badge {\n  string label = 1;\n}\n\nmessage Item {");
    ExpectAllowed(text, "new message type evo.Badge");
}

TEST_P(EvolutionTest, NewFieldInsideASubMessageIsAllowed) {
    ExpectAllowed(Edited(kBase, "  string b = 2;\n", "  string b = 2;\n  int64 c = 3;\n"),
                  "new field c (number 3) of evo.Inner");
}

TEST_P(EvolutionTest, RemovedFieldThatNoRecordHoldsIsAllowedAndItsNumberRetired) {
    // score is cleared in every record first.
    for (int i = 1; i <= kRecords; ++i) {
        std::unique_ptr<Message> record = Record1(i);
        record->GetReflection()->ClearField(record.get(), record->GetDescriptor()->FindFieldByName("score"));
        ASSERT_TRUE(m_table->Update(*record, {"score"}).ok());
    }
    const std::string removed = Edited(kBase, "  int64 score = 7;\n", "");
    ExpectAllowed(removed, "removed field score (number 7) of evo.Item, which no record holds");
    SchemaVersion reused(Edited(removed, "  repeated string tags = 6;\n",
                                "  repeated string tags = 6;\n  string motto = 7;\n"));
    AlterPlan plan;
    const Status s = Alter(reused, &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
    EXPECT_EQ(Reasons(plan), std::vector<std::string>{"new field motto (number 7) of evo.Item takes a number that an "
                                                      "earlier alter removed from the table; a new field takes a "
                                                      "number never used before"});
}

// --- Refused changes --------------------------------------------------------

TEST_P(EvolutionTest, ChangedPrimaryKeyIsRefused) {
    SchemaVersion next(Edited(kBase, "corvida_primary_key) = \"id\"", "corvida_primary_key) = \"id, name\""));
    AlterPlan plan;
    const Status s = Alter(next, &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema());
    EXPECT_EQ(s.bridge_code(), -4);
    ASSERT_EQ(plan.refusals.size(), 1u) << s.message();
    EXPECT_EQ(plan.refusals[0].code, -4);
    EXPECT_EQ(plan.refusals[0].message.rfind("the new type is incompatible with the stored schema (result -4): ", 0),
              0u);
    ExpectUnchanged();
}

TEST_P(EvolutionTest, ChangedShardingKeyIsRefused) {
    ExpectRefused(Edited(kBase, "corvida_sharding_key) = \"id\"", "corvida_sharding_key) = \"level\""),
                  "sharding key (corvida_sharding_key) of evo.Item is \"id\" in the stored schema but \"level\" in "
                  "the new one: every record's shard would move",
                  -20);
}

TEST_P(EvolutionTest, ChangedFieldNumberIsRefused) {
    ExpectRefused(Edited(kBase, "int32 level = 3;", "int32 level = 30;"),
                  "field level of evo.Item has number 3 in the stored schema but 30 in the new one: records hold it "
                  "under 3; a field keeps its number");
}

TEST_P(EvolutionTest, ChangedFieldTypeIsRefused) {
    SchemaVersion next(Edited(kBase, "int32 level = 3;", "int64 level = 3;"));
    AlterPlan plan;
    const Status s = Alter(next, &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema());
    EXPECT_EQ(s.bridge_code(), -10);
    ExpectUnchanged();
}

TEST_P(EvolutionTest, ChangedLabelIsRefused) {
    ExpectRefused(Edited(kBase, "int64 score = 7;", "repeated int64 score = 7;"),
                  "field score (number 7) of evo.Item is optional in the stored schema but repeated in the new one: "
                  "the records hold it the way an optional field is stored");
}

TEST_P(EvolutionTest, RemovedFieldThatRecordsHoldIsRefused) {
    ExpectRefused(Edited(kBase, "  int64 score = 7;\n", ""),
                  "field score (number 7) of evo.Item is removed, but 40 records hold a value for it; clear it in "
                  "every record first");
}

TEST_P(EvolutionTest, RemovedFieldOfANestedTypeIsRefused) {
    ExpectRefused(Edited(kBase, "  string b = 2;\n", ""),
                  "field b (number 2) of evo.Inner is removed: sub-messages are stored whole, so the store cannot "
                  "tell whether records hold it; a field of a nested type cannot be removed");
}

TEST_P(EvolutionTest, ChangedSyntaxIsRefused) {
    // The same fields, each with its proto2 label.
    const std::string proto2 = std::regex_replace(Edited(kBase, "syntax = \"proto3\";", "syntax = \"proto2\";"),
                                                  std::regex("\n  (?!repeated|option)(\\w+ \\w+ = )"),
                                                  "\n  optional $1");
    SchemaVersion next(proto2);
    ASSERT_TRUE(next.ok()) << proto2;
    AlterPlan plan;
    const Status s = Alter(next, &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema());
    EXPECT_EQ(s.bridge_code(), -3);
    ExpectUnchanged();
}

TEST_P(EvolutionTest, ChangedCipherSuiteIsRefused) {
    SchemaVersion next(Edited(kBase, "corvida_sharding_key) = \"id\";\n",
                              "corvida_sharding_key) = \"id\";\n"
                              "  option (corvidaservice.corvida_field_cipher_suite) = \"aes128\";\n"));
    AlterPlan plan;
    const Status s = Alter(next, &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema());
    EXPECT_EQ(s.bridge_code(), -7);
    ExpectUnchanged();
}

TEST_P(EvolutionTest, ChangedIndexFieldsAreRefused) {
    ExpectRefused(Edited(kBase, "by_name(name)", "by_name(name, level)"),
                  "index \"by_name\" of evo.Item has the fields (name) in the stored schema but (name, level) in the "
                  "new one: every entry would change; add the new index under another name and drop this one",
                  -22);
}

TEST_P(EvolutionTest, RemovedOrRenamedEnumValueIsRefused) {
    ExpectRefused(Edited(kBase, "  COLOR_RED = 1;\n", ""),
                  "value COLOR_RED (number 1) of enum evo.Color is removed, but records may hold it");
    ExpectRefused(Edited(kBase, "COLOR_RED = 1;", "COLOR_SCARLET = 1;"),
                  "value COLOR_RED (number 1) of enum evo.Color is named COLOR_SCARLET in the new schema");
}

TEST_P(EvolutionTest, NewRequiredFieldIsRefused) {
    // Of a proto2 table.
    const std::string v1 = R"proto(
syntax = "proto2";
package evo2;
import "corvidaservice.optionv1.proto";
message Row {
  option (corvidaservice.corvida_primary_key) = "id";
  required int64 id = 1;
  optional string name = 2;
}
)proto";
    SchemaVersion first(v1);
    ASSERT_TRUE(m_store->CreateTable(first.blob(), "evo2.Row").ok());
    SchemaVersion next(Edited(v1, "  optional string name = 2;\n", "  optional string name = 2;\n  required int32 rank = 3;\n"));
    AlterPlan plan;
    const Status s = m_store->AlterTable(next.blob(), "Row", AlterOptions(), &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
    EXPECT_EQ(Reasons(plan), std::vector<std::string>{"new field rank (number 3) of evo2.Row is required, but the "
                                                      "records written before hold no value for it"});
}

TEST_P(EvolutionTest, EveryReasonIsListed) {
    std::string text = Edited(kBase, "int32 level = 3;", "int64 level = 3;");
    text = Edited(text, "corvida_sharding_key) = \"id\"", "corvida_sharding_key) = \"name\"");
    text = Edited(text, "  int64 score = 7;\n", "  repeated string tags2 = 8;\n");
    text = Edited(text, "repeated string tags = 6;", "string tags = 6;");
    SchemaVersion next(text);
    AlterPlan plan;
    const Status s = Alter(next, &plan);
    EXPECT_TRUE(s.IsIncompatibleSchema());
    EXPECT_EQ(s.bridge_code(), -10);
    EXPECT_EQ(Reasons(plan).size(), 4u) << s.message();  // the comparison's first, label, sharding key, removal
    ExpectUnchanged();
}

TEST_P(EvolutionTest, DryRunWritesNothingAndCounts) {
    SchemaVersion next(WithIndexes({"by_level(level)"}));
    ASSERT_TRUE(next.ok());
    AlterPlan plan;
    ASSERT_TRUE(Alter(next, &plan, true).ok());
    EXPECT_EQ(Descriptions(plan), (std::vector<std::string>{"new index by_level(level), built online",
                                                            "dropped index by_name(name), its entries removed"}));
    EXPECT_EQ(plan.records, static_cast<uint64_t>(kRecords));
    EXPECT_EQ(plan.records_to_index, static_cast<uint64_t>(kRecords));
    EXPECT_EQ(plan.entries_to_remove, static_cast<uint64_t>(kRecords));
    ExpectUnchanged();
}

// --- Indexes built online and dropped ----------------------------------------

TEST_P(EvolutionTest, NewIndexIsBuiltOnline) {
    SchemaVersion v2(WithIndexes({"by_name(name)", "by_level(level)"}));
    AlterPlan plan;
    ASSERT_TRUE(Alter(v2, &plan).ok());
    EXPECT_EQ(Descriptions(plan), std::vector<std::string>{"new index by_level(level), built online"});
    std::unique_ptr<Table> table;
    ASSERT_TRUE(m_store->OpenTable(v2.Prototype(kItem), nullptr, &table).ok());

    // Building: lookups refused with the progress, writes keep the index.
    std::vector<Record> found;
    Status s = table->FindByIndex("by_level", *v2.Parse(kItem, "level: 2"), &found);
    EXPECT_TRUE(s.IsBusy()) << s.ToString();
    EXPECT_EQ(s.message(), "table evo.Item: index by_level is being built, 0 of 40 records; lookups on it are "
                           "refused until it is ready");
    ASSERT_TRUE(table->Put(*v2.Parse(kItem, "id: 100 level: 2")).ok());
    TableDescription described;
    ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
    ASSERT_EQ(described.indexes.size(), 2u);
    EXPECT_EQ(described.indexes[0].name, "by_level");
    EXPECT_EQ(described.indexes[0].state, IndexState::kBuilding);
    EXPECT_EQ(described.indexes[1].state, IndexState::kReady);

    // Stopped after the first batch, then resumed.
    std::vector<std::pair<uint64_t, uint64_t>> reports;
    ASSERT_TRUE(m_store
                    ->BuildIndex(kItem, "by_level", nullptr,
                                 [&reports](uint64_t done, uint64_t total) {
                                     reports.emplace_back(done, total);
                                     return false;
                                 })
                    .ok());
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_TRUE(m_store->BuildIndex(kItem, "by_level", nullptr, nullptr).ok());
    ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
    EXPECT_EQ(described.indexes[0].state, IndexState::kReady);
    EXPECT_EQ(described.records, static_cast<uint64_t>(kRecords + 1));

    ASSERT_TRUE(table->FindByIndex("by_level", *v2.Parse(kItem, "level: 2"), &found).ok());
    EXPECT_EQ(found.size(), static_cast<size_t>(kRecords / 5 + 1));
    EXPECT_TRUE(table->Verify().ok());
    // Nothing left to do.
    EXPECT_TRUE(m_store->BuildIndex(kItem, "by_level", nullptr, nullptr).ok());
    EXPECT_TRUE(m_store->BuildIndex(kItem, "by_colour", nullptr, nullptr).IsNotFound());
}

TEST_P(EvolutionTest, DroppedIndexHasItsEntriesRemoved) {
    SchemaVersion v2(WithIndexes({}));
    AlterPlan plan;
    ASSERT_TRUE(Alter(v2, &plan).ok());
    EXPECT_EQ(Descriptions(plan), std::vector<std::string>{"dropped index by_name(name), its entries removed"});
    TableDescription described;
    ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
    ASSERT_EQ(described.indexes.size(), 1u);
    EXPECT_EQ(described.indexes[0].state, IndexState::kDropping);
    EXPECT_EQ(described.indexes[0].total, static_cast<uint64_t>(kRecords));

    // Adding it again waits for the removal.
    SchemaVersion back(kBase);
    EXPECT_TRUE(Alter(back, &plan).IsIncompatibleSchema());
    ASSERT_TRUE(m_store->BuildIndex(kItem, "by_name", nullptr, nullptr).ok());
    ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
    EXPECT_TRUE(described.indexes.empty());
    m_table.reset();
    m_store.reset();
    for (const auto& key : m_place.Contents()) EXPECT_NE(key.first[0], 'I') << "an index entry is left";
}

// Lookups of handles bound before an alter read the table as it is after it:
// every handle that looked up before (twice, so that the second lookup
// follows one that read the table's schema) answers as a handle opened after
// the alter does. The alter goes through another handle of the store where
// the engine lets a process hold two (etcd), else through the same one.
TEST_P(EvolutionTest, LookupsBoundBeforeTheAlterBindAgain) {
    std::unique_ptr<Table> other;
    ASSERT_TRUE(m_store->OpenTable(m_v1.Prototype(kItem), nullptr, &other).ok());
    const std::unique_ptr<Message> n1 = m_v1.Parse(kItem, "name: \"n1\"");
    std::vector<Record> found;
    for (Table* table : {m_table.get(), other.get()}) {
        for (int round = 0; round < 2; ++round) {
            found.clear();
            ASSERT_TRUE(table->FindByIndex("by_name", *n1, &found).ok());
            EXPECT_EQ(found.size(), static_cast<size_t>(kRecords / 7 + 1));  // ids 1, 8, ..., 36
        }
    }
    // A write between lookups, of records only, changes nothing of that.
    ASSERT_TRUE(m_table->Put(*Record1(kRecords + 1)).ok());
    found.clear();
    ASSERT_TRUE(m_table->FindByIndex("by_name", *n1, &found).ok());
    EXPECT_EQ(found.size(), static_cast<size_t>(kRecords / 7 + 1));

    std::unique_ptr<TableStore> second;
    TableStore* alter_through = OpenStore(m_place.where(), &second).ok() ? second.get() : m_store.get();
    SchemaVersion v2(WithIndexes({}));
    AlterPlan plan;
    ASSERT_TRUE(alter_through->AlterTable(v2.blob(), kItem, AlterOptions(), &plan).ok());

    std::unique_ptr<Table> after;
    Status expected = m_store->OpenTable(m_v1.Prototype(kItem), nullptr, &after);
    if (expected.ok()) expected = after->FindByIndex("by_name", *n1, &found);
    EXPECT_FALSE(expected.ok()) << "the index was dropped";
    for (Table* table : {m_table.get(), other.get()}) {
        found.clear();
        const Status s = table->FindByIndex("by_name", *n1, &found);
        EXPECT_EQ(s.ToString(), expected.ToString());
        EXPECT_TRUE(found.empty());
    }
}

// A writer bound before the alter never writes a record without its entry of
// the new index: its commit is refused, it binds the new schema, and the
// comparison then refuses its type (it declares one index fewer).
TEST_P(EvolutionTest, WriterBoundBeforeTheAlterBindsAgain) {
    SchemaVersion v2(WithIndexes({"by_name(name)", "by_level(level)"}));
    AlterPlan plan;
    ASSERT_TRUE(Alter(v2, &plan).ok());
    const Status s = m_table->Put(*Record1(1000));
    EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
    EXPECT_EQ(s.bridge_code(), -19);

    // A field added: the old client binds again and writes on.
    std::unique_ptr<Table> v2_table;
    ASSERT_TRUE(m_store->OpenTable(v2.Prototype(kItem), nullptr, &v2_table).ok());
    SchemaVersion v3(Edited(WithIndexes({"by_name(name)", "by_level(level)"}), "  int64 score = 7;\n",
                            "  int64 score = 7;\n  string title = 8;\n"));
    ASSERT_TRUE(Alter(v3, &plan).ok());
    EXPECT_TRUE(v2_table->Put(*v2.Parse(kItem, "id: 1001 level: 1")).ok());
    ASSERT_TRUE(m_store->BuildIndex(kItem, "by_level", nullptr, nullptr).ok());
    EXPECT_TRUE(v2_table->Verify().ok());
}

// A Write call of a client bound before an alter is refused as a single
// write is, with nothing written; a client of the schema before a later
// alter binds again and writes the whole call on the new schema, every
// record with its entry of the index being built.
TEST_P(EvolutionTest, WriteCallBoundBeforeTheAlterBindsAgain) {
    SchemaVersion v2(WithIndexes({"by_name(name)", "by_level(level)"}));
    AlterPlan plan;
    ASSERT_TRUE(Alter(v2, &plan).ok());
    std::vector<std::unique_ptr<Message>> old_records;
    std::vector<WriteOp> old_writes;
    for (int i = 2000; i < 2005; ++i) {
        old_records.push_back(Record1(i));
        old_writes.push_back(WriteOp{WriteOp::Kind::kPut, old_records.back().get(), {}});
    }
    WriteReport report;
    Status s = m_table->Write(old_writes, &report);
    EXPECT_TRUE(s.IsIncompatibleSchema()) << s.ToString();
    EXPECT_EQ(report.written, 0u);
    uint64_t count = 0;

    std::unique_ptr<Table> v2_table;
    ASSERT_TRUE(m_store->OpenTable(v2.Prototype(kItem), nullptr, &v2_table).ok());
    SchemaVersion v3(Edited(WithIndexes({"by_name(name)", "by_level(level)"}), "  int64 score = 7;\n",
                            "  int64 score = 7;\n  string title = 8;\n"));
    ASSERT_TRUE(Alter(v3, &plan).ok());
    std::vector<std::unique_ptr<Message>> records;
    std::vector<WriteOp> writes;
    for (int i = 3000; i < 3050; ++i) {
        records.push_back(v2.Parse(kItem, "id: " + std::to_string(i) + " level: " + std::to_string(i % 5)));
        writes.push_back(WriteOp{WriteOp::Kind::kPut, records.back().get(), {}});
    }
    s = v2_table->Write(writes, &report);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(report.written, writes.size());
    ASSERT_TRUE(v2_table->Count(nullptr, &count).ok());
    EXPECT_EQ(count, static_cast<uint64_t>(kRecords + 50));
    ASSERT_TRUE(m_store->BuildIndex(kItem, "by_level", nullptr, nullptr).ok());
    VerifyCounts counts;
    EXPECT_TRUE(v2_table->Verify(&counts, ProgressCallback()).ok());
    EXPECT_EQ(counts.records, static_cast<uint64_t>(kRecords + 50));
    EXPECT_EQ(counts.missing, 0u);
    EXPECT_EQ(counts.orphans, 0u);
}

// Writers of the new schema write while the back-fill runs, in small batches
// so that they meet: every record ends up in the index exactly once.
TEST_P(EvolutionTest, BackfillBesideAWriter) {
    SchemaVersion v2(WithIndexes({"by_name(name)", "by_level(level)"}));
    AlterPlan plan;
    ASSERT_TRUE(Alter(v2, &plan).ok());
    std::unique_ptr<Table> table;
    ASSERT_TRUE(m_store->OpenTable(v2.Prototype(kItem), nullptr, &table).ok());
    std::atomic<bool> stop{false};
    std::atomic<int> writes{0};
    std::thread writer([&] {
        std::mt19937 rng(7);
        while (!stop) {
            const int id = static_cast<int>(rng() % (kRecords * 2)) + 1;
            const int level = static_cast<int>(rng() % 5);
            Status s = rng() % 4 == 0 ? table->Delete(*v2.Parse(kItem, "id: " + std::to_string(id)))
                                      : table->Update(*v2.Parse(kItem, "id: " + std::to_string(id) +
                                                                            " level: " + std::to_string(level)),
                                                      {"level"});
            if (s.IsNotFound()) s = Status::OK();
            ASSERT_TRUE(s.ok()) << s.ToString();
            ++writes;
        }
    });
    // One record per batch, each batch a commit of its own.
    while (writes < 20) std::this_thread::yield();
    ASSERT_TRUE(m_store
                    ->BuildIndex(kItem, "by_level", nullptr,
                                 [](uint64_t, uint64_t) {
                                     std::this_thread::yield();
                                     return true;
                                 })
                    .ok());
    stop = true;
    writer.join();
    EXPECT_TRUE(table->Verify().ok());
}

// --- Seeing and dropping tables ----------------------------------------------

TEST_P(EvolutionTest, DescribeTellsKeyShardingKeyAndIndexes) {
    TableDescription described;
    ASSERT_TRUE(m_store->DescribeTable("Item", &described).ok());
    EXPECT_EQ(described.name, kItem);
    EXPECT_EQ(described.primary_key, std::vector<std::string>{"id"});
    EXPECT_EQ(described.sharding_key, std::vector<std::string>{"id"});
    ASSERT_EQ(described.indexes.size(), 1u);
    EXPECT_EQ(described.indexes[0].name, "by_name");
    EXPECT_EQ(described.indexes[0].fields, std::vector<std::string>{"name"});
    EXPECT_EQ(described.indexes[0].state, IndexState::kReady);
    EXPECT_EQ(described.records, static_cast<uint64_t>(kRecords));
    EXPECT_FALSE(described.dropping);
    EXPECT_TRUE(m_store->DescribeTable("Nothing", &described).IsNotFound());
}

TEST_P(EvolutionTest, DropRemovesTheTableAndResumes) {
    SchemaVersion other(Edited(kBase, "package evo;", "package other;"));
    ASSERT_TRUE(m_store->CreateTable(other.blob(), "other.Item").ok());
    std::unique_ptr<Table> others;
    ASSERT_TRUE(m_store->OpenTable(other.Prototype("other.Item"), nullptr, &others).ok());
    ASSERT_TRUE(others->Put(*other.Parse("other.Item", "id: 1 name: \"kept\"")).ok());

    // Stopped after marking the table: its clients are refused from then on.
    ASSERT_TRUE(m_store->DropTable(kItem, [](uint64_t, uint64_t) { return false; }).ok());
    EXPECT_TRUE(m_table->Put(*Record1(1)).IsNotFound());
    std::unique_ptr<Table> again;
    Status s = m_store->OpenTable(m_v1.Prototype(kItem), nullptr, &again);
    EXPECT_TRUE(s.IsNotFound()) << s.ToString();
    EXPECT_NE(s.message().find("is being dropped"), std::string::npos) << s.message();
    EXPECT_TRUE(m_store->CreateTable(m_v1.blob(), kItem).IsAlreadyExists());
    TableDescription described;
    ASSERT_TRUE(m_store->DescribeTable(kItem, &described).ok());
    EXPECT_TRUE(described.dropping);

    ASSERT_TRUE(m_store->DropTable(kItem, nullptr).ok());
    EXPECT_TRUE(m_store->DescribeTable(kItem, &described).IsNotFound());
    EXPECT_TRUE(m_store->DropTable(kItem, nullptr).IsNotFound());
    // A new table of the name starts empty.
    ASSERT_TRUE(m_store->CreateTable(m_v1.blob(), kItem).ok());
    ASSERT_TRUE(m_store->OpenTable(m_v1.Prototype(kItem), nullptr, &again).ok());
    uint64_t count = 1;
    ASSERT_TRUE(again->Count(nullptr, &count).ok());
    EXPECT_EQ(count, 0u);
    ASSERT_TRUE(others->Count(nullptr, &count).ok());
    EXPECT_EQ(count, 1u);
}

// --- Clients of two versions ---------------------------------------------------

// v2 adds a top-level field, a field of the sub-message and an enum value.
std::string Version2() {
    std::string text = Edited(kBase, "  int64 score = 7;\n", "  int64 score = 7;\n  string title = 8;\n");
    text = Edited(text, "  string b = 2;\n", "  string b = 2;\n  int64 c = 3;\n");
    return Edited(text, "  COLOR_RED = 1;\n", "  COLOR_RED = 1;\n  COLOR_BLUE = 2;\n");
}

// Alters the table to v2, opens the store again with log as its log, and the
// table as a client of each version.
class TwoVersionsTest : public EvolutionTest {
protected:
    void OpenBothVersions(SchemaVersion& v2, corvida_test::LogCapture* log, std::unique_ptr<Table>* t1,
                          std::unique_ptr<Table>* t2) {
        AlterPlan plan;
        ASSERT_TRUE(Alter(v2, &plan).ok());
        corvida::store::StoreOptions options;
        options.log = log->category();
        m_table.reset();
        m_store.reset();
        ASSERT_TRUE(TableStore::Open(m_place.where(), options, &m_store).ok());
        ASSERT_TRUE(m_store->OpenTable(m_v1.Prototype(kItem), nullptr, t1).ok());
        ASSERT_TRUE(m_store->OpenTable(v2.Prototype(kItem), nullptr, t2).ok());
    }
};

TEST_P(TwoVersionsTest, OlderClientReadsWithoutNewFieldsAndKeepsThem) {
    SchemaVersion v2(Version2());
    corvida_test::LogCapture log(PLOG_PRIORITY_WARN);
    std::unique_ptr<Table> t1;
    std::unique_ptr<Table> t2;
    ASSERT_NO_FATAL_FAILURE(OpenBothVersions(v2, &log, &t1, &t2));

    ASSERT_TRUE(t2->Put(*v2.Parse(kItem, "id: 1 name: \"a\" title: \"boss\" inner { a: 1 }")).ok());
    ASSERT_TRUE(t2->Update(*v2.Parse(kItem, "id: 1 inner { c: 9 }"), {"inner.c"}).ok());
    // v1 reads without the fields it lacks: no failed path, no log line.
    std::unique_ptr<Message> read(m_v1.Prototype(kItem).New());
    std::set<std::string> failed;
    ASSERT_TRUE(t1->Get(*m_v1.Parse(kItem, "id: 1"), {}, read.get(), &failed).ok());
    EXPECT_TRUE(failed.empty()) << ::testing::PrintToString(failed);
    EXPECT_EQ(read->ShortDebugString(), "id: 1 name: \"a\" inner { a: 1 }");
    // Its put replaces what it knows and keeps the rest; its update cannot
    // name what it lacks.
    ASSERT_TRUE(t1->Put(*m_v1.Parse(kItem, "id: 1 name: \"b\" level: 3 inner { a: 2 }")).ok());
    EXPECT_TRUE(t1->Update(*m_v1.Parse(kItem, "id: 1"), {"title"}).IsInvalidArgument());
    std::unique_ptr<Message> read2(v2.Prototype(kItem).New());
    ASSERT_TRUE(t2->Get(*v2.Parse(kItem, "id: 1"), {}, read2.get(), &failed).ok());
    EXPECT_EQ(read2->ShortDebugString(), "id: 1 name: \"b\" level: 3 inner { a: 2 c: 9 } title: \"boss\"");
    EXPECT_TRUE(failed.empty());
    std::vector<Record> all;
    ASSERT_TRUE(t1->Scan(nullptr, 0, &all).ok());
    for (const Record& record : all) EXPECT_TRUE(record.failed_paths.empty());
    EXPECT_TRUE(t1->Verify().ok());
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

// A rolling upgrade: clients of both versions put, update and read the same
// records in turn, as a fleet does while it is upgraded. The old one writes
// what it read back (read, change, put), or updates fields it knows. Nothing
// any client wrote is lost, every read is what the writes say, and nothing
// is logged.
TEST_P(TwoVersionsTest, RollingUpgradeLosesNothingAndLogsNothing) {
    SchemaVersion v2(Version2());
    corvida_test::LogCapture log(PLOG_PRIORITY_WARN);
    std::unique_ptr<Table> t1;
    std::unique_ptr<Table> t2;
    ASSERT_NO_FATAL_FAILURE(OpenBothVersions(v2, &log, &t1, &t2));

    // What each record holds, as the newer client sees it.
    std::map<int, std::unique_ptr<Message>> model;
    for (int i = 1; i <= kRecords; ++i) {
        model[i] = v2.Parse(kItem, "");
        model[i]->ParseFromString(Record1(i)->SerializeAsString());
    }
    const auto read = [](Table* table, SchemaVersion& version, int id) {
        std::unique_ptr<Message> out(version.Prototype(kItem).New());
        std::set<std::string> failed;
        const Status s = table->Get(*version.Parse(kItem, "id: " + std::to_string(id)), {}, out.get(), &failed);
        EXPECT_TRUE(s.ok()) << s.ToString();
        EXPECT_TRUE(failed.empty()) << ::testing::PrintToString(failed);
        return out;
    };
    // The record as the older client should read it: the fields it knows.
    const auto as_v1 = [this](const Message& record) {
        std::unique_ptr<Message> older = m_v1.Parse(kItem, "");
        older->ParseFromString(record.SerializeAsString());
        older->DiscardUnknownFields();
        return older->SerializeAsString();
    };

    std::mt19937 rng(2024);
    for (int step = 0; step < 400; ++step) {
        const int id = static_cast<int>(rng() % 5) + 1;
        Message& expected = *model[id];
        const std::string n = std::to_string(step);
        switch (rng() % 7) {
            case 0: {  // v2 puts a whole record
                std::unique_ptr<Message> record =
                    v2.Parse(kItem, "id: " + std::to_string(id) + " name: \"v2-" + n + "\" title: \"t" + n +
                                        "\" inner { a: " + n + " c: " + n + " } color: COLOR_BLUE score: " + n);
                ASSERT_TRUE(t2->Put(*record).ok());
                expected.CopyFrom(*record);
                break;
            }
            case 1: {  // v2 updates a field of its own, or one inside the sub-message
                const bool title = rng() % 2 == 0;
                std::unique_ptr<Message> record = v2.Parse(
                    kItem, "id: " + std::to_string(id) + (title ? " title: \"u" + n + "\"" : " inner { c: " + n + " }"));
                ASSERT_TRUE(t2->Update(*record, {title ? "title" : "inner.c"}).ok());
                std::unique_ptr<Message> merged = v2.Parse(kItem, "");
                merged->CopyFrom(expected);
                if (title) {
                    merged->GetReflection()->SetString(merged.get(), merged->GetDescriptor()->FindFieldByName("title"),
                                                       "u" + n);
                } else {
                    Message* inner = merged->GetReflection()->MutableMessage(
                        merged.get(), merged->GetDescriptor()->FindFieldByName("inner"));
                    inner->GetReflection()->SetInt64(inner, inner->GetDescriptor()->FindFieldByName("c"), step);
                }
                expected.CopyFrom(*merged);
                break;
            }
            case 2:
            case 3: {  // v1 reads the record, changes what it knows, puts it back
                std::unique_ptr<Message> record = read(t1.get(), m_v1, id);
                const google::protobuf::Reflection* reflection = record->GetReflection();
                reflection->SetInt32(record.get(), record->GetDescriptor()->FindFieldByName("level"), step);
                reflection->SetString(record.get(), record->GetDescriptor()->FindFieldByName("name"), "v1-" + n);
                ASSERT_TRUE(t1->Put(*record).ok());
                expected.GetReflection()->SetInt32(&expected, expected.GetDescriptor()->FindFieldByName("level"), step);
                expected.GetReflection()->SetString(&expected, expected.GetDescriptor()->FindFieldByName("name"),
                                                    "v1-" + n);
                break;
            }
            case 4: {  // v1 updates a field it knows
                ASSERT_TRUE(
                    t1->Update(*m_v1.Parse(kItem, "id: " + std::to_string(id) + " score: " + n), {"score"}).ok());
                expected.GetReflection()->SetInt64(&expected, expected.GetDescriptor()->FindFieldByName("score"), step);
                break;
            }
            case 5: {  // v1 reads: a sub-message written whole keeps what v1 lacks as unknown fields
                std::unique_ptr<Message> record = read(t1.get(), m_v1, id);
                record->DiscardUnknownFields();
                EXPECT_EQ(record->SerializeAsString(), as_v1(expected)) << "step " << step;
                break;
            }
            default:  // v2 reads
                EXPECT_EQ(read(t2.get(), v2, id)->ShortDebugString(), expected.ShortDebugString()) << "step " << step;
                break;
        }
    }
    for (auto& entry : model) {
        EXPECT_EQ(read(t2.get(), v2, entry.first)->ShortDebugString(), entry.second->ShortDebugString());
    }
    EXPECT_TRUE(t1->Verify().ok());
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(Engines, EvolutionTest, ::testing::ValuesIn(StoreEngines()), EngineName);
INSTANTIATE_TEST_SUITE_P(Engines, TwoVersionsTest, ::testing::ValuesIn(StoreEngines()), EngineName);

}  // namespace
}  // namespace corvida_store_test
