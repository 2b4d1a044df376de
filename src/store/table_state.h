// A table's catalog entry and schema stamp, read together at one view: what
// a client binds its schema with, and what every change of the entry is
// conditioned on. Private to the store.
//
// The stamp (keys::SchemaStampKey) is the cheap half: every write of a record
// carries the condition that the stamp is still the one its writer bound, so
// a writer whose schema is stale never commits. The entry is the full half:
// changes of it (an alter, a batch of a back-fill saving its position, a
// drop) are conditioned on its whole stored value, so that two processes
// changing one table never both commit.
#ifndef CORVIDA_STORE_TABLE_STATE_H_
#define CORVIDA_STORE_TABLE_STATE_H_

#include <memory>
#include <string>
#include <string_view>

#include "store/catalog.h"
#include "store/engine.h"
#include "store/status.h"

namespace corvida {
namespace store {

struct TableState {
    CatalogTable table;  // the parsed entry, its name set
    std::string stored;  // the entry's stored bytes
    std::string stamp;   // the schema stamp; empty when the table has none
};

// Reads the state of the table full_name (a full name, never a short one) at
// view (null: the latest). kNotFound when the catalog has no such table.
Status ReadTableState(Engine* engine, const ReadView* view, std::string_view full_name, TableState* state);

// Takes a new view of the engine and reads the state at it.
Status ReadTableStateAtNewView(Engine* engine, std::string_view full_name, std::unique_ptr<ReadView>* view,
                               TableState* state);

// Stages the replacement of state's entry by changed, on the condition that
// the entry still holds what was read. With restamp, the stamp changes too,
// so that every client bound to the old entry binds again before it writes.
void StageTableChange(const TableState& state, const CatalogTable& changed, bool restamp, EngineBatch* batch);

// Stages the removal of state's entry and stamp, on the same condition.
void StageTableRemoval(const TableState& state, EngineBatch* batch);

// "table T is being dropped ...": the answer to a client of such a table.
Status TableBeingDropped(const std::string& name);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_TABLE_STATE_H_
