// The records of the etcd benchmarks, shared by corvida_etcd_bench and the
// client processes it starts (corvida_etcd_bench_client), so that both
// address the same rows.
//
// Record i (0-based) is a full BenchRecord (bench_support.h's FillRecord)
// with id i / kShardRecords + 1, name "player-NNNNN" (i, five digits) and
// level i: the table's sharding key is id, so every kShardRecords
// consecutive records form one shard, and its index by_level holds one
// record per level.
#ifndef CORVIDA_BENCH_ETCD_BENCH_RECORDS_H_
#define CORVIDA_BENCH_ETCD_BENCH_RECORDS_H_

#include <memory>
#include <string>

#include "bench_tables.pb.h"
#include "store/status.h"
#include "store/table.h"
#include "store/table_store.h"

namespace corvida_bench {

constexpr int kShardRecords = 10;

// The schema blob of BenchRecord's file: the option file, then the table's.
std::string BenchRecordBlob();

corvida::bench::BenchRecord EtcdBenchRecord(int i);

// Only the key fields of record i, for Get.
corvida::bench::BenchRecord EtcdBenchKey(int i);

// Opens the store at locator and its BenchRecord table; with create, makes
// the store and the table first.
corvida::store::Status OpenBenchTable(const std::string& locator, bool create,
                                      std::unique_ptr<corvida::store::TableStore>* store,
                                      std::unique_ptr<corvida::store::Table>* table);

}  // namespace corvida_bench

#endif  // CORVIDA_BENCH_ETCD_BENCH_RECORDS_H_
