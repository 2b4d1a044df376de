// The etcd engine's contract on a real 3-member cluster: reads, scans at one
// revision, conditional commits, namespaces, limits, compaction, threads.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "etcd_test_support.h"
#include "store/etcd_errors.h"

namespace corvida_etcd_test {
namespace {

using Clock = std::chrono::steady_clock;

class EtcdEngineTest : public ClusterTest<EtcdEngineTest> {
public:
    static EtcdClusterOptions ClusterOptions() { return {}; }

protected:
    // An engine on a namespace of its own for each test.
    void SetUp() override {
        ClusterTest::SetUp();
        ASSERT_TRUE(IsOk(OpenOn(*s_cluster, Namespace(), &m_engine)));
    }

    static std::string Namespace() { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }

    bool Commit(const EngineBatch& batch) {
        bool committed = false;
        const Status s = m_engine->Commit(batch, &committed);
        EXPECT_TRUE(IsOk(s));
        return s.ok() && committed;
    }

    std::unique_ptr<Engine> m_engine;
};

TEST_F(EtcdEngineTest, PutsGetsAndDeletes) {
    EXPECT_EQ(ValueOf(m_engine.get(), "a"), "<absent>");
    EngineBatch batch;
    batch.Put("a", "1");
    batch.Put("b", std::string("\0\xff", 2));
    ASSERT_TRUE(Commit(batch));
    EXPECT_EQ(ValueOf(m_engine.get(), "a"), "1");
    EXPECT_EQ(ValueOf(m_engine.get(), "b"), std::string("\0\xff", 2));

    batch.Clear();
    batch.Delete("a");
    batch.Put("c", "");
    ASSERT_TRUE(Commit(batch));
    EXPECT_EQ(ValueOf(m_engine.get(), "a"), "<absent>");
    EXPECT_EQ(ValueOf(m_engine.get(), "c"), "");
    const std::map<std::string, std::string> expected = {{"b", std::string("\0\xff", 2)}, {"c", ""}};
    EXPECT_EQ(Contents(m_engine.get()), expected);
}

TEST_F(EtcdEngineTest, ConditionsDecideTheWholeBatch) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"row", "v1"}})));

    EngineBatch batch;
    batch.ExpectAbsent("row");  // it is present
    batch.Put("row", "v2");
    batch.Put("other", "x");
    EXPECT_FALSE(Commit(batch));
    batch.Clear();
    batch.ExpectValue("row", "v0");  // it holds v1
    batch.Put("row", "v2");
    batch.Put("other", "x");
    EXPECT_FALSE(Commit(batch));
    EXPECT_EQ(Contents(m_engine.get()), (std::map<std::string, std::string>{{"row", "v1"}}));

    batch.Clear();
    batch.ExpectValue("row", "v1");
    batch.ExpectAbsent("other");
    batch.Put("row", "v2");
    batch.Put("other", "x");
    EXPECT_TRUE(Commit(batch));
    EXPECT_EQ(Contents(m_engine.get()), (std::map<std::string, std::string>{{"other", "x"}, {"row", "v2"}}));

    // A key that was deleted is absent again, whatever its history.
    batch.Clear();
    batch.Delete("other");
    ASSERT_TRUE(Commit(batch));
    batch.Clear();
    batch.ExpectAbsent("other");
    batch.Put("other", "y");
    EXPECT_TRUE(Commit(batch));
    EXPECT_EQ(ValueOf(m_engine.get(), "other"), "y");
}

TEST_F(EtcdEngineTest, ABatchChangingAKeyTwiceIsRefusedWhole) {
    EngineBatch batch;
    batch.Put("first", "1");
    batch.Put("twice", "1");
    batch.Delete("twice");
    bool committed = true;
    const Status s = m_engine->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("changes one key twice"), std::string::npos) << s.message();
    EXPECT_TRUE(Contents(m_engine.get()).empty());
}

