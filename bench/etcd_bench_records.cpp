#include "etcd_bench_records.h"

#include <cstdio>

#include <google/protobuf/descriptor.pb.h>

#include "bench_support.h"

namespace corvida_bench {

using corvida::bench::BenchRecord;
using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida::store::Table;
using corvida::store::TableStore;

std::string BenchRecordBlob() {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = BenchRecord::descriptor()->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

BenchRecord EtcdBenchRecord(int i) {
    BenchRecord record;
    FillRecord(&record);
    char name[32];
    std::snprintf(name, sizeof name, "player-%05d", i);
    record.set_id(i / kShardRecords + 1);
    record.set_name(name);
    record.set_level(i);
    record.ByteSizeLong();
    return record;
}

BenchRecord EtcdBenchKey(int i) {
    const BenchRecord record = EtcdBenchRecord(i);
    BenchRecord key;
    key.set_id(record.id());
    key.set_name(record.name());
    key.set_stamp(record.stamp());
    return key;
}

Status OpenBenchTable(const std::string& locator, bool create, std::unique_ptr<TableStore>* store,
                      std::unique_ptr<Table>* table) {
    StoreOptions options;
    options.create_if_missing = create;
    Status s = TableStore::Open(locator, options, store);
    if (s.ok() && create) s = (*store)->CreateTable(BenchRecordBlob(), "BenchRecord");
    if (s.ok()) s = (*store)->OpenTable(BenchRecord::default_instance(), nullptr, table);
    return s;
}

}  // namespace corvida_bench
