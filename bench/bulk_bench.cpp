// corvida_bulk_bench: "corvida-pb store import" and "store export" of many
// records, each next to protobuf alone doing the same conversion in the same
// run, and the resident size of both.
//
//   corvida_bulk_bench [--records N] [--dir DIR]
//
// It writes N BenchRecords (21 fields, a three-field key, an index and a
// sharding key) as JSON lines, then measures:
//   - import: corvida-pb store import of those lines into a new store (a
//     child process, wall-clock time), next to protobuf parsing the same
//     lines into messages (JsonStringToMessage, one line at a time);
//   - export: corvida-pb store export of the table as JSON lines into a
//     file, next to protobuf printing the same messages as JSON lines
//     (MessageToJsonString) into a file;
// and prints the rates and the ratios by the wall clock and by CPU time (on
// a machine shared with other work, the wall clock says more of the load
// than of the code), and the largest resident size of each child. N defaults to 1,000,000; DIR (default: a new directory
// under /tmp, removed at the end) holds the files and the store, about 1 GB
// at the default size.
//
// The exit status is 1 when a step fails, when the export does not hold the
// N records, or when a child's resident size exceeds kMaxResidentMiB (the
// bound for up to a million records). The speed goals are reported, not
// enforced: timings depend on the machine and on what else runs on it.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <google/protobuf/util/json_util.h>

#include "bench_support.h"
#include "bench_tables.pb.h"

extern char** environ;

namespace {

using corvida::bench::BenchRecord;
using Clock = std::chrono::steady_clock;

// The most resident memory import or export of a million records may take,
// in MiB. Fixed, whatever the number of records: RocksDB's two write buffers
// (64 MiB each) and its block cache (8 MiB), the compactions running, the
// pieces of records between the command's two threads (three of up to 1000
// records each way), one commit's batch, the bridge's scratch records as far
// as touched. Growing with the table: RocksDB's index and filter blocks of
// the table files, which it keeps in memory while a file is open, about
// 30 MiB a million records of this kind. Neither holds a record beyond its
// piece: the bound is not a matter of the input's size.
constexpr long kMaxResidentMiB = 320;

// The goals of docs/performance.md.
constexpr double kImportRate = 50000;
constexpr double kImportRatio = 3;
constexpr double kExportRate = 100000;
constexpr double kExportRatio = 2;

// What a step took.
struct Took {
    double wall = 0;  // seconds
    double cpu = 0;   // seconds of CPU, every thread's
};

// What a child process took.
struct Run {
    bool ok = false;
    Took took;
    long resident_kib = 0;  // the largest resident size
};

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double ProcessCpu() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; }

// Times the steps of a baseline, wall clock and CPU, between Start() and
// Stop() as often as they are called.
class Timer {
public:
    void Start() {
        m_wall_start = Clock::now();
        m_cpu_start = ProcessCpu();
    }
    void Stop() {
        m_took.wall += Since(m_wall_start);
        m_took.cpu += ProcessCpu() - m_cpu_start;
    }
    const Took& took() const { return m_took; }

private:
    Took m_took;
    Clock::time_point m_wall_start;
    double m_cpu_start = 0;
};

// Runs corvida-pb with args from the source root, its standard output to
// /dev/null.
Run RunTool(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {CORVIDA_PB_EXE};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& arg : argv) pointers.push_back(&arg[0]);
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addchdir_np(&actions, CORVIDA_SOURCE_DIR);
    Run run;
    const Clock::time_point start = Clock::now();
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return run;
    int status = 0;
    struct rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid) return run;
    run.took.wall = Since(start);
    run.took.cpu = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    run.resident_kib = usage.ru_maxrss;
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!run.ok) std::fprintf(stderr, "bulk_bench: corvida-pb store %s failed\n", args[1].c_str());
    return run;
}

// Record number i: every field set (bench_support's values), the key and a
// few fields varied.
BenchRecord RecordNumber(long i) {
    static const BenchRecord base = [] {
        BenchRecord record;
        corvida_bench::FillRecord(&record);
        return record;
    }();
    BenchRecord record = base;
    record.set_id(static_cast<int32_t>(i % 1000));
    record.set_name("player-" + std::to_string(i));
    record.set_stamp(1700000000000 + i);
    record.set_level(static_cast<int32_t>(i % 100));
    record.set_score(i * 7);
    record.mutable_profile()->set_age(static_cast<int32_t>(18 + i % 60));
    return record;
}

// Writes records [0, n) as JSON lines to path; false on failure.
bool WriteLines(const std::string& path, long n, size_t* bytes) {
    std::ofstream out(path, std::ios::binary);
    std::string json;
    *bytes = 0;
    for (long i = 0; i < n; ++i) {
        json.clear();
        if (!google::protobuf::util::MessageToJsonString(RecordNumber(i), &json).ok()) return false;
        json.push_back('\n');
        out.write(json.data(), static_cast<std::streamsize>(json.size()));
        *bytes += json.size();
    }
    return out.good();
}

// Protobuf alone: reads the lines of path and parses each into a message.
Took BaselineParse(const std::string& path, long* parsed) {
    std::ifstream in(path, std::ios::binary);
    Timer timer;
    timer.Start();
    BenchRecord record;
    *parsed = 0;
    for (std::string line; std::getline(in, line);) {
        if (google::protobuf::util::JsonStringToMessage(line, &record).ok()) ++*parsed;
    }
    timer.Stop();
    return timer.took();
}

