#include "store/key_format.h"

#include <random>

namespace corvida {
namespace store {
namespace keys {

void AppendEscaped(std::string* out, std::string_view bytes) {
    size_t start = 0;
    for (size_t nul = bytes.find('\0'); nul != std::string_view::npos; nul = bytes.find('\0', start)) {
        out->append(bytes.data() + start, nul - start);
        out->push_back('\0');
        out->push_back('\xff');
        start = nul + 1;
    }
    out->append(bytes.data() + start, bytes.size() - start);
    out->push_back('\0');
}

bool ReadEscaped(std::string_view* in, std::string* out) {
    out->clear();
    size_t start = 0;
    for (size_t nul = in->find('\0'); nul != std::string_view::npos; nul = in->find('\0', start)) {
        out->append(in->data() + start, nul - start);
        if (nul + 1 < in->size() && static_cast<uint8_t>((*in)[nul + 1]) == 0xff) {
            out->push_back('\0');
            start = nul + 2;
            continue;
        }
        in->remove_prefix(nul + 1);
        return true;
    }
    return false;
}

void AppendU32(std::string* out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<char>((v >> shift) & 0xff));
}

uint32_t ReadU32(std::string_view in) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<uint8_t>(in[i]);
    return v;
}

std::string SchemaStampKey(uint32_t table) {
    std::string key = "Mschema";
    AppendU32(&key, table);
    return key;
}

std::string CatalogKey(std::string_view full_name) {
    std::string key(1, kCatalog);
    key.append(full_name);
    return key;
}

std::string TableRows(uint32_t table) {
    std::string key(1, kRow);
    AppendU32(&key, table);
    return key;
}

std::string RowKey(uint32_t table, std::string_view pk) {
    std::string key;
    AssignRowKey(&key, table, pk);
    return key;
}

void AssignRowKey(std::string* key, uint32_t table, std::string_view pk) {
    // One allocation at most: the head, the key and its terminator (and its
    // escapes, when it holds 00 bytes, which few keys do).
    key->reserve(1 + 4 + pk.size() + 1);
    key->assign(1, kRow);
    AppendU32(key, table);
    AppendEscaped(key, pk);
}

std::string EscapedEnd(const std::string& prefix) {
    std::string end;
    AssignEscapedEnd(&end, prefix);
    return end;
}

void AssignEscapedEnd(std::string* end, std::string_view prefix) {
    end->reserve(prefix.size() + 1);
    end->assign(prefix.data(), prefix.size());
    end->push_back('\xff');
}

bool SplitRowKey(std::string_view rest, std::string* pk, std::string_view* tag_path) {
    if (!ReadEscaped(&rest, pk)) return false;
    *tag_path = rest;
    return true;
}

std::string SecondarySpace(char space, uint32_t table, std::string_view name) {
    std::string key(1, space);
    AppendU32(&key, table);
    if (space == kIndex) AppendEscaped(&key, name);
    return key;
}

std::string SecondarySpaceEnd(char space, uint32_t table, std::string_view name) {
    if (space == kIndex) return EscapedEnd(SecondarySpace(space, table, name));
    std::string end(1, space);
    AppendU32(&end, table + 1);  // the shard listing ends where the next table's begins
    return table == UINT32_MAX ? std::string(1, static_cast<char>(space + 1)) : end;
}

std::string SecondaryPrefix(char space, uint32_t table, std::string_view name, std::string_view value) {
    std::string key = SecondarySpace(space, table, name);
    AppendEscaped(&key, value);
    return key;
}

std::string SecondaryKey(char space, uint32_t table, std::string_view name, std::string_view value,
                         std::string_view pk) {
    std::string key = SecondaryPrefix(space, table, name, value);
    AppendEscaped(&key, pk);
    return key;
}

bool SplitSecondaryKey(std::string_view rest, std::string* value, std::string* pk) {
    return ReadEscaped(&rest, value) && ReadEscaped(&rest, pk) && rest.empty();
}

std::string NewStamp() {
    thread_local std::mt19937_64 generator(std::random_device{}());
    const uint64_t stamp = generator();
    std::string bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>((stamp >> shift) & 0xff));
    return bytes;
}

}  // namespace keys
}  // namespace store
}  // namespace corvida
