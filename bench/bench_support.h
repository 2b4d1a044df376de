// What every benchmark of corvida_bench shares: a log category as production
// runs it, the records and messages the operations work on, an allocation
// counter and the way a benchmark reports a wrong result.
//
// Each operation is timed next to a baseline that does the same work the way
// protobuf or an application without this library would; bench/run.sh pairs
// them by name (BM_<Operation>/<variant> with BM_Baseline_<What>/<variant>).
#ifndef CORVIDA_BENCH_BENCH_SUPPORT_H_
#define CORVIDA_BENCH_BENCH_SUPPORT_H_

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"
#include "protocol/idl_tbl.h"

namespace corvida_bench {

// A category that takes error lines only, as a production client runs: debug
// and trace lines are rejected. Its sink counts the lines it receives, so a
// benchmark can prove it measured the quiet path.
class QuietLog {
public:
    QuietLog();

    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }
    long lines() const { return m_lines; }

private:
    static void Sink(void* ctx, const PLOGEVENT* event, const char* msg, size_t len);

    PLOGCATEGORYINST m_category;
    long m_lines = 0;
};

// Heap allocations (operator new of any form) made by this process so far.
long Allocations();

// Marks the benchmark failed with `why`: its row carries the error and the
// binary exits non-zero, so the smoke test catches a wrong result.
void Fail(benchmark::State& state, const std::string& why);

// Number of failures reported through Fail().
int Failures();

// Reports the heap allocations made since `before`, per iteration, as the
// counter "allocs".
void ReportAllocations(benchmark::State& state, long before);

// Resident memory of this process in KiB (from /proc/self/statm); 0 when
// unknown.
long ResidentKiB();

// The scratch record of the key encoders and of result conversion: ten
// megabytes, allocated once and never initialised.
tagtbl_idl* SharedIdl();

// An empty value set on the heap (construct() called, nothing else touched).
std::unique_ptr<ProtobufValueSet_> NewValueSet();

// Fills every field of a BenchRecord (either syntax) with values of realistic
// size, none of them a default; the key is id, name, stamp.
void FillRecord(google::protobuf::Message* msg);

// The 32 singular leaf paths of a BenchRecord outside its key, and prefixes
// of them of the sizes the value-set benchmarks use (1, 8 or 32), mixing
// top-level and nested fields.
std::set<std::string> RecordPaths(int count);

// Copies the singular field `field` of `from` into `to` (the same type) with
// reflection, as an application without this library would: only when it is
// set, sub-messages whole.
void CopyField(const google::protobuf::Message& from, const google::protobuf::FieldDescriptor* field,
               google::protobuf::Message* to);

// A message of msg's type holding only the fields named by the dotted paths
// (sub-messages on the way created), copied from msg.
std::unique_ptr<google::protobuf::Message> SubsetOf(const google::protobuf::Message& msg,
                                                    const std::set<std::string>& paths);

// Applies CORVIDA_BENCH_ITERATIONS to b; returns b.
benchmark::internal::Benchmark* FixIterations(benchmark::internal::Benchmark* b);

// Registers a benchmark (as benchmark::RegisterBenchmark does). When the
// environment variable CORVIDA_BENCH_ITERATIONS is set, every benchmark runs
// exactly that many iterations: bench/callgrind.sh counts instructions per
// call from two such runs.
template <typename... Args>
benchmark::internal::Benchmark* Register(const char* name, Args&&... args) {
    return FixIterations(benchmark::RegisterBenchmark(name, std::forward<Args>(args)...));
}

// Registration of the benchmarks of each file, in the order they run.
void RegisterKeyBenchmarks();
void RegisterValueSetBenchmarks();
void RegisterSchemaBenchmarks();
void RegisterResultAndLogBenchmarks();

}  // namespace corvida_bench

#endif  // CORVIDA_BENCH_BENCH_SUPPORT_H_
