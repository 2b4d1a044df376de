#include "store/evolution.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "store/catalog.h"
#include "store/key_format.h"
#include "store/retry.h"
#include "store/rows.h"
#include "store/table_schema.h"
#include "store/table_state.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

// The comparison's codes for indexes and the sharding key: the evolution's
// own rules judge those.
bool IndexOrShardingCode(int code) { return code <= -19 && code >= -22; }

// A schema blob loaded for the rules.
struct LoadedSchema {
    PROTOBUF_UTIL::MsgDescGroup group;
    const Descriptor* type = nullptr;
};

// Loads blob, whose table is short_name; the bridge's error lines in *why.
bool Load(const std::string& blob, const std::string& short_name, LoadedSchema* schema, std::string* why) {
    ErrorLines errors;
    schema->type = PROTOBUF_UTIL::FillMessageGroup(short_name, blob, &schema->group, errors.category());
    *why = errors.text().empty() ? "the blob has no top-level message " + short_name : errors.text();
    return schema->type != nullptr;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string Joined(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& name : names) out += (out.empty() ? "" : ", ") + name;
    return out;
}

// "field level (number 4) of corvida.example.Player".
std::string FieldWords(const FieldDescriptor* field) {
    return "field " + field->name() + " (number " + std::to_string(field->number()) + ") of " +
           field->containing_type()->full_name();
}

const char* LabelWords(const FieldDescriptor* field) {
    switch (field->label()) {
        case FieldDescriptor::LABEL_REQUIRED: return "required";
        case FieldDescriptor::LABEL_REPEATED: return "repeated";
        default: return "optional";
    }
}

bool Contains(const std::vector<uint32_t>& numbers, int number) {
    return std::find(numbers.begin(), numbers.end(), static_cast<uint32_t>(number)) != numbers.end();
}

// The rules that the comparison does not make, applied to a stored type and
// its new version (and, through their fields, to the types they use).
class Rules {
public:
    Rules(const CatalogTable& stored, AlterPlan* plan) : m_stored(stored), m_plan(plan) {}

    // Fields, their labels and numbers, enum values, nested types.
    void CompareTypes(const Descriptor* old_type, const Descriptor* new_type, bool top) {
        if (!m_compared.insert(std::make_pair(old_type, new_type)).second) return;
        for (int i = 0; i < old_type->field_count(); ++i) {
            const FieldDescriptor* old_field = old_type->field(i);
            const FieldDescriptor* new_field = new_type->FindFieldByNumber(old_field->number());
            if (new_field == nullptr) {
                Removed(old_field, new_type, top);
            } else {
                Kept(old_field, new_field);
            }
        }
        for (int i = 0; i < new_type->field_count(); ++i) {
            const FieldDescriptor* field = new_type->field(i);
            if (old_type->FindFieldByNumber(field->number()) == nullptr) Added(old_type, field, top);
        }
    }

    // Indexes: new ones built, dropped ones removed, changed ones refused.
    void CompareIndexes(const Descriptor* old_type, const Descriptor* new_type) {
        const auto old_indexes = DeclaredIndexes(old_type);
        const auto new_indexes = DeclaredIndexes(new_type);
        for (const auto& index : new_indexes) {
            const std::string& name = index.first;
            const std::string declared = name + "(" + Joined(index.second) + ")";
            auto old = old_indexes.find(name);
            if (old == old_indexes.end()) {
                if (IsDropping(name)) {
                    Refuse(new_type, 0, corvidaservice::kCorvidaIndexFieldNumber,
                           "index " + Quoted(name) + " of " + new_type->full_name() +
                               " was dropped and its entries are still being removed; add it again once that is "
                               "done (BuildIndex, or corvida-pb store build-index, finishes it)");
                } else if (name.size() > keys::kMaxIndexNameBytes) {
                    Refuse(new_type, 0, corvidaservice::kCorvidaIndexFieldNumber,
                           "index name of " + new_type->full_name() + " is longer than 255 bytes");
                } else {
                    m_new_indexes.push_back(name);
                    Change(SchemaChange::Kind::kNewIndex, "new index " + declared + ", built online");
                }
            } else if (old->second != index.second) {
                Refuse(new_type, 0, corvidaservice::kCorvidaIndexFieldNumber,
                       "index " + Quoted(name) + " of " + new_type->full_name() + " has the fields (" +
                           Joined(old->second) + ") in the stored schema but (" + Joined(index.second) +
                           ") in the new one: every entry would change; add the new index under another name "
                           "and drop this one");
            }
        }
        for (const auto& index : old_indexes) {
            if (new_indexes.count(index.first) != 0) continue;
            m_dropped_indexes.push_back(index.first);
            Change(SchemaChange::Kind::kDroppedIndex,
                   "dropped index " + index.first + "(" + Joined(index.second) + "), its entries removed");
        }
    }

