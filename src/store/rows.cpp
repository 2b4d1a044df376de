#include "store/rows.h"

#include "store/key_format.h"

namespace corvida {
namespace store {

namespace {

constexpr size_t kTypicalFields = 32;

// Sets element *used of *fields (appending one when there are not so many)
// and counts it: the strings of an element read before are reused.
void SetField(std::vector<StoredField>* fields, size_t* used, std::string_view tag_path, std::string_view bytes) {
    if (*used < fields->size()) {
        (*fields)[*used].tag_path.assign(tag_path.data(), tag_path.size());
        (*fields)[*used].bytes.assign(bytes.data(), bytes.size());
    } else {
        fields->push_back(StoredField{std::string(tag_path), std::string(bytes)});
    }
    ++*used;
}

// What ReadRow's visitor works on, reached through one pointer so that the
// visitor fits in a std::function without an allocation.
struct RowRead {
    const std::string& row_key;
    bool all_paths;
    const FieldFilter& keep;
    StoredRow* row;
    size_t fields = 0;  // elements of row->fields read
    size_t paths = 0;   // elements of row->tag_paths read
};

}  // namespace

Status ReadRow(Engine* engine, const ReadView* view, const std::string& row_key, bool all_paths,
               const FieldFilter& keep, StoredRow* row) {
    row->exists = false;
    row->stamp.clear();
    // Room for the fields of a typical record, so that the vector is not
    // moved while it grows.
    row->fields.reserve(kTypicalFields);
    if (all_paths) row->tag_paths.reserve(kTypicalFields);
    RowRead read{row_key, all_paths, keep, row};
    RowRead* const state = &read;
    keys::AssignEscapedEnd(&row->range_end, row_key);
    const Status status =
        engine->Scan(view, row_key, row->range_end, [state](std::string_view key, std::string_view value) {
            StoredRow* const row = state->row;
            const std::string_view tag_path = key.substr(state->row_key.size());
            if (tag_path.empty()) {
                row->exists = true;
                row->stamp.assign(value.data(), value.size());
                return true;
            }
            if (state->all_paths) {
                if (state->paths < row->tag_paths.size()) {
                    row->tag_paths[state->paths].assign(tag_path.data(), tag_path.size());
                } else {
                    row->tag_paths.emplace_back(tag_path);
                }
                ++state->paths;
            }
            if (!state->keep || state->keep(tag_path)) SetField(&row->fields, &state->fields, tag_path, value);
            return true;
        });
    row->fields.resize(read.fields);
    row->tag_paths.resize(read.paths);
    return status;
}

Status ScanRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& start,
                const std::string& table_name, const RowVisitor& visit) {
    return ScanStampedRows(engine, view, table, start, table_name,
                           [&visit](const std::string& pk, const std::string&, std::vector<StoredField>& fields) {
                               return visit(pk, fields);
                           });
}

Status ScanStampedRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& start,
                       const std::string& table_name, const StampedRowVisitor& visit) {
    const std::string rows = keys::TableRows(table);
    std::string pk;
    std::string stamp;
    std::string key_pk;
    std::vector<StoredField> fields;
    size_t used = 0;  // elements of fields read for the current row
    bool in_row = false;
    bool stopped = false;
    Status damaged;
    Status status = engine->Scan(view, start, PrefixEnd(rows), [&](std::string_view key, std::string_view value) {
        std::string_view tag_path;
        if (!keys::SplitRowKey(key.substr(rows.size()), &key_pk, &tag_path)) {
            damaged = Status::Corruption("table " + table_name + ": a stored row key does not split");
            return false;
        }
        if (in_row && key_pk != pk) {
            fields.resize(used);
            if (!visit(pk, stamp, fields)) {
                stopped = true;
                return false;
            }
            used = 0;
            stamp.clear();
            in_row = false;
        }
        if (!in_row) {
            pk.swap(key_pk);
            in_row = true;
        }
        if (tag_path.empty()) {
            stamp.assign(value.data(), value.size());
        } else {
            SetField(&fields, &used, tag_path, value);
        }
        return true;
    });
    if (!status.ok()) return status;
    if (!damaged.ok()) return damaged;
    fields.resize(used);
    if (in_row && !stopped) visit(pk, stamp, fields);
    return Status::OK();
}

Status CountRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& table_name,
                 uint64_t* count) {
    // A marker key ends where its primary key does.
    *count = 0;
    const std::string rows = keys::TableRows(table);
    std::string pk;
    Status damaged;
    Status status = engine->Scan(view, rows, PrefixEnd(rows), [&](std::string_view key, std::string_view) {
        std::string_view tag_path;
        if (!keys::SplitRowKey(key.substr(rows.size()), &pk, &tag_path)) {
            damaged = Status::Corruption("table " + table_name + ": a stored row key does not split");
            return false;
        }
        if (tag_path.empty()) ++*count;
        return true;
    });
    return status.ok() ? damaged : status;
}

Status CountKeys(Engine* engine, const ReadView* view, const std::string& prefix, uint64_t* count) {
    *count = 0;
    return engine->Scan(view, prefix, keys::EscapedEnd(prefix), [count](std::string_view, std::string_view) {
        ++*count;
        return true;
    });
}

}  // namespace store
}  // namespace corvida
