#include "store/table_state.h"

#include "store/key_format.h"

namespace corvida {
namespace store {

Status ReadTableState(Engine* engine, const ReadView* view, std::string_view full_name, TableState* state) {
    bool found = false;
    Status status = engine->Get(view, keys::CatalogKey(full_name), &state->stored, &found);
    if (!status.ok()) return status;
    if (!found) return Status::NotFound("no table " + std::string(full_name) + " in the store");
    status = ParseCatalogEntry(full_name, state->stored, &state->table);
    if (!status.ok()) return status;
    state->stamp.clear();
    return engine->Get(view, keys::SchemaStampKey(state->table.number), &state->stamp, &found);
}

Status ReadTableStateAtNewView(Engine* engine, std::string_view full_name, std::unique_ptr<ReadView>* view,
                               TableState* state) {
    Status status = engine->NewView(view);
    return status.ok() ? ReadTableState(engine, view->get(), full_name, state) : status;
}

void StageTableChange(const TableState& state, const CatalogTable& changed, bool restamp, EngineBatch* batch) {
    const std::string key = keys::CatalogKey(state.table.name);
    batch->ExpectValue(key, state.stored);
    batch->Put(key, EncodeCatalogEntry(changed));
    if (restamp) batch->Put(keys::SchemaStampKey(state.table.number), keys::NewStamp());
}

void StageTableRemoval(const TableState& state, EngineBatch* batch) {
    const std::string key = keys::CatalogKey(state.table.name);
    batch->ExpectValue(key, state.stored);
    batch->Delete(key);
    batch->Delete(keys::SchemaStampKey(state.table.number));
}

Status TableBeingDropped(const std::string& name) {
    return Status::NotFound("table " + name +
                            " is being dropped; its keys are still being removed (DropTable, or corvida-pb store drop, "
                            "finishes the drop)");
}

}  // namespace store
}  // namespace corvida
