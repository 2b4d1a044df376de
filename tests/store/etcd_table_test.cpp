// Tables on a real 3-member cluster: writes and lookups read through views
// that their first read fixes, and a lookup checks the table's schema at the
// view it then reads its entries at.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "etcd_test_support.h"
#include "schema_versions.h"
#include "store/table_store.h"

namespace corvida_etcd_test {
namespace {

using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::Record;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida_store_test::SchemaVersion;

const char kItem[] = "evo.Item";

std::string ItemFile(const std::string& indexes) {
    return R"proto(
syntax = "proto3";
package evo;
import "corvidaservice.optionv1.proto";

message Item {
  option (corvidaservice.corvida_primary_key) = "id";
  option (corvidaservice.corvida_sharding_key) = "group";
)proto" + indexes +
           R"proto(
  int64 id = 1;
  string name = 2;
  int32 level = 3;
  int32 group = 4;
}
)proto";
}

const char kByName[] = "  option (corvidaservice.corvida_index) = \"by_name(name)\";\n";
const char kByLevel[] = "  option (corvidaservice.corvida_index) = \"by_level(level)\";\n";

class EtcdTableTest : public ClusterTest<EtcdTableTest> {
public:
    static EtcdClusterOptions ClusterOptions() { return {}; }

protected:
    // A store on a namespace of its own for each test, holding the table at
    // its first version.
    void SetUp() override {
        ClusterTest::SetUp();
        ASSERT_TRUE(m_v1.ok());
        StoreOptions options;
        options.create_if_missing = true;
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_TRUE(IsOk(TableStore::Open(s_cluster->Locator(name), options, &m_store)));
        ASSERT_TRUE(IsOk(m_store->CreateTable(m_v1.blob(), kItem)));
        ASSERT_TRUE(IsOk(m_store->OpenTable(m_v1.Prototype(kItem), nullptr, &m_table)));
    }

    std::unique_ptr<google::protobuf::Message> Item(SchemaVersion& version, int id, int level, int group) {
        return version.Parse(kItem, "id: " + std::to_string(id) + " name: \"n" + std::to_string(id % 3) +
                                        "\" level: " + std::to_string(level) + " group: " + std::to_string(group));
    }

    size_t Found(Table* table, const char* index, const std::string& text) {
        std::vector<Record> found;
        const Status s = table->FindByIndex(index, *m_v1.Parse(kItem, text), &found);
        EXPECT_TRUE(IsOk(s));
        return found.size();
    }

    SchemaVersion m_v1{ItemFile(kByName)};
    std::unique_ptr<TableStore> m_store;
    std::unique_ptr<Table> m_table;
};

TEST_F(EtcdTableTest, WritesAndLookupsSeeEachOther) {
    for (int id = 1; id <= 12; ++id) ASSERT_TRUE(IsOk(m_table->Put(*Item(m_v1, id, id % 4, id % 2))));
    EXPECT_EQ(Found(m_table.get(), "by_name", "name: \"n1\""), 4u);

    // An update that moves an index entry, and a delete: each lookup after
    // them sees them.
    ASSERT_TRUE(IsOk(m_table->Update(*m_v1.Parse(kItem, "id: 1 name: \"n2\""), {"name"})));
    EXPECT_EQ(Found(m_table.get(), "by_name", "name: \"n1\""), 3u);
    EXPECT_EQ(Found(m_table.get(), "by_name", "name: \"n2\""), 5u);
    ASSERT_TRUE(IsOk(m_table->Delete(*m_v1.Parse(kItem, "id: 2"))));
    EXPECT_EQ(Found(m_table.get(), "by_name", "name: \"n2\""), 4u);

    std::vector<Record> listed;
    ASSERT_TRUE(IsOk(m_table->Scan(m_v1.Parse(kItem, "group: 0").get(), 0, &listed)));
    EXPECT_EQ(listed.size(), 5u);  // 4, 6, 8, 10, 12
    auto out = m_v1.Parse(kItem, "");
    ASSERT_TRUE(IsOk(m_table->Get(*m_v1.Parse(kItem, "id: 1"), {}, out.get(), nullptr)));
    EXPECT_EQ(out->ShortDebugString(), "id: 1 name: \"n2\" level: 1 group: 1");
    EXPECT_TRUE(IsOk(m_table->Verify()));
}

// A table opened while an index is being built is refused lookups on it;
// once the index is ready, the same table finds every record through it.
TEST_F(EtcdTableTest, ALookupReadsTheIndexAsItsViewHasIt) {
    for (int id = 1; id <= 20; ++id) ASSERT_TRUE(IsOk(m_table->Put(*Item(m_v1, id, id % 4, 0))));
    SchemaVersion v2(ItemFile(std::string(kByName) + kByLevel));
    ASSERT_TRUE(v2.ok());
    AlterPlan plan;
    ASSERT_TRUE(IsOk(m_store->AlterTable(v2.blob(), kItem, AlterOptions(), &plan)));
    std::unique_ptr<Table> table;
    ASSERT_TRUE(IsOk(m_store->OpenTable(v2.Prototype(kItem), nullptr, &table)));
    std::vector<Record> found;
    Status s = table->FindByIndex("by_level", *v2.Parse(kItem, "level: 1"), &found);
    EXPECT_TRUE(s.IsBusy()) << s.ToString();
    ASSERT_TRUE(IsOk(table->Put(*Item(v2, 100, 1, 0))));

    ASSERT_TRUE(IsOk(m_store->BuildIndex(kItem, "by_level", nullptr, nullptr)));
    ASSERT_TRUE(IsOk(table->FindByIndex("by_level", *v2.Parse(kItem, "level: 1"), &found)));
    EXPECT_EQ(found.size(), 6u);  // 1, 5, 9, 13, 17 and 100
    EXPECT_TRUE(IsOk(table->Verify()));
}

}  // namespace
}  // namespace corvida_etcd_test
