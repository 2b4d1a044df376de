// The upgrade of a store of key layout 1 to the current layout. Private to
// the store.
//
// Layout 1 wrote lengths before keys, so that shorter keys sorted first:
//
//   M "layout"                                  -> "1"
//   C <short type name>                         -> u32 table number, schema blob
//   R <u32> <n16> <pk>                          -> ""  (row marker)
//   R <u32> <n16> <pk> <tag path>               -> field bytes
//   I <u32> <n8> <index name> <n16> <field key> <pk> -> ""
//   S <u32> <n16> <sharding key> <pk>           -> ""
//
// (<n8>/<n16>: the length of what follows, big-endian.) The upgrade reads
// every key, writes each in the current layout (tables under their full type
// names, row markers with stamps, the table counter) and deletes the old
// ones, in one conditional commit on the layout key: the store is of one
// layout or the other at every moment, whatever happens to the process. It
// holds the whole store in memory while it runs.
#ifndef CORVIDA_STORE_UPGRADE_H_
#define CORVIDA_STORE_UPGRADE_H_

#include <string>
#include <string_view>

#include "store/engine.h"
#include "store/status.h"

namespace corvida {
namespace store {

// Upgrades the store of engine when it is of layout 1; *upgraded false when
// it is of the current layout already. kCorruption naming the key for a key
// of layout 1 that does not parse, or a table whose schema blob does not
// load; nothing is written then.
Status UpgradeLayout(Engine* engine, bool* upgraded);

// Rewrites one key of layout 1 (and its value) in the current layout. Sets
// *key_out empty for a key that has no counterpart (the layout key itself is
// written apart). A table's short name becomes the full name of its type in
// its schema blob. False, with *why, when the key does not parse.
bool ConvertLayout1Key(std::string_view key, std::string_view value, std::string* key_out, std::string* value_out,
                       std::string* why);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_UPGRADE_H_
