// What the table store's benchmarks share: the schema blob of BenchRecord's
// table and the keys the store gives a BenchRecord, computed the way an
// application of raw RocksDB would compute them, for the baselines that do
// the store's key-value work on a copy of its database.
#ifndef CORVIDA_BENCH_BENCH_STORE_H_
#define CORVIDA_BENCH_BENCH_STORE_H_

#include <cstdint>
#include <string>

#include "bench_tables.pb.h"

namespace corvida_bench {

// The schema blob of BenchRecord's file: its imports, then the file.
std::string BenchBlob();

// The primary key the store gives record: its key fields (id, name, stamp)
// serialized in number order, which is what ExtractMsgKey makes of them for
// a table without encrypted key fields.
std::string PrimaryKeyOf(const corvida::bench::BenchRecord& record);

// The key of record's row marker in table number `table`.
std::string RowKeyOf(uint32_t table, const corvida::bench::BenchRecord& record);

}  // namespace corvida_bench

#endif  // CORVIDA_BENCH_BENCH_STORE_H_
