#include "store/read_path.h"

#include <algorithm>
#include <iterator>

#include "store/cursor.h"
#include "store/key_format.h"
#include "store/rows.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

// True when one tag path is the other or lies under it.
bool OnSameBranch(std::string_view a, std::string_view b) {
    if (a.size() > b.size()) std::swap(a, b);
    return b.compare(0, a.size(), a) == 0 && (b.size() == a.size() || b[a.size()] == '.');
}

// Clears every field of msg that no requested path reaches; paths are the
// tag numbers of the requested paths from depth on. Fields in keep stay.
void KeepOnly(Message* msg, const std::vector<const std::vector<int>*>& paths, size_t depth,
              const std::vector<const FieldDescriptor*>& keep) {
    std::vector<const FieldDescriptor*> set_fields;
    msg->GetReflection()->ListFields(*msg, &set_fields);
    for (const FieldDescriptor* field : set_fields) {
        if (std::find(keep.begin(), keep.end(), field) != keep.end()) continue;
        std::vector<const std::vector<int>*> below;
        bool whole = false;
        for (const std::vector<int>* path : paths) {
            if ((*path)[depth] != field->number()) continue;
            if (path->size() == depth + 1) whole = true;
            below.push_back(path);
        }
        if (whole) continue;
        if (below.empty() || field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_repeated()) {
            msg->GetReflection()->ClearField(msg, field);
        } else {
            KeepOnly(msg->GetReflection()->MutableMessage(msg, field), below, depth + 1, {});
        }
    }
}

// Hands the cursor of the last record to *next when the limit cut the read
// short.
struct PageState {
    explicit PageState(const Page& page) : limit(page.limit) {}

    // True when one more record may be returned; otherwise the cursor of
    // the last one is due.
    bool Room() const { return limit == 0 || returned < limit; }

    size_t limit;
    size_t returned = 0;
    bool cut = false;
    std::string last_pk;
};

}  // namespace

void RecordReader::Merge(const std::vector<StoredField>& fields, Message* msg, std::set<std::string>* failed) const {
    // A field under a key field is damage: reported, and not merged over the
    // key's value (which would also hide the record's index entries from a
    // write that moves them). A field the client's type lacks is left alone.
    const TableSchema* schema = m_schema;
    const auto skipped = [schema](const StoredField& field) {
        return schema->HeldOnlyByTable(field.tag_path) || schema->UnderKeyField(field.tag_path);
    };
    if (std::none_of(fields.begin(), fields.end(), skipped)) {
        MergeStoredFields(fields, msg, failed, m_context->log());
        return;
    }
    std::vector<StoredField> known;
    for (const StoredField& field : fields) {
        if (schema->UnderKeyField(field.tag_path)) {
            failed->insert(field.tag_path);
        } else if (!schema->HeldOnlyByTable(field.tag_path)) {
            known.push_back(field);
        }
    }
    MergeStoredFields(known, msg, failed, m_context->log());
}

std::unique_ptr<Message> RecordReader::View(const Message& base, const std::vector<StoredField>& fields,
                                            std::set<std::string>* failed) const {
    std::unique_ptr<Message> view(m_schema->prototype().New());
    m_schema->CopyKeyFields(base, view.get());
    std::set<std::string> ignored;
    Merge(fields, view.get(), failed != nullptr ? failed : &ignored);
    view->ByteSizeLong();
    return view;
}

Status RecordReader::MakeRecord(std::string_view pk, const std::vector<StoredField>& fields, Record* record) const {
    // A message of the client type left in place by the visitor of the
    // record before is cleared and used again, with what it allocated.
    if (record->message != nullptr && record->message->GetReflection() == m_schema->prototype().GetReflection()) {
        record->message->Clear();
    } else {
        record->message.reset(m_schema->prototype().New());
    }
    record->failed_paths.clear();
    std::string why;
    if (!ParsePrimaryKey(pk, m_schema->kv(), record->message.get(), &why)) {
        return Status::Corruption("table " + m_schema->name() + ": a stored primary key does not parse: " + why);
    }
    Merge(fields, record->message.get(), &record->failed_paths);
    return Status::OK();
}