    void CompareShardingKeys(const Descriptor* old_type, const Descriptor* new_type) {
        const std::string& old_key = old_type->options().GetExtension(corvidaservice::corvida_sharding_key);
        const std::string& new_key = new_type->options().GetExtension(corvidaservice::corvida_sharding_key);
        std::vector<std::string> old_names = OptionFieldNames(old_key);
        std::vector<std::string> new_names = OptionFieldNames(new_key);
        // The key's bytes follow the fields' numbers, not the option's order.
        std::sort(old_names.begin(), old_names.end());
        std::sort(new_names.begin(), new_names.end());
        if (old_names == new_names) return;
        Refuse(new_type, 0, corvidaservice::kCorvidaShardingKeyFieldNumber,
               "sharding key (corvida_sharding_key) of " + new_type->full_name() + " is " +
                   (old_key.empty() ? "none" : Quoted(old_key)) + " in the stored schema but " +
                   (new_key.empty() ? "none" : Quoted(new_key)) + " in the new one: every record's shard would move");
    }

    // The message and enum types of the new schema that the stored one lacks.
    void ListNewTypes(const std::string& new_blob, const LoadedSchema& next, const LoadedSchema& stored) {
        google::protobuf::FileDescriptorSet files;
        if (!files.ParseFromString(new_blob)) return;  // it loaded, so it parses
        for (const auto& proto : files.file()) {
            const FileDescriptor* file = next.group.m_pool->FindFileByName(proto.name());
            if (file == nullptr) continue;
            for (int i = 0; i < file->message_type_count(); ++i) NewTypes(file->message_type(i), stored);
            for (int i = 0; i < file->enum_type_count(); ++i) NewEnum(file->enum_type(i), stored);
        }
    }

    const std::vector<const FieldDescriptor*>& removed() const { return m_removed; }
    const std::vector<std::string>& new_indexes() const { return m_new_indexes; }
    const std::vector<std::string>& dropped_indexes() const { return m_dropped_indexes; }

    void Refuse(const Descriptor* at, int field, int option, std::string message) {
        SchemaRefusal refusal;
        refusal.message = std::move(message);
        refusal.type = at->full_name();
        refusal.field = field;
        refusal.option = option;
        m_plan->refusals.push_back(std::move(refusal));
    }

private:
    void Change(SchemaChange::Kind kind, std::string description) {
        m_plan->changes.push_back(SchemaChange{kind, std::move(description)});
    }

    bool IsDropping(const std::string& index) const {
        return std::any_of(m_stored.dropping.begin(), m_stored.dropping.end(),
                           [&index](const BatchWork& work) { return work.name == index; });
    }

    // old_field of the stored type has no field of its number in new_type.
    void Removed(const FieldDescriptor* old_field, const Descriptor* new_type, bool top) {
        // The comparison refuses a missing required field; a field under
        // another number is the renumbering that Added reports.
        if (old_field->is_required() || new_type->FindFieldByName(old_field->name()) != nullptr) return;
        if (top) {
            m_removed.push_back(old_field);
            return;
        }
        Refuse(new_type, 0, 0,
               FieldWords(old_field) + " is removed: sub-messages are stored whole, so the store cannot tell "
                                       "whether records hold it; a field of a nested type cannot be removed");
    }

