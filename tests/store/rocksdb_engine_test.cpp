// The RocksDB engine's reads at a view: bounded scans that share the view's
// iterator, scans started from inside another, and what it tells without a
// read about keys written since an earlier view.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "store/engine.h"
#include "store/rocksdb_engine.h"
#include "store_test_support.h"

namespace corvida_store_test {
namespace {

using corvida::store::Engine;
using corvida::store::EngineBatch;
using corvida::store::ReadView;
using corvida::store::Status;

using Pairs = std::vector<std::pair<std::string, std::string>>;

class RocksEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        corvida::store::RocksEngineOptions options;
        options.create_if_missing = true;
        corvida::store::NewStore made;
        ASSERT_TRUE(corvida::store::OpenRocksEngine(m_dir.path(), options, &m_engine, &made).ok());
        Write({{"a1", "1"}, {"a2", "2"}, {"b1", "3"}, {"b2", "4"}, {"c1", "5"}});
    }

    void Write(const Pairs& pairs) {
        EngineBatch batch;
        for (const auto& pair : pairs) batch.Put(pair.first, pair.second);
        bool committed = false;
        ASSERT_TRUE(m_engine->Commit(batch, &committed).ok());
        ASSERT_TRUE(committed);
    }

    Pairs Scan(const ReadView* view, const std::string& begin, const std::string& end) {
        Pairs out;
        const Status s = m_engine->Scan(view, begin, end, [&out](std::string_view key, std::string_view value) {
            out.emplace_back(std::string(key), std::string(value));
            return true;
        });
        EXPECT_TRUE(s.ok()) << s.ToString();
        return out;
    }

    uint64_t Position(const ReadView* view) {
        uint64_t position = 0;
        EXPECT_TRUE(m_engine->ViewPosition(view, &position));
        return position;
    }

    TempDir m_dir;
    std::unique_ptr<Engine> m_engine;
};

TEST_F(RocksEngineTest, ScansAtOneViewEachSeeTheirOwnRange) {
    std::unique_ptr<ReadView> view;
    ASSERT_TRUE(m_engine->NewView(&view).ok());
    // Later ranges before, after and around earlier ones, a range holding
    // nothing, one left after its first key, one without an end.
    EXPECT_EQ(Scan(view.get(), "b", "c"), (Pairs{{"b1", "3"}, {"b2", "4"}}));
    EXPECT_EQ(Scan(view.get(), "a", "a2"), (Pairs{{"a1", "1"}}));
    EXPECT_EQ(Scan(view.get(), "a", "z"), (Pairs{{"a1", "1"}, {"a2", "2"}, {"b1", "3"}, {"b2", "4"}, {"c1", "5"}}));
    EXPECT_EQ(Scan(view.get(), "b3", "c1"), Pairs());
    int seen = 0;
    ASSERT_TRUE(m_engine->Scan(view.get(), "a", "c", [&seen](std::string_view, std::string_view) { return ++seen < 1; })
                    .ok());
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(Scan(view.get(), "c", ""), (Pairs{{"c1", "5"}}));
    EXPECT_EQ(Scan(view.get(), "a2", "b2"), (Pairs{{"a2", "2"}, {"b1", "3"}}));
}

TEST_F(RocksEngineTest, AScanFromInsideAnotherAtTheSameViewReadsItsOwnRange) {
    std::unique_ptr<ReadView> view;
    ASSERT_TRUE(m_engine->NewView(&view).ok());
    std::vector<std::string> outer;
    Pairs inner;
    ASSERT_TRUE(m_engine
                    ->Scan(view.get(), "a", "b",
                           [&](std::string_view key, std::string_view) {
                               outer.emplace_back(key);
                               const Pairs rows = Scan(view.get(), "b", "c");
                               inner.insert(inner.end(), rows.begin(), rows.end());
                               return true;
                           })
                    .ok());
    EXPECT_EQ(outer, (std::vector<std::string>{"a1", "a2"}));
    EXPECT_EQ(inner, (Pairs{{"b1", "3"}, {"b2", "4"}, {"b1", "3"}, {"b2", "4"}}));
}

