// Verification of a table: every record with its index and shard entries,
// and every entry with its record. Private to the store.
#ifndef CORVIDA_STORE_VERIFY_H_
#define CORVIDA_STORE_VERIFY_H_

#include "store/read_path.h"
#include "store/store_context.h"
#include "store/table.h"
#include "store/table_schema.h"

namespace corvida {
namespace store {

// Reads the whole table at one view and counts (VerifyCounts, table.h),
// calling progress (may be empty) every thousand records. An index still
// being built is left out: its back-fill has not reached every record yet.
// The status is an error only when the table cannot be read (a primary key
// that does not parse, a key that does not split); what is missing or left
// over is in *counts.
Status VerifyTable(StoreContext* context, const TableSchema& schema, const RecordReader& reader,
                   VerifyCounts* counts, const ProgressCallback& progress);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_VERIFY_H_
