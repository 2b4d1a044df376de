// Opening a table store over an engine that the caller made (the tests'
// fault-injecting file systems, for one). Private to the store.
#ifndef CORVIDA_STORE_STORE_OPEN_H_
#define CORVIDA_STORE_STORE_OPEN_H_

#include <memory>

#include "store/engine.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

// Writes the layout of a new store (when the engine holds no key and
// options.create_if_missing is set), or checks the layout of an old one.
Status PrepareLayout(Engine* engine, const StoreOptions& options);

// The store over engine, after PrepareLayout. The store owns the engine.
Status OpenStoreOnEngine(std::unique_ptr<Engine> engine, const StoreOptions& options,
                         std::unique_ptr<TableStore>* store);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_STORE_OPEN_H_