    // A field in both versions: the comparison checked its name, type and
    // crypto flag, and compares nested types itself.
    void Kept(const FieldDescriptor* old_field, const FieldDescriptor* new_field) {
        if (old_field->label() != new_field->label() && !old_field->is_required()) {
            Refuse(new_field->containing_type(), new_field->number(), 0,
                   FieldWords(new_field) + " is " + LabelWords(old_field) + " in the stored schema but " +
                       LabelWords(new_field) + " in the new one: the records hold it the way " +
                       (old_field->is_repeated() ? "a repeated" : "an optional") + " field is stored");
        }
        if (old_field->enum_type() != nullptr && new_field->enum_type() != nullptr) {
            CompareEnums(old_field->enum_type(), new_field);
        }
        if (old_field->message_type() != nullptr && new_field->message_type() != nullptr) {
            CompareTypes(old_field->message_type(), new_field->message_type(), false);
        }
    }

    // field of new_type has a number that old_type does not use.
    void Added(const Descriptor* old_type, const FieldDescriptor* field, bool top) {
        const Descriptor* at = field->containing_type();
        const FieldDescriptor* same_name = old_type->FindFieldByName(field->name());
        if (same_name != nullptr) {
            Refuse(at, field->number(), 0,
                   "field " + field->name() + " of " + at->full_name() + " has number " +
                       std::to_string(same_name->number()) + " in the stored schema but " +
                       std::to_string(field->number()) + " in the new one: records hold it under " +
                       std::to_string(same_name->number()) + "; a field keeps its number");
        } else if (top && Contains(m_stored.retired, field->number())) {
            Refuse(at, field->number(), 0,
                   "new " + FieldWords(field) + " takes a number that an earlier alter removed from the table; a "
                                                "new field takes a number never used before");
        } else if (field->is_required()) {
            Refuse(at, field->number(), 0,
                   "new " + FieldWords(field) + " is required, but the records written before hold no value for it");
        } else {
            Change(SchemaChange::Kind::kNewField, "new " + FieldWords(field));
        }
    }

    // The enum of a field in both versions; field is the new one.
    void CompareEnums(const EnumDescriptor* old_enum, const FieldDescriptor* field) {
        const EnumDescriptor* new_enum = field->enum_type();
        const Descriptor* at = field->containing_type();
        if (!m_compared_enums.insert(std::make_pair(old_enum, new_enum)).second) return;
        if (old_enum->full_name() != new_enum->full_name()) {
            Refuse(at, field->number(), 0,
                   FieldWords(field) + " is of enum " + old_enum->full_name() + " in the stored schema but of " +
                       new_enum->full_name() + " in the new one");
            return;
        }
        for (int i = 0; i < old_enum->value_count(); ++i) {
            const auto* old_value = old_enum->value(i);
            const auto* new_value = new_enum->FindValueByNumber(old_value->number());
            const std::string what = "value " + old_value->name() + " (number " +
                                     std::to_string(old_value->number()) + ") of enum " + old_enum->full_name();
            if (new_value == nullptr) {
                Refuse(at, field->number(), 0, what + " is removed, but records may hold it");
            } else if (new_value->name() != old_value->name()) {
                Refuse(at, field->number(), 0, what + " is named " + new_value->name() + " in the new schema");
            }
        }
        for (int i = 0; i < new_enum->value_count(); ++i) {
            const auto* value = new_enum->value(i);
            if (old_enum->FindValueByNumber(value->number()) != nullptr) continue;
            Change(SchemaChange::Kind::kNewEnumValue, "new value " + value->name() + " (number " +
                                                          std::to_string(value->number()) + ") of enum " +
                                                          new_enum->full_name());
        }
    }

