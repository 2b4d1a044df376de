// The table store on an etcd cluster, from a program: the store that
// etcd_cluster.sh made with corvida-pb is opened by its locator, read and
// written while other processes may write it too.
//
//   guide_store_etcd LOCATOR    (etcd://HOST:PORT,.../NAMESPACE, the Account table and ann's record in it)
#include <memory>
#include <string>

#include "expect.h"
#include "guide.pb.h"
#include "store/table_store.h"

namespace {

using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::Table;
using corvida::store::TableStore;

void Run(const std::string& locator) {
    // [START open-etcd]
    // The same call as for a directory: the locator names members of the
    // cluster (list several: any one that answers will do) and the namespace.
    StoreOptions options;
    options.timeout_seconds = 2;  // the deadline of every call to the cluster
    // options.etcd_tls.ca_file = "/etc/etcd/ca.pem";  // for a cluster that serves TLS
    std::unique_ptr<TableStore> store;
    Status s = TableStore::Open(locator, options, &store);  // "etcd://127.0.0.1:2379,.../game"
    Expect(s.ok(), "open the store on the cluster");

    std::unique_ptr<Table> accounts;
    s = store->OpenTable(bank::Account::default_instance(), nullptr, &accounts);
    Expect(s.ok(), "OpenTable");

    // Any number of processes write at once; each write is one transaction
    // that commits only if the record did not change since it was read, and
    // is tried again when it did (kBusy after 32 tries).
    bank::Account change;
    change.set_region(3);
    change.set_account_id(300);
    change.set_balance(1250);
    s = accounts->Update(change, {"balance"});
    Expect(s.ok(), "Update");

    bank::Account back;
    s = accounts->Get(change, {}, &back, nullptr);  // sees every write acknowledged before it
    Expect(s.ok() && back.email() == "ann@ex.com" && back.balance() == 1250, "ann's record, updated");
    // [END open-etcd]
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::printf("usage: guide_store_etcd LOCATOR\n");
        return 2;
    }
    Run(argv[1]);
    return ExitStatus();
}
