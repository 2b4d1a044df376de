// The keys of a table store in its engine (key layout 2). Private to the
// store; docs/store.md draws them.
//
//   M "layout"                                        -> "2"
//   M "next_table"                                    -> u32: the next table number
//   M "schema" <u32 table>                            -> the table's schema stamp: 8 bytes
//   C <full type name>                                -> catalog entry (catalog.proto)
//   R <u32 table> <esc pk>                            -> row marker: an 8-byte write stamp
//   R <u32 table> <esc pk> <tag path>                 -> one stored field's bytes
//   I <u32 table> <esc index> <esc field key> <esc pk> -> ""  (index entry)
//   S <u32 table> <esc sharding key> <esc pk>         -> ""  (shard entry)
//
// <u32> is big-endian. <esc x> is x with every 00 byte written as 00 FF,
// followed by one 00: an encoding that keeps byte order (esc a < esc b
// exactly when a < b) and, followed by anything but FF, never makes one
// encoded string the prefix of another. So the rows of a table come in primary-key byte order, the
// entries of one index value or of one shard in primary-key byte order, and
// the keys of one row, one index value or one shard are contiguous.
//
// What follows an encoded string is the end of the key, a tag path (it
// begins with a digit) or another encoded string, whose first byte is never
// FF (a protobuf key begins with a tag, whose first byte has a wire type
// below 6; a name begins with a letter): so a reader that meets 00 FF inside
// a string knows it is an escaped 00, and a 00 followed by anything else ends
// the string. The encoders refuse strings that would break this.
//
// A table's schema stamp changes with every change of its catalog entry that
// clients must see (an alter, an index that became ready, a drop); every
// write of a record commits only while the stamp is still the one the writer
// bound its schema with (docs/store.md, "Index states"). A table that was
// never altered has none.
//
// Tag paths sort parent before child ("6" < "6.3" < "60", since "." is below
// every digit), so the fields of a row read in key order apply a whole
// sub-message before the later writes under it.
#ifndef CORVIDA_STORE_KEY_FORMAT_H_
#define CORVIDA_STORE_KEY_FORMAT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace corvida {
namespace store {
namespace keys {

// The layout this code writes, and the newest it reads.
constexpr int kLayoutVersion = 2;

constexpr char kMeta = 'M';
constexpr char kCatalog = 'C';
constexpr char kRow = 'R';
constexpr char kIndex = 'I';
constexpr char kShard = 'S';

constexpr std::string_view kLayoutKey = "Mlayout";
constexpr std::string_view kNextTableKey = "Mnext_table";

// The bytes of a row marker's write stamp.
constexpr size_t kStampBytes = 8;

// Longest primary, field or sharding key: what the bridge's key encoders
// produce at most.
constexpr size_t kMaxKeyBytes = 1022;
constexpr size_t kMaxIndexNameBytes = 255;

// Appends the escaped form of bytes (00 as 00 FF) and the closing 00.
void AppendEscaped(std::string* out, std::string_view bytes);

// Reads one escaped string from the front of *in into *out (unescaped) and
// removes it from *in. False when *in has no closing 00.
bool ReadEscaped(std::string_view* in, std::string* out);

void AppendU32(std::string* out, uint32_t v);
uint32_t ReadU32(std::string_view in);  // in holds at least 4 bytes

// "M schema <table>": the table's schema stamp.
std::string SchemaStampKey(uint32_t table);

// "C <name>".
std::string CatalogKey(std::string_view full_name);
// "C": the start of the catalog.
inline std::string CatalogStart() { return std::string(1, kCatalog); }

// "R <table>": the start of every row of a table.
std::string TableRows(uint32_t table);
// "R <table> <esc pk>": a row's marker, and the prefix of its fields.
std::string RowKey(uint32_t table, std::string_view pk);
// The same into *key, whose capacity is reused (a read of many rows).
void AssignRowKey(std::string* key, uint32_t table, std::string_view pk);
// The end of the range of the keys that continue prefix, an encoding that
// ends with an escaped string (a row key, the prefix of an index value or of
// a shard, the space of an index): they lie in [prefix, EscapedEnd(prefix)).
// The keys of a longer string that begins with the same bytes and a 00
// continue prefix with FF (its escaped 00), so they lie beyond: a row's
// range holds its marker and fields and nothing of another row.
std::string EscapedEnd(const std::string& prefix);
// The same into *end, whose capacity is reused.
void AssignEscapedEnd(std::string* end, std::string_view prefix);

// Splits the rest of a row key after "R <table>" into its primary key and tag
// path (empty for the marker). False when the rest holds no whole escaped
// string.
bool SplitRowKey(std::string_view rest, std::string* pk, std::string_view* tag_path);

// The start of every entry of one index ("I <table> <esc name>"), or of the
// shard listing ("S <table>") when space is kShard (name is then ignored).
std::string SecondarySpace(char space, uint32_t table, std::string_view name);
// The end of a space's range: after every entry of the index, or of the
// table's shard listing.
std::string SecondarySpaceEnd(char space, uint32_t table, std::string_view name);
// The prefix of the entries of one value: the space and <esc value>.
std::string SecondaryPrefix(char space, uint32_t table, std::string_view name, std::string_view value);
// One entry: the prefix of its value and <esc pk>.
std::string SecondaryKey(char space, uint32_t table, std::string_view name, std::string_view value,
                         std::string_view pk);

// Splits the rest of an entry key after its space into its value and primary
// key. False unless the rest is exactly two escaped strings.
bool SplitSecondaryKey(std::string_view rest, std::string* value, std::string* pk);

// An 8-byte stamp for a row marker, different (with overwhelming probability)
// from every stamp written before: a write's condition on the marker it read
// then fails after any other write of the record.
std::string NewStamp();

}  // namespace keys
}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_KEY_FORMAT_H_
