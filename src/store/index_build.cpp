#include "store/index_build.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/dynamic_message.h>

#include "protobuf_api/protobuf_util.h"
#include "store/catalog.h"
#include "store/key_format.h"
#include "store/read_path.h"
#include "store/retry.h"
#include "store/rows.h"
#include "store/table_schema.h"
#include "store/table_state.h"

namespace corvida {
namespace store {

namespace {

// What one batch staged.
struct BatchOutcome {
    bool staged = false;    // the batch holds changes to commit
    bool finished = false;  // after them the work is done
    uint64_t done = 0;      // for the progress: done so far (with this batch)...
    uint64_t total = 0;     // ...of how many
};

// Stages one batch of at most limit items of the work, read at view, and the
// change of the catalog entry that saves how far it got. Stages nothing when
// there is no work left.
using StageBatch = std::function<Status(const TableState& state, const ReadView* view, size_t limit,
                                        EngineBatch* batch, BatchOutcome* outcome)>;

// Runs batches of the work of table `name` until it is done or progress stops
// it. ops_per_item: the engine operations one item takes.
Status RunBatches(Engine* engine, const std::string& name, size_t ops_per_item, const StageBatch& stage,
                  const WorkProgress& progress) {
    // A batch also holds the entry's condition and put, and a stamp.
    const size_t max_ops = engine->limits().max_operations;
    size_t most = kBatchItems;
    if (max_ops != 0) most = std::max<size_t>(1, std::min(most, (max_ops > 3 ? max_ops - 3 : 1) / ops_per_item));
    size_t limit = most;
    int refused = 0;
    const std::string what = "table " + name + ": a batch of work on its keys";
    for (;;) {
        std::unique_ptr<ReadView> view;
        TableState state;
        Status status = ReadTableStateAtNewView(engine, name, &view, &state);
        if (!status.ok()) return status;
        EngineBatch batch;
        BatchOutcome outcome;
        status = stage(state, view.get(), limit, &batch, &outcome);
        if (!status.ok() || !outcome.staged) return status;
        status = CheckLimits(batch, engine->limits(), what);
        if (!status.ok()) {
            if (limit == 1) return status;
            limit /= 2;
            continue;
        }
        bool committed = false;
        status = engine->Commit(batch, &committed);
        if (!status.ok()) return status;
        if (!committed) {
            // A writer changed a row of the batch, or another worker or an
            // alter changed the entry: read again, fewer rows at a time.
            if (++refused == kMaxCommitAttempts) {
                return Status::Busy(what + " was refused " + std::to_string(refused) +
                                    " times in a row: writers kept changing its rows; run it again to resume");
            }
            BackOff(refused);
            limit = std::max<size_t>(1, limit / 2);
            continue;
        }
        refused = 0;
        limit = std::min(most, limit * 2);
        const bool go_on = !progress || progress(outcome.done, std::max(outcome.done, outcome.total));
        if (outcome.finished || !go_on) return Status::OK();
    }
}

BatchWork* FindWork(std::vector<BatchWork>* works, std::string_view name) {
    auto it = std::find_if(works->begin(), works->end(), [name](const BatchWork& work) { return work.name == name; });
    return it == works->end() ? nullptr : &*it;
}

// The table's stored type bound as its own client: what makes records from
// stored rows and index keys from records, as the table's writers do.
class StoredBinding {
public:
    explicit StoredBinding(StoreContext* context) : m_reader(context, &m_schema) {}

    Status Bind(StoreContext* context, const TableState& state, CORVIDA_KV::CorvidaKVApi* kv) {
        ErrorLines errors;
        const std::string short_name(ShortName(state.table.name));
        if (PROTOBUF_UTIL::FillMessageGroup(short_name, state.table.schema_blob, &m_group, errors.category()) ==
            nullptr) {
            return Status::Corruption("table " + state.table.name + ": the stored schema blob no longer loads: " +
                                      errors.text());
        }
        const google::protobuf::Message* prototype = m_factory.GetPrototype(m_group.m_desc);
        return m_schema.Bind(state, *prototype, kv, &context->scratch(), context->log());
    }