Status RecordReader::Get(const Message& key, const std::vector<std::string>& paths, Message* out,
                         std::set<std::string>* failed_paths) const {
    const std::string& table = m_schema->name();
    if (out == nullptr) return Status::InvalidArgument("table " + table + ": Get without an output message");
    Status status = m_schema->CheckType(key, "the key");
    if (status.ok()) status = m_schema->CheckType(*out, "the output");
    std::vector<ResolvedPath> resolved;
    if (status.ok()) status = m_schema->ResolvePaths(paths, false, &resolved);
    if (!status.ok()) return status;
    ScratchPool::Lease scratch = m_context->scratch().Acquire();
    std::string& pk = scratch->pk;
    key.ByteSizeLong();  // the key encoders write with cached sizes
    status = m_schema->PrimaryKey(key, scratch.get(), &pk);
    if (!status.ok()) return status;
    bool above = false;  // a stored sub-message holding more than was asked
    FieldFilter keep;
    if (!resolved.empty()) {
        keep = [&resolved, &above](std::string_view tag) {
            bool kept = false;
            for (const ResolvedPath& path : resolved) {
                if (!OnSameBranch(tag, path.tag_path)) continue;
                kept = true;
                above = above || tag.size() < path.tag_path.size();
            }
            return kept;
        };
    }
    StoredRow& row = scratch->row;
    keys::AssignRowKey(&scratch->row_key, m_schema->number(), pk);
    status = ReadRow(m_context->engine(), nullptr, scratch->row_key, false, keep, &row);
    if (!status.ok()) return status;
    if (!row.exists) return Status::NotFound("table " + table + ": no record with that key");

    out->Clear();
    m_schema->CopyKeyFields(key, out);
    std::set<std::string> failed;
    Merge(row.fields, out, &failed);
    if (above) {
        std::vector<const std::vector<int>*> wanted;
        for (const ResolvedPath& path : resolved) wanted.push_back(&path.numbers);
        KeepOnly(out, wanted, 0, m_schema->key_fields());
    }
    if (failed_paths != nullptr) failed_paths->insert(failed.begin(), failed.end());
    return Status::OK();
}

Status RecordReader::FindSecondary(std::string_view index, const Secondary** secondary) const {
    *secondary = m_schema->FindIndex(index);
    if (*secondary != nullptr) return Status::OK();
    std::string names;
    for (const std::string& name : m_schema->IndexNames()) names += (names.empty() ? "" : ", ") + name;
    return Status::InvalidArgument("table " + m_schema->name() + " has no index '" + std::string(index) +
                                   "' (its indexes: " + (names.empty() ? "none" : names) + ")");
}

Status RecordReader::LookupValue(const Secondary& secondary, const Message& fields, std::string* value) const {
    Status status = m_schema->CheckType(fields, "the message of the looked-up fields");
    if (!status.ok()) return status;
    bool present = false;
    {
        ScratchPool::Lease scratch = m_context->scratch().Acquire();
        fields.ByteSizeLong();
        status = m_schema->SecondaryKey(fields, secondary, scratch.get(), value, &present);
    }
    if (!status.ok()) return status;
    if (!present) return Status::InvalidArgument(secondary.What(m_schema->name()) + ": a field of it is not set");
    return Status::OK();
}

Status RecordReader::Scan(const Message* shard, const Page& page, const RecordVisitor& visit,
                          std::string* next) const {
    if (shard == nullptr) return ScanTable(page, visit, next);
    if (m_schema->shard() == nullptr) {
        return Status::InvalidArgument("table " + m_schema->name() + " has no sharding key");
    }
    std::string value;
    Status status = LookupValue(*m_schema->shard(), *shard, &value);
    return status.ok() ? ReadEntries(*m_schema->shard(), value, page, visit, next, nullptr) : status;
}

Status RecordReader::Find(std::string_view index, const Message& fields, const Page& page,
                          const RecordVisitor& visit, std::string* next, const ReadView* view) const {
    const Secondary* secondary = nullptr;
    Status status = FindSecondary(index, &secondary);
    std::string value;
    if (status.ok()) status = LookupValue(*secondary, fields, &value);
    return status.ok() ? ReadEntries(*secondary, value, page, visit, next, view) : status;
}

Status RecordReader::ScanTable(const Page& page, const RecordVisitor& visit, std::string* next) const {
    if (next != nullptr) next->clear();
    const CursorScope scope{m_schema->number(), keys::kRow, "", ""};
    std::string start = keys::TableRows(m_schema->number());
    if (!page.after.empty()) {
        std::string after;
        Status status = DecodeCursor(page.after, scope, &after);
        if (!status.ok()) return status;
        start = keys::EscapedEnd(keys::RowKey(m_schema->number(), after));
    }
    std::unique_ptr<ReadView> view;
    Status status = m_context->engine()->NewLazyView(&view);
    if (!status.ok()) return status;
    PageState state(page);
    Status made;
    Record record;
    status = ScanRows(m_context->engine(), view.get(), m_schema->number(), start, m_schema->name(),
                      [&](const std::string& pk, std::vector<StoredField>& fields) {
                          if (!state.Room()) {
                              state.cut = true;
                              return false;
                          }
                          made = MakeRecord(pk, fields, &record);
                          if (!made.ok()) return false;
                          ++state.returned;
                          state.last_pk = pk;
                          return visit(record);
                      });
    if (!status.ok()) return status;
    if (!made.ok()) return made;
    if (state.cut && next != nullptr) *next = EncodeCursor(scope, state.last_pk);
    return Status::OK();
}

