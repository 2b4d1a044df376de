// The table store's parsers of stored keys and values: row keys and index
// and shard entry keys split back into their parts, the escaping of keys
// inside them, catalog entries, layout versions, cursors handed back by
// paged reads, and the keys of key layout 1 rewritten by the upgrade.
//
// Input: one byte choosing the parser, then the bytes it is given (for the
// escaping, two strings split at the first byte 0x1f).
//
// Besides the sanitizers, checks what each promises: what one part encodes
// the other decodes to the same, the escaping keeps byte order and is
// prefix-free, and damaged input is refused, never misread.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "store/catalog.h"
#include "store/cursor.h"
#include "store/key_format.h"
#include "store/upgrade.h"

namespace {

namespace keys = corvida::store::keys;

int Sign(int compared) { return compared < 0 ? -1 : compared > 0 ? 1 : 0; }

bool IsPrefix(const std::string& prefix, const std::string& of) {
    return prefix.size() <= of.size() && of.compare(0, prefix.size(), prefix) == 0;
}

void CheckEscaping(std::string_view input) {
    const size_t split = input.find('\x1f');
    const std::string a(input.substr(0, split));
    const std::string b(split == std::string_view::npos ? std::string_view() : input.substr(split + 1));
    std::string ea;
    std::string eb;
    keys::AppendEscaped(&ea, a);
    keys::AppendEscaped(&eb, b);
    FUZZ_CHECK(Sign(a.compare(b)) == Sign(ea.compare(eb)));
    // Followed by what the layout puts after a string (never FF), neither is
    // the prefix of the other, and the order holds whatever follows.
    if (a != b) {
        FUZZ_CHECK(!IsPrefix(ea + '\x01', eb + '\xfe') && !IsPrefix(eb + '\x01', ea + '\xfe'));
        FUZZ_CHECK(Sign(a.compare(b)) == Sign((ea + '\xfe').compare(eb + '\x00')));
    }
    std::string_view rest = ea;
    std::string back;
    FUZZ_CHECK(keys::ReadEscaped(&rest, &back) && back == a && rest.empty());
}

void CheckRowKey(std::string_view input) {
    std::string pk;
    std::string_view tag_path;
    if (keys::SplitRowKey(input, &pk, &tag_path)) {
        // What splits is what the encoder writes for those parts.
        std::string again = keys::RowKey(7, pk).substr(5);
        again.append(tag_path.data(), tag_path.size());
        FUZZ_CHECK(again == input);
    }
    std::string value;
    if (keys::SplitSecondaryKey(input, &value, &pk)) {
        FUZZ_CHECK(keys::SecondaryKey(keys::kShard, 7, "", value, pk).substr(5) == input);
    }
}

void CheckCatalogAndLayout(std::string_view input) {
    corvida::store::CatalogTable table;
    const corvida::store::Status s = corvida::store::ParseCatalogEntry("fuzz.Table", input, &table);
    FUZZ_CHECK(s.ok() || s.IsCorruption());
    int version = 0;
    if (corvida::store::ParseLayoutVersion(input, &version)) FUZZ_CHECK(std::to_string(version) == input);
}

void CheckCursor(std::string_view input) {
    corvida::store::CursorScope scope;
    scope.table = 3;
    scope.kind = keys::kIndex;
    scope.name = "by_level";
    scope.value = std::string(input.substr(0, input.size() / 3));
    std::string pk;
    if (corvida::store::DecodeCursor(input, scope, &pk).ok()) {
        FUZZ_CHECK(corvida::store::EncodeCursor(scope, pk) == input);
    }
    const std::string made = corvida::store::EncodeCursor(scope, input);
    if (!input.empty()) FUZZ_CHECK(corvida::store::DecodeCursor(made, scope, &pk).ok() && pk == input);
}

void CheckLayout1(std::string_view input) {
    const size_t split = input.find('\x1f');
    const std::string_view key = input.substr(0, split);
    const std::string_view value = split == std::string_view::npos ? std::string_view() : input.substr(split + 1);
    std::string key_out;
    std::string value_out;
    std::string why;
    const bool converted = corvida::store::ConvertLayout1Key(key, value, &key_out, &value_out, &why);
    FUZZ_CHECK(converted == why.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    corvida_fuzz::QuietLog();
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 5) {
        case 0: CheckEscaping(input); break;
        case 1: CheckRowKey(input); break;
        case 2: CheckCatalogAndLayout(input); break;
        case 3: CheckCursor(input); break;
        default: CheckLayout1(input); break;
    }
    return 0;
}
