// Work on a table's keys done in bounded batches: the back-fill of a new
// index, the removal of a dropped index's entries, the drop of a table.
// Private to the store.
//
// Each batch is one commit that also saves, in the table's catalog entry, how
// far the work got (BatchWork::after), conditioned on the entry as it was
// read. A crash or a kill loses at most the batch in flight; the work resumes
// from the saved position, in this process or another; and two workers never
// both commit a batch (the second one's is refused, and it reads the entry
// again).
//
// A back-fill batch reads up to N rows in key order at one view, stages the
// index entry of each (SecondaryKey of the record made from its stored fields,
// as a write computes it) and commits on the condition that every row still
// holds the stamp it was read with; when a writer changed one meanwhile, the
// batch is read again, smaller. Writers keep a building index themselves from
// the moment the alter committed (write_path.h), so a row written behind the
// back-fill needs nothing from it, and one written before its batch is read
// as the writer left it. When the back-fill reaches the end of the table the
// index becomes ready, with a new schema stamp so that clients bind it.
//
// A removal batch deletes up to N keys of the index (or of the table) in key
// order. Nobody writes them any more: clients of the new schema do not know
// the index (or the table), and clients of the old one cannot commit, their
// schema stamp having moved.
//
// N starts at kBatchItems (or what one commit of the engine holds), halves
// when a commit is refused and doubles back after each one that lands.
#ifndef CORVIDA_STORE_INDEX_BUILD_H_
#define CORVIDA_STORE_INDEX_BUILD_H_

#include <cstddef>
#include <string_view>

#include "protobuf_api/corvida_kv_api.h"
#include "store/schema_change.h"
#include "store/status.h"
#include "store/store_context.h"

namespace corvida {
namespace store {

// The most rows (or keys) one batch takes.
constexpr size_t kBatchItems = 1024;

// TableStore::BuildIndex: runs the pending work of index `index` of table
// `table` (either form of its name) until it is done or progress stops it.
Status RunIndexWork(StoreContext* context, std::string_view table, std::string_view index,
                    CORVIDA_KV::CorvidaKVApi* kv, const WorkProgress& progress);

// TableStore::DropTable: marks the table dropped (its clients are refused from
// then on), removes its keys, then its catalog entry.
Status DropStoredTable(StoreContext* context, std::string_view table, const WorkProgress& progress);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_INDEX_BUILD_H_
