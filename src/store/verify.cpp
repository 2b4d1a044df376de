#include "store/verify.h"

#include <set>
#include <string>

#include "store/key_format.h"
#include "store/rows.h"

namespace corvida {
namespace store {

Status VerifyTable(StoreContext* context, const TableSchema& schema, const RecordReader& reader,
                   VerifyCounts* counts, const ProgressCallback& progress) {
    *counts = VerifyCounts();
    Engine* engine = context->engine();
    std::unique_ptr<ReadView> view;
    Status status = engine->NewView(&view);
    if (!status.ok()) return status;

    // The entries every record should have.
    std::set<std::string> expected;
    ScratchPool::Lease scratch = context->scratch().Acquire();
    Status record_status;
    status = ScanRows(engine, view.get(), schema.number(), keys::TableRows(schema.number()), schema.name(),
                      [&](const std::string& pk, std::vector<StoredField>& fields) {
                          Record record;
                          record_status = reader.MakeRecord(pk, fields, &record);
                          if (!record_status.ok()) return false;
                          if (++counts->records % 1000 == 0 && progress) progress(counts->records);
                          record.message->ByteSizeLong();
                          for (const Secondary& secondary : schema.secondaries()) {
                              if (schema.IsBuilding(secondary.name)) continue;
                              std::string value;
                              bool present = false;
                              record_status =
                                  schema.SecondaryKey(*record.message, secondary, scratch.get(), &value, &present);
                              if (!record_status.ok()) return false;
                              if (present) {
                                  expected.insert(keys::SecondaryKey(secondary.space, schema.number(),
                                                                     secondary.name, value, pk));
                              }
                          }
                          return true;
                      });
    if (!status.ok()) return status;
    if (!record_status.ok()) return record_status;

    // The entries there are.
    counts->missing = expected.size();
    for (const Secondary& secondary : schema.secondaries()) {
        if (schema.IsBuilding(secondary.name)) continue;
        const std::string space = keys::SecondarySpace(secondary.space, schema.number(), secondary.name);
        status = engine->Scan(view.get(), space, keys::SecondarySpaceEnd(secondary.space, schema.number(), secondary.name), [&](std::string_view key, std::string_view) {
            ++counts->entries;
            if (expected.count(std::string(key)) != 0) {
                --counts->missing;
            } else {
                ++counts->orphans;
            }
            return true;
        });
        if (!status.ok()) return status;
    }
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
