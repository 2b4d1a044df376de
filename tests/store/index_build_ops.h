// The table of the index-build crash test, in two versions (without and with
// the index by_level, which the test adds and drops by turns), and the writes
// that run beside the back-fill; shared by the test and the writer process.
#ifndef CORVIDA_TESTS_STORE_INDEX_BUILD_OPS_H_
#define CORVIDA_TESTS_STORE_INDEX_BUILD_OPS_H_

#include <cstdint>
#include <string>

namespace corvida_store_test {

constexpr char kBuildTable[] = "crash.Row";
constexpr char kBuildIndex[] = "by_level";
// The records the table starts with: several batches of the back-fill.
constexpr int kBuildRecords = 4000;

// The table without by_level (with_index false) or with it.
inline std::string BuildTableProto(bool with_index) {
    return std::string(R"proto(
syntax = "proto3";
package crash;
import "corvidaservice.optionv1.proto";
message Row {
  option (corvidaservice.corvida_primary_key) = "id";
  option (corvidaservice.corvida_index) = "by_name(name)";
)proto") + (with_index ? "  option (corvidaservice.corvida_index) = \"by_level(level)\";\n" : "") + R"proto(
  int64 id = 1;
  int32 level = 2;
  string name = 3;
}
)proto";
}

// Record number i, in text format, with its level and name from n.
inline std::string BuildRowText(uint64_t i, uint64_t n) {
    return "id: " + std::to_string(i) + " level: " + std::to_string(n % 9) + " name: \"n" + std::to_string(n % 13) +
           "\"";
}

}  // namespace corvida_store_test

#endif  // CORVIDA_TESTS_STORE_INDEX_BUILD_OPS_H_