TEST_F(RocksEngineTest, AViewKeepsItsStateAcrossItsScans) {
    std::unique_ptr<ReadView> view;
    ASSERT_TRUE(m_engine->NewView(&view).ok());
    EXPECT_EQ(Scan(view.get(), "a", "b"), (Pairs{{"a1", "1"}, {"a2", "2"}}));
    Write({{"a3", "6"}, {"b1", "7"}});
    EXPECT_EQ(Scan(view.get(), "a", "b"), (Pairs{{"a1", "1"}, {"a2", "2"}}));
    EXPECT_EQ(Scan(view.get(), "b", "c"), (Pairs{{"b1", "3"}, {"b2", "4"}}));
    EXPECT_EQ(Scan(nullptr, "b", "c"), (Pairs{{"b1", "7"}, {"b2", "4"}}));
}

TEST_F(RocksEngineTest, AKeyIsKnownUnchangedUntilACommitWritesIt) {
    std::unique_ptr<ReadView> first;
    ASSERT_TRUE(m_engine->NewView(&first).ok());
    const uint64_t at_first = Position(first.get());
    std::unique_ptr<ReadView> second;
    ASSERT_TRUE(m_engine->NewView(&second).ok());
    EXPECT_TRUE(m_engine->KeyUnchanged("b1", at_first, second.get()));

    Write({{"b1", "8"}});
    std::unique_ptr<ReadView> third;
    ASSERT_TRUE(m_engine->NewView(&third).ok());
    const uint64_t at_third = Position(third.get());
    // Written between the states, whichever is the older.
    EXPECT_FALSE(m_engine->KeyUnchanged("b1", at_first, third.get()));
    EXPECT_FALSE(m_engine->KeyUnchanged("b1", at_third, first.get()));
    // Not since.
    std::unique_ptr<ReadView> fourth;
    ASSERT_TRUE(m_engine->NewView(&fourth).ok());
    EXPECT_TRUE(m_engine->KeyUnchanged("b1", at_third, fourth.get()));
    // A commit that only checks the key writes nothing of it.
    EngineBatch checked;
    checked.ExpectValue("b1", "8");
    bool committed = false;
    ASSERT_TRUE(m_engine->Commit(checked, &committed).ok());
    ASSERT_TRUE(committed);
    std::unique_ptr<ReadView> fifth;
    ASSERT_TRUE(m_engine->NewView(&fifth).ok());
    EXPECT_TRUE(m_engine->KeyUnchanged("b1", at_third, fifth.get()));
    // Without a view there is no state to tell of.
    EXPECT_FALSE(m_engine->KeyUnchanged("b1", at_third, nullptr));
}

TEST_F(RocksEngineTest, AReadOnlyOpenKeepsTheStateOfItsOpen) {
    corvida::store::RocksEngineOptions options;
    options.read_only = true;
    std::unique_ptr<Engine> reader;
    corvida::store::NewStore made;
    ASSERT_TRUE(corvida::store::OpenRocksEngine(m_dir.path(), options, &reader, &made).ok());
    std::unique_ptr<ReadView> before;
    ASSERT_TRUE(reader->NewView(&before).ok());
    uint64_t at = 0;
    ASSERT_TRUE(reader->ViewPosition(before.get(), &at));
    Write({{"b1", "8"}});  // by the writer, which the reader does not see
    std::unique_ptr<ReadView> after;
    ASSERT_TRUE(reader->NewView(&after).ok());
    EXPECT_TRUE(reader->KeyUnchanged("b1", at, after.get()));
    std::string value;
    bool found = false;
    ASSERT_TRUE(reader->Get(after.get(), "b1", &value, &found).ok());
    EXPECT_EQ(value, "3");
}

}  // namespace
}  // namespace corvida_store_test
