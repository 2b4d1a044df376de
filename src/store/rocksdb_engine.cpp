#include "store/rocksdb_engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include <rocksdb/db.h>
#include <rocksdb/env.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/iterator.h>
#include <rocksdb/options.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>

namespace corvida {
namespace store {

namespace {

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------
// RocksDB's informational log, sent to the store's log category.
// ---------------------------------------------------------------------------

// Forwards RocksDB's warnings and errors to a plog category and, when asked,
// keeps them; everything below a warning is dropped. No file is written.
class CategoryLogger : public rocksdb::Logger {
public:
    CategoryLogger(LPPLOGCATEGORYINST category, std::vector<std::string>* kept)
        : rocksdb::Logger(rocksdb::InfoLogLevel::WARN_LEVEL), m_category(category), m_kept(kept) {}

    using rocksdb::Logger::Logv;
    void Logv(const rocksdb::InfoLogLevel level, const char* format, va_list ap) override {
        if (level < rocksdb::InfoLogLevel::WARN_LEVEL || level == rocksdb::InfoLogLevel::HEADER_LEVEL) return;
        const int priority = level == rocksdb::InfoLogLevel::WARN_LEVEL ? PLOG_PRIORITY_WARN : PLOG_PRIORITY_ERROR;
        const bool to_category = m_category != nullptr && plog_category_can_write(m_category, priority, 0, 0);
        if (!to_category && m_kept == nullptr) return;
        char line[1024];
        va_list copy;
        va_copy(copy, ap);
        std::vsnprintf(line, sizeof(line), format, copy);
        va_end(copy);
        if (to_category) {
            PLOGEVENT event = {priority, "corvida/src/store/rocksdb", 0, "rocksdb"};
            plog_category_logv(m_category, &event, "rocksdb: %s", line);
        }
        if (m_kept != nullptr) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_kept->emplace_back(line);
        }
    }

private:
    LPPLOGCATEGORYINST m_category;
    std::vector<std::string>* m_kept;
    std::mutex m_mutex;
};

// ---------------------------------------------------------------------------
// Files readable by their owner only.
// ---------------------------------------------------------------------------

// Gives every file RocksDB creates the mode 0600, whatever the umask: the
// store holds fields in plain.
class PrivateFileSystem : public rocksdb::FileSystemWrapper {
public:
    explicit PrivateFileSystem(const std::shared_ptr<rocksdb::FileSystem>& target)
        : rocksdb::FileSystemWrapper(target) {}

    const char* Name() const override { return "CorvidaPrivateFileSystem"; }

    rocksdb::IOStatus NewWritableFile(const std::string& name, const rocksdb::FileOptions& options,
                                      std::unique_ptr<rocksdb::FSWritableFile>* result,
                                      rocksdb::IODebugContext* debug) override {
        return Private(name, target()->NewWritableFile(name, options, result, debug));
    }
    rocksdb::IOStatus ReopenWritableFile(const std::string& name, const rocksdb::FileOptions& options,
                                         std::unique_ptr<rocksdb::FSWritableFile>* result,
                                         rocksdb::IODebugContext* debug) override {
        return Private(name, target()->ReopenWritableFile(name, options, result, debug));
    }
    rocksdb::IOStatus ReuseWritableFile(const std::string& name, const std::string& old_name,
                                        const rocksdb::FileOptions& options,
                                        std::unique_ptr<rocksdb::FSWritableFile>* result,
                                        rocksdb::IODebugContext* debug) override {
        return Private(name, target()->ReuseWritableFile(name, old_name, options, result, debug));
    }
    rocksdb::IOStatus NewRandomRWFile(const std::string& name, const rocksdb::FileOptions& options,
                                      std::unique_ptr<rocksdb::FSRandomRWFile>* result,
                                      rocksdb::IODebugContext* debug) override {
        return Private(name, target()->NewRandomRWFile(name, options, result, debug));
    }

private:
    static rocksdb::IOStatus Private(const std::string& name, rocksdb::IOStatus created) {
        if (created.ok() && ::chmod(name.c_str(), S_IRUSR | S_IWUSR) != 0) {
            return rocksdb::IOStatus::IOError("While making " + name + " private", std::strerror(errno));
        }
        return created;
    }
};

// ---------------------------------------------------------------------------
// Who holds a store.
// ---------------------------------------------------------------------------

// True when a process holds the write lock of the database in dir (the lock
// RocksDB takes with fcntl on the file LOCK); false when the file is missing.
// This process must not hold that lock itself: closing the descriptor of the
// question would release it (fcntl locks belong to the process, not to the
// descriptor). WriterRegistry asks only under that rule.
bool LockHeldByAnotherProcess(const std::string& dir) {
    const std::string lock_file = dir + "/LOCK";
    const int fd = ::open(lock_file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct flock query = {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    const bool held = ::fcntl(fd, F_GETLK, &query) == 0 && query.l_type != F_UNLCK;
    ::close(fd);
    return held;
}

// The stores this process holds for writing, by canonical directory. Every
// open for writing and every question about the lock goes through it, under
// one mutex, so that no question is asked while this process holds the lock
// it asks about.
class WriterRegistry {
public:
    static WriterRegistry& Instance() {
        static WriterRegistry* registry = new WriterRegistry;  // never destroyed: engines release at exit
        return *registry;
    }

    enum class Outcome { kOpened, kHeldHere, kHeldElsewhere, kFailed };

    // Runs open (a RocksDB open that takes the lock) unless this process holds
    // the store already; when open fails, tells whether another process holds
    // the lock.
    template <typename Open>
    Outcome OpenWriter(const std::string& canonical, const std::string& dir, Open open) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_held.count(canonical) != 0) return Outcome::kHeldHere;
        if (open()) {
            m_held.insert(canonical);
            return Outcome::kOpened;
        }
        return LockHeldByAnotherProcess(dir) ? Outcome::kHeldElsewhere : Outcome::kFailed;
    }

    // True while some process, this one included, holds the store for writing.
    bool WriterActive(const std::string& canonical, const std::string& dir) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_held.count(canonical) != 0 || LockHeldByAnotherProcess(dir);
    }

