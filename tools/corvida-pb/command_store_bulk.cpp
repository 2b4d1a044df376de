// corvida-pb store export|import|count|verify: every record of a table at
// once, and the checks of a whole table.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "corvida-pb/files.h"
#include "corvida-pb/handoff.h"
#include "corvida-pb/progress.h"
#include "corvida-pb/record_input.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"
#include "corvida-pb/store_command.h"

namespace corvida_pb {
namespace {

using corvida::store::Page;
using corvida::store::Record;
using corvida::store::Status;
using corvida::store::VerifyCounts;
using corvida::store::WriteOp;
using corvida::store::WriteReport;
using google::protobuf::Message;

// The records import gathers for one Write call: as many as a commit of the
// store takes, and no more bytes of input than this, whatever the records'
// size.
constexpr size_t kRecordsPerWrite = 1000;
constexpr uint64_t kInputBytesPerWrite = 8u << 20;
// The records export hands to its printing thread at a time.
constexpr size_t kRecordsPerPiece = 256;
// The pieces on their way between the two threads of import and export.
constexpr size_t kPiecesInFlight = 3;

// "1 record", "2 records".
std::string Records(uint64_t n) { return std::to_string(n) + (n == 1 ? " record" : " records"); }

// export and import name the format of the records by --format.
void NameRecordFormat(CLI::App* app, const char* what) {
    app->get_option("--format")->description(std::string("the format of the records ") + what +
                                             ": text (default; each after '# record N', as scan prints them) or json "
                                             "(one object per line)");
}

// Starts the progress of a command over the records of a table: on a
// terminal, with their number as the total (counting them costs a read of
// the table's keys, worth it only where the bar is seen).
std::unique_ptr<Progress> TableProgress(corvida::store::Table& table) {
    std::unique_ptr<Progress> progress(new Progress("records", 0, Progress::Elsewhere::kQuiet, std::cerr));
    uint64_t total = 0;
    if (progress->terminal() && table.Count(nullptr, &total).ok()) progress->SetTotal(total);
    return progress;
}

const StoreCommandTraits kExport = {
    "export", "write every record of a table, in primary-key order",
    "Writes every record of the table to -o FILE (or standard output), one after\n"
    "another in primary-key order, as they are read: each after a line\n"
    "'# record N' in protobuf text format, or with --format json one object per\n"
    "line in protobuf's JSON mapping (map entries in key order). 'store import'\n"
    "reads either back. Fields that did not merge (an encrypted field outside the\n"
    "key) are written as stored and named in one warning at the end. A progress\n"
    "bar shows on a terminal; the last line on standard error says how many\n"
    "records were written.\n",
    StoreAccess::kRead, true, nullptr};

class ExportCommand : public TableCommand {
public:
    explicit ExportCommand(CLI::App* parent) : TableCommand(parent, kExport) {
        app()->add_option("-o,--output", m_output, "where to write the records ('-', the default: standard output)")
            ->type_name("FILE");
        NameRecordFormat(app(), "written");
        CountRepeatedLogLines();
    }

private:
    // The records read go to a thread of their own in pieces, to be printed
    // there while the next are read.
    int RunOnTable() override {
        std::ofstream file;
        if (m_output != "-") {
            file.open(m_output, std::ios::binary | std::ios::trunc);
            if (!file) throw Failure("cannot write " + m_output + ": " + std::strerror(errno));
        }
        std::ostream& out = m_output != "-" ? file : std::cout;
        std::unique_ptr<Progress> progress = TableProgress(table());
        RecordPrinter records(table_type(), record_format(), out);
        Handoff<std::vector<Record>> read(kPiecesInFlight);
        Worker printer(
            [&read, &records] {
                std::vector<Record> piece;
                uint64_t number = 0;
                while (read.Pop(&piece)) {
                    for (const Record& record : piece) records.PrintListed(*record.message, ++number);
                }
                records.Flush();
            },
            [&read] { read.Close(); });
        std::set<std::string> failed;
        uint64_t with_failed = 0;
        uint64_t exported = 0;
        std::vector<Record> piece;
        VisitGuard guard;
        const Status status = table().ScanEach(nullptr, Page(), guard.Wrap([&](Record& record) {
            if (!record.failed_paths.empty()) {
                ++with_failed;
                failed.insert(record.failed_paths.begin(), record.failed_paths.end());
            }
            piece.push_back(std::move(record));
            ++exported;
            progress->Advance();
            if (piece.size() == kRecordsPerPiece) {
                // Refused when the printer stopped: its failure says why.
                if (!read.Push(std::move(piece))) throw Failure("the printing of the records stopped");
                piece.clear();
            }
        }), nullptr);
        if (status.ok() && !piece.empty()) read.Push(std::move(piece));
        read.Close();
        printer.Finish();
        guard.Check(status);
        if (file.is_open()) file.close();
        if (!out.good()) throw Failure("cannot write " + (m_output == "-" ? "standard output" : m_output));
        if (with_failed > 0) {
            PrintWarning(app(), "fields that did not merge in " + std::to_string(with_failed) + " of " +
                                    Records(exported) + ", written as stored: " + FailedPathsText(table_type(), failed));
        }
        progress->Finish("exported " + Records(exported) + " in " + progress->Elapsed());
        return kExitOk;
    }

