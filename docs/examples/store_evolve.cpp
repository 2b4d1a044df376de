// Adding an index to a table that holds records: an earlier version of the
// program created the Account table before guide.proto declared by_balance
// and wrote accounts; this version declares it, alters the table, builds
// the index online and finds records through it.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include "corvidaservice.optionv1.pb.h"
#include "expect.h"
#include "guide_blob.h"
#include "guide.pb.h"
#include "store/table_store.h"

namespace {

using corvida::store::AlterOptions;
using corvida::store::AlterPlan;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::Table;
using corvida::store::TableDescription;
using corvida::store::TableStore;

// The blob the earlier version had: Account without by_balance.
std::string EarlierBlob() {
    google::protobuf::FileDescriptorSet set;
    set.ParseFromString(GuideBlob());
    for (auto& message : *set.mutable_file(set.file_size() - 1)->mutable_message_type()) {
        if (message.name() != "Account") continue;
        message.mutable_options()->ClearExtension(corvidaservice::corvida_index);
        message.mutable_options()->AddExtension(corvidaservice::corvida_index, "by_email(email)");
    }
    return set.SerializeAsString();
}

// What the earlier version did: create the table and write accounts, with
// its own Account type.
void EarlierVersion(TableStore* store) {
    const std::string blob = EarlierBlob();
    Expect(store->CreateTable(blob, "Account").ok(), "the earlier version creates the table");
    google::protobuf::DescriptorPool pool;
    google::protobuf::FileDescriptorSet set;
    set.ParseFromString(blob);
    google::protobuf::FileDescriptorProto descriptor_proto;
    google::protobuf::FileDescriptorProto::descriptor()->file()->CopyTo(&descriptor_proto);
    pool.BuildFile(descriptor_proto);
    for (const auto& file : set.file()) pool.BuildFile(file);
    google::protobuf::DynamicMessageFactory factory(&pool);
    const google::protobuf::Message* account = factory.GetPrototype(pool.FindMessageTypeByName("bank.Account"));
    std::unique_ptr<Table> accounts;
    Expect(store->OpenTable(*account, nullptr, &accounts).ok(), "the earlier version opens the table");
    for (int i = 0; i < 1000; ++i) {
        bank::Account written;
        written.set_region(i % 4);
        written.set_account_id(1000 + i);
        written.set_balance(i % 10 * 100);
        std::unique_ptr<google::protobuf::Message> record(account->New());
        record->ParseFromString(written.SerializeAsString());
        Expect(accounts->Put(*record).ok(), "the earlier version writes an account");
    }
}

void Run(const std::string& dir) {
    StoreOptions options;
    options.create_if_missing = true;
    std::unique_ptr<TableStore> store;
    Expect(TableStore::Open(dir, options, &store).ok(), "open the store");
    EarlierVersion(store.get());

    // [START alter]
    // What the alter would do, and cost: nothing is written.
    AlterPlan plan;
    AlterOptions dry_run;
    dry_run.dry_run = true;
    Status s = store->AlterTable(GuideBlob(), "Account", dry_run, &plan);
    Expect(s.ok() && plan.changes.size() == 1 && plan.records_to_index == 1000, "one change, 1000 records to index");
    // plan.changes[0].description: "new index by_balance(region, balance), built online"

    // The alter itself: one commit. From now on every write keeps by_balance.
    s = store->AlterTable(GuideBlob(), "Account", AlterOptions(), &plan);
    Expect(s.ok(), "AlterTable");

    std::unique_ptr<Table> accounts;  // this version's client
    s = store->OpenTable(bank::Account::default_instance(), nullptr, &accounts);
    Expect(s.ok(), "the new version opens the table");
    bank::Account wanted;
    wanted.set_region(3);
    wanted.set_balance(700);
    std::vector<Record> found;
    s = accounts->FindByIndex("by_balance", wanted, &found);
    Expect(s.IsBusy(), "refused while the index is being built");
    // s.message(): "table bank.Account: index by_balance is being built, 0 of 1000 records; ..."
    // [END alter]

    // [START build]
    // The back-fill walks the records in batches; it may run while clients
    // write, and resumes where it stopped when it is run again.
    s = store->BuildIndex("Account", "by_balance", nullptr, [](uint64_t done, uint64_t total) {
        std::printf("by_balance: %llu of %llu records\n", static_cast<unsigned long long>(done),
                    static_cast<unsigned long long>(total));
        return true;  // false would stop it here
    });
    Expect(s.ok(), "BuildIndex");
    s = accounts->FindByIndex("by_balance", wanted, &found);
    Expect(s.ok() && found.size() == 50, "the 50 accounts of region 3 with a balance of 700");

    TableDescription described;
    s = store->DescribeTable("Account", &described);
    Expect(s.ok() && described.indexes.size() == 2 && described.records == 1000, "two ready indexes, 1000 records");
    // [END build]
    Expect(accounts->Verify().ok(), "every record in every index once");
}

}  // namespace

int main() {
    char dir[] = "/tmp/guide-evolve-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    Run(std::string(dir) + "/bank");
    std::filesystem::remove_all(dir);
    return ExitStatus();
}
