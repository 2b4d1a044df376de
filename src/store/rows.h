// Reading the stored rows of a table from the engine. Private to the store.
//
// A row is its marker (key "R <table> <esc pk>", whose value is the stamp of
// the record's last write) and its stored fields (the marker's key and a tag
// path). Both functions read at one view and take keys that may be damaged:
// a key that does not split is kCorruption naming the table.
#ifndef CORVIDA_STORE_ROWS_H_
#define CORVIDA_STORE_ROWS_H_

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "store/engine.h"
#include "store/record_codec.h"

namespace corvida {
namespace store {

struct StoredRow {
    bool exists = false;
    std::string stamp;                   // the marker's value
    std::vector<std::string> tag_paths;  // every stored field's tag path, when asked for
    std::vector<StoredField> fields;     // the fields the filter kept
    std::string range_end;               // scratch: the end of the row's key range
};

// Which stored fields to keep, by tag path.
using FieldFilter = std::function<bool(std::string_view tag_path)>;

// Reads the row at row_key: its marker, every tag path when all_paths, and
// the fields keep accepts (every field when keep is empty). What *row held
// is replaced; its strings are reused, so reading one row after another into
// the same StoredRow allocates little.
Status ReadRow(Engine* engine, const ReadView* view, const std::string& row_key, bool all_paths,
               const FieldFilter& keep, StoredRow* row);

// Called with each row of a range in primary-key order: its primary key and
// its stored fields. Returning false stops.
using RowVisitor = std::function<bool(const std::string& pk, std::vector<StoredField>& fields)>;

// Reads the rows of table from key `start` (the table's first row key, or a
// key inside the table's range) to the end of the table. table_name is for
// messages.
Status ScanRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& start,
                const std::string& table_name, const RowVisitor& visit);

// The same, with each row's stamp (its marker's value; empty for a row
// whose marker is missing).
using StampedRowVisitor =
    std::function<bool(const std::string& pk, const std::string& stamp, std::vector<StoredField>& fields)>;
Status ScanStampedRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& start,
                       const std::string& table_name, const StampedRowVisitor& visit);

// Counts the rows of table (their markers) without reading their fields.
Status CountRows(Engine* engine, const ReadView* view, uint32_t table, const std::string& table_name,
                 uint64_t* count);

// Counts the keys in [prefix, keys::EscapedEnd(prefix)): those that continue
// prefix, an encoding that ends with an escaped string (an index's space, the
// prefix of an index value or of a shard).
Status CountKeys(Engine* engine, const ReadView* view, const std::string& prefix, uint64_t* count);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ROWS_H_