    std::string m_output = "-";
};

const StoreCommandTraits kImport = {
    "import", "write records from a file, many per commit",
    "Reads records from FILE ('-': standard input) as 'store export', 'scan' and\n"
    "'find' write them (--format text: each after a line '# record N'; --format\n"
    "json: one object per line) and puts each whole, many records per commit of\n"
    "the store, in the order of the input (a record given twice ends as its last\n"
    "line says). A bad line (one that does not parse, or a record the store\n"
    "refuses) stops the import: the records before it are written, none after\n"
    "it, and the error names its line and how many were written. With\n"
    "--skip-bad the other records are written and every bad line is listed at\n"
    "the end; the exit status is 1 still, as the input was not all written. A\n"
    "progress bar shows on a terminal; the last line on standard error says how\n"
    "many records were written.\n",
    StoreAccess::kWrite, true, nullptr};

class ImportCommand : public TableCommand {
public:
    explicit ImportCommand(CLI::App* parent) : TableCommand(parent, kImport) {
        ReadsFile(app()->add_option("FILE", m_input, "the records: a file, or '-' for standard input")
                      ->type_name("FILE")
                      ->required());
        app()->add_flag("--skip-bad", m_skip_bad, "write the other records when a line is bad, and list every bad line at the end");
        NameRecordFormat(app(), "read");
        CountRepeatedLogLines();
    }

private:
    // A piece of the input, parsed on the reading thread: records, each
    // with its line, and what ended the piece.
    struct Piece {
        std::vector<std::unique_ptr<Message>> records;  // the first `count` hold records
        std::vector<uint64_t> lines;
        size_t count = 0;
        std::string bad;  // the error of the bad line that ended the piece, if one did
        uint64_t bad_line = 0;
        bool last = false;  // the input ended
    };
    using PieceHandoff = Handoff<std::unique_ptr<Piece>>;

