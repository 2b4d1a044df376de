// FillMessageGroup and GetMetaAndCompare on raw bytes as the schema blob. The
// first byte picks the table name (one of the test tables, so that a blob
// that does parse can also compare), the rest is the blob.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "schema_check.h"

namespace {

const char* const kTableNames[] = {"Player2",  "Player3",  "TreeNode2", "Ping2",    "Versioned2", "Secret2",
                                   "Indexed2", "Grouped2", "Secret3",   "IntKeys2", "NoKey2",     "Missing"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LPPLOGCATEGORYINST log = corvida_fuzz::QuietLog();
    if (size == 0) return 0;
    const std::string tablename = kTableNames[data[0] % (sizeof(kTableNames) / sizeof(kTableNames[0]))];
    const std::string blob(reinterpret_cast<const char*>(data) + 1, size - 1);
    corvida_fuzz::CheckSchemaBlob(tablename, blob, corvida_fuzz::ClientType(tablename), log);
    return 0;
}