    void NewTypes(const Descriptor* type, const LoadedSchema& stored) {
        if (type->options().map_entry()) return;  // a map field's, reported as the field
        if (stored.group.m_pool->FindMessageTypeByName(type->full_name()) == nullptr) {
            Change(SchemaChange::Kind::kNewType, "new message type " + type->full_name());
        }
        for (int i = 0; i < type->nested_type_count(); ++i) NewTypes(type->nested_type(i), stored);
        for (int i = 0; i < type->enum_type_count(); ++i) NewEnum(type->enum_type(i), stored);
    }

    void NewEnum(const EnumDescriptor* type, const LoadedSchema& stored) {
        if (stored.group.m_pool->FindEnumTypeByName(type->full_name()) == nullptr) {
            Change(SchemaChange::Kind::kNewType, "new enum type " + type->full_name());
        }
    }

    const CatalogTable& m_stored;
    AlterPlan* m_plan;
    std::set<std::pair<const Descriptor*, const Descriptor*>> m_compared;
    std::set<std::pair<const EnumDescriptor*, const EnumDescriptor*>> m_compared_enums;
    std::vector<const FieldDescriptor*> m_removed;
    std::vector<std::string> m_new_indexes;
    std::vector<std::string> m_dropped_indexes;
};

// What the alter costs, and how many records hold each removed field: read
// at view, only as far as the alter needs.
Status Measure(Engine* engine, const ReadView* view, const CatalogTable& table, const Rules& rules,
               AlterPlan* plan, std::map<int, uint64_t>* holders, std::map<std::string, uint64_t>* entries) {
    const std::vector<const FieldDescriptor*>& removed = rules.removed();
    if (!rules.new_indexes().empty() || !removed.empty()) {
        plan->records = 0;
        Status status = ScanRows(engine, view, table.number, keys::TableRows(table.number), table.name,
                                 [&](const std::string&, std::vector<StoredField>& fields) {
                                     ++plan->records;
                                     std::set<int> held;
                                     for (const StoredField& field : fields) {
                                         const int number = FirstNumber(field.tag_path);
                                         if (!field.bytes.empty()) held.insert(number);
                                     }
                                     for (const FieldDescriptor* field : removed) {
                                         if (held.count(field->number()) != 0) ++(*holders)[field->number()];
                                     }
                                     return true;
                                 });
        if (!status.ok()) return status;
    }
    plan->records_to_index = plan->records * rules.new_indexes().size();
    for (const std::string& index : rules.dropped_indexes()) {
        uint64_t& count = (*entries)[index];
        Status status = CountKeys(engine, view, keys::SecondarySpace(keys::kIndex, table.number, index), &count);
        if (!status.ok()) return status;
        plan->entries_to_remove += count;
    }
    return Status::OK();
}

// The entry after the alter: the new blob, new indexes building, dropped ones
// dropping, removed numbers retired.
CatalogTable Changed(const TableState& state, const std::string& new_blob, const Rules& rules,
                     const std::map<std::string, uint64_t>& entries, uint64_t records) {
    CatalogTable changed = state.table;
    changed.schema_blob = new_blob;
    for (const std::string& index : rules.new_indexes()) changed.building.push_back(BatchWork{index, "", 0, records});
    for (const std::string& index : rules.dropped_indexes()) {
        changed.building.erase(std::remove_if(changed.building.begin(), changed.building.end(),
                                              [&index](const BatchWork& work) { return work.name == index; }),
                               changed.building.end());
        changed.dropping.push_back(BatchWork{index, "", 0, entries.at(index)});
    }
    for (const FieldDescriptor* field : rules.removed()) changed.retired.push_back(field->number());
    return changed;
}

