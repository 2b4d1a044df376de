// What the store tells about one table: its stored schema, key, sharding key,
// indexes with their states, and records. Private to the store.
#ifndef CORVIDA_STORE_DESCRIBE_H_
#define CORVIDA_STORE_DESCRIBE_H_

#include <string_view>

#include "store/schema_change.h"
#include "store/status.h"
#include "store/store_context.h"

namespace corvida {
namespace store {

// TableStore::DescribeTable: reads the table (either form of its name) at one
// view.
Status DescribeStoredTable(StoreContext* context, std::string_view table, TableDescription* description);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_DESCRIBE_H_