    void Release(const std::string& canonical) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_held.erase(canonical);
    }

private:
    std::mutex m_mutex;
    std::set<std::string> m_held;
};

// The canonical name of dir, so that two spellings of one directory are one
// store; dir itself when it cannot be resolved.
std::string Canonical(const std::string& dir) {
    std::error_code ec;
    const fs::path canonical = fs::weakly_canonical(dir, ec);
    return ec ? dir : canonical.string();
}

Status BusyStatus(const std::string& dir, bool here) {
    return Status::Busy("opening " + dir + ": the store is " +
                        (here ? "already open in this process" : "in use by another process"));
}

// ---------------------------------------------------------------------------
// The engine.
// ---------------------------------------------------------------------------

class RocksView : public ReadView {
public:
    explicit RocksView(rocksdb::DB* db) : m_db(db), m_snapshot(db->GetSnapshot()) {}
    ~RocksView() override { m_db->ReleaseSnapshot(m_snapshot); }
    const rocksdb::Snapshot* snapshot() const { return m_snapshot; }

private:
    rocksdb::DB* m_db;
    const rocksdb::Snapshot* m_snapshot;
};

class RocksEngine : public Engine {
public:
    RocksEngine(std::string dir, std::string held_as, std::unique_ptr<rocksdb::Env> env,
                std::shared_ptr<CategoryLogger> logger, const RocksEngineOptions& options)
        : m_dir(std::move(dir)),
          m_held_as(std::move(held_as)),
          m_env(std::move(env)),
          m_logger(std::move(logger)),
          m_read_only(options.read_only) {
        m_write_options.sync = options.sync;
    }

    ~RocksEngine() override {
        if (m_db != nullptr) m_db->Close().PermitUncheckedError();
        m_db.reset();
        if (!m_held_as.empty()) WriterRegistry::Instance().Release(m_held_as);
    }

    void Attach(std::unique_ptr<rocksdb::DB> db) { m_db = std::move(db); }

    const std::string& locator() const override { return m_dir; }
    const char* kind() const override { return "RocksDB database"; }
    bool read_only() const override { return m_read_only; }
    const EngineLimits& limits() const override { return m_limits; }

    Status NewView(std::unique_ptr<ReadView>* view) override {
        view->reset(new RocksView(m_db.get()));
        return Status::OK();
    }

    Status Get(const ReadView* view, std::string_view key, std::string* value, bool* found) override {
        rocksdb::ReadOptions options;
        options.snapshot = Snapshot(view);
        const rocksdb::Status s = m_db->Get(options, rocksdb::Slice(key.data(), key.size()), value);
        *found = s.ok();
        return s.ok() || s.IsNotFound() ? Status::OK() : FromRocks(s, "reading " + m_dir);
    }

