#include "bench_store.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include "store/key_format.h"

namespace corvida_bench {

using corvida::bench::BenchKey;
using corvida::bench::BenchRecord;

std::string BenchBlob() {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = BenchRecord::descriptor()->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

std::string PrimaryKeyOf(const BenchRecord& record) {
    BenchKey key;
    key.set_id(record.id());
    key.set_name(record.name());
    key.set_stamp(record.stamp());
    return key.SerializeAsString();
}

std::string RowKeyOf(uint32_t table, const BenchRecord& record) {
    return corvida::store::keys::RowKey(table, PrimaryKeyOf(record));
}

}  // namespace corvida_bench