TEST_F(EtcdEngineTest, NamespacesDoNotSeeEachOther) {
    std::unique_ptr<Engine> other;
    std::unique_ptr<Engine> longer;  // begins with this test's namespace
    std::unique_ptr<Engine> unnamed;
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, Namespace() + "x", &other)));
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, Namespace() + "-2", &longer)));
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, "", &unnamed)));
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "mine"}, {"\xff", "high"}})));
    ASSERT_TRUE(IsOk(PutAll(other.get(), {{"k", "other"}})));
    ASSERT_TRUE(IsOk(PutAll(longer.get(), {{"k", "longer"}})));
    ASSERT_TRUE(IsOk(PutAll(unnamed.get(), {{"k", "unnamed"}})));

    EXPECT_EQ(Contents(m_engine.get()), (std::map<std::string, std::string>{{"k", "mine"}, {"\xff", "high"}}));
    EXPECT_EQ(Contents(other.get()), (std::map<std::string, std::string>{{"k", "other"}}));
    EXPECT_EQ(Contents(longer.get()), (std::map<std::string, std::string>{{"k", "longer"}}));
    EXPECT_EQ(Contents(unnamed.get()), (std::map<std::string, std::string>{{"k", "unnamed"}}));
    EXPECT_EQ(m_engine->locator(), s_cluster->Locator(Namespace()));
}

TEST_F(EtcdEngineTest, ScansTheirRangeInByteOrder) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"a", "1"},
                                             {"b", "2"},
                                             {std::string("b\0", 2), "3"},
                                             {"b\x01", "4"},
                                             {"c", "5"},
                                             {"\x7f", "6"},
                                             {"\x80", "7"},
                                             {"\xff\xff", "8"}})));
    std::vector<std::string> keys;
    auto collect = [&](std::string_view key, std::string_view) {
        keys.emplace_back(key);
        return true;
    };
    ASSERT_TRUE(IsOk(m_engine->Scan(nullptr, "b", "c", collect)));
    EXPECT_EQ(keys, (std::vector<std::string>{"b", std::string("b\0", 2), "b\x01"}));
    keys.clear();
    ASSERT_TRUE(IsOk(m_engine->Scan(nullptr, "c", "", collect)));
    EXPECT_EQ(keys, (std::vector<std::string>{"c", "\x7f", "\x80", "\xff\xff"}));
    keys.clear();
    ASSERT_TRUE(IsOk(m_engine->Scan(nullptr, "c", "b", collect)));
    EXPECT_TRUE(keys.empty());
    // The visitor stops the scan.
    int visited = 0;
    ASSERT_TRUE(
        IsOk(m_engine->Scan(nullptr, "", "", [&](std::string_view, std::string_view) { return ++visited < 3; })));
    EXPECT_EQ(visited, 3);
}

// 2500 keys read in pages of 1000: a commit made while the scan is in its
// second page changes keys of its third, and the scan does not see it.
TEST_F(EtcdEngineTest, APagedScanReadsOneRevision) {
    auto key = [](int i) {
        char text[16];
        std::snprintf(text, sizeof text, "key%05d", i);
        return std::string(text);
    };
    constexpr int kKeys = 2500;
    const size_t per_batch = m_engine->limits().max_operations;
    ASSERT_GT(per_batch, 0u);
    for (int i = 0; i < kKeys;) {
        EngineBatch batch;
        for (; i < kKeys && batch.ops().size() < per_batch; ++i) batch.Put(key(i), "old");
        ASSERT_TRUE(Commit(batch));
    }
    std::unique_ptr<ReadView> before;
    ASSERT_TRUE(IsOk(m_engine->NewView(&before)));

    int seen = 0;
    bool changed = false;
    ASSERT_TRUE(IsOk(m_engine->Scan(nullptr, "", "", [&](std::string_view k, std::string_view value) {
        EXPECT_EQ(k, key(seen));
        EXPECT_EQ(value, "old") << k;
        if (++seen == 1500) {
            EngineBatch batch;
            batch.Put(key(2000), "new");
            batch.Delete(key(2100));
            batch.Put(key(2200) + "+", "inserted");
            changed = Commit(batch);
        }
        return true;
    })));
    EXPECT_TRUE(changed);
    EXPECT_EQ(seen, kKeys);

    // Now it is there; the view taken before still shows the old state.
    const auto now = Contents(m_engine.get());
    EXPECT_EQ(now.size(), static_cast<size_t>(kKeys));  // one deleted, one inserted
    EXPECT_EQ(now.at(key(2000)), "new");
    EXPECT_EQ(now.count(key(2100)), 0u);
    const auto then = Contents(m_engine.get(), before.get());
    EXPECT_EQ(then.size(), static_cast<size_t>(kKeys));
    EXPECT_EQ(then.at(key(2000)), "old");
    EXPECT_EQ(then.count(key(2100)), 1u);
}