Status RecordReader::ReadEntries(const Secondary& secondary, const std::string& value, const Page& page,
                                 const RecordVisitor& visit, std::string* next, const ReadView* view) const {
    if (next != nullptr) next->clear();
    const uint32_t table = m_schema->number();
    const CursorScope scope{table, secondary.space, secondary.name, value};
    const std::string prefix = keys::SecondaryPrefix(secondary.space, table, secondary.name, value);
    std::string start = prefix;
    if (!page.after.empty()) {
        std::string after;
        Status status = DecodeCursor(page.after, scope, &after);
        if (!status.ok()) return status;
        start = keys::SecondaryKey(secondary.space, table, secondary.name, value, after);
        start.push_back('\0');  // the first key after that entry
    }
    Engine* engine = m_context->engine();
    std::unique_ptr<ReadView> own;
    Status status = view == nullptr ? engine->NewLazyView(&own) : Status::OK();
    if (!status.ok()) return status;
    if (view == nullptr) view = own.get();
    ScratchPool::Lease scratch = m_context->scratch().Acquire();
    StoredRow& row = scratch->row;

    // The entries in chunks, then their records: the engine's scan of the
    // entries is not interleaved with reads of rows, and no more than a chunk
    // of primary keys is held.
    constexpr size_t kChunk = 256;
    const size_t space_size = keys::SecondarySpace(secondary.space, table, secondary.name).size();
    const std::string end = keys::EscapedEnd(prefix);
    size_t returned = 0;
    std::string last_pk;
    // What every chunk and record reuses: the primary keys' strings, the
    // entry's split, the record (see MakeRecord).
    std::vector<std::string> pks;
    std::string entry_value;
    Record record;
    for (;;) {
        // A page of a limit reads one entry past it (to know whether a cursor
        // is due), not a whole chunk.
        const size_t chunk = page.limit != 0 ? std::min(kChunk, page.limit - returned + 1) : kChunk;
        size_t listed = 0;  // elements of pks read for this chunk
        bool more = false;
        Status damaged;
        status = engine->Scan(view, start, end, [&](std::string_view key, std::string_view) {
            if (listed == pks.size()) pks.emplace_back();
            if (!keys::SplitSecondaryKey(key.substr(space_size), &entry_value, &pks[listed]) || entry_value != value) {
                damaged = Status::Corruption(secondary.What(m_schema->name()) + ": a stored entry key does not split");
                return false;
            }
            if (listed == chunk) {
                more = true;
                return false;
            }
            ++listed;
            return true;
        });
        if (!status.ok()) return status;
        if (!damaged.ok()) return damaged;
        for (size_t i = 0; i < listed; ++i) {
            const std::string& entry_pk = pks[i];
            if (page.limit != 0 && returned == page.limit) {
                if (next != nullptr) *next = EncodeCursor(scope, last_pk);
                return Status::OK();
            }
            keys::AssignRowKey(&scratch->row_key, table, entry_pk);
            status = ReadRow(engine, view, scratch->row_key, false, FieldFilter(), &row);
            if (!status.ok()) return status;
            if (!row.exists) {
                return Status::Corruption(secondary.What(m_schema->name()) + ": an entry without its record");
            }
            status = MakeRecord(entry_pk, row.fields, &record);
            if (!status.ok()) return status;
            ++returned;
            last_pk = entry_pk;
            if (!visit(record)) return Status::OK();
        }
        if (!more) return Status::OK();
        start = keys::SecondaryKey(secondary.space, table, secondary.name, value, pks[listed - 1]);
        start.push_back('\0');
    }
}

Status RecordReader::CountPrefix(const std::string& prefix, uint64_t* count) const {
    return CountKeys(m_context->engine(), nullptr, prefix, count);
}

Status RecordReader::Count(const Message* shard, uint64_t* count) const {
    if (count == nullptr) return Status::InvalidArgument("table " + m_schema->name() + ": Count without an output");
    if (shard != nullptr) {
        if (m_schema->shard() == nullptr) {
            return Status::InvalidArgument("table " + m_schema->name() + " has no sharding key");
        }
        std::string value;
        Status status = LookupValue(*m_schema->shard(), *shard, &value);
        if (!status.ok()) return status;
        return CountPrefix(keys::SecondaryPrefix(keys::kShard, m_schema->number(), "", value), count);
    }
    return CountRows(m_context->engine(), nullptr, m_schema->number(), m_schema->name(), count);
}

Status RecordReader::CountIndex(std::string_view index, const Message& fields, uint64_t* count) const {
    if (count == nullptr) return Status::InvalidArgument("table " + m_schema->name() + ": Count without an output");
    const Secondary* secondary = nullptr;
    Status status = FindSecondary(index, &secondary);
    std::string value;
    if (status.ok()) status = LookupValue(*secondary, fields, &value);
    if (!status.ok()) return status;
    return CountPrefix(keys::SecondaryPrefix(keys::kIndex, m_schema->number(), secondary->name, value), count);
}

}  // namespace store
}  // namespace corvida
