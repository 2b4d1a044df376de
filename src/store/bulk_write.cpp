#include "store/bulk_write.h"

#include <string>
#include <unordered_set>
#include <utility>

#include "store/retry.h"

namespace corvida {
namespace store {

struct BulkWriter::Progress {
    size_t next = 0;                    // the first write not committed
    std::deque<PreparedWrite> prepared;  // writes[next, next + prepared.size()), prepared
    WriteReport* report = nullptr;
};

Status BulkWriter::Prepare(const std::vector<WriteOp>& writes, size_t index, Scratch* scratch,
                           PreparedWrite* write) const {
    const WriteOp& op = writes[index];
    if (op.message == nullptr) {
        return Status::InvalidArgument("table " + m_schema->name() + ": write " + std::to_string(index) +
                                       " of the call has no message");
    }
    switch (op.kind) {
        case WriteOp::Kind::kPut: return m_writer->PreparePut(*op.message, scratch, write);
        case WriteOp::Kind::kUpdate: return m_writer->PrepareUpdate(*op.message, op.paths, scratch, write);
        case WriteOp::Kind::kDelete: return m_writer->PrepareDelete(*op.message, scratch, write);
    }
    return Status::InvalidArgument("table " + m_schema->name() + ": write " + std::to_string(index) +
                                   " of the call is of no known kind");
}

bool BulkWriter::Overflows(const EngineBatch& batch, size_t records, const EngineBatch& record) const {
    const EngineLimits& limits = m_context->engine()->limits();
    const size_t operations = batch.OperationCount() + record.OperationCount();
    const size_t bytes = batch.ByteSize() + record.ByteSize();
    return records == kMaxRecordsPerCommit || bytes > kMaxBytesPerCommit ||
           (limits.max_operations != 0 && operations > limits.max_operations) ||
           (limits.max_bytes != 0 && bytes > limits.max_bytes);
}

Status BulkWriter::CommitNext(const std::vector<WriteOp>& writes, Scratch* scratch, Progress* progress,
                              Status* stop, bool* moved) const {
    const std::string context = "table " + m_schema->name() + ": writing many records";
    const std::string one = "table " + m_schema->name() + ": writing a record";
    Engine* engine = m_context->engine();
    size_t end = progress->next;
    std::vector<size_t> not_found;
    Status status = RetryConflicts(context, [&](bool* committed) {
        *stop = Status::OK();
        not_found.clear();
        std::unique_ptr<ReadView> view;
        Status attempt = engine->NewLazyView(&view);
        if (!attempt.ok()) return attempt;
        EngineBatch batch;
        m_writer->StageTableConditions(&batch);
        std::unordered_set<std::string> rows;  // the records the commit holds
        for (end = progress->next; end < writes.size(); ++end) {
            const size_t at = end - progress->next;
            if (at == progress->prepared.size()) {
                PreparedWrite write;
                *stop = Prepare(writes, end, scratch, &write);
                if (!stop->ok()) break;
                progress->prepared.push_back(std::move(write));
            }
            const PreparedWrite& write = progress->prepared[at];
            if (rows.count(write.row_key) != 0) break;
            EngineBatch record;
            *stop = m_writer->Stage(write, view.get(), scratch, &record);
            if (stop->IsNotFound() && write.kind == PreparedWrite::Kind::kDelete) {
                // Nothing to delete, as long as nothing comes in the meantime.
                *stop = Status::OK();
                record.ExpectAbsent(write.row_key);
                not_found.push_back(end);
            }
            if (stop->ok()) *stop = CheckLimits(record, engine->limits(), one);
            if (!stop->ok()) break;
            if (!rows.empty() && Overflows(batch, rows.size(), record)) {
                if (!not_found.empty() && not_found.back() == end) not_found.pop_back();
                break;
            }
            batch.Append(std::move(record));
            rows.insert(write.row_key);
        }
        if (rows.empty()) {
            *committed = true;  // nothing to commit: the first write stopped the call
            return Status::OK();
        }
        attempt = engine->Commit(batch, committed);
        if (attempt.ok() && !*committed) attempt = m_writer->SchemaMoved(moved);
        return attempt.ok() && *moved ? Status::Busy(context + ": the table's schema changed meanwhile") : attempt;
    });
    if (*moved) return status;
    if (!status.ok()) return status;
    WriteReport* report = progress->report;
    report->not_found.insert(report->not_found.end(), not_found.begin(), not_found.end());
    if (end > progress->next) ++report->commits;
    progress->prepared.erase(progress->prepared.begin(), progress->prepared.begin() + (end - progress->next));
    progress->next = end;
    report->written = end;
    return Status::OK();
}

Status BulkWriter::Write(const std::vector<WriteOp>& writes, WriteReport* report, bool* moved) const {
    *moved = false;
    ScratchPool::Lease scratch = m_context->scratch().Acquire();
    Progress progress;
    progress.next = report->written;
    progress.report = report;
    while (progress.next < writes.size()) {
        Status stop;
        Status status = CommitNext(writes, scratch.get(), &progress, &stop, moved);
        if (!status.ok()) return status;
        if (!stop.ok()) return stop;
    }
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
