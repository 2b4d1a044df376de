#include "store/rows.h"

#include "store/key_format.h"

namespace corvida {
namespace store {

namespace {

constexpr size_t kTypicalFields = 32;

}  // namespace

Status ReadRow(Engine* engine, const ReadView* view, const std::string& row_key, bool all_paths,
               const FieldFilter& keep, StoredRow* row) {
    // Room for the fields of a typical record, so that the vector is not
    // moved while it grows.
    row->fields.reserve(kTypicalFields);
    if (all_paths) row->tag_paths.reserve(kTypicalFields);
    return engine->Scan(view, row_key, keys::RowEnd(row_key), [&](std::string_view key, std::string_view value) {
        const std::string_view tag_path = key.substr(row_key.size());
        if (tag_path.empty()) {
            row->exists = true;
            row->stamp.assign(value.data(), value.size());
            return true;
        }
        if (all_paths) row->tag_paths.emplace_back(tag_path);
        if (!keep || keep(tag_path)) row->fields.push_back(StoredField{std::string(tag_path), std::string(value)});
        return true;
    });
}

Status ScanRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& start,
                const std::string& table_name, const RowVisitor& visit) {
    const std::string rows = keys::TableRows(table);
    std::string pk;
    std::string key_pk;
    std::vector<StoredField> fields;
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
            if (!visit(pk, fields)) {
                stopped = true;
                return false;
            }
            fields.clear();
            in_row = false;
        }
        if (!in_row) {
            pk.swap(key_pk);
            in_row = true;
        }
        if (!tag_path.empty()) fields.push_back(StoredField{std::string(tag_path), std::string(value)});
        return true;
    });
    if (!status.ok()) return status;
    if (!damaged.ok()) return damaged;
    if (in_row && !stopped) visit(pk, fields);
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