    // The input is parsed on a thread of its own, a piece at a time, while
    // the store writes the piece before.
    int RunOnTable() override {
        std::ifstream file;
        if (m_input != "-") {
            file.open(m_input, std::ios::binary);
            if (!file) throw Failure("cannot read " + m_input + ": " + std::strerror(errno));
        }
        std::istream& in = m_input != "-" ? static_cast<std::istream&>(file) : std::cin;
        m_progress.reset(new Progress("records", 0, Progress::Elsewhere::kQuiet, std::cerr));
        if (m_progress->terminal() && m_input != "-") m_progress->SetTotal(CountRecords());
        RecordInput input(in, record_format(), DisplayName(m_input), table_type());
        PieceHandoff empty(kPiecesInFlight);
        PieceHandoff parsed(kPiecesInFlight);
        for (size_t i = 0; i < kPiecesInFlight; ++i) {
            std::unique_ptr<Piece> piece(new Piece);
            for (size_t j = 0; j < kRecordsPerWrite; ++j) piece->records.push_back(NewMessage());
            piece->lines.resize(kRecordsPerWrite);
            empty.Push(std::move(piece));
        }
        Worker reader([&] { Parse(&input, &in, &empty, &parsed); },
                      [&] {
                          empty.Close();
                          parsed.Close();
                      });
        std::unique_ptr<Piece> piece;
        while (parsed.Pop(&piece)) {
            Write(*piece);
            if (!piece->bad.empty()) Bad(piece->bad_line, piece->bad);
            const bool last = piece->last;
            empty.Push(std::move(piece));
            if (last) break;
        }
        reader.Finish();
        std::string summary = "imported " + Records(m_written) + " in " + m_progress->Elapsed();
        if (!m_bad.empty()) summary += "; " + std::to_string(m_bad.size()) + " bad lines skipped";
        m_progress->Finish(summary);
        if (m_bad.empty()) return kExitOk;
        std::string list;
        for (const std::string& bad : m_bad) list += "\n" + bad;
        throw Failure(std::to_string(m_bad.size()) + (m_bad.size() == 1 ? " bad line was" : " bad lines were") +
                      " skipped:" + list);
    }

    // On the reading thread: fills the empty pieces from the input and hands
    // them over, until the input ends or the handoffs close.
    void Parse(RecordInput* input, std::istream* in, PieceHandoff* empty, PieceHandoff* parsed) const {
        std::unique_ptr<Piece> piece;
        while (empty->Pop(&piece)) {
            piece->count = 0;
            piece->bad.clear();
            const uint64_t from = input->bytes();
            for (;;) {
                std::string error;
                const RecordInput::Result result = input->Next(piece->records[piece->count].get(), &error);
                piece->last = result == RecordInput::Result::kEnd;
                if (result == RecordInput::Result::kBad) {
                    piece->bad = error;
                    piece->bad_line = input->line();
                }
                if (result != RecordInput::Result::kRecord) break;
                piece->lines[piece->count++] = input->line();
                if (piece->count == kRecordsPerWrite || input->bytes() - from >= kInputBytesPerWrite) break;
            }
            if (in->bad()) throw Failure("cannot read " + m_input + ": " + std::strerror(errno));
            const bool last = piece->last;
            if (!parsed->Push(std::move(piece)) || last) return;
        }
    }

    // The records of the input, for the total of the bar: its lines that
    // are not blank (JSON), or its "# record" lines (text).
    uint64_t CountRecords() const {
        std::ifstream in(m_input, std::ios::binary);
        uint64_t count = 0;
        for (std::string line; std::getline(in, line);) {
            count += json() ? line.find_first_not_of(" \t\r") != std::string::npos : line.rfind("# record ", 0) == 0;
        }
        return count;
    }

    // Writes the records of piece, going on after each record the store
    // refuses when bad lines are skipped.
    void Write(const Piece& piece) {
        size_t from = 0;
        while (from < piece.count) {
            std::vector<WriteOp> writes(piece.count - from);
            for (size_t i = from; i < piece.count; ++i) writes[i - from].message = piece.records[i].get();
            WriteReport report;
            const Status status = table().Write(writes, &report);
            m_written += report.written;
            m_progress->Advance(report.written);
            if (status.ok()) break;
            const size_t refused = from + report.written;
            if (!status.IsInvalidArgument()) {
                throw Failure(status.message() + "\nthe import stopped at line " + std::to_string(piece.lines[refused]) +
                              ": " + Records(m_written) + " written before it, none after it");
            }
            Bad(piece.lines[refused], DisplayName(m_input) + ":" + std::to_string(piece.lines[refused]) +
                                          ": the store refuses the record: " + status.message());
            from = refused + 1;
        }
    }

    // A bad line: the end of the import, or one more line to list at the end.
    void Bad(uint64_t line, const std::string& error) {
        if (m_skip_bad) {
            m_bad.push_back(error);
            return;
        }
        throw Failure(error + "\nthe import stopped at line " + std::to_string(line) + ": " + Records(m_written) +
                      " written before it, none after it");
    }