    Status Scan(const ReadView* view, std::string_view begin, std::string_view end, const Visitor& visit) override {
        rocksdb::ReadOptions options;
        options.snapshot = Snapshot(view);
        const rocksdb::Slice upper(end.data(), end.size());
        if (!end.empty()) options.iterate_upper_bound = &upper;
        std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(options));
        for (it->Seek(rocksdb::Slice(begin.data(), begin.size())); it->Valid(); it->Next()) {
            if (!visit(std::string_view(it->key().data(), it->key().size()),
                       std::string_view(it->value().data(), it->value().size()))) {
                break;
            }
        }
        return FromRocks(it->status(), "reading " + m_dir);
    }

    Status Commit(const EngineBatch& batch, bool* committed) override {
        *committed = false;
        if (m_read_only) return Status::NotSupported(m_dir + " is open for reading only");
        // In key order, a batch of many records goes into the memtable far
        // faster: its skip list inserts each key next to the one before
        // instead of searching from the top. A stable sort keeps the order
        // of the operations on one key, so the batch means the same.
        std::vector<const EngineBatch::Op*> ops;
        ops.reserve(batch.ops().size());
        for (const EngineBatch::Op& op : batch.ops()) ops.push_back(&op);
        std::stable_sort(ops.begin(), ops.end(),
                         [](const EngineBatch::Op* a, const EngineBatch::Op* b) { return a->key < b->key; });
        rocksdb::WriteBatch write;
        for (const EngineBatch::Op* op : ops) {
            const rocksdb::Status s = op->kind == EngineBatch::Op::Kind::kPut ? write.Put(op->key, op->value)
                                                                               : write.Delete(op->key);
            if (!s.ok()) return FromRocks(s, "writing to " + m_dir);
        }
        std::vector<size_t> stripes;
        for (const EngineBatch::Condition& condition : batch.conditions()) stripes.push_back(Stripe(condition.key));
        std::sort(stripes.begin(), stripes.end());
        stripes.erase(std::unique(stripes.begin(), stripes.end()), stripes.end());
        for (size_t stripe : stripes) m_stripes[stripe].lock();
        Status status = CheckConditions(batch, committed);
        if (status.ok() && *committed) {
            status = FromRocks(m_db->Write(m_write_options, &write), "writing to " + m_dir);
            *committed = status.ok();
        }
        for (auto stripe = stripes.rbegin(); stripe != stripes.rend(); ++stripe) m_stripes[*stripe].unlock();
        return status;
    }

    Status Compact() override {
        if (m_read_only) return Status::NotSupported(m_dir + " is open for reading only");
        rocksdb::FlushOptions flush;
        Status status = FromRocks(m_db->Flush(flush), "compacting " + m_dir);
        if (!status.ok()) return status;
        rocksdb::CompactRangeOptions options;
        options.bottommost_level_compaction = rocksdb::BottommostLevelCompaction::kForce;
        return FromRocks(m_db->CompactRange(options, nullptr, nullptr), "compacting " + m_dir);
    }

private:
    static const rocksdb::Snapshot* Snapshot(const ReadView* view) {
        return view != nullptr ? static_cast<const RocksView*>(view)->snapshot() : nullptr;
    }

    size_t Stripe(const std::string& key) const { return std::hash<std::string>()(key) % m_stripes.size(); }

    // Called with the stripes of every condition held.
    Status CheckConditions(const EngineBatch& batch, bool* hold) {
        *hold = true;
        std::string value;
        for (const EngineBatch::Condition& condition : batch.conditions()) {
            const rocksdb::Status s = m_db->Get(rocksdb::ReadOptions(), condition.key, &value);
            if (!s.ok() && !s.IsNotFound()) return FromRocks(s, "reading " + m_dir);
            const bool present = s.ok();
            if (present != condition.present || (present && value != condition.value)) {
                *hold = false;
                return Status::OK();
            }
        }
        return Status::OK();
    }

    std::string m_dir;
    std::string m_held_as;  // the canonical directory, while this engine holds it for writing
    std::unique_ptr<rocksdb::Env> m_env;
    std::shared_ptr<CategoryLogger> m_logger;
    bool m_read_only;
    rocksdb::WriteOptions m_write_options;
    EngineLimits m_limits;
    std::array<std::mutex, 256> m_stripes;
    std::unique_ptr<rocksdb::DB> m_db;  // destroyed first
};

