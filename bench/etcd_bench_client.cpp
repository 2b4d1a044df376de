// corvida_etcd_bench_client LOCATOR put|get WORKER WORKERS RECORDS SECONDS
//
// One client process of corvida_etcd_bench's throughput rounds. It opens the
// store at LOCATOR and its BenchRecord table, prints "ready", and waits for a
// line on its standard input, so that the time of starting and opening is
// not counted and all processes of a round begin together. Then, for
// SECONDS, it puts (or gets) the records WORKER, WORKER + WORKERS,
// WORKER + 2 * WORKERS, ... below RECORDS in turn, one call at a time: the
// processes of a round write disjoint records, so their writes never
// conflict. It prints "CALLS SECONDS" (the calls made and the time they
// took) and exits 0; a call that fails ends it with the status on standard
// error and exit status 1.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "etcd_bench_records.h"

namespace {

using corvida::bench::BenchRecord;
using corvida::store::Status;
using Clock = std::chrono::steady_clock;

int Usage() {
    std::fprintf(stderr, "usage: corvida_etcd_bench_client LOCATOR put|get WORKER WORKERS RECORDS SECONDS\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) return Usage();
    const std::string locator = argv[1];
    const bool puts = std::strcmp(argv[2], "put") == 0;
    const int worker = std::atoi(argv[3]);
    const int workers = std::atoi(argv[4]);
    const int records = std::atoi(argv[5]);
    const double seconds = std::atof(argv[6]);
    if ((!puts && std::strcmp(argv[2], "get") != 0) || workers < 1 || worker < 0 || worker >= records ||
        !(seconds > 0)) {
        return Usage();
    }

    // The records and keys of this worker, made before the clock runs.
    std::vector<BenchRecord> messages;
    for (int i = worker; i < records; i += workers) {
        messages.push_back(puts ? corvida_bench::EtcdBenchRecord(i) : corvida_bench::EtcdBenchKey(i));
    }
    std::unique_ptr<corvida::store::TableStore> store;
    std::unique_ptr<corvida::store::Table> table;
    Status s = corvida_bench::OpenBenchTable(locator, false, &store, &table);
    if (!s.ok()) {
        std::fprintf(stderr, "corvida_etcd_bench_client: %s\n", s.ToString().c_str());
        return 1;
    }
    std::cout << "ready" << std::endl;
    std::string go;
    if (!std::getline(std::cin, go)) return 1;

    BenchRecord out;
    long calls = 0;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    auto now = start;
    for (size_t i = 0; now < end; i = (i + 1) % messages.size(), now = Clock::now()) {
        s = puts ? table->Put(messages[i]) : table->Get(messages[i], {}, &out, nullptr);
        if (!s.ok()) {
            std::fprintf(stderr, "corvida_etcd_bench_client %d: %s\n", worker, s.ToString().c_str());
            return 1;
        }
        ++calls;
    }
    std::cout << calls << " " << std::chrono::duration<double>(now - start).count() << std::endl;
    return 0;
}
