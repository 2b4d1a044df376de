// The keys of a table store inside RocksDB (layout version 1). Private to the
// store; docs/store.md draws them.
//
//   M <name>                                  store metadata: M"layout" -> "1"
//   C <table name>                            catalog: u32 table id, then the schema blob
//   R <id> <n16> <primary key>                row marker -> ""
//   R <id> <n16> <primary key> <tag path>     one stored field -> the field's bytes
//   I <id> <n8> <index name> <n16> <field key> <primary key>   index entry -> ""
//   S <id> <n16> <sharding key> <primary key>                  shard entry -> ""
//
// <id> is the table's number, 4 bytes big-endian; <n8>/<n16> the length of
// what follows in 1 or 2 bytes big-endian. The lengths make every prefix
// above end where a field ends, so the keys of one row, of one index value
// or of one shard are contiguous and never mix with another's. Tag paths
// sort parent before child in byte order ("6" < "6.3" < "60", since "." is
// below every digit), so the fields of a row read in key order apply a whole
// sub-message before the later writes under it.
#ifndef CORVIDA_STORE_KEY_LAYOUT_H_
#define CORVIDA_STORE_KEY_LAYOUT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace corvida {
namespace store {
namespace layout {

// The layout this code writes, and the newest it reads.
constexpr int kVersion = 1;
constexpr char kLayoutKey[] = "Mlayout";

constexpr char kMeta = 'M';
constexpr char kCatalog = 'C';
constexpr char kRow = 'R';
constexpr char kIndex = 'I';
constexpr char kShard = 'S';

// Longest primary, field or sharding key: what the bridge's key encoders
// produce at most.
constexpr size_t kMaxKeyBytes = 1022;
constexpr size_t kMaxIndexNameBytes = 255;

inline void AppendU16(std::string* out, size_t v) {
    out->push_back(static_cast<char>((v >> 8) & 0xff));
    out->push_back(static_cast<char>(v & 0xff));
}

inline void AppendU32(std::string* out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<char>((v >> shift) & 0xff));
}

inline uint32_t ReadU32(std::string_view in) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<uint8_t>(in[i]);
    return v;
}

inline size_t ReadU16(std::string_view in) {
    return (static_cast<size_t>(static_cast<uint8_t>(in[0])) << 8) | static_cast<uint8_t>(in[1]);
}

inline std::string CatalogKey(std::string_view table) {
    std::string key(1, kCatalog);
    key.append(table);
    return key;
}

// "R <id>": the start of every row of a table.
inline std::string TableRows(uint32_t id) {
    std::string key(1, kRow);
    AppendU32(&key, id);
    return key;
}

// "R <id> <n16> <pk>": a row's marker, and the prefix of its fields.
inline std::string RowKey(uint32_t id, std::string_view pk) {
    std::string key = TableRows(id);
    AppendU16(&key, pk.size());
    key.append(pk);
    return key;
}

// Splits the rest of a row key after "R <id>" into its primary key and tag
// path. False when the rest is too short for its length field.
inline bool SplitRowKey(std::string_view rest, std::string_view* pk, std::string_view* tag_path) {
    if (rest.size() < 2) return false;
    const size_t n = ReadU16(rest);
    if (rest.size() - 2 < n) return false;
    *pk = rest.substr(2, n);
    *tag_path = rest.substr(2 + n);
    return true;
}

// The prefix shared by every secondary entry of one value: for an index
// "I <id> <n8> <name> <n16> <field key>", for the shard listing
// "S <id> <n16> <sharding key>". The primary key follows it.
inline std::string SecondaryPrefix(char space, uint32_t id, std::string_view name, std::string_view value) {
    std::string key(1, space);
    AppendU32(&key, id);
    if (space == kIndex) {
        key.push_back(static_cast<char>(name.size()));
        key.append(name);
    }
    AppendU16(&key, value.size());
    key.append(value);
    return key;
}

// "I <id> <n8> <name>" or "S <id>": the start of every entry of one index or
// of the shard listing.
inline std::string SecondarySpace(char space, uint32_t id, std::string_view name) {
    std::string key(1, space);
    AppendU32(&key, id);
    if (space == kIndex) {
        key.push_back(static_cast<char>(name.size()));
        key.append(name);
    }
    return key;
}

// The smallest key above every key that begins with prefix (prefix is never
// all 0xff bytes here: it begins with a letter).
inline std::string PrefixEnd(std::string prefix) {
    while (!prefix.empty() && static_cast<uint8_t>(prefix.back()) == 0xff) prefix.pop_back();
    if (!prefix.empty()) prefix.back() = static_cast<char>(static_cast<uint8_t>(prefix.back()) + 1);
    return prefix;
}

}  // namespace layout
}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_KEY_LAYOUT_H_
