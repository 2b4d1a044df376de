// Processes beside each other on one store, on every engine (store_place.h):
// reader processes read while a writer process writes, and none of their
// reads fails. The writers of many processes at once, on etcd, are
// store_etcd_cluster_test's.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "store/table_store.h"
#include "store_place.h"
#include "store_test_support.h"
#include "tables3.pb.h"

namespace corvida_store_test {
namespace {

using corvida::store::Status;
using corvida::store::Table;
using corvida::store::TableStore;

constexpr int kReaders = 3;
constexpr int kReadRounds = 25;

// Ends child with SIGKILL and reaps it, once.
void KillChild(Child* child) {
    if (child->pid < 0) return;
    ::kill(child->pid, SIGKILL);
    int status = 0;
    ::waitpid(child->pid, &status, 0);
    child->pid = -1;
    if (child->out >= 0) ReadAll(child);
}

class ReadersBesideAWriterTest : public ::testing::TestWithParam<EngineKind> {
protected:
    StorePlace m_place{GetParam()};
};

// A writer process puts, updates and deletes records with sync on; reader
// processes open the store for reading again and again meanwhile and read
// it every way there is, Verify included.
TEST_P(ReadersBesideAWriterTest, ReadersSucceedWhileAWriterWrites) {
    ASSERT_FALSE(m_place.where().empty());
    Child writer;
    ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"write", m_place.where(), "0"}, &writer));
    // The writer writes until it is killed, whichever way the test ends.
    const std::unique_ptr<Child, void (*)(Child*)> kill_writer(&writer, &KillChild);
    // Its first write returned: the store and the table exist.
    std::string first;
    const bool wrote = ReadLine(&writer, &first, 30000);
    EXPECT_TRUE(wrote) << "the writer wrote nothing";

    std::vector<Child> readers(wrote ? kReaders : 0);
    for (Child& reader : readers) {
        ASSERT_TRUE(Spawn(CORVIDA_STORE_WRITER, {"read", m_place.where(), std::to_string(kReadRounds)}, &reader));
    }
    for (Child& reader : readers) {
        const std::string said = ReadAll(&reader);
        EXPECT_EQ(WaitExit(reader, 120000), 0) << said;
        EXPECT_EQ(said.rfind("read " + std::to_string(kReadRounds) + " rounds, last saw ", 0), 0u) << said;
    }
    // The writer went on writing meanwhile.
    std::string more;
    while (std::count(more.begin(), more.end(), '\n') < 10) {
        std::string line;
        if (!ReadLine(&writer, &line, 10000)) break;
        more += line;
    }
    EXPECT_GE(std::count(more.begin(), more.end(), '\n'), 10) << "the writer stopped";

    KillChild(&writer);
    std::unique_ptr<TableStore> store;
    ASSERT_TRUE(OpenStore(m_place.where(), &store).ok());
    std::unique_ptr<Table> table;
    ASSERT_TRUE(store->OpenTable(corvida::test3::Player3::default_instance(), nullptr, &table).ok());
    const Status verified = table->Verify();
    EXPECT_TRUE(verified.ok()) << verified.ToString();
}

INSTANTIATE_TEST_SUITE_P(Engines, ReadersBesideAWriterTest, ::testing::ValuesIn(StoreEngines()), EngineName);

}  // namespace
}  // namespace corvida_store_test