    const TableSchema& schema() const { return m_schema; }
    const RecordReader& reader() const { return m_reader; }

private:
    // Destroyed in reverse: the schema before the prototype, both before the
    // pool.
    PROTOBUF_UTIL::MsgDescGroup m_group;
    google::protobuf::DynamicMessageFactory m_factory;
    TableSchema m_schema;
    RecordReader m_reader;
};

// A row read for the back-fill: its key, stamp and index fields.
struct BackfillRow {
    std::string pk;
    std::string stamp;
    std::vector<StoredField> fields;
};

// The back-fill of index `index`.
class Backfill {
public:
    Backfill(StoreContext* context, std::string index, CORVIDA_KV::CorvidaKVApi* kv)
        : m_context(context), m_index(std::move(index)), m_kv(kv) {}

    Status Stage(const TableState& state, const ReadView* view, size_t limit, EngineBatch* batch,
                 BatchOutcome* outcome) {
        if (state.table.dropped) return TableBeingDropped(state.table.name);
        CatalogTable changed = state.table;
        BatchWork* work = FindWork(&changed.building, m_index);
        if (work == nullptr) return Status::OK();  // ready, or dropped again meanwhile
        if (m_binding == nullptr || m_binding->schema().stamp() != state.stamp) {
            m_binding.reset(new StoredBinding(m_context));
            Status status = m_binding->Bind(m_context, state, m_kv);
            if (!status.ok()) {
                m_binding.reset();
                return status;
            }
        }
        const Secondary* secondary = m_binding->schema().FindIndex(m_index);
        if (secondary == nullptr) {
            return Status::Corruption("table " + state.table.name + ": index " + m_index +
                                      " is being built but is not in the stored schema");
        }
        std::vector<BackfillRow> rows;
        bool more = false;
        Status status = ReadRows(state.table, *secondary, work->after, view, limit, &rows, &more);
        if (!status.ok()) return status;
        for (const BackfillRow& row : rows) {
            status = StageEntry(state.table.number, *secondary, row, batch);
            if (!status.ok()) return status;
        }
        if (!rows.empty()) work->after = rows.back().pk;
        work->done += rows.size();
        outcome->staged = true;
        outcome->done = work->done;
        outcome->total = work->total;
        outcome->finished = !more;
        if (outcome->finished) changed.building.erase(changed.building.begin() + (work - changed.building.data()));
        StageTableChange(state, changed, outcome->finished, batch);
        return Status::OK();
    }

private:
    // Up to limit rows after the primary key `after`, with the fields of the
    // index; *more when rows are left behind them.
    Status ReadRows(const CatalogTable& table, const Secondary& secondary, const std::string& after,
                    const ReadView* view, size_t limit, std::vector<BackfillRow>* rows, bool* more) const {
        const std::string start =
            after.empty() ? keys::TableRows(table.number) : keys::EscapedEnd(keys::RowKey(table.number, after));
        return ScanStampedRows(m_context->engine(), view, table.number, start, table.name,
                               [&](const std::string& pk, const std::string& stamp, std::vector<StoredField>& fields) {
                                   if (rows->size() == limit) {
                                       *more = true;
                                       return false;
                                   }
                                   BackfillRow row{pk, stamp, {}};
                                   for (StoredField& field : fields) {
                                       if (secondary.Covers(FirstNumber(field.tag_path))) {
                                           row.fields.push_back(std::move(field));
                                       }
                                   }
                                   rows->push_back(std::move(row));
                                   return true;
                               });
    }