// One attempt of the alter: decide at a new view, then commit unless refused
// or a dry run.
Status AlterOnce(Engine* engine, const std::string& name, const std::string& new_blob, const LoadedSchema& next,
                 const AlterOptions& options, AlterPlan* plan, bool* committed) {
    *plan = AlterPlan();
    std::unique_ptr<ReadView> view;
    TableState state;
    Status status = ReadTableStateAtNewView(engine, name, &view, &state);
    if (!status.ok()) return status;
    if (state.table.dropped) return TableBeingDropped(name);
    LoadedSchema stored;
    std::string why;
    if (!Load(state.table.schema_blob, std::string(ShortName(name)), &stored, &why)) {
        return Status::Corruption("table " + name + ": the stored schema blob no longer loads: " + why);
    }

    // The library's comparison, as for a client of the new type.
    ErrorLines compare;
    plan->compare_code =
        PROTOBUF_UTIL::GetMetaAndCompare(std::string(ShortName(name)), state.table.schema_blob, next.type,
                                         compare.category());
    Rules rules(state.table, plan);
    if (plan->compare_code != 0 && !IndexOrShardingCode(plan->compare_code)) {
        rules.Refuse(next.type, 0, 0,
                     "the new type is incompatible with the stored schema (result " +
                         std::to_string(plan->compare_code) + "): " + compare.text());
        plan->refusals.back().code = plan->compare_code;
    }
    rules.CompareTypes(stored.type, next.type, true);
    rules.CompareIndexes(stored.type, next.type);
    rules.CompareShardingKeys(stored.type, next.type);
    rules.ListNewTypes(new_blob, next, stored);

    std::map<int, uint64_t> holders;
    std::map<std::string, uint64_t> entries;
    status = Measure(engine, view.get(), state.table, rules, plan, &holders, &entries);
    if (!status.ok()) return status;
    for (const FieldDescriptor* field : rules.removed()) {
        const uint64_t held = holders[field->number()];
        if (held != 0) {
            rules.Refuse(next.type, 0, 0,
                         FieldWords(field) + " is removed, but " + std::to_string(held) +
                             (held == 1 ? " record holds" : " records hold") +
                             " a value for it; clear it in every record first");
        } else {
            plan->changes.push_back(SchemaChange{SchemaChange::Kind::kRemovedField,
                                                 "removed " + FieldWords(field) + ", which no record holds"});
        }
    }
    if (!plan->refusals.empty()) {
        std::string reasons;
        for (const SchemaRefusal& refusal : plan->refusals) reasons += (reasons.empty() ? "" : "; ") + refusal.message;
        return Status::IncompatibleSchema(plan->compare_code, "table " + name + " cannot be altered: " + reasons);
    }
    if (options.dry_run || (plan->changes.empty() && new_blob == state.table.schema_blob)) {
        *committed = true;
        return Status::OK();
    }
    EngineBatch batch;
    StageTableChange(state, Changed(state, new_blob, rules, entries, plan->records), true, &batch);
    status = CheckLimits(batch, engine->limits(), "table " + name + ": altering its schema");
    return status.ok() ? engine->Commit(batch, committed) : status;
}

}  // namespace

Status AlterStoredTable(StoreContext* context, std::string_view new_blob, std::string_view type_name,
                        const AlterOptions& options, AlterPlan* plan) {
    if (plan == nullptr) return Status::InvalidArgument("AlterTable: null output");
    if (type_name.empty()) return Status::InvalidArgument("AlterTable: empty table name");
    Engine* engine = context->engine();
    if (engine->read_only() && !options.dry_run) {
        return Status::NotSupported(engine->locator() + " is open for reading only");
    }
    CatalogTable found;
    Status status = Catalog(engine).Find(type_name, &found);
    if (!status.ok()) return status;
    const std::string blob(new_blob);
    LoadedSchema next;
    std::string why;
    if (!Load(blob, std::string(ShortName(found.name)), &next, &why)) {
        return Status::InvalidArgument("table " + found.name + ": the new schema blob does not load: " + why);
    }
    if (next.type->full_name() != found.name) {
        return Status::InvalidArgument("table " + found.name + ": the new schema blob holds " +
                                       next.type->full_name() + " under that short name, not " + found.name);
    }
    return RetryConflicts("table " + found.name + ": altering its schema", [&](bool* committed) {
        return AlterOnce(engine, found.name, blob, next, options, plan, committed);
    });
}

}  // namespace store
}  // namespace corvida