    std::string m_input;
    bool m_skip_bad = false;
    std::unique_ptr<Progress> m_progress;
    uint64_t m_written = 0;
    std::vector<std::string> m_bad;
};

const StoreCommandTraits kCount = {
    "count", "count the records of a table, of a shard or of an index value",
    "Prints how many records the table holds; with --shard-text, how many the\n"
    "shard of those sharding-key fields holds; with --index, how many records\n"
    "have the index fields of --text or --text-file. Records are counted by\n"
    "their keys, without being read.\n",
    StoreAccess::kRead, true, nullptr};

class CountCommand : public TableCommand {
public:
    explicit CountCommand(CLI::App* parent) : TableCommand(parent, kCount) {
        CLI::Option* shard = AddShardOption();
        CLI::Option* index =
            app()->add_option("--index", m_index, "count the records whose fields of this index equal those of --text")
                ->type_name("NAME")
                ->excludes(shard);
        AddTextOptions("the index fields (with --index)");
        text_option()->needs(index);
        text_file_option()->needs(index);
        m_index_option = index;
    }

private:
    int RunOnTable() override {
        if (Given(m_index_option) && !has_text()) throw UsageError("--index needs the index fields: --text or --text-file");
        uint64_t count = 0;
        std::unique_ptr<Message> shard = ShardFromArgs();
        if (Given(m_index_option)) {
            CheckStore(table().CountIndex(m_index, message(), &count));
        } else {
            CheckStore(table().Count(shard.get(), &count));
        }
        if (json()) {
            PrintJson(std::cout, {{"table", table_type()->full_name()}, {"records", count}});
        } else {
            std::cout << count << "\n";
        }
        return kExitOk;
    }

    std::string m_index;
    CLI::Option* m_index_option = nullptr;
};

const StoreCommandTraits kVerify = {
    "verify", "check that every record has its entries and every entry its record",
    "Reads the whole table at one state and checks that every record has its\n"
    "index and shard entries and that every entry has its record, then prints\n"
    "what it went through and what is wrong. Exit status 0 when nothing is, 3\n"
    "when entries are missing or left over, 1 when the table cannot be read. A\n"
    "progress bar shows on a terminal. 'store repair' leaves a damaged store\n"
    "readable; this says whether its tables are whole.\n",
    StoreAccess::kRead, true, nullptr};

class VerifyCommand : public TableCommand {
public:
    explicit VerifyCommand(CLI::App* parent) : TableCommand(parent, kVerify) { CountRepeatedLogLines(); }

private:
    int RunOnTable() override {
        std::unique_ptr<Progress> progress = TableProgress(table());
        VerifyCounts counts;
        Progress* bar = progress.get();
        const Status status = table().Verify(&counts, [bar](uint64_t records) { bar->Advance(records - bar->done()); });
        const bool whole = counts.missing == 0 && counts.orphans == 0;
        // A table that cannot be read is an error; one that reads with
        // entries wrong is the answer.
        if (whole) CheckStore(status);
        progress->Finish("verified " + Records(counts.records) + " in " + progress->Elapsed());
        if (json()) {
            PrintJson(std::cout, {{"table", table_type()->full_name()},
                                  {"records", counts.records},
                                  {"entries", counts.entries},
                                  {"missing", counts.missing},
                                  {"orphans", counts.orphans}});
        } else {
            std::cout << table_type()->full_name() << ": " << Records(counts.records) << ", " << counts.entries
                      << " index and shard entries: ";
            if (whole) {
                std::cout << "nothing wrong\n";
            } else {
                std::cout << counts.missing << " missing, " << counts.orphans << " without their record\n";
            }
        }
        return whole ? kExitOk : kExitNegative;
    }
};

}  // namespace

void AddStoreBulkCommands(CLI::App* group, std::vector<std::unique_ptr<Command>>* commands) {
    commands->push_back(std::make_unique<ExportCommand>(group));
    commands->push_back(std::make_unique<ImportCommand>(group));
    commands->push_back(std::make_unique<CountCommand>(group));
    commands->push_back(std::make_unique<VerifyCommand>(group));
}

}  // namespace corvida_pb
