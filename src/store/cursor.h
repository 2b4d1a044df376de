// Cursors of paged reads: where a scan or lookup resumes. Private to the
// store.
//
// A cursor names the last record a page returned and the read it belongs to:
// the table's number, the kind of read (a whole-table scan, an index lookup,
// a shard listing) with the index name and the looked-up value, and the
// record's primary key. Its text is the hex form of
//   01 <u32 table> <kind> <esc name> <esc value> <esc pk>
// (kind 'R', 'I' or 'S'; name and value empty where the read has none), so
// it is stable across processes and never holds more than the keys the
// store's own layout holds.
#ifndef CORVIDA_STORE_CURSOR_H_
#define CORVIDA_STORE_CURSOR_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "store/status.h"

namespace corvida {
namespace store {

struct CursorScope {
    uint32_t table = 0;
    char kind = 'R';    // keys::kRow, keys::kIndex or keys::kShard
    std::string name;   // the index's name
    std::string value;  // the looked-up field key (index or shard)
};

std::string EncodeCursor(const CursorScope& scope, std::string_view pk);

// Decodes text into the primary key it names. kInvalidArgument when text is
// not a cursor, or one of another read than scope.
Status DecodeCursor(std::string_view text, const CursorScope& scope, std::string* pk);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_CURSOR_H_
