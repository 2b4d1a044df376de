// The rules of schema evolution: which changes of a table's stored schema the
// records can keep, decided from the stored schema, the new one and what the
// table holds. Private to the store; docs/store.md has them as a table.
//
// First the new type is checked against the stored schema with the library's
// own comparison (GetMetaAndCompare), as a client's type is. It accepts new
// fields and fields the new type lacks; whatever else it finds (a field of
// another name or type, another primary key, cipher suite or syntax, a
// changed nested type) refuses the alter. Its checks of indexes and of the
// sharding key (codes -19 to -22) are left to the rules below, which allow
// new and dropped indexes.
//
// Then the rules that the comparison does not make, because they are about
// what the records hold:
//   - a field keeps its number and its label (records hold it under that
//     number, stored as that label stores it);
//   - a new field takes a number never used before (not one that an earlier
//     alter removed) and is not required (older records hold no value);
//   - a top-level field may be removed only when no record holds a value for
//     it; its number is retired. A field of a nested type may not be removed
//     (sub-messages are stored whole: the store cannot tell whether they hold
//     it);
//   - an enum type keeps every value under its number and name; new values
//     are allowed;
//   - the sharding key stays (every shard entry would move), and an index
//     keeps its fields in their order (every entry would change). New
//     indexes are built online; dropped ones have their entries removed.
//
// An allowed alter replaces the stored schema in one commit, conditioned on
// the catalog entry it was decided from, that also changes the table's schema
// stamp (every client binds the new schema before it writes again;
// write_path.h), puts new indexes in the building state and dropped ones in
// the dropping state (index_build.h runs both) and retires removed numbers.
//
// The check that no record holds a removed field reads the table as it is
// when the alter is decided; a record given a value for it by a client of the
// old schema between that read and the alter's commit keeps the value, which
// readers of the new schema then skip (TableSchema::HeldOnlyByTable).
#ifndef CORVIDA_STORE_EVOLUTION_H_
#define CORVIDA_STORE_EVOLUTION_H_

#include <string_view>

#include "store/schema_change.h"
#include "store/status.h"
#include "store/store_context.h"

namespace corvida {
namespace store {

// TableStore::AlterTable: decides the alter of the table of type_name to
// new_blob, fills *plan, and commits it unless it is refused or
// options.dry_run.
Status AlterStoredTable(StoreContext* context, std::string_view new_blob, std::string_view type_name,
                        const AlterOptions& options, AlterPlan* plan);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_EVOLUTION_H_