TEST_F(EtcdEngineTest, AViewKeepsItsState) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "1"}})));
    std::unique_ptr<ReadView> view;
    ASSERT_TRUE(IsOk(m_engine->NewView(&view)));
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "2"}, {"new", "x"}})));

    std::string value;
    bool found = false;
    ASSERT_TRUE(IsOk(m_engine->Get(view.get(), "k", &value, &found)));
    EXPECT_TRUE(found);
    EXPECT_EQ(value, "1");
    ASSERT_TRUE(IsOk(m_engine->Get(view.get(), "new", &value, &found)));
    EXPECT_FALSE(found);
    EXPECT_EQ(ValueOf(m_engine.get(), "k"), "2");
    EXPECT_EQ(Contents(m_engine.get(), view.get()), (std::map<std::string, std::string>{{"k", "1"}}));
}

TEST_F(EtcdEngineTest, ALazyViewIsFixedByItsFirstRead) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "1"}})));
    std::unique_ptr<ReadView> view;
    ASSERT_TRUE(IsOk(m_engine->NewLazyView(&view)));
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "2"}})));

    // Its first read (a scan) sees the commit made after it was taken...
    EXPECT_EQ(Contents(m_engine.get(), view.get()), (std::map<std::string, std::string>{{"k", "2"}}));
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "3"}, {"new", "x"}})));
    // ...and every later read is of that same state.
    std::string value;
    bool found = false;
    ASSERT_TRUE(IsOk(m_engine->Get(view.get(), "k", &value, &found)));
    EXPECT_TRUE(found);
    EXPECT_EQ(value, "2");
    ASSERT_TRUE(IsOk(m_engine->Get(view.get(), "new", &value, &found)));
    EXPECT_FALSE(found);
    EXPECT_EQ(Contents(m_engine.get(), view.get()), (std::map<std::string, std::string>{{"k", "2"}}));
    EXPECT_EQ(ValueOf(m_engine.get(), "k"), "3");
}

TEST_F(EtcdEngineTest, LimitsAreTheClustersAndCountAsEtcdCounts) {
    const auto& limits = m_engine->limits();
    EXPECT_EQ(limits.max_operations, 128u);
    EXPECT_EQ(limits.operations_setting, "--max-txn-ops of the etcd cluster");
    EXPECT_EQ(limits.bytes_setting, "--max-request-bytes of the etcd cluster");
    EXPECT_GT(limits.max_bytes, 1500u * 1024);
    EXPECT_LT(limits.max_bytes, 1536u * 1024);

    // 128 conditions and 128 changes: two lists of 128, which etcd takes.
    EngineBatch batch;
    for (int i = 0; i < 128; ++i) {
        batch.ExpectAbsent("k" + std::to_string(i));
        batch.Put("k" + std::to_string(i), "v");
    }
    EXPECT_TRUE(Commit(batch));

    // One more change is refused, naming the setting; nothing written.
    batch.Clear();
    for (int i = 0; i < 129; ++i) batch.Put("more" + std::to_string(i), "v");
    bool committed = true;
    Status s = m_engine->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("--max-txn-ops of the etcd cluster"), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("nothing was written"), std::string::npos) << s.message();
    EXPECT_EQ(ValueOf(m_engine.get(), "more0"), "<absent>");

    // A value beyond the request limit.
    batch.Clear();
    batch.Put("small", "v");
    batch.Put("big", std::string(limits.max_bytes, 'x'));
    s = m_engine->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("--max-request-bytes of the etcd cluster"), std::string::npos) << s.message();
    EXPECT_EQ(ValueOf(m_engine.get(), "small"), "<absent>");

    // The most a batch may hold goes through.
    batch.Clear();
    batch.Put("big", std::string(limits.max_bytes - 3, 'x'));
    EXPECT_TRUE(Commit(batch));
    EXPECT_EQ(ValueOf(m_engine.get(), "big").size(), limits.max_bytes - 3);
}

