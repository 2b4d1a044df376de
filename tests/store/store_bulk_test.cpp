// Many records at once: Table::Write (many records per commit, split by the
// engine's limits, writes of one record in order, commits staged again when
// another writer came in between, a refused write stopping the call), and
// reads in pages through thousands of records, counts and verification.
#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/catalog.h"
#include "store/rocksdb_engine.h"
#include "store/store_context.h"
#include "store/table_impl.h"
#include "store/table_store.h"
#include "store_tables.pb.h"
#include "store_test_support.h"

namespace corvida_store_test {
namespace {

using corvida::store::CatalogTable;
using corvida::store::Engine;
using corvida::store::EngineBatch;
using corvida::store::EngineLimits;
using corvida::store::Page;
using corvida::store::ReadView;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::Table;
using corvida::store::WriteOp;
using corvida::store::WriteReport;
using corvida::storetest::Account;

Account MakeAccount(int i) {
    Account account;
    account.set_region(i % 7);
    account.set_email("user" + std::to_string(i) + "@example.com");
    account.set_city(i % 2 == 0 ? "Lyon" : "Oslo");
    account.set_level(i % 50);
    account.mutable_profile()->set_nickname("n" + std::to_string(i));
    account.add_scores(i);
    account.add_tags("t");
    return account;
}

WriteOp PutOf(const Account& account) {
    WriteOp op;
    op.message = &account;
    return op;
}

std::string EmailOf(const Record& record) { return static_cast<const Account&>(*record.message).email(); }

// An engine that forwards to a RocksDB engine, with limits of its own, a
// count of commits, and a write of its own slipped in before the first
// commit (as another process would make it) when asked.
class TestEngine : public Engine {
public:
    explicit TestEngine(std::unique_ptr<Engine> inner) : m_inner(std::move(inner)) {}

    EngineLimits limits_;
    std::function<void(Engine*)> before_first_commit;
    std::atomic<int> commits{0};
    std::atomic<int> refused{0};

    const std::string& locator() const override { return m_inner->locator(); }
    const char* kind() const override { return m_inner->kind(); }
    bool read_only() const override { return false; }
    const EngineLimits& limits() const override { return limits_; }
    Status NewView(std::unique_ptr<ReadView>* view) override { return m_inner->NewView(view); }
    Status Get(const ReadView* view, std::string_view key, std::string* value, bool* found) override {
        return m_inner->Get(view, key, value, found);
    }
    Status Scan(const ReadView* view, std::string_view begin, std::string_view end, const Visitor& visit) override {
        return m_inner->Scan(view, begin, end, visit);
    }
    Status Commit(const EngineBatch& batch, bool* committed) override {
        if (before_first_commit) {
            auto slip = std::move(before_first_commit);
            before_first_commit = nullptr;
            slip(this);
        }
        Status status = corvida::store::CheckLimits(batch, limits_, "test");
        if (status.ok()) status = m_inner->Commit(batch, committed);
        if (status.ok() && *committed) ++commits;
        if (status.ok() && !*committed) ++refused;
        return status;
    }
    Status Compact() override { return m_inner->Compact(); }

private:
    std::unique_ptr<Engine> m_inner;
};

// The Account table of a store on TestEngine, opened.
class StoreBulkTest : public ::testing::Test {
protected:
    void SetUp() override {
        corvida::store::RocksEngineOptions options;
        options.create_if_missing = true;
        std::unique_ptr<Engine> rocks;
        corvida::store::NewStore made;
        ASSERT_TRUE(corvida::store::OpenRocksEngine(m_dir.path(), options, &rocks, &made).ok());
        auto engine = std::make_unique<TestEngine>(std::move(rocks));
        m_engine = engine.get();
        m_context = std::make_shared<corvida::store::StoreContext>(std::move(engine), nullptr);
        corvida::store::Catalog catalog(m_engine);
        ASSERT_TRUE(catalog.Add(Account::descriptor()->full_name(), SchemaBlob(Account::descriptor())).ok());
        CatalogTable entry;
        ASSERT_TRUE(catalog.Find(Account::descriptor()->full_name(), &entry).ok());
        ASSERT_TRUE(corvida::store::TableImpl::Open(m_context, entry, Account::default_instance(), m_kv.get(), &m_table)
                        .ok());
        m_engine->commits = 0;  // the catalog's
    }