    // The row's entry, on the condition that the row is still as read.
    Status StageEntry(uint32_t table, const Secondary& secondary, const BackfillRow& row, EngineBatch* batch) {
        const std::string row_key = keys::RowKey(table, row.pk);
        if (row.stamp.empty()) {
            batch->ExpectAbsent(row_key);  // a row without its marker: what a write would make of it
        } else {
            batch->ExpectValue(row_key, row.stamp);
        }
        Record record;
        Status status = m_binding->reader().MakeRecord(row.pk, row.fields, &record);
        if (!status.ok()) return status;
        record.message->ByteSizeLong();
        std::string value;
        bool present = false;
        ScratchPool::Lease scratch = m_context->scratch().Acquire();
        status = m_binding->schema().SecondaryKey(*record.message, secondary, scratch.get(), &value, &present);
        if (status.ok() && present) {
            batch->Put(keys::SecondaryKey(keys::kIndex, table, secondary.name, value, row.pk), "");
        }
        return status;
    }

    StoreContext* m_context;
    std::string m_index;
    CORVIDA_KV::CorvidaKVApi* m_kv;
    std::unique_ptr<StoredBinding> m_binding;
};

// What StageDeletions staged.
struct Deletions {
    std::string last;      // the last key deleted (unchanged when none was)
    uint64_t keys = 0;     // how many
    uint64_t markers = 0;  // how many of them are row markers
    bool more = false;     // keys are left after them
};

// Stages the deletion of up to limit keys that begin with one of spaces (in
// key order), from the key after `after` on (the start when empty). table
// tells row markers apart.
Status StageDeletions(Engine* engine, const ReadView* view, const std::vector<std::string>& spaces,
                      const std::string& after, size_t limit, uint32_t table, EngineBatch* batch,
                      Deletions* deletions) {
    const std::string rows = keys::TableRows(table);
    std::string start = after;
    if (!start.empty()) start.push_back('\0');  // the first key after it
    deletions->last = after;
    std::string pk;
    for (const std::string& space : spaces) {
        const std::string end = PrefixEnd(space);
        if (start >= end) continue;
        Status status =
            engine->Scan(view, std::max(start, space), end, [&](std::string_view key, std::string_view) {
                if (deletions->keys == limit) {
                    deletions->more = true;
                    return false;
                }
                batch->Delete(key);
                std::string_view tag_path;
                if (key.substr(0, rows.size()) == rows &&
                    keys::SplitRowKey(key.substr(rows.size()), &pk, &tag_path) && tag_path.empty()) {
                    ++deletions->markers;
                }
                deletions->last.assign(key.data(), key.size());
                ++deletions->keys;
                return true;
            });
        if (!status.ok() || deletions->more) return status;
    }
    return Status::OK();
}

// The removal of a dropped index's entries.
Status StageIndexRemoval(Engine* engine, const std::string& index, const TableState& state, const ReadView* view,
                         size_t limit, EngineBatch* batch, BatchOutcome* outcome) {
    CatalogTable changed = state.table;
    BatchWork* work = FindWork(&changed.dropping, index);
    if (work == nullptr) return Status::OK();
    const std::string space = keys::SecondarySpace(keys::kIndex, changed.number, index);
    Deletions deletions;
    Status status = StageDeletions(engine, view, {space}, work->after, limit, changed.number, batch, &deletions);
    if (!status.ok()) return status;
    work->done += deletions.keys;
    work->after = deletions.last;
    outcome->staged = true;
    outcome->done = work->done;
    outcome->total = work->total;
    outcome->finished = !deletions.more;
    if (outcome->finished) changed.dropping.erase(changed.dropping.begin() + (work - changed.dropping.data()));
    StageTableChange(state, changed, false, batch);
    return Status::OK();
}

// The spaces of a table's keys, in key order: index entries, rows, shard
// entries.
std::vector<std::string> TableSpaces(uint32_t table) {
    std::vector<std::string> spaces;
    for (char space : {keys::kIndex, keys::kRow, keys::kShard}) {
        std::string prefix(1, space);
        keys::AppendU32(&prefix, table);
        spaces.push_back(prefix);
    }
    return spaces;
}

// The drop of a table: marked first, then its keys in batches, then its entry.
Status StageTableDrop(Engine* engine, const TableState& state, const ReadView* view, size_t limit,
                      EngineBatch* batch, BatchOutcome* outcome) {
    CatalogTable changed = state.table;
    outcome->staged = true;
    if (!changed.dropped) {
        changed.dropped = true;
        changed.drop = BatchWork();
        Status status = CountRows(engine, view, changed.number, changed.name, &changed.drop.total);
        if (!status.ok()) return status;
        outcome->total = changed.drop.total;
        StageTableChange(state, changed, true, batch);
        return Status::OK();
    }
    Deletions deletions;
    Status status = StageDeletions(engine, view, TableSpaces(changed.number), changed.drop.after, limit,
                                   changed.number, batch, &deletions);
    if (!status.ok()) return status;
    changed.drop.after = deletions.last;
    changed.drop.done += deletions.markers;
    outcome->done = changed.drop.done;
    outcome->total = changed.drop.total;
    outcome->finished = !deletions.more;
    if (outcome->finished) {
        StageTableRemoval(state, batch);
    } else {
        StageTableChange(state, changed, false, batch);
    }
    return Status::OK();
}

// An index with no work pending: ok when the stored schema declares it (it is
// ready), else kNotFound.
Status CheckDeclared(const CatalogTable& table, const std::string& index) {
    PROTOBUF_UTIL::MsgDescGroup group;
    ErrorLines errors;
    if (PROTOBUF_UTIL::FillMessageGroup(std::string(ShortName(table.name)), table.schema_blob, &group,
                                        errors.category()) == nullptr) {
        return Status::Corruption("table " + table.name + ": the stored schema blob no longer loads: " + errors.text());
    }
    if (DeclaredIndexes(group.m_desc).count(index) != 0) return Status::OK();
    return Status::NotFound("table " + table.name + " has no index " + index);
}

}  // namespace

Status RunIndexWork(StoreContext* context, std::string_view table, std::string_view index,
                    CORVIDA_KV::CorvidaKVApi* kv, const WorkProgress& progress) {
    Engine* engine = context->engine();
    if (engine->read_only()) return Status::NotSupported(engine->locator() + " is open for reading only");
    CatalogTable found;
    Status status = Catalog(engine).Find(table, &found);
    if (!status.ok()) return status;
    if (found.dropped) return TableBeingDropped(found.name);
    const std::string name(index);
    if (FindWork(&found.dropping, name) != nullptr) {
        return RunBatches(engine, found.name, 1,
                          [engine, &name](const TableState& state, const ReadView* view, size_t limit,
                                          EngineBatch* batch, BatchOutcome* outcome) {
                              return StageIndexRemoval(engine, name, state, view, limit, batch, outcome);
                          },
                          progress);
    }
    if (FindWork(&found.building, name) == nullptr) return CheckDeclared(found, name);
    Backfill backfill(context, name, kv);
    return RunBatches(engine, found.name, 2,
                      [&backfill](const TableState& state, const ReadView* view, size_t limit, EngineBatch* batch,
                                  BatchOutcome* outcome) { return backfill.Stage(state, view, limit, batch, outcome); },
                      progress);
}

Status DropStoredTable(StoreContext* context, std::string_view table, const WorkProgress& progress) {
    Engine* engine = context->engine();
    if (engine->read_only()) return Status::NotSupported(engine->locator() + " is open for reading only");
    CatalogTable found;
    Status status = Catalog(engine).Find(table, &found);
    if (!status.ok()) return status;
    return RunBatches(engine, found.name, 1,
                      [engine](const TableState& state, const ReadView* view, size_t limit, EngineBatch* batch,
                               BatchOutcome* outcome) {
                          return StageTableDrop(engine, state, view, limit, batch, outcome);
                      },
                      progress);
}

}  // namespace store
}  // namespace corvida
