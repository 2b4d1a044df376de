// corvida_bench: the library's operations next to their baselines, in one
// run. bench/run.sh runs it and prints the table of ratios. The exit status
// is non-zero when any benchmark found a wrong result.
#include "bench_support.h"

int main(int argc, char** argv) {
    corvida_bench::RegisterKeyBenchmarks();
    corvida_bench::RegisterValueSetBenchmarks();
    corvida_bench::RegisterSchemaBenchmarks();
    corvida_bench::RegisterResultAndLogBenchmarks();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return corvida_bench::Failures() == 0 ? 0 : 1;
}