    // Puts accounts [first, first + count) in one call.
    WriteReport PutMany(int first, int count) {
        std::vector<Account> accounts;
        for (int i = first; i < first + count; ++i) accounts.push_back(MakeAccount(i));
        std::vector<WriteOp> writes;
        for (const Account& account : accounts) writes.push_back(PutOf(account));
        WriteReport report;
        const Status s = m_table->Write(writes, &report);
        EXPECT_TRUE(s.ok()) << s.ToString();
        EXPECT_EQ(report.written, writes.size());
        return report;
    }

    // The records of city, by the index by_city.
    uint64_t InCity(const std::string& city) {
        Account fields;
        fields.set_city(city);
        uint64_t count = 0;
        EXPECT_TRUE(m_table->CountIndex("by_city", fields, &count).ok());
        return count;
    }

    std::vector<std::string> AllEmails() {
        std::vector<Record> records;
        EXPECT_TRUE(m_table->Scan(nullptr, 0, &records).ok());
        std::vector<std::string> emails;
        for (const Record& record : records) emails.push_back(EmailOf(record));
        return emails;
    }

    TempDir m_dir;
    std::unique_ptr<CORVIDA_KV::CorvidaKVApi> m_kv = AesKv();
    TestEngine* m_engine = nullptr;
    std::shared_ptr<corvida::store::StoreContext> m_context;
    std::unique_ptr<Table> m_table;
};

TEST_F(StoreBulkTest, ManyRecordsGoIntoFewCommits) {
    const WriteReport report = PutMany(0, 2500);
    EXPECT_EQ(report.commits, 3u);
    EXPECT_EQ(m_engine->commits, 3);
    uint64_t count = 0;
    ASSERT_TRUE(m_table->Count(nullptr, &count).ok());
    EXPECT_EQ(count, 2500u);
    EXPECT_TRUE(m_table->Verify().ok());
    Account key = MakeAccount(1234);
    Account got;
    std::set<std::string> failed;
    ASSERT_TRUE(m_table->Get(key, {}, &got, &failed).ok());
    EXPECT_EQ(got.SerializeAsString(), key.SerializeAsString());
}

TEST_F(StoreBulkTest, CommitsKeepWithinTheEnginesLimits) {
    m_engine->limits_.max_operations = 64;
    m_engine->limits_.operations_setting = "the test's operation limit";
    const WriteReport report = PutMany(0, 300);
    EXPECT_GT(report.commits, 30u);  // each record takes more than one operation in eight
    EXPECT_EQ(m_engine->commits, static_cast<int>(report.commits));
    EXPECT_EQ(AllEmails().size(), 300u);
    EXPECT_TRUE(m_table->Verify().ok());

    // A record that no commit can hold is refused as a single write is.
    m_engine->limits_.max_operations = 4;
    Account big = MakeAccount(1000);
    WriteReport refused;
    const Status s = m_table->Write({PutOf(big)}, &refused);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("the test's operation limit"), std::string::npos) << s.ToString();
    EXPECT_EQ(refused.written, 0u);
}

TEST_F(StoreBulkTest, WritesOfOneRecordActAsIfMadeInOrder) {
    PutMany(0, 4);
    Account first = MakeAccount(0);
    Account moved = MakeAccount(0);
    moved.set_city("Rome");
    Account gone = MakeAccount(1);
    Account again = MakeAccount(1);
    again.set_level(49);
    Account missing = MakeAccount(99);
    Account level = MakeAccount(2);
    level.set_level(7);
    std::vector<WriteOp> writes = {PutOf(first), PutOf(moved)};
    writes.push_back(WriteOp{WriteOp::Kind::kDelete, &gone, {}});
    writes.push_back(PutOf(again));
    writes.push_back(WriteOp{WriteOp::Kind::kDelete, &missing, {}});
    writes.push_back(WriteOp{WriteOp::Kind::kUpdate, &level, {"level"}});
    writes.push_back(WriteOp{WriteOp::Kind::kDelete, &level, {}});
    writes.push_back(WriteOp{WriteOp::Kind::kUpdate, &level, {"level"}});
    WriteReport report;
    const Status s = m_table->Write(writes, &report);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(report.written, writes.size());
    EXPECT_EQ(report.not_found, std::vector<size_t>{4});
    EXPECT_GE(report.commits, 3u);  // each repeated record starts a commit

    Account got;
    std::set<std::string> failed;
    ASSERT_TRUE(m_table->Get(first, {}, &got, &failed).ok());
    EXPECT_EQ(got.city(), "Rome");
    ASSERT_TRUE(m_table->Get(again, {}, &got, &failed).ok());
    EXPECT_EQ(got.level(), 49);
    ASSERT_TRUE(m_table->Get(level, {}, &got, &failed).ok());
    EXPECT_EQ(got.level(), 7);
    EXPECT_EQ(got.city(), "") << "the update after the delete made a new record of just the level";
    EXPECT_TRUE(m_table->Get(missing, {}, &got, &failed).IsNotFound());
    // The entries moved once each: verify finds nothing wrong, and the
    // index finds the record under its last value only.
    EXPECT_TRUE(m_table->Verify().ok());
    EXPECT_EQ(InCity("Rome"), 1u);
}

TEST_F(StoreBulkTest, ACommitThatLostARaceIsStagedAgain) {
    PutMany(0, 10);
    Account racer = MakeAccount(3);
    racer.set_city("Bern");
    m_engine->before_first_commit = [this, racer](Engine*) { ASSERT_TRUE(m_table->Put(racer).ok()); };
    std::vector<Account> accounts;
    for (int i = 0; i < 10; ++i) {
        accounts.push_back(MakeAccount(i));
        accounts.back().set_level(40);
    }
    std::vector<WriteOp> writes;
    for (const Account& account : accounts) writes.push_back(PutOf(account));
    WriteReport report;
    ASSERT_TRUE(m_table->Write(writes, &report).ok());
    EXPECT_EQ(report.written, 10u);
    EXPECT_GE(m_engine->refused, 1) << "the slipped-in write made the first commit fail";
    // The bulk put came after the racer's, and moved the entry it left.
    EXPECT_TRUE(m_table->Verify().ok());
    EXPECT_EQ(InCity("Bern"), 0u);
}

TEST_F(StoreBulkTest, ARefusedWriteStopsTheCallAfterTheWritesBeforeIt) {
    std::vector<Account> accounts = {MakeAccount(0), MakeAccount(1), MakeAccount(2), MakeAccount(3)};
    accounts[2].set_email(std::string(2000, 'x'));  // a key over 1022 bytes
    std::vector<WriteOp> writes;
    for (const Account& account : accounts) writes.push_back(PutOf(account));
    WriteReport report;
    const Status s = m_table->Write(writes, &report);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_EQ(s.bridge_code(), -10);
    EXPECT_EQ(report.written, 2u);
    EXPECT_EQ(AllEmails(), (std::vector<std::string>{"user0@example.com", "user1@example.com"}));

    // The caller goes on after it.
    writes.erase(writes.begin(), writes.begin() + 3);
    ASSERT_TRUE(m_table->Write(writes, &report).ok());
    EXPECT_EQ(AllEmails().size(), 3u);

    WriteOp empty;
    EXPECT_TRUE(m_table->Write({empty}, &report).IsInvalidArgument());
    EXPECT_TRUE(m_table->Write({}, nullptr).IsInvalidArgument());
}

TEST_F(StoreBulkTest, VerifyCountsWhatIsWrong) {
    PutMany(0, 2500);
    corvida::store::VerifyCounts counts;
    std::vector<uint64_t> calls;
    ASSERT_TRUE(m_table->Verify(&counts, [&calls](uint64_t records) { calls.push_back(records); }).ok());
    EXPECT_EQ(calls, (std::vector<uint64_t>{1000, 2000}));
    EXPECT_EQ(counts.records, 2500u);
    EXPECT_EQ(counts.entries, 7500u);  // two indexes and the shard
    EXPECT_EQ(counts.missing + counts.orphans, 0u);

    // One index entry taken away, and one that names no record.
    std::string entry;
    ASSERT_TRUE(m_engine->Scan(nullptr, "I", "J", [&entry](std::string_view key, std::string_view) {
        entry = std::string(key);
        return false;
    }).ok());
    EngineBatch damage;
    damage.Delete(entry);
    damage.Put(entry.substr(0, entry.size() - 3) + "zz", "");
    bool committed = false;
    ASSERT_TRUE(m_engine->Commit(damage, &committed).ok() && committed);
    const Status s = m_table->Verify(&counts, nullptr);
    EXPECT_TRUE(s.IsCorruption()) << s.ToString();
    EXPECT_EQ(counts.records, 2500u);
    EXPECT_EQ(counts.missing, 1u);
    EXPECT_EQ(counts.orphans, 1u);
}

// Pages of 97 through 10,000 records visit each exactly once, in
// primary-key order, across cursors handed from one read to the next; the
// same through the records of one index value and of one shard.
TEST_F(StoreBulkTest, PagingVisitsEveryRecordOnceInOrder) {
    for (int first = 0; first < 10000; first += 2500) PutMany(first, 2500);
    const std::vector<std::string> all = AllEmails();
    ASSERT_EQ(all.size(), 10000u);
    std::map<std::string, size_t> position;  // in the whole table's scan
    for (size_t i = 0; i < all.size(); ++i) position[all[i]] = i;

    Account lyon;
    lyon.set_city("Lyon");
    Account shard;
    shard.set_region(3);
    struct Read {
        const char* what;
        std::function<Status(const Page&, const corvida::store::RecordVisitor&, std::string*)> page;
        uint64_t expected;
    };
    const std::vector<Read> reads = {
        {"table", [&](const Page& p, const auto& v, std::string* n) { return m_table->ScanEach(nullptr, p, v, n); },
         10000},
        {"index", [&](const Page& p, const auto& v, std::string* n) { return m_table->FindEach("by_city", lyon, p, v, n); },
         5000},
        {"shard", [&](const Page& p, const auto& v, std::string* n) { return m_table->ScanEach(&shard, p, v, n); },
         1429},
    };
    for (const Read& read : reads) {
        std::vector<std::string> visited;
        Page page;
        page.limit = 97;
        size_t pages = 0;
        for (;;) {
            std::string next;
            size_t in_page = 0;
            const Status s = read.page(page, [&](Record& record) {
                visited.push_back(EmailOf(record));
                ++in_page;
                return true;
            }, &next);
            ASSERT_TRUE(s.ok()) << read.what << ": " << s.ToString();
            ++pages;
            EXPECT_LE(in_page, 97u);
            if (next.empty()) break;
            EXPECT_EQ(in_page, 97u) << read.what;
            page.after = next;
        }
        EXPECT_EQ(visited.size(), read.expected) << read.what;
        EXPECT_EQ(pages, (read.expected + 96) / 97 + (read.expected % 97 == 0 ? 1 : 0)) << read.what;
        std::set<std::string> distinct(visited.begin(), visited.end());
        EXPECT_EQ(distinct.size(), visited.size()) << read.what << ": a record came twice";
        // In primary-key order: the order of the whole table's scan.
        std::vector<size_t> positions;
        for (const std::string& email : visited) positions.push_back(position.at(email));
        EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end())) << read.what;
        uint64_t count = 0;
        const Status counted = std::string(read.what) == "index" ? m_table->CountIndex("by_city", lyon, &count)
                               : std::string(read.what) == "shard" ? m_table->Count(&shard, &count)
                                                                   : m_table->Count(nullptr, &count);
        ASSERT_TRUE(counted.ok()) << counted.ToString();
        EXPECT_EQ(count, read.expected) << read.what;
    }
}

}  // namespace
}  // namespace corvida_store_test