// Protobuf alone: prints records [0, n) as JSON lines into path, in pieces
// of 64 KiB as export writes. The records are made a thousand at a time
// outside the timed spans: only the printing and writing are timed.
Took BaselinePrint(const std::string& path, long n) {
    std::ofstream out(path, std::ios::binary);
    std::string buffer;
    std::string json;
    std::vector<BenchRecord> records;
    Timer timer;
    for (long first = 0; first < n; first += 1000) {
        records.clear();
        for (long i = first; i < n && i < first + 1000; ++i) records.push_back(RecordNumber(i));
        timer.Start();
        for (const BenchRecord& record : records) {
            json.clear();
            google::protobuf::util::MessageToJsonString(record, &json);
            buffer += json;
            buffer.push_back('\n');
            if (buffer.size() >= (1 << 16)) {
                out.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
                buffer.clear();
            }
        }
        timer.Stop();
    }
    out.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    return timer.took();
}

long CountLines(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    long lines = 0;
    for (std::string line; std::getline(in, line);) ++lines;
    return lines;
}

std::string Fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string Verdict(bool met) { return met ? "met" : "MISSED"; }

}  // namespace

int main(int argc, char** argv) {
    long records = 1000000;
    std::string dir;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--records") == 0) records = std::atol(argv[i + 1]);
        if (std::strcmp(argv[i], "--dir") == 0) dir = argv[i + 1];
    }
    if (records <= 0 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: corvida_bulk_bench [--records N] [--dir DIR]\n");
        return 2;
    }
    const bool own_dir = dir.empty();
    if (own_dir) {
        char made[] = "/tmp/corvida-bulk-bench-XXXXXX";
        if (mkdtemp(made) == nullptr) return 1;
        dir = made;
    }
    const std::string lines = dir + "/records.json";
    const std::string printed = dir + "/printed.json";
    const std::string exported = dir + "/exported.json";
    const std::string db = dir + "/db";
    const std::vector<std::string> table = {"--db", db, "--proto", "bench/protos/bench_tables.proto", "--table",
                                            "BenchRecord"};
    // "store COMMAND <the table> more...".
    const auto with = [&table](const std::string& command, const std::vector<std::string>& more) {
        std::vector<std::string> args = {"store", command};
        args.insert(args.end(), table.begin(), table.end());
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };

    size_t bytes = 0;
    int status = 0;
    long parsed = 0;
    if (!WriteLines(lines, records, &bytes)) {
        std::fprintf(stderr, "bulk_bench: cannot write %s\n", lines.c_str());
        status = 1;
    }
    const Took parse = BaselineParse(lines, &parsed);
    const bool created = RunTool(with("create", {})).ok;
    const Run import = RunTool(with("import", {"--format", "json", lines}));
    const Took print = BaselinePrint(printed, records);
    const Run exporting = RunTool(with("export", {"--format", "json", "-o", exported}));
    const long exported_lines = CountLines(exported);
    if (parsed != records || !created || !import.ok || !exporting.ok || exported_lines != records) {
        std::fprintf(stderr, "bulk_bench: %ld of %ld lines parsed, %ld exported\n", parsed, records, exported_lines);
        status = 1;
    }

    const long import_mib = import.resident_kib / 1024;
    const long export_mib = exporting.resident_kib / 1024;
    std::printf("%ld BenchRecords (21 fields), JSON lines of %.0f bytes on average\n", records,
                static_cast<double>(bytes) / records);
    std::printf("resident MiB at most: import %ld, export %ld\n", import_mib, export_mib);
    for (const bool cpu : {false, true}) {
        const auto of = [cpu](const Took& took) { return cpu ? took.cpu : took.wall; };
        const double import_rate = records / of(import.took);
        const double export_rate = records / of(exporting.took);
        const double import_ratio = of(import.took) / of(parse);
        const double export_ratio = of(exporting.took) / of(print);
        std::printf("\n%s\n\n", cpu ? "By CPU time (every thread of the process):" : "By the wall clock:");
        std::printf("| step | s | records/s | protobuf alone | s | ratio | goal |\n");
        std::printf("|---|---:|---:|---|---:|---:|---|\n");
        std::printf("| import | %s | %.0f | parse JSON lines | %s | %s | >= %.0f/s: %s; <= %.0fx: %s |\n",
                    Fixed(of(import.took), 2).c_str(), import_rate, Fixed(of(parse), 2).c_str(),
                    Fixed(import_ratio, 2).c_str(), kImportRate, Verdict(import_rate >= kImportRate).c_str(),
                    kImportRatio, Verdict(import_ratio <= kImportRatio).c_str());
        std::printf("| export | %s | %.0f | print JSON lines | %s | %s | >= %.0f/s: %s; <= %.0fx: %s |\n",
                    Fixed(of(exporting.took), 2).c_str(), export_rate, Fixed(of(print), 2).c_str(),
                    Fixed(export_ratio, 2).c_str(), kExportRate, Verdict(export_rate >= kExportRate).c_str(),
                    kExportRatio, Verdict(export_ratio <= kExportRatio).c_str());
    }
    std::printf("\nresident size bound: %ld MiB: %s\n", kMaxResidentMiB,
                Verdict(import_mib <= kMaxResidentMiB && export_mib <= kMaxResidentMiB).c_str());
    if (import_mib > kMaxResidentMiB || export_mib > kMaxResidentMiB) status = 1;

    std::error_code ec;
    if (own_dir) std::filesystem::remove_all(dir, ec);
    return status;
}
