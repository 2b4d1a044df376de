#include "store/catalog.h"

#include <charconv>
#include <limits>
#include <memory>

#include "corvida_store_catalog.pb.h"
#include "store/key_format.h"
#include "store/retry.h"

namespace corvida {
namespace store {

namespace {

constexpr uint64_t kNoNumberLeft = uint64_t{std::numeric_limits<uint32_t>::max()} + 1;

bool DecodeCounter(std::string_view bytes, uint64_t* next) {
    if (bytes.size() != 8) return false;
    *next = 0;
    for (char c : bytes) *next = (*next << 8) | static_cast<uint8_t>(c);
    return *next <= kNoNumberLeft;
}

BatchWork FromStored(const format::BatchWork& stored) {
    return BatchWork{stored.name(), stored.after(), stored.done(), stored.total()};
}

void ToStored(const BatchWork& work, format::BatchWork* stored) {
    stored->set_name(work.name);
    stored->set_after(work.after);
    stored->set_done(work.done);
    stored->set_total(work.total);
}

}  // namespace

std::string EncodeTableCounter(uint64_t next) {
    std::string bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>((next >> shift) & 0xff));
    return bytes;
}

std::string_view ShortName(std::string_view full_name) {
    const size_t dot = full_name.rfind('.');
    return dot == std::string_view::npos ? full_name : full_name.substr(dot + 1);
}

bool ParseLayoutVersion(std::string_view text, int* version) {
    if (text.empty() || text.size() > 6) return false;
    const std::from_chars_result parsed = std::from_chars(text.data(), text.data() + text.size(), *version);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() && *version >= 1 && text[0] != '0';
}

Status CheckLayout(Engine* engine, LayoutState* state) {
    *state = LayoutState();
    // Both reads at one view: a store that another process creates meanwhile
    // is seen either empty or whole, never as keys without their layout.
    std::unique_ptr<ReadView> view;
    Status status = engine->NewView(&view);
    if (!status.ok()) return status;
    std::string value;
    bool found = false;
    status = engine->Get(view.get(), keys::kLayoutKey, &value, &found);
    if (!status.ok()) return status;
    const std::string& where = engine->locator();
    if (!found) {
        bool any = false;
        status = engine->Scan(view.get(), "", "", [&any](std::string_view, std::string_view) {
            any = true;
            return false;
        });
        if (!status.ok()) return status;
        const std::string kind = engine->kind();
        const char* article = kind.find_first_of("aeiouAEIOU") == 0 ? "an " : "a ";
        if (any) return Status::InvalidArgument(where + " is " + article + kind + " but not a table store");
        state->empty = true;
        return Status::OK();
    }
    if (!ParseLayoutVersion(value, &state->version)) {
        return Status::Corruption(where + ": the layout version of the store is not a number");
    }
    if (state->version > keys::kLayoutVersion) {
        return Status::NotSupported(where + " is a table store of key layout " + std::to_string(state->version) +
                                    ", newer than this library reads (layout " +
                                    std::to_string(keys::kLayoutVersion) + "); open it with a newer version");
    }
    if (state->version < keys::kLayoutVersion) {
        return Status::NotSupported(where + " is a table store of key layout " + std::to_string(state->version) +
                                    ", older than this library reads (layout " +
                                    std::to_string(keys::kLayoutVersion) +
                                    "); rewrite it in place with: corvida-pb store upgrade --db " + where);
    }
    return Status::OK();
}

Status ParseCatalogEntry(std::string_view name, std::string_view value, CatalogTable* table) {
    format::CatalogEntry entry;
    if (value.size() > static_cast<size_t>(std::numeric_limits<int>::max()) ||
        !entry.ParseFromArray(value.data(), static_cast<int>(value.size()))) {
        return Status::Corruption("the catalog entry of table " + std::string(name) + " does not parse");
    }
    *table = CatalogTable();
    table->name = std::string(name);
    table->number = entry.number();
    table->schema_blob = entry.schema_blob();
    for (const format::BatchWork& work : entry.building()) table->building.push_back(FromStored(work));
    for (const format::BatchWork& work : entry.dropping()) table->dropping.push_back(FromStored(work));
    table->retired.assign(entry.retired_numbers().begin(), entry.retired_numbers().end());
    table->dropped = entry.has_drop();
    if (table->dropped) table->drop = FromStored(entry.drop());
    return Status::OK();
}

std::string EncodeCatalogEntry(const CatalogTable& table) {
    format::CatalogEntry entry;
    entry.set_number(table.number);
    entry.set_schema_blob(table.schema_blob);
    for (const BatchWork& work : table.building) ToStored(work, entry.add_building());
    for (const BatchWork& work : table.dropping) ToStored(work, entry.add_dropping());
    for (uint32_t number : table.retired) entry.add_retired_numbers(number);
    if (table.dropped) ToStored(table.drop, entry.mutable_drop());
    return entry.SerializeAsString();
}

Status Catalog::List(std::vector<CatalogTable>* tables) const {
    const std::string start = keys::CatalogStart();
    Status parsed;
    Status status = m_engine->Scan(nullptr, start, PrefixEnd(start), [&](std::string_view key, std::string_view value) {
        CatalogTable table;
        parsed = ParseCatalogEntry(key.substr(1), value, &table);
        if (!parsed.ok()) return false;
        tables->push_back(std::move(table));
        return true;
    });
    if (!status.ok()) return status;
    return parsed;
}

std::string Catalog::Held() const {
    std::vector<CatalogTable> tables;
    if (!List(&tables).ok()) return "its catalog does not read";
    if (tables.empty()) return "it holds no table";
    std::string names = "it holds ";
    for (size_t i = 0; i < tables.size(); ++i) names += (i == 0 ? "" : ", ") + tables[i].name;
    return names;
}

Status Catalog::Find(std::string_view name, CatalogTable* table) const {
    std::string value;
    bool found = false;
    Status status = m_engine->Get(nullptr, keys::CatalogKey(name), &value, &found);
    if (!status.ok()) return status;
    if (found) return ParseCatalogEntry(name, value, table);

    // A short name: the one table whose name ends with it.
    std::vector<CatalogTable> tables;
    status = List(&tables);
    if (!status.ok()) return status;
    std::vector<const CatalogTable*> matches;
    for (const CatalogTable& candidate : tables) {
        if (ShortName(candidate.name) == name) matches.push_back(&candidate);
    }
    if (matches.size() == 1) {
        *table = *matches[0];
        return Status::OK();
    }
    if (matches.empty()) return Status::NotFound("no table " + std::string(name) + " in the store (" + Held() + ")");
    std::string candidates;
    for (const CatalogTable* match : matches) candidates += (candidates.empty() ? "" : ", ") + match->name;
    return Status::InvalidArgument("table name " + std::string(name) + " is ambiguous in the store: give one of " +
                                   candidates);
}

Status Catalog::Add(std::string_view full_name, std::string_view schema_blob) {
    const std::string key = keys::CatalogKey(full_name);
    return RetryConflicts("adding table " + std::string(full_name), [&](bool* committed) {
        std::unique_ptr<ReadView> view;
        Status status = m_engine->NewView(&view);
        if (!status.ok()) return status;
        std::string value;
        bool exists = false;
        status = m_engine->Get(view.get(), key, &value, &exists);
        if (!status.ok()) return status;
        if (exists) {
            CatalogTable held;
            status = ParseCatalogEntry(full_name, value, &held);
            if (!status.ok()) return status;
            return Status::AlreadyExists("table " + std::string(full_name) +
                                         (held.dropped ? " is being dropped; finish the drop first (DropTable)"
                                                       : " already exists"));
        }

        // The next number: the counter, but above every number in use even
        // when the counter is damaged.
        std::string counter;
        bool counted = false;
        status = m_engine->Get(view.get(), keys::kNextTableKey, &counter, &counted);
        if (!status.ok()) return status;
        uint64_t next = 1;
        if (counted && !DecodeCounter(counter, &next)) {
            return Status::Corruption("the table counter of the store does not parse");
        }
        std::vector<CatalogTable> tables;
        status = List(&tables);
        if (!status.ok()) return status;
        for (const CatalogTable& table : tables) next = std::max<uint64_t>(next, uint64_t{table.number} + 1);
        if (next >= kNoNumberLeft) {
            return Status::NotSupported("adding table " + std::string(full_name) +
                                        ": the store has no free table number left");
        }

        CatalogTable entry;
        entry.number = static_cast<uint32_t>(next);
        entry.schema_blob = std::string(schema_blob);
        EngineBatch batch;
        batch.ExpectAbsent(key);
        if (counted) {
            batch.ExpectValue(keys::kNextTableKey, counter);
        } else {
            batch.ExpectAbsent(keys::kNextTableKey);
        }
        batch.Put(key, EncodeCatalogEntry(entry));
        batch.Put(keys::kNextTableKey, EncodeTableCounter(next + 1));
        return m_engine->Commit(batch, committed);
    });
}

}  // namespace store
}  // namespace corvida
