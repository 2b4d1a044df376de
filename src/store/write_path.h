// RecordWriter: the writes of one table (Put, Update, Delete), over its
// schema and the store's engine. Private to the store.
//
// A write goes in two steps. Preparing it needs only the caller's message:
// the primary key and the fields cut by the bridge. Staging it reads the
// stored row at a view (whether the record exists, the stamp of its marker,
// what the write replaces, the old values of index and sharding fields) and
// adds to an engine batch: the condition that the marker still holds the
// stamp read (or is still absent), the deletions and puts of stored fields, a
// new stamp, and the moves of index and shard entries. The batch commits
// only while no other write of the record came in between; otherwise the
// write is staged again on what is there now. So index and shard entries
// move exactly once, whatever other threads or processes write.
//
// Many prepared writes can be staged into one batch (one commit for many
// records); each record's change stays whole.
//
// Every commit also carries the table's conditions (StageTableConditions):
// the table's schema stamp is still the one the schema was bound with. So a
// writer that bound the schema before an alter committed never commits after
// it: its commit is refused, *moved says why, and the caller binds the new
// schema and prepares the write again. That is what keeps an index built
// online complete (docs/store.md, "Index states"): a write either lands
// before the alter, where the back-fill finds it, or is made with the new
// schema, which keeps the new index itself.
//
// Fields that the table holds but the client's type lacks
// (TableSchema::HeldOnlyByTable) are never deleted: a put replaces the
// fields its type knows, and a sub-message written whole keeps what newer
// clients stored under it.
#ifndef CORVIDA_STORE_WRITE_PATH_H_
#define CORVIDA_STORE_WRITE_PATH_H_

#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/message.h>

#include "store/engine.h"
#include "store/read_path.h"
#include "store/record_codec.h"
#include "store/store_context.h"
#include "store/table_schema.h"

namespace corvida {
namespace store {

// One write, prepared from the caller's message before anything is read.
struct PreparedWrite {
    enum class Kind { kPut, kUpdate, kDelete };

    Kind kind = Kind::kPut;
    std::string pk;
    std::string row_key;
    std::vector<StoredField> writes;                  // stored fields to write (put, update)
    std::vector<std::string> below;                   // update: sub-messages written whole, by tag path
    std::vector<const Secondary*> touched;            // update: secondaries whose fields it writes
    const google::protobuf::Message* source = nullptr;  // the message written (put, update)
    std::unique_ptr<google::protobuf::Message> copy;  // update: the copy cut from, when one was needed
};

class RecordWriter {
public:
    RecordWriter(StoreContext* context, const TableSchema* schema, const RecordReader* reader)
        : m_context(context), m_schema(schema), m_reader(reader) {}

    // Prepare and commit one write. *moved is set when the write was refused
    // because the table's schema changed since the binding (nothing written).
    Status Put(const google::protobuf::Message& record, bool* moved) const;
    Status Update(const google::protobuf::Message& record, const std::vector<std::string>& paths, bool* moved) const;
    Status Delete(const google::protobuf::Message& key, bool* moved) const;

    Status PreparePut(const google::protobuf::Message& record, Scratch* scratch, PreparedWrite* write) const;
    Status PrepareUpdate(const google::protobuf::Message& record, const std::vector<std::string>& paths,
                         Scratch* scratch, PreparedWrite* write) const;
    Status PrepareDelete(const google::protobuf::Message& key, Scratch* scratch, PreparedWrite* write) const;

    // Adds write to batch, reading at view. kNotFound for a delete of a
    // record that is not there.
    Status Stage(const PreparedWrite& write, const ReadView* view, Scratch* scratch, EngineBatch* batch) const;

    // Adds the conditions that every commit of a write of the table carries:
    // the table's schema stamp is the one of the binding. A batch of many
    // writes needs them once.
    void StageTableConditions(EngineBatch* batch) const;

    // After a refused commit: whether the table's schema stamp moved since
    // the binding.
    Status SchemaMoved(bool* moved) const;

    // Stages write (and the table's conditions) at a new view and commits it,
    // until it commits or fails. When a commit is refused because the schema
    // moved, *moved is set and the status is kBusy: bind again and retry.
    Status Commit(const PreparedWrite& write, Scratch* scratch, const char* what, bool* moved) const;

private:
    Status StagePut(const PreparedWrite& write, const ReadView* view, Scratch* scratch, EngineBatch* batch) const;
    Status StageUpdate(const PreparedWrite& write, const ReadView* view, Scratch* scratch, EngineBatch* batch) const;
    Status StageDelete(const PreparedWrite& write, const ReadView* view, Scratch* scratch, EngineBatch* batch) const;

    // Stages the moves of the entries of `affected` from old (null: no old
    // record) to now (null: record removed). old_failed holds the tag paths
    // of old that did not merge: an entry whose old fields are among them is
    // found by its primary key instead.
    Status StageSecondaries(const std::vector<const Secondary*>& affected, const std::string& pk,
                            const google::protobuf::Message* old, const std::set<std::string>& old_failed,
                            const google::protobuf::Message* now, const ReadView* view, Scratch* scratch,
                            EngineBatch* batch) const;
    // True when a field of secondary did not merge from what is stored (not
    // an encrypted field, which merges but is always reported).
    bool DamagedIn(const Secondary& secondary, const std::set<std::string>& failed) const;
    // Deletes every entry of secondary that names pk, except keep.
    Status StageEntriesOf(const Secondary& secondary, const std::string& pk, const std::string& keep,
                          const ReadView* view, EngineBatch* batch) const;
    // Cuts the named singular paths of source into fields.
    Status Cut(google::protobuf::Message* source, const std::set<std::string>& paths, Scratch* scratch,
               std::vector<StoredField>* fields) const;

    StoreContext* m_context;
    const TableSchema* m_schema;
    const RecordReader* m_reader;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_WRITE_PATH_H_
