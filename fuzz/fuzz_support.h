// Shared pieces of the fuzz targets: a log category that formats every line
// and throws it away, one that keeps them, the test tables the targets work
// on, and helpers that turn fuzzer bytes into tag paths and dotted paths that
// mostly name real fields (so the fuzzer spends its time past the first
// lookup).
#ifndef CORVIDA_FUZZ_FUZZ_SUPPORT_H_
#define CORVIDA_FUZZ_FUZZ_SUPPORT_H_

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "plog/plog.h"

// Stops the run with a message when a promise of the code under test is
// broken; libFuzzer then keeps the input as a crash.
#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

namespace corvida_fuzz {

// A category that takes every priority, so each log line of the code under
// test is formatted (its arguments evaluated) and then dropped. Also silences
// protobuf's own process-wide logger, which writes a line for some malformed
// input. Cheap after the first call.
LPPLOGCATEGORYINST QuietLog();

// A category that takes the lines up to `threshold` and keeps them
// (priority, function and text), for targets that compare the library with
// the straightforward implementation kept in tests/reference.
class LineLog {
public:
    explicit LineLog(int threshold = PLOG_PRIORITY_TRACE);
    LineLog(const LineLog&) = delete;
    LineLog& operator=(const LineLog&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }
    const std::vector<std::string>& lines() const { return m_lines; }

private:
    static void Keep(void* ctx, const PLOGEVENT* event, const char* msg, size_t len);

    PLOGCATEGORYINST m_category;
    std::vector<std::string> m_lines;
};

// A log threshold the input picks: trace (every line), debug, error (no
// debug line: some operations take shorter ways only then) or closed (no
// line at all). Read with the input's last byte, so that an input written
// before it was read keeps its meaning and picks trace.
int PickLogThreshold(FuzzedDataProvider& in);

// The message's bytes, maps in key order, unknown fields included: equal for
// messages that hold the same.
std::string DeterministicBytes(const google::protobuf::Message& msg);

// The default instances of the test tables the targets merge into and cut
// from: proto2 and proto3 tables with nested, repeated, map, group, oneof,
// required, encrypted and self-referencing fields.
const std::vector<const google::protobuf::Message*>& TestTables();

// A tag path ("5.3.1") that walks real fields of desc from the top down,
// choosing each field and the depth from the input; a path through a scalar
// stops there unless the input asks to go on anyway (an invalid path).
std::string PickTagPath(FuzzedDataProvider& in, const google::protobuf::Descriptor* desc);

// The same walk written with field names ("stats.deep.v").
std::string PickDottedPath(FuzzedDataProvider& in, const google::protobuf::Descriptor* desc);

}  // namespace corvida_fuzz

#endif  // CORVIDA_FUZZ_FUZZ_SUPPORT_H_
