#include "store/upgrade.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "corvida_store_catalog.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "store/catalog.h"
#include "store/key_format.h"
#include "store/scratch.h"

namespace corvida {
namespace store {

namespace {

// Takes n bytes off the front of *in into *out; false when there are fewer.
bool Take(std::string_view* in, size_t n, std::string_view* out) {
    if (in->size() < n) return false;
    *out = in->substr(0, n);
    in->remove_prefix(n);
    return true;
}

// Takes a length of `width` bytes and then that many bytes.
bool TakeCounted(std::string_view* in, size_t width, std::string_view* out) {
    std::string_view length;
    if (!Take(in, width, &length)) return false;
    size_t n = 0;
    for (char c : length) n = (n << 8) | static_cast<uint8_t>(c);
    return Take(in, n, out);
}

// A row marker gets a stamp; a stored field keeps its bytes.
bool ConvertRow(std::string_view rest, std::string_view value, uint32_t table, std::string* key_out,
                std::string* value_out) {
    std::string_view pk;
    if (!TakeCounted(&rest, 2, &pk) || pk.empty()) return false;
    *key_out = keys::RowKey(table, pk);
    key_out->append(rest.data(), rest.size());
    *value_out = rest.empty() ? keys::NewStamp() : std::string(value);
    return true;
}

bool ConvertEntry(char space, std::string_view rest, uint32_t table, std::string* key_out) {
    std::string_view name;
    std::string_view value;
    if (space == keys::kIndex && !TakeCounted(&rest, 1, &name)) return false;
    if (!TakeCounted(&rest, 2, &value) || rest.empty()) return false;
    *key_out = keys::SecondaryKey(space, table, name, value, rest);
    return true;
}

// The full type name of a layout-1 table: the type of that short name in its
// blob.
bool FullTableName(const std::string& short_name, const std::string& blob, std::string* full_name,
                   std::string* why) {
    ErrorLines errors;
    PROTOBUF_UTIL::MsgDescGroup group;
    if (PROTOBUF_UTIL::FillMessageGroup(short_name, blob, &group, errors.category()) == nullptr) {
        *why = "the schema blob of table " + short_name + " does not load" +
               (errors.text().empty() ? std::string() : ": " + errors.text());
        return false;
    }
    *full_name = group.m_desc->full_name();
    return true;
}

}  // namespace

bool ConvertLayout1Key(std::string_view key, std::string_view value, std::string* key_out, std::string* value_out,
                       std::string* why) {
    key_out->clear();
    value_out->clear();
    if (key.empty()) {
        *why = "an empty key";
        return false;
    }
    const char space = key[0];
    std::string_view rest = key.substr(1);
    if (space == keys::kMeta) return true;  // the layout key: written apart
    if (space == keys::kCatalog) {
        if (value.size() < 4 || rest.empty()) {
            *why = "the catalog entry of table " + std::string(rest) + " is cut short";
            return false;
        }
        std::string full_name;
        if (!FullTableName(std::string(rest), std::string(value.substr(4)), &full_name, why)) return false;
        format::CatalogEntry entry;
        entry.set_number(keys::ReadU32(value));
        entry.set_schema_blob(std::string(value.substr(4)));
        *key_out = keys::CatalogKey(full_name);
        *value_out = entry.SerializeAsString();
        return true;
    }
    std::string_view table_bytes;
    if (!Take(&rest, 4, &table_bytes)) {
        *why = "a key without its table number";
        return false;
    }
    const uint32_t table = keys::ReadU32(table_bytes);
    bool parsed = false;
    switch (space) {
        case keys::kRow:
            parsed = ConvertRow(rest, value, table, key_out, value_out);
            break;
        case keys::kIndex:
        case keys::kShard: parsed = ConvertEntry(space, rest, table, key_out); break;
        default: break;
    }
    if (!parsed) *why = std::string("a key of kind '") + space + "' does not parse";
    return parsed;
}

Status UpgradeLayout(Engine* engine, bool* upgraded) {
    *upgraded = false;
    std::string version_text;
    bool found = false;
    Status status = engine->Get(nullptr, keys::kLayoutKey, &version_text, &found);
    if (!status.ok()) return status;
    int version = 0;
    if (!found || !ParseLayoutVersion(version_text, &version)) {
        // Not a store of layout 1: say what it is.
        LayoutState layout;
        status = CheckLayout(engine, &layout);
        return status.ok() && layout.empty ? Status::NotFound("no table store in " + engine->locator()) : status;
    }
    if (version == keys::kLayoutVersion) return Status::OK();
    if (version != 1) {
        LayoutState layout;
        return CheckLayout(engine, &layout);
    }

    std::unique_ptr<ReadView> view;
    status = engine->NewView(&view);
    if (!status.ok()) return status;
    EngineBatch batch;
    batch.ExpectValue(keys::kLayoutKey, version_text);
    std::vector<std::pair<std::string, std::string>> converted;
    uint32_t largest = 0;
    std::string why;
    status = engine->Scan(view.get(), "", "", [&](std::string_view key, std::string_view value) {
        std::string key_out;
        std::string value_out;
        if (!ConvertLayout1Key(key, value, &key_out, &value_out, &why)) return false;
        batch.Delete(key);
        if (key_out.empty()) return true;
        if (key[0] == keys::kCatalog) {
            format::CatalogEntry entry;
            entry.ParseFromString(value_out);
            largest = std::max(largest, entry.number());
        }
        converted.emplace_back(std::move(key_out), std::move(value_out));
        return true;
    });
    if (!status.ok()) return status;
    if (!why.empty()) return Status::Corruption(engine->locator() + ": cannot upgrade: " + why);
    for (auto& pair : converted) batch.Put(pair.first, pair.second);
    batch.Put(keys::kNextTableKey, EncodeTableCounter(uint64_t{largest} + 1));
    batch.Put(keys::kLayoutKey, std::to_string(keys::kLayoutVersion));
    bool committed = false;
    status = engine->Commit(batch, &committed);
    if (!status.ok()) return status;
    if (!committed) return Status::Busy(engine->locator() + ": the store changed during the upgrade; run it again");
    *upgraded = true;
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
