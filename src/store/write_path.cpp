#include "store/write_path.h"

#include <algorithm>

#include "protobuf_api/protobuf_util.h"
#include "store/key_format.h"
#include "store/retry.h"
#include "store/rows.h"
#include "store/utf8_check.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

// Largest record (its protobuf size) that a write takes: well inside the
// value set that carries its fields to the store.
constexpr size_t kMaxRecordBytes = 8u << 20;

// True when tag path `path` lies strictly under `parent`.
bool Under(const std::string& path, const std::string& parent) {
    return path.size() > parent.size() && path.compare(0, parent.size(), parent) == 0 && path[parent.size()] == '.';
}

Status InvalidUtf8(const std::string& table, const std::string& where) {
    return Status::InvalidArgument("table " + table + ": string field '" + where +
                                   "' is not valid UTF-8, as a proto3 string must be");
}

// The update's strings that protobuf would not parse back: in its key fields
// and in the value at each of its paths (what is beside a path is not
// written). *where is the string field's dotted path.
bool UpdateHoldsInvalidUtf8(const Message& record, const std::vector<const FieldDescriptor*>& key_fields,
                            const std::vector<ResolvedPath>& paths, std::string* where) {
    for (const FieldDescriptor* field : key_fields) {
        if (FieldHoldsInvalidUtf8(record, field, where)) return true;
    }
    for (const ResolvedPath& path : paths) {
        const Message* at = &record;
        const size_t parents = path.top->is_repeated() ? 0 : path.numbers.size() - 1;
        for (size_t i = 0; i < parents && at != nullptr; ++i) {
            const FieldDescriptor* field = at->GetDescriptor()->FindFieldByNumber(path.numbers[i]);
            at = at->GetReflection()->HasField(*at, field) ? &at->GetReflection()->GetMessage(*at, field) : nullptr;
        }
        if (at == nullptr) continue;  // an unset sub-message on the way: nothing below it is set
        if (FieldHoldsInvalidUtf8(*at, parents == 0 ? path.top : path.last, where)) {
            const size_t cut = path.dotted.rfind('.');
            if (parents != 0 && cut != std::string::npos) *where = path.dotted.substr(0, cut + 1) + *where;
            return true;
        }
    }
    return false;
}

bool Rewritten(const std::vector<StoredField>& writes, const std::string& tag_path) {
    return std::any_of(writes.begin(), writes.end(),
                       [&tag_path](const StoredField& write) { return write.tag_path == tag_path; });
}

