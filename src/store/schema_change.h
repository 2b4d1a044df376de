// What schema evolution of a table store reports: the changes an alter makes
// or the reasons it is refused, what it costs, and where a table's indexes
// stand (TableStore::AlterTable, DescribeTable, BuildIndex, DropTable).
//
// docs/store.md has the rules ("Schema evolution") and the states of an index
// ("Index states").
#ifndef CORVIDA_STORE_SCHEMA_CHANGE_H_
#define CORVIDA_STORE_SCHEMA_CHANGE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvida {
namespace store {

// One change that an alter makes.
struct SchemaChange {
    enum class Kind {
        kNewField,       // a field under a number never used before (in the table's type or a nested one)
        kNewEnumValue,   // a value of an enum type that a field of the table uses
        kNewType,        // a message or enum type the stored schema does not have
        kNewIndex,       // built online
        kDroppedIndex,   // its entries removed
        kRemovedField,   // a top-level field that no record holds
    };
    Kind kind;
    std::string description;  // "new field title (number 10) of corvida.example.Player"
};

// One reason an alter is refused. type, field and option say which
// declaration of the new schema it is about, for a tool that points at it.
struct SchemaRefusal {
    std::string message;  // in words
    // The comparison's code when the reason is the first incompatibility that
    // GetMetaAndCompare found (which stops there: a tool that lists every
    // difference lists them itself); 0 for the evolution's own rules.
    int code = 0;
    std::string type;  // full name of the message type in the new schema (the table's, or a nested one)
    int field = 0;     // the number of its field the reason is about; 0: the type, or one of its options
    int option = 0;    // the field number of that message option (corvida_index...); 0: none
};

// What an alter would do, and what it would cost.
struct AlterPlan {
    std::vector<SchemaChange> changes;
    std::vector<SchemaRefusal> refusals;  // empty when the alter is allowed
    int compare_code = 0;                 // GetMetaAndCompare of the new type against the stored schema
    uint64_t records = 0;                 // the table's records, when they were counted
    uint64_t records_to_index = 0;        // records that the back-fills of the new indexes read
    uint64_t entries_to_remove = 0;       // entries of the dropped indexes
};

struct AlterOptions {
    // Decide and count only: nothing is written.
    bool dry_run = false;
};

// Called after each batch of work done in batches (a back-fill, a removal)
// with what is done and the total. Returning false stops the work where it
// is; it resumes from there when it is run again.
using WorkProgress = std::function<bool(uint64_t done, uint64_t total)>;

enum class IndexState {
    kReady,     // complete: writes keep it, lookups read it
    kBuilding,  // writes keep it while its back-fill runs; lookups are refused
    kDropping,  // no longer in the schema; its entries are being removed
};

// "ready", "building", "dropping".
const char* IndexStateName(IndexState state);

struct IndexDescription {
    std::string name;
    std::vector<std::string> fields;  // in the order of the key; empty for a dropped index
    IndexState state = IndexState::kReady;
    uint64_t done = 0;   // building or dropping: records indexed, or entries removed, so far
    uint64_t total = 0;  // ...of how many
};

struct TableDescription {
    std::string name;                       // the full type name
    std::string schema_blob;                // the stored schema
    std::vector<std::string> primary_key;   // field names, as corvida_primary_key lists them
    std::vector<std::string> sharding_key;  // likewise; empty without one
    std::vector<IndexDescription> indexes;  // by name: the schema's, then dropped ones still being removed
    uint64_t records = 0;
    bool dropping = false;  // the table is being dropped
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_SCHEMA_CHANGE_H_
