// BulkWriter: many writes of one table in one call (Table::Write), many
// records per commit of the engine. Private to the store.
//
// Each write is prepared as RecordWriter prepares a single one, then staged
// at a view of the engine into a batch of its own (the record's condition,
// its stored fields, its entry moves), and the record batches are gathered
// into one commit until the next would not fit: the engine's limits
// (operations and bytes of one commit, conditions counted), and the
// writer's own bounds on what one commit holds in memory
// (kMaxRecordsPerCommit, kMaxBytesPerCommit). So a record's change is never
// split between two commits, and a record too large for one commit is
// refused as a single write of it would be.
//
// Two writes of one record in one commit would both be staged on what the
// view holds, the second blind to the first: a write of a record that the
// commit being gathered already holds ends that commit instead, and is
// staged after it, on what it left. So the writes of one call act as if made
// one after the other.
//
// A commit whose conditions fail (another writer changed one of its records
// since the view was taken) is staged again at a new view and committed
// again, as RetryConflicts does for a single write; the prepared writes are
// kept, only the reads are made again. Every commit also carries the table's
// conditions (RecordWriter::StageTableConditions): one refused because the
// table's schema moved ends the call with *moved set, the writes before it
// committed and counted, so that the caller binds the new schema and goes on
// from the first write not committed.
//
// Commits are made in order, each all or nothing, so a crash in the middle
// of a call leaves the writes of the commits made before it, whole, and
// nothing of the others: a prefix of the call's writes, cut between two
// records. After a kill the caller cannot tell where the cut is without
// reading; writing the call again (puts, updates of whole values, deletes)
// gives the same result as writing it once.
#ifndef CORVIDA_STORE_BULK_WRITE_H_
#define CORVIDA_STORE_BULK_WRITE_H_

#include <cstddef>
#include <deque>
#include <vector>

#include "store/engine.h"
#include "store/store_context.h"
#include "store/table.h"
#include "store/table_schema.h"
#include "store/write_path.h"

namespace corvida {
namespace store {

// The most records, and bytes of keys and values, that one commit of a
// Write call gathers (within the engine's own limits).
constexpr size_t kMaxRecordsPerCommit = 1000;
constexpr size_t kMaxBytesPerCommit = 8u << 20;

class BulkWriter {
public:
    BulkWriter(StoreContext* context, const TableSchema* schema, const RecordWriter* writer)
        : m_context(context), m_schema(schema), m_writer(writer) {}

    // Table::Write from writes[report->written] on, adding to *report. When
    // the table's schema moved since the binding, *moved is set and the
    // status is kBusy: bind again and call again with the same report.
    Status Write(const std::vector<WriteOp>& writes, WriteReport* report, bool* moved) const;

private:
    // The writes of one call from `next` on: those prepared already, and where
    // the call stopped.
    struct Progress;

    // Prepares writes[index] into *write.
    Status Prepare(const std::vector<WriteOp>& writes, size_t index, Scratch* scratch, PreparedWrite* write) const;

    // Gathers the writes from progress->next into one commit (staging them at
    // a new view, preparing those not prepared yet) and commits it, again
    // while its conditions fail. On return the writes committed are counted
    // in progress; *stop holds the failure of the first write that could not
    // be gathered (the commit holds the ones before it); *moved is set when
    // the commit was refused because the table's schema moved.
    Status CommitNext(const std::vector<WriteOp>& writes, Scratch* scratch, Progress* progress, Status* stop,
                      bool* moved) const;

    // True when a commit holding batch and then record would exceed the
    // engine's limits or the writer's bounds (records: the records batch
    // holds).
    bool Overflows(const EngineBatch& batch, size_t records, const EngineBatch& record) const;

    StoreContext* m_context;
    const TableSchema* m_schema;
    const RecordWriter* m_writer;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_BULK_WRITE_H_
