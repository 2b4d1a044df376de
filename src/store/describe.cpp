#include "store/describe.h"

#include <algorithm>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "store/catalog.h"
#include "store/rows.h"
#include "store/table_schema.h"
#include "store/table_state.h"

namespace corvida {
namespace store {

const char* IndexStateName(IndexState state) {
    switch (state) {
        case IndexState::kReady: return "ready";
        case IndexState::kBuilding: return "building";
        case IndexState::kDropping: return "dropping";
    }
    return "unknown";
}

Status DescribeStoredTable(StoreContext* context, std::string_view table, TableDescription* description) {
    if (description == nullptr) return Status::InvalidArgument("DescribeTable: null output");
    Engine* engine = context->engine();
    CatalogTable found;
    Status status = Catalog(engine).Find(table, &found);
    if (!status.ok()) return status;
    std::unique_ptr<ReadView> view;
    TableState state;
    status = ReadTableStateAtNewView(engine, found.name, &view, &state);
    if (!status.ok()) return status;

    const CatalogTable& entry = state.table;
    PROTOBUF_UTIL::MsgDescGroup group;
    ErrorLines errors;
    const google::protobuf::Descriptor* type =
        PROTOBUF_UTIL::FillMessageGroup(std::string(ShortName(entry.name)), entry.schema_blob, &group,
                                        errors.category());
    if (type == nullptr) {
        return Status::Corruption("table " + entry.name + ": the stored schema blob no longer loads: " + errors.text());
    }
    *description = TableDescription();
    description->name = entry.name;
    description->schema_blob = entry.schema_blob;
    description->dropping = entry.dropped;
    description->primary_key = OptionFieldNames(type->options().GetExtension(corvidaservice::corvida_primary_key));
    description->sharding_key = OptionFieldNames(type->options().GetExtension(corvidaservice::corvida_sharding_key));
    for (const auto& index : DeclaredIndexes(type)) {
        IndexDescription described{index.first, index.second, IndexState::kReady, 0, 0};
        for (const BatchWork& work : entry.building) {
            if (work.name != index.first) continue;
            described.state = IndexState::kBuilding;
            described.done = work.done;
            described.total = std::max(work.done, work.total);
        }
        description->indexes.push_back(std::move(described));
    }
    for (const BatchWork& work : entry.dropping) {
        description->indexes.push_back(
            IndexDescription{work.name, {}, IndexState::kDropping, work.done, std::max(work.done, work.total)});
    }
    return CountRows(engine, view.get(), entry.number, entry.name, &description->records);
}

}  // namespace store
}  // namespace corvida
