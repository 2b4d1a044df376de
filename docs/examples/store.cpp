// The table store: a store in a temporary directory, the Account table
// created from its schema blob, records written whole and in part, read back,
// found through an index and listed by shard, many written at once and read
// in pages; and what the store refuses.
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "expect.h"
#include "guide_blob.h"
#include "guide.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "store/table_store.h"

namespace {

using corvida::store::Page;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::Table;
using corvida::store::TableStore;
using corvida::store::WriteOp;
using corvida::store::WriteReport;

void Run(const std::string& dir) {
    // [START open]
    StoreOptions options;
    options.create_if_missing = true;  // else a missing store is kNotFound
    std::unique_ptr<TableStore> store;
    Status s = TableStore::Open(dir, options, &store);
    Expect(s.ok(), "open (and create) the store");

    // Once per table: the schema blob plays the server's schema.
    s = store->CreateTable(GuideBlob(), "Account");
    Expect(s.ok(), "CreateTable");

    // Each client opens the table with its own type, checked against the blob.
    std::unique_ptr<Table> accounts;
    s = store->OpenTable(bank::Account::default_instance(), nullptr, &accounts);
    Expect(s.ok(), "OpenTable");
    // [END open]

    // [START write]
    bank::Account ann;
    ann.set_region(3);
    ann.set_account_id(300);
    ann.set_email("ann@ex.com");
    ann.mutable_home()->set_city("Lyon");
    ann.mutable_home()->set_zip("69001");
    ann.set_balance(1250);
    ann.add_tags("gold");
    (*ann.mutable_limits())["daily"] = 500;
    s = accounts->Put(ann);  // the whole record: every field, absent ones too
    Expect(s.ok(), "Put");

    // Only the named paths are written; the rest of the record stays.
    bank::Account change;
    change.set_region(3);
    change.set_account_id(300);
    change.set_balance(990);
    change.mutable_home()->set_city("Paris");
    s = accounts->Update(change, {"balance", "home.city"});
    Expect(s.ok(), "Update of two paths");
    // [END write]

    // [START read]
    bank::Account key;  // the key fields are enough
    key.set_region(3);
    key.set_account_id(300);
    bank::Account back;
    std::set<std::string> failed_paths;
    s = accounts->Get(key, {}, &back, &failed_paths);
    Expect(s.ok() && failed_paths.empty(), "Get");
    Expect(back.balance() == 990 && back.home().city() == "Paris" && back.home().zip() == "69001" &&
               back.email() == "ann@ex.com" && back.tags(0) == "gold" && back.limits().at("daily") == 500,
           "the put's record with the update's two fields");

    // Writing a sub-message replaces everything written under it before.
    change.clear_home();
    change.mutable_home()->set_zip("75001");
    s = accounts->Update(change, {"home"});
    s = accounts->Get(key, {"home"}, &back, nullptr);  // only the named paths
    Expect(s.ok() && back.home().city().empty() && back.home().zip() == "75001" && back.email().empty(),
           "home replaced whole: the city written under it is gone");
    // [END read]

    // [START index]
    bank::Account bob;
    bob.set_region(3);
    bob.set_account_id(301);
    bob.set_email("bob@ex.com");
    bob.set_balance(990);
    s = accounts->Put(bob);

    // Every record whose index fields (by_balance: region, balance) are these.
    bank::Account wanted;
    wanted.set_region(3);
    wanted.set_balance(990);
    std::vector<Record> found;
    s = accounts->FindByIndex("by_balance", wanted, &found);
    Expect(s.ok() && found.size() == 2, "two accounts of region 3 with a balance of 990");
    // Records come back as new messages of the table's type, key fields included.
    const auto& first = static_cast<const bank::Account&>(*found[0].message);
    Expect(first.account_id() == 300 && first.region() == 3, "in primary-key order");

    // The records of one shard (sharding key: account_id).
    bank::Account shard;
    shard.set_account_id(301);
    std::vector<Record> listed;
    s = accounts->Scan(&shard, 0, &listed);
    Expect(s.ok() && listed.size() == 1, "the shard of account 301");
    // [END index]

    // [START many]
    // Many records in one call: as many per commit of the engine as it takes.
    std::vector<bank::Account> opened(500);
    std::vector<WriteOp> writes;
    for (size_t i = 0; i < opened.size(); ++i) {
        opened[i].set_region(5);
        opened[i].set_account_id(1000 + i);
        opened[i].set_balance(100);
        writes.push_back(WriteOp{WriteOp::Kind::kPut, &opened[i], {}});
    }
    WriteReport report;
    s = accounts->Write(writes, &report);
    Expect(s.ok() && report.written == 500, "500 records written");

    // The whole table, a page of 100 records at a time; the cursor of one
    // page starts the next, in this process or another.
    uint64_t total = 0;
    s = accounts->Count(nullptr, &total);
    Page page;
    page.limit = 100;
    uint64_t seen = 0;
    do {
        std::string next;
        s = accounts->ScanEach(nullptr, page, [&seen](Record&) {
            ++seen;
            return true;
        }, &next);
        page.after = next;
    } while (s.ok() && !page.after.empty());
    Expect(s.ok() && seen == total && total == 502, "every record once");
    // [END many]

    // [START errors]
    s = accounts->Delete(key);
    Expect(s.ok(), "Delete");
    s = accounts->Delete(key);
    Expect(s.IsNotFound(), "no such record");

    s = accounts->Update(change, {"account_id"});
    Expect(s.IsInvalidArgument(), "a key field cannot be updated");  // s.message() says so, naming the path

    // A client whose cipher key does not match the table's corvida_cipher_md5
    // could neither build keys nor decrypt the stored ones: the table does
    // not open, with the key encoder's code.
    s = store->CreateTable(GuideBlob(), "Card");
    CORVIDA_KV::CorvidaKVApi kv;
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("cards"));
    suite->Init("ffeeddccbbaa99887766554433221100f0debc9a78563412efcdab8967452301");  // not the table's key
    kv.AddCipherSuite(std::move(suite));
    std::unique_ptr<Table> cards;
    s = store->OpenTable(bank::Card::default_instance(), &kv, &cards);
    Expect(s.IsInvalidArgument() && s.bridge_code() == -4 && cards == nullptr, "a wrong cipher key: ExtractMsgKey's -4");

    // Another process opening the same store gets kBusy at once; so does a
    // second TableStore of this one.
    std::unique_ptr<TableStore> again;
    s = TableStore::Open(dir, options, &again);
    Expect(s.IsBusy(), "the store is held");
    // [END errors]
}

}  // namespace

int main() {
    char dir[] = "/tmp/guide-store-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    Run(std::string(dir) + "/bank");
    std::filesystem::remove_all(dir);
    return ExitStatus();
}