// The condition that the record is still as it was read at view.
void ExpectRow(const std::string& row_key, const StoredRow& row, const ReadView* view, EngineBatch* batch) {
    if (row.exists) {
        batch->ExpectValue(row_key, row.stamp, view);
    } else {
        batch->ExpectAbsent(row_key, view);
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Preparing.
// ---------------------------------------------------------------------------

Status RecordWriter::Cut(Message* source, const std::set<std::string>& paths, Scratch* scratch,
                         std::vector<StoredField>* fields) const {
    const std::string& table = m_schema->name();
    const int cut = PROTOBUF_UTIL::FillValueSetWithMsg(source, m_schema->key_names(), paths, *scratch->values,
                                                       m_context->log());
    if (cut != 0) {
        ErrorLines errors;  // the same cut again, for the bridge's reason
        PROTOBUF_UTIL::FillValueSetWithMsg(source, m_schema->key_names(), paths, *scratch->values, errors.category());
        return Status::InvalidArgument("table " + table + ": the fields cannot be cut (result " + std::to_string(cut) +
                                           ")" + (errors.text().empty() ? "" : ": " + errors.text()),
                                       cut);
    }
    std::vector<CorvidaCommon::PbValueSetBuffer::Field> cut_fields;
    CorvidaCommon::PbValueSetBuffer reader(scratch->values.get(), scratch->values->iVersion_, m_context->log());
    if (reader.GetFields(cut_fields) != 0) return Status::Corruption("table " + table + ": a cut value set is unreadable");
    fields->reserve(fields->size() + cut_fields.size());
    for (const auto& field : cut_fields) {
        fields->push_back(StoredField{field.path, std::string(field.buf, static_cast<size_t>(field.buf_len))});
    }
    return Status::OK();
}

Status RecordWriter::PreparePut(const Message& record, Scratch* scratch, PreparedWrite* write) const {
    Status status = m_schema->CheckType(record, "the record");
    if (!status.ok()) return status;
    if (record.ByteSizeLong() > kMaxRecordBytes) {
        return Status::InvalidArgument("table " + m_schema->name() + ": the record is larger than 8 MiB");
    }
    std::string where;
    if (HoldsInvalidUtf8(record, &where)) return InvalidUtf8(m_schema->name(), where);
    write->kind = PreparedWrite::Kind::kPut;
    write->source = &record;
    status = m_schema->PrimaryKey(record, scratch, &write->pk);
    if (!status.ok()) return status;
    write->row_key = keys::RowKey(m_schema->number(), write->pk);

    // Every top-level field outside the key: the singular ones cut by the
    // bridge (an unset one as a record of no bytes), the repeated ones and
    // maps as protobuf serializes them.
    status = Cut(const_cast<Message*>(&record), m_schema->put_paths(), scratch, &write->writes);
    if (!status.ok()) return status;
    for (const FieldDescriptor* field : m_schema->repeated_fields()) {
        write->writes.push_back(StoredField{std::to_string(field->number()), std::string()});
        SerializeRepeatedField(record, field, &write->writes.back().bytes);
    }
    return Status::OK();
}

Status RecordWriter::PrepareUpdate(const Message& record, const std::vector<std::string>& paths, Scratch* scratch,
                                   PreparedWrite* write) const {
    const std::string& table = m_schema->name();
    Status status = m_schema->CheckType(record, "the record");
    if (!status.ok()) return status;
    if (paths.empty()) return Status::InvalidArgument("table " + table + ": Update without paths");
    std::vector<ResolvedPath> resolved;
    status = m_schema->ResolvePaths(paths, true, &resolved);
    if (!status.ok()) return status;
    if (record.ByteSizeLong() > kMaxRecordBytes) {
        return Status::InvalidArgument("table " + table + ": the record is larger than 8 MiB");
    }
    std::string where;
    if (UpdateHoldsInvalidUtf8(record, m_schema->key_fields(), resolved, &where)) return InvalidUtf8(table, where);
    write->kind = PreparedWrite::Kind::kUpdate;

    // The bridge creates the unset sub-messages on a path in the message it
    // cuts from; such paths are cut from a copy so that record stays as it is.
    std::set<std::string> singular_paths;
    std::vector<const FieldDescriptor*> repeated;
    bool copy = false;
    for (const ResolvedPath& path : resolved) {
        if (path.top->is_repeated()) {
            if (std::find(repeated.begin(), repeated.end(), path.top) == repeated.end()) repeated.push_back(path.top);
            continue;
        }
        singular_paths.insert(path.dotted);
        const Message* at = &record;
        for (size_t i = 0; i + 1 < path.numbers.size() && !copy; ++i) {
            const FieldDescriptor* field = at->GetDescriptor()->FindFieldByNumber(path.numbers[i]);
            copy = !at->GetReflection()->HasField(*at, field);
            at = &at->GetReflection()->GetMessage(*at, field);
        }
    }
    if (copy) {
        write->copy.reset(record.New());
        write->copy->CopyFrom(record);
        write->copy->ByteSizeLong();
    }
    Message* source = copy ? write->copy.get() : const_cast<Message*>(&record);
    write->source = source;

    status = m_schema->PrimaryKey(*source, scratch, &write->pk);
    if (!status.ok()) return status;
    write->row_key = keys::RowKey(m_schema->number(), write->pk);
    if (!singular_paths.empty()) {
        status = Cut(source, singular_paths, scratch, &write->writes);
        if (!status.ok()) return status;
    }
    for (const FieldDescriptor* field : repeated) {
        write->writes.push_back(StoredField{std::to_string(field->number()), std::string()});
        SerializeRepeatedField(*source, field, &write->writes.back().bytes);
    }

    // The secondaries whose fields the update writes, and the sub-messages it
    // writes whole (what is stored under them goes).
    for (const Secondary& secondary : m_schema->secondaries()) {
        const bool touched = std::any_of(resolved.begin(), resolved.end(), [&secondary](const ResolvedPath& path) {
            return secondary.Covers(path.top->number());
        });
        if (touched) write->touched.push_back(&secondary);
    }
    for (const ResolvedPath& path : resolved) {
        if (path.last->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !path.last->is_repeated()) {
            write->below.push_back(path.tag_path);
        }
    }
    return Status::OK();
}

Status RecordWriter::PrepareDelete(const Message& key, Scratch* scratch, PreparedWrite* write) const {
    Status status = m_schema->CheckType(key, "the key");
    if (!status.ok()) return status;
    write->kind = PreparedWrite::Kind::kDelete;
    write->source = &key;
    key.ByteSizeLong();
    status = m_schema->PrimaryKey(key, scratch, &write->pk);
    if (!status.ok()) return status;
    write->row_key = keys::RowKey(m_schema->number(), write->pk);
    return Status::OK();
}

// ---------------------------------------------------------------------------
// Staging.
// ---------------------------------------------------------------------------

Status RecordWriter::Stage(const PreparedWrite& write, const ReadView* view, Scratch* scratch,
                           EngineBatch* batch) const {
    switch (write.kind) {
        case PreparedWrite::Kind::kPut: return StagePut(write, view, scratch, batch);
        case PreparedWrite::Kind::kUpdate: return StageUpdate(write, view, scratch, batch);
        case PreparedWrite::Kind::kDelete: return StageDelete(write, view, scratch, batch);
    }
    return Status::InvalidArgument("unknown write");
}

Status RecordWriter::StagePut(const PreparedWrite& write, const ReadView* view, Scratch* scratch,
                              EngineBatch* batch) const {
    StoredRow row;
    const TableSchema* schema = m_schema;
    Status status = ReadRow(m_context->engine(), view, write.row_key, true,
                            [schema](std::string_view tag) { return schema->IsSecondaryField(tag); }, &row);
    if (!status.ok()) return status;
    ExpectRow(write.row_key, row, view, batch);
    std::string key = write.row_key;
    for (const std::string& tag_path : row.tag_paths) {
        if (Rewritten(write.writes, tag_path) || m_schema->HeldOnlyByTable(tag_path)) continue;
        key.resize(write.row_key.size());
        batch->Delete(key.append(tag_path));
    }
    batch->Put(write.row_key, keys::NewStamp());
    for (const StoredField& field : write.writes) {
        key.resize(write.row_key.size());
        batch->Put(key.append(field.tag_path), field.bytes);
    }
    std::vector<const Secondary*> all;
    for (const Secondary& secondary : m_schema->secondaries()) all.push_back(&secondary);
    std::set<std::string> old_failed;
    std::unique_ptr<Message> old =
        row.exists && !all.empty() ? m_reader->View(*write.source, row.fields, &old_failed) : nullptr;
    return StageSecondaries(all, write.pk, old.get(), old_failed, write.source, view, scratch, batch);
}

Status RecordWriter::StageUpdate(const PreparedWrite& write, const ReadView* view, Scratch* scratch,
                                 EngineBatch* batch) const {
    Engine* engine = m_context->engine();
    std::string stamp;
    bool exists = false;
    Status status = engine->Get(view, write.row_key, &stamp, &exists);
    if (!status.ok()) return status;

    // A new record has had no entries: every secondary gets one.
    std::vector<const Secondary*> affected = write.touched;
    if (!exists) {
        affected.clear();
        for (const Secondary& secondary : m_schema->secondaries()) affected.push_back(&secondary);
    }
    StoredRow row;
    row.exists = exists;
    row.stamp = stamp;
    if (exists && (!affected.empty() || !write.below.empty())) {
        auto keep = [&affected](std::string_view tag) {
            const int number = FirstNumber(tag);
            return std::any_of(affected.begin(), affected.end(),
                               [number](const Secondary* secondary) { return secondary->Covers(number); });
        };
        StoredRow read;
        status = ReadRow(engine, view, write.row_key, true, keep, &read);
        if (!status.ok()) return status;
        // The marker was read at the same view: the row is as stamped.
        row.tag_paths = std::move(read.tag_paths);
        row.fields = std::move(read.fields);
    }
    ExpectRow(write.row_key, row, view, batch);
    batch->Put(write.row_key, keys::NewStamp());
    std::string key = write.row_key;
    for (const std::string& tag_path : row.tag_paths) {
        const bool replaced = std::any_of(write.below.begin(), write.below.end(),
                                          [&tag_path](const std::string& parent) { return Under(tag_path, parent); });
        if (!replaced || Rewritten(write.writes, tag_path) || m_schema->HeldOnlyByTable(tag_path)) continue;
        key.resize(write.row_key.size());
        batch->Delete(key.append(tag_path));
    }
    for (const StoredField& field : write.writes) {
        key.resize(write.row_key.size());
        batch->Put(key.append(field.tag_path), field.bytes);
    }
    if (affected.empty()) return Status::OK();

    // The index fields after the update: the old ones with the update's
    // fields merged over them, as a later read will see them.
    std::set<std::string> old_failed;
    std::unique_ptr<Message> old = exists ? m_reader->View(*write.source, row.fields, &old_failed) : nullptr;
    std::unique_ptr<Message> now(m_schema->prototype().New());
    if (old != nullptr) {
        now->CopyFrom(*old);
    } else {
        m_schema->CopyKeyFields(*write.source, now.get());
    }
    std::vector<StoredField> affecting;
    for (const StoredField& field : write.writes) {
        const int number = FirstNumber(field.tag_path);
        if (std::any_of(affected.begin(), affected.end(),
                        [number](const Secondary* secondary) { return secondary->Covers(number); })) {
            affecting.push_back(field);
        }
    }
    std::set<std::string> ignored;
    MergeStoredFields(affecting, now.get(), &ignored, m_context->log());
    now->ByteSizeLong();
    return StageSecondaries(affected, write.pk, old.get(), old_failed, now.get(), view, scratch, batch);
}

Status RecordWriter::StageDelete(const PreparedWrite& write, const ReadView* view, Scratch* scratch,
                                 EngineBatch* batch) const {
    StoredRow row;
    const TableSchema* schema = m_schema;
    Status status = ReadRow(m_context->engine(), view, write.row_key, true,
                            [schema](std::string_view tag) { return schema->IsSecondaryField(tag); }, &row);
    if (!status.ok()) return status;
    if (!row.exists) return Status::NotFound("table " + m_schema->name() + ": no record with that key");
    ExpectRow(write.row_key, row, view, batch);
    batch->Delete(write.row_key);
    std::string key = write.row_key;
    for (const std::string& tag_path : row.tag_paths) {
        key.resize(write.row_key.size());
        batch->Delete(key.append(tag_path));
    }
    std::vector<const Secondary*> all;
    for (const Secondary& secondary : m_schema->secondaries()) all.push_back(&secondary);
    if (all.empty()) return Status::OK();
    std::set<std::string> old_failed;
    std::unique_ptr<Message> old = m_reader->View(*write.source, row.fields, &old_failed);
    return StageSecondaries(all, write.pk, old.get(), old_failed, nullptr, view, scratch, batch);
}

bool RecordWriter::DamagedIn(const Secondary& secondary, const std::set<std::string>& failed) const {
    for (const std::string& tag_path : failed) {
        const int number = FirstNumber(tag_path);
        if (!secondary.Covers(number)) continue;
        const FieldDescriptor* field = m_schema->descriptor()->FindFieldByNumber(number);
        const bool encrypted_whole = field != nullptr && tag_path == std::to_string(number) && IsEncryptedKeyField(field);
        if (!encrypted_whole) return true;
    }
    return false;
}

Status RecordWriter::StageEntriesOf(const Secondary& secondary, const std::string& pk, const std::string& keep,
                                    const ReadView* view, EngineBatch* batch) const {
    const std::string space = keys::SecondarySpace(secondary.space, m_schema->number(), secondary.name);
    std::string value;
    std::string entry_pk;
    return m_context->engine()->Scan(view, space, keys::SecondarySpaceEnd(secondary.space, m_schema->number(), secondary.name), [&](std::string_view key, std::string_view) {
        if (keys::SplitSecondaryKey(key.substr(space.size()), &value, &entry_pk) && entry_pk == pk && key != keep) {
            batch->Delete(key);
        }
        return true;
    });
}

Status RecordWriter::StageSecondaries(const std::vector<const Secondary*>& affected, const std::string& pk,
                                      const Message* old, const std::set<std::string>& old_failed, const Message* now,
                                      const ReadView* view, Scratch* scratch, EngineBatch* batch) const {
    const uint32_t table = m_schema->number();
    std::string old_key;
    std::string new_key;
    for (const Secondary* secondary : affected) {
        bool had = false;
        bool has = false;
        Status status = Status::OK();
        // Stored index fields that do not merge give no old key: the old
        // entry is found by its primary key. So is one that is not where the
        // stored fields say (fields damaged into other values that merge),
        // unless the index is being built: its back-fill may not have reached
        // the record yet.
        bool unknown_old = old != nullptr && DamagedIn(*secondary, old_failed);
        if (old != nullptr && !unknown_old) status = m_schema->SecondaryKey(*old, *secondary, scratch, &old_key, &had);
        if (status.ok() && had && !m_schema->IsBuilding(secondary->name)) {
            bool present = false;
            std::string ignored;
            status = m_context->engine()->Get(
                view, keys::SecondaryKey(secondary->space, table, secondary->name, old_key, pk), &ignored, &present);
            unknown_old = !present;
            had = present;
        }
        if (status.ok() && now != nullptr) status = m_schema->SecondaryKey(*now, *secondary, scratch, &new_key, &has);
        if (!status.ok()) return status;
        const std::string entry =
            has ? keys::SecondaryKey(secondary->space, table, secondary->name, new_key, pk) : std::string();
        if (unknown_old) {
            status = StageEntriesOf(*secondary, pk, entry, view, batch);
            if (!status.ok()) return status;
        } else if (had && has && old_key == new_key) {
            continue;
        } else if (had) {
            batch->Delete(keys::SecondaryKey(secondary->space, table, secondary->name, old_key, pk));
        }
        if (has) batch->Put(entry, "");
    }
    return Status::OK();
}

// ---------------------------------------------------------------------------
// Committing.
// ---------------------------------------------------------------------------

void RecordWriter::StageTableConditions(EngineBatch* batch) const {
    const std::string key = keys::SchemaStampKey(m_schema->number());
    if (m_schema->stamp().empty()) {
        batch->ExpectAbsent(key);
    } else {
        batch->ExpectValue(key, m_schema->stamp());
    }
}

Status RecordWriter::SchemaMoved(bool* moved) const {
    std::string stamp;
    bool found = false;
    Status status = m_context->engine()->Get(nullptr, keys::SchemaStampKey(m_schema->number()), &stamp, &found);
    *moved = status.ok() && stamp != m_schema->stamp();
    return status;
}

Status RecordWriter::Commit(const PreparedWrite& write, Scratch* scratch, const char* what, bool* moved) const {
    const std::string context = "table " + m_schema->name() + ": " + what;
    Engine* engine = m_context->engine();
    *moved = false;
    return RetryConflicts(context, [&](bool* committed) {
        std::unique_ptr<ReadView> view;
        Status status = engine->NewLazyView(&view);
        if (!status.ok()) return status;
        EngineBatch batch;
        status = Stage(write, view.get(), scratch, &batch);
        if (!status.ok()) return status;
        StageTableConditions(&batch);
        status = CheckLimits(batch, engine->limits(), context);
        if (status.ok()) status = engine->Commit(batch, committed);
        if (status.ok() && !*committed) status = SchemaMoved(moved);
        return status.ok() && *moved ? Status::Busy(context + ": the table's schema changed meanwhile") : status;
    });
}

Status RecordWriter::Put(const Message& record, bool* moved) const {
    ScratchPool::Lease scratch = m_context->scratch().Acquire();
    PreparedWrite write;
    Status status = PreparePut(record, scratch.get(), &write);
    return status.ok() ? Commit(write, scratch.get(), "writing a record", moved) : status;
}

Status RecordWriter::Update(const Message& record, const std::vector<std::string>& paths, bool* moved) const {
    ScratchPool::Lease scratch = m_context->scratch().Acquire();
    PreparedWrite write;
    Status status = PrepareUpdate(record, paths, scratch.get(), &write);
    return status.ok() ? Commit(write, scratch.get(), "updating a record", moved) : status;
}

Status RecordWriter::Delete(const Message& key, bool* moved) const {
    ScratchPool::Lease scratch = m_context->scratch().Acquire();
    PreparedWrite write;
    Status status = PrepareDelete(key, scratch.get(), &write);
    return status.ok() ? Commit(write, scratch.get(), "deleting a record", moved) : status;
}

}  // namespace store
}  // namespace corvida