// RocksDB's options for a store.
rocksdb::Options DatabaseOptions(rocksdb::Env* env, const std::shared_ptr<rocksdb::Logger>& logger, bool create) {
    rocksdb::Options options;
    options.env = env;
    options.info_log = logger;
    options.create_if_missing = create;
    // A torn last record is a write that was in flight when the process or
    // machine stopped; damage before it refuses the open.
    options.wal_recovery_mode = rocksdb::WALRecoveryMode::kTolerateCorruptedTailRecords;
    // Statistics dumps are written to the info log, which keeps warnings only.
    options.stats_dump_period_sec = 0;
    options.stats_persist_period_sec = 0;
    // Every write of a new record reads its absent row marker, twice (when
    // staged, and as the commit's condition): a Bloom filter in each table
    // file answers "absent" without reading the file's blocks. Files written
    // before have none and are read as before.
    rocksdb::BlockBasedTableOptions table;
    table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10));
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
    return options;
}

// Opens the database read-only. A process writing the store may delete a file
// while the open reads the file list: such an open is tried again.
Status OpenReadOnly(const std::string& dir, const rocksdb::Options& base, std::unique_ptr<rocksdb::DB>* db) {
    rocksdb::Options options = base;
    options.max_open_files = -1;  // every table file opened now, and kept open
    const std::string canonical = Canonical(dir);
    rocksdb::Status s;
    for (int attempt = 0; attempt < 20; ++attempt) {
        rocksdb::DB* raw = nullptr;
        s = rocksdb::DB::OpenForReadOnly(options, dir, &raw);
        if (s.ok()) {
            db->reset(raw);
            return Status::OK();
        }
        if (!WriterRegistry::Instance().WriterActive(canonical, dir)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10 * (attempt + 1)));
    }
    return FromRocks(s, "opening " + dir);
}