TEST_F(EtcdEngineTest, AReadOnlyEngineReadsAndRefusesWrites) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "v"}})));
    StoreOptions options;
    options.read_only = true;
    std::unique_ptr<Engine> reader;
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, Namespace(), &reader, options)));
    EXPECT_TRUE(reader->read_only());
    EXPECT_EQ(ValueOf(reader.get(), "k"), "v");
    EngineBatch batch;
    batch.Put("k", "w");
    bool committed = true;
    const Status s = reader->Commit(batch, &committed);
    EXPECT_TRUE(s.IsNotSupported()) << s.ToString();
    EXPECT_TRUE(reader->Compact().IsNotSupported());
    EXPECT_EQ(ValueOf(m_engine.get(), "k"), "v");
}

// Threads of one engine and of two engines add to one counter with
// conditional commits: every increment lands once.
TEST_F(EtcdEngineTest, ConditionalCommitsSerializeWriters) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"counter", "0"}})));
    std::unique_ptr<Engine> second;
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, Namespace(), &second)));
    constexpr int kThreads = 4;
    constexpr int kIncrements = 25;
    std::atomic<int> conflicts{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        Engine* engine = t % 2 == 0 ? m_engine.get() : second.get();
        threads.emplace_back([engine, &conflicts] {
            for (int i = 0; i < kIncrements;) {
                std::string value;
                bool found = false;
                ASSERT_TRUE(IsOk(engine->Get(nullptr, "counter", &value, &found)));
                EngineBatch batch;
                batch.ExpectValue("counter", value);
                batch.Put("counter", std::to_string(std::stoi(value) + 1));
                bool committed = false;
                ASSERT_TRUE(IsOk(engine->Commit(batch, &committed)));
                if (committed) {
                    ++i;
                } else {
                    ++conflicts;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(ValueOf(m_engine.get(), "counter"), std::to_string(kThreads * kIncrements));
    RecordProperty("conflicts", conflicts.load());
}

TEST_F(EtcdEngineTest, CompactionDropsHistoryAndOldViews) {
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "1"}})));
    std::unique_ptr<ReadView> old_view;
    ASSERT_TRUE(IsOk(m_engine->NewView(&old_view)));
    ASSERT_TRUE(IsOk(PutAll(m_engine.get(), {{"k", "2"}})));
    ASSERT_TRUE(IsOk(m_engine->Compact()));
    ASSERT_TRUE(IsOk(m_engine->Compact()));  // nothing more to do: still fine

    EXPECT_EQ(ValueOf(m_engine.get(), "k"), "2");
    std::string value;
    bool found = false;
    const Status s = m_engine->Get(old_view.get(), "k", &value, &found);
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("compacted"), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("read again"), std::string::npos) << s.message();
}

