// The catalog of a table store: its layout version and its tables, each
// under its full type name with its number and schema blob. Private to the
// store.
//
// Tables are named by the full name of their type ("inv.Stock"). Where a
// name is asked for, the short name ("Stock") is accepted when exactly one
// table of the catalog has it; otherwise it is refused with the candidates.
//
// Numbers are given out from a counter key, never reused and never wrapped:
// a catalog whose numbers are used up (or a damaged counter below a number in
// use) refuses new tables instead of sharing rows between two tables. Adding
// a table is one conditional commit on the counter and the name, so that
// writers in several processes never give one number twice.
//
// Stored bytes may be damaged: every entry is parsed with checks, and one
// that does not parse is kCorruption naming the table.
#ifndef CORVIDA_STORE_CATALOG_H_
#define CORVIDA_STORE_CATALOG_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "store/engine.h"
#include "store/status.h"

namespace corvida {
namespace store {

// Work on a table's keys done in bounded batches (catalog.proto's BatchWork).
struct BatchWork {
    std::string name;   // the index; empty for the drop of a table
    std::string after;  // the last key done; empty: from the start
    uint64_t done = 0;
    uint64_t total = 0;
};

struct CatalogTable {
    std::string name;  // the full type name
    uint32_t number = 0;
    std::string schema_blob;

    // What schema evolution left in progress (docs/store.md, "Index states").
    std::vector<BatchWork> building;  // new indexes whose back-fill runs
    std::vector<BatchWork> dropping;  // dropped indexes whose entries go
    std::vector<uint32_t> retired;    // top-level field numbers removed by an alter
    bool dropped = false;             // the table is being dropped...
    BatchWork drop;                   // ...and this is how far
};

// The layout of what the engine holds.
struct LayoutState {
    bool empty = false;  // the engine holds no key at all: a new store
    int version = 0;     // the stored version (0 when empty, or not a store)
};

// Reads the layout version. kInvalidArgument for keys without a version (not
// a table store), kCorruption for a version that is not a number, and
// kNotSupported for a layout newer than this code reads or older than it
// writes (layout 1: the message names the upgrade command).
Status CheckLayout(Engine* engine, LayoutState* state);

// Parses a stored layout version: a decimal number from 1 to 999999.
bool ParseLayoutVersion(std::string_view text, int* version);

// Parses a catalog entry's value into *table (its name set by the caller).
Status ParseCatalogEntry(std::string_view name, std::string_view value, CatalogTable* table);

// The stored value of table's catalog entry (every member but its name).
std::string EncodeCatalogEntry(const CatalogTable& table);

class Catalog {
public:
    explicit Catalog(Engine* engine) : m_engine(engine) {}

    // Every table, in name order.
    Status List(std::vector<CatalogTable>* tables) const;

    // The table of name (full, or a unique short name). kNotFound naming the
    // tables the store holds; kInvalidArgument listing the candidates for an
    // ambiguous short name.
    Status Find(std::string_view name, CatalogTable* table) const;

    // Adds table full_name with its blob under a new number.
    // kAlreadyExists when the name is taken.
    Status Add(std::string_view full_name, std::string_view schema_blob);

    // "it holds A, B" / "it holds no table", for messages.
    std::string Held() const;

private:
    Engine* m_engine;
};

// The value of the table counter key: the next table number, 8 bytes
// big-endian (2^32 when no number is left).
std::string EncodeTableCounter(uint64_t next);

// The short name of a full type name: what follows its last dot.
std::string_view ShortName(std::string_view full_name);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_CATALOG_H_