// Opens the database for writing, waiting up to wait_seconds for another
// process's lock.
Status OpenReadWrite(const std::string& dir, const std::string& canonical, const rocksdb::Options& options,
                     double wait_seconds, std::unique_ptr<rocksdb::DB>* db) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait_seconds);
    for (;;) {
        rocksdb::Status s;
        const WriterRegistry::Outcome outcome = WriterRegistry::Instance().OpenWriter(canonical, dir, [&] {
            rocksdb::DB* raw = nullptr;
            s = rocksdb::DB::Open(options, dir, &raw);
            db->reset(raw);
            return s.ok();
        });
        switch (outcome) {
            case WriterRegistry::Outcome::kOpened: return Status::OK();
            case WriterRegistry::Outcome::kHeldHere: return BusyStatus(dir, true);
            case WriterRegistry::Outcome::kFailed: return FromRocks(s, "opening " + dir);
            case WriterRegistry::Outcome::kHeldElsewhere: break;
        }
        if (std::chrono::steady_clock::now() >= deadline) return BusyStatus(dir, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// Creates dir (and missing parents) with the mode 0700 for the store's own
// directory.
Status MakeDirectory(const std::string& dir) {
    std::error_code ec;
    const fs::path path(dir);
    if (path.has_parent_path() && !path.parent_path().empty()) fs::create_directories(path.parent_path(), ec);
    if (ec) return Status::IOError(dir + ": " + ec.message());
    if (::mkdir(dir.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return Status::IOError(dir + ": " + std::strerror(errno));
    }
    return Status::OK();
}

}  // namespace

Status InspectDir(const std::string& dir, DirState* state) {
    std::error_code ec;
    const fs::file_status st = fs::status(dir, ec);
    if (ec && ec != std::errc::no_such_file_or_directory) return Status::IOError(dir + ": " + ec.message());
    if (!fs::exists(st)) {
        *state = DirState::kMissingOrEmpty;
    } else if (!fs::is_directory(st)) {
        *state = DirState::kNotADirectory;
    } else if (fs::exists(fs::path(dir) / "CURRENT", ec)) {
        *state = DirState::kDatabase;
    } else {
        const bool empty = fs::is_empty(dir, ec);
        if (ec) return Status::IOError(dir + ": " + ec.message());
        *state = empty ? DirState::kMissingOrEmpty : DirState::kOtherFiles;
    }
    return Status::OK();
}

Status OpenRocksEngine(const std::string& dir, const RocksEngineOptions& options, std::unique_ptr<Engine>* engine,
                       NewStore* made) {
    *made = NewStore();
    DirState state;
    Status status = InspectDir(dir, &state);
    if (!status.ok()) return status;
    switch (state) {
        case DirState::kNotADirectory: return Status::InvalidArgument(dir + " is not a directory");
        case DirState::kOtherFiles:
            return Status::InvalidArgument(dir + " holds files but no table store; give an empty or new directory");
        case DirState::kMissingOrEmpty:
            if (!options.create_if_missing || options.read_only) return Status::NotFound("no table store in " + dir);
            break;
        case DirState::kDatabase: break;
    }

    std::shared_ptr<rocksdb::FileSystem> base =
        options.file_system != nullptr ? options.file_system : rocksdb::FileSystem::Default();
    std::unique_ptr<rocksdb::Env> env = rocksdb::NewCompositeEnv(std::make_shared<PrivateFileSystem>(base));
    auto logger = std::make_shared<CategoryLogger>(options.log, nullptr);
    const bool fresh = state == DirState::kMissingOrEmpty;
    const rocksdb::Options db_options = DatabaseOptions(env.get(), logger, fresh);
    std::unique_ptr<rocksdb::DB> db;

    if (options.read_only) {
        status = OpenReadOnly(dir, db_options, &db);
        if (!status.ok()) return status;
        auto opened = std::make_unique<RocksEngine>(dir, "", std::move(env), logger, options);
        opened->Attach(std::move(db));
        *engine = std::move(opened);
        return Status::OK();
    }

    if (fresh) {
        std::error_code ec;
        made->directory = !fs::exists(dir, ec);
        status = MakeDirectory(dir);
        if (!status.ok()) return status;
    }
    const std::string canonical = Canonical(dir);
    status = OpenReadWrite(dir, canonical, db_options, options.wait_seconds, &db);
    if (!status.ok()) {
        if (fresh) DiscardNewStore(dir, *made);
        return status;
    }
    auto opened = std::make_unique<RocksEngine>(dir, canonical, std::move(env), logger, options);
    opened->Attach(std::move(db));
    made->database = fresh;
    *engine = std::move(opened);
    return Status::OK();
}

void DiscardNewStore(const std::string& dir, const NewStore& made) {
    std::error_code ec;
    if (made.directory) {
        fs::remove_all(dir, ec);
        return;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(dir, ec)) fs::remove_all(entry.path(), ec);
}

Status RepairRocksDatabase(const std::string& dir, std::vector<std::string>* report) {
    if (WriterRegistry::Instance().WriterActive(Canonical(dir), dir)) return BusyStatus(dir, false);
    std::unique_ptr<rocksdb::Env> env =
        rocksdb::NewCompositeEnv(std::make_shared<PrivateFileSystem>(rocksdb::FileSystem::Default()));
    auto logger = std::make_shared<CategoryLogger>(nullptr, report);
    rocksdb::Options options = DatabaseOptions(env.get(), logger, false);
    // First the logs: replay everything that reads, skipping damaged records.
    options.wal_recovery_mode = rocksdb::WALRecoveryMode::kSkipAnyCorruptedRecords;
    rocksdb::DB* raw = nullptr;
    rocksdb::Status s = rocksdb::DB::Open(options, dir, &raw);
    if (s.ok()) {
        std::unique_ptr<rocksdb::DB> db(raw);
        // The salvaged state goes into table files, so that the damaged logs
        // are no longer needed.
        s = db->Flush(rocksdb::FlushOptions());
        if (s.ok()) s = db->Close();
        return FromRocks(s, "repairing " + dir);
    }
    // The file list itself is damaged: rebuild it from the table files.
    report->push_back("the database does not open (" + s.ToString() + "); rebuilding its file list from its files");
    s = rocksdb::RepairDB(dir, options);
    return FromRocks(s, "repairing " + dir);
}

Status FromRocks(const rocksdb::Status& s, const std::string& context) {
    if (s.ok()) return Status::OK();
    const std::string message = context + ": " + s.ToString();
    if (s.IsNoSpace()) return Status::IOError(context + ": the disk is full (" + s.ToString() + ")");
    if (s.IsCorruption()) return Status::Corruption(message);
    if (s.IsNotFound()) return Status::NotFound(message);
    if (s.IsNotSupported()) return Status::NotSupported(message);
    if (s.IsInvalidArgument()) return Status::InvalidArgument(message);
    return Status::IOError(message);
}

}  // namespace store
}  // namespace corvida