TEST_F(EtcdEngineTest, AnUnreachableMemberIsPassedOver) {
    // A port nobody listens on, first in the list.
    std::string locator = s_cluster->Locator(Namespace());
    locator.insert(std::string("etcd://").size(), "127.0.0.1:1,");
    std::unique_ptr<Engine> engine;
    ASSERT_TRUE(IsOk(corvida::store::OpenEtcdEngine(locator, StoreOptions(), &engine)));
    ASSERT_TRUE(IsOk(PutAll(engine.get(), {{"k", "v"}})));
    EXPECT_EQ(ValueOf(m_engine.get(), "k"), "v");
}

TEST(EtcdEngineOpenTest, ExplainsWhatItCannotUse) {
    std::unique_ptr<Engine> engine;
    Status s = corvida::store::OpenEtcdEngine("etcd://127.0.0.1/x", StoreOptions(), &engine);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("has no port"), std::string::npos) << s.message();

    StoreOptions options;
    options.timeout_seconds = 0;
    s = corvida::store::OpenEtcdEngine("etcd://127.0.0.1:1/x", options, &engine);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("timeout_seconds"), std::string::npos) << s.message();

    // Nobody listens: refused at once, not at the deadline.
    const auto start = Clock::now();
    s = corvida::store::OpenEtcdEngine("etcd://127.0.0.1:1,127.0.0.1:2/x", StoreOptions(), &engine);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("no member of the cluster is reachable"), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("127.0.0.1:2: "), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("Connection refused"), std::string::npos) << s.message();
    EXPECT_EQ(engine, nullptr);
}

// A cluster that takes fewer operations and bytes than etcd's defaults.
class EtcdSmallLimitsTest : public ClusterTest<EtcdSmallLimitsTest> {
public:
    static EtcdClusterOptions ClusterOptions() {
        EtcdClusterOptions options;
        options.members = 1;
        options.flags = {"--max-txn-ops=8", "--max-request-bytes=65536"};
        return options;
    }
};

TEST_F(EtcdSmallLimitsTest, TheEngineLearnsThemAndRefusesWhatDoesNotFit) {
    std::unique_ptr<Engine> engine;
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, "small", &engine)));
    EXPECT_EQ(engine->limits().max_operations, 8u);

    EngineBatch batch;
    for (int i = 0; i < 9; ++i) batch.Put("k" + std::to_string(i), "v");
    bool committed = true;
    Status s = engine->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("8 that --max-txn-ops of the etcd cluster allows"), std::string::npos) << s.message();

    // The cluster refuses a request above its --max-request-bytes, which it
    // does not tell beforehand: nothing is written, the setting is named.
    batch.Clear();
    batch.Put("a", "v");
    batch.Put("b", std::string(100 * 1024, 'x'));
    s = engine->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("--max-request-bytes of the etcd cluster"), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("nothing was written"), std::string::npos) << s.message();
    // The same again is refused before it is sent.
    s = engine->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("more than the"), std::string::npos) << s.message();

    // Beyond what gRPC takes for the cluster: the member tells its limit,
    // and a new engine learns it exactly.
    std::unique_ptr<Engine> fresh;
    ASSERT_TRUE(IsOk(OpenOn(*s_cluster, "small", &fresh)));
    batch.Clear();
    batch.Put("c", std::string(700 * 1024, 'x'));
    s = fresh->Commit(batch, &committed);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("--max-request-bytes of the etcd cluster"), std::string::npos) << s.message();
    batch.Clear();
    batch.Put("d", std::string(70 * 1024, 'x'));
    s = fresh->Commit(batch, &committed);
    EXPECT_NE(s.message().find("more than the 65536 that --max-request-bytes"), std::string::npos) << s.message();
    EXPECT_TRUE(Contents(engine.get()).empty());

    // What fits goes through.
    batch.Clear();
    for (int i = 0; i < 8; ++i) batch.Put("k" + std::to_string(i), std::string(1000, 'x'));
    s = engine->Commit(batch, &committed);
    EXPECT_TRUE(IsOk(s));
    EXPECT_TRUE(committed);
    EXPECT_EQ(Contents(engine.get()).size(), 8u);
}

}  // namespace
}  // namespace corvida_etcd_test
