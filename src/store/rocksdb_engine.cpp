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
#include <shared_mutex>
#include <system_error>
#include <thread>

#include <rocksdb/cache.h>
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

// Forwards RocksDB's warnings and errors to a plog category and keeps the
// last of them, for the messages of a failed open (RocksDB's own status of a
// damaged log does not name the file; its warning does). Everything below a
// warning is dropped. No file is written.
class CategoryLogger : public rocksdb::Logger {
public:
    explicit CategoryLogger(LPPLOGCATEGORYINST category)
        : rocksdb::Logger(rocksdb::InfoLogLevel::WARN_LEVEL), m_category(category) {}

    using rocksdb::Logger::Logv;
    void Logv(const rocksdb::InfoLogLevel level, const char* format, va_list ap) override {
        if (level < rocksdb::InfoLogLevel::WARN_LEVEL || level == rocksdb::InfoLogLevel::HEADER_LEVEL) return;
        const int priority = level == rocksdb::InfoLogLevel::WARN_LEVEL ? PLOG_PRIORITY_WARN : PLOG_PRIORITY_ERROR;
        char line[1024];
        va_list copy;
        va_copy(copy, ap);
        std::vsnprintf(line, sizeof(line), format, copy);
        va_end(copy);
        if (m_category != nullptr && plog_category_can_write(m_category, priority, 0, 0)) {
            PLOGEVENT event = {priority, "corvida/src/store/rocksdb", 0, "rocksdb"};
            plog_category_logv(m_category, &event, "rocksdb: %s", line);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_kept.emplace_back(line);
        if (m_kept.size() > kKept) m_kept.erase(m_kept.begin());
    }

    // The lines kept since the last call, and forgets them.
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> lines;
        lines.swap(m_kept);
        return lines;
    }

private:
    static constexpr size_t kKept = 64;

    LPPLOGCATEGORYINST m_category;
    std::mutex m_mutex;
    std::vector<std::string> m_kept;
};

// A failed open's status with the names of the damaged files that RocksDB's
// warnings gave.
Status OpenFailure(const rocksdb::Status& s, const std::string& dir, CategoryLogger* logger) {
    Status status = FromRocks(s, "opening " + dir);
    if (!s.IsCorruption()) return status;
    std::string files;
    for (const std::string& line : logger->Take()) {
        size_t at = line.find(dir);
        while (at != std::string::npos) {
            size_t end = at + dir.size();
            while (end < line.size() && line[end] != ':' && line[end] != ' ' && line[end] != ',') ++end;
            const std::string file = line.substr(at, end - at);
            if (file.size() > dir.size() + 1 && files.find(file) == std::string::npos) {
                files += (files.empty() ? "" : ", ") + file;
            }
            at = line.find(dir, end);
        }
    }
    if (files.empty()) return status;
    return Status::Corruption(status.message() + " (in " + files +
                              "); corvida-pb store repair salvages what can be read");
}

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

// The environment of a store: the target's own files and clock, used
// directly, and RocksDB's background threads started when the database first
// schedules work for them (a flush or a compaction), not when it opens. A
// command that opens a store, reads or writes a record and closes it mostly
// schedules nothing, and then starts no thread; a store opened for reading
// only never does.
class StoreEnv : public rocksdb::EnvWrapper {
public:
    explicit StoreEnv(std::unique_ptr<rocksdb::Env> target) : rocksdb::EnvWrapper(std::move(target)) {
        file_system_ = this->target()->GetFileSystem();
        system_clock_ = this->target()->GetSystemClock();
    }

    const char* Name() const override { return "CorvidaStoreEnv"; }

    void IncBackgroundThreadsIfNeeded(int number, Priority pri) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_wanted[pri] = std::max(m_wanted[pri], number);
    }

    int GetBackgroundThreads(Priority pri) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::max(m_wanted[pri], target()->GetBackgroundThreads(pri));
    }

    void Schedule(void (*function)(void* arg), void* arg, Priority pri, void* tag,
                  void (*unschedule)(void* arg)) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_wanted[pri] > 0) target()->IncBackgroundThreadsIfNeeded(m_wanted[pri], pri);
        }
        target()->Schedule(function, arg, pri, tag, unschedule);
    }

private:
    std::mutex m_mutex;
    std::array<int, Priority::TOTAL> m_wanted{};  // threads the database asked for, by pool
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

// A snapshot, and one iterator at it that the view's bounded scans share: a
// read of many short ranges at one view (a lookup's entries and then its
// rows, a shard's rows one after another) seeks one iterator instead of
// building one per range, as RocksDB builds them over every memtable and
// table file. A scan that starts while another is running at the view (a
// visitor that reads at the view it is called from) gets an iterator of its
// own.
class RocksView : public ReadView {
public:
    explicit RocksView(rocksdb::DB* db) : m_db(db), m_snapshot(db->GetSnapshot()) {}
    ~RocksView() override {
        m_iterator.reset();  // before the snapshot it reads at
        m_db->ReleaseSnapshot(m_snapshot);
    }
    const rocksdb::Snapshot* snapshot() const { return m_snapshot; }

    // The view's iterator, bounded by end (not empty) until the next call,
    // or null while a scan holds it. Released by ReleaseIterator.
    rocksdb::Iterator* AcquireIterator(std::string_view end) const {
        if (m_iterator_busy) return nullptr;
        // RocksDB reads the bound through its pointer at each seek and step,
        // so a new bound holds for the seek that follows.
        m_upper.assign(end.data(), end.size());
        m_upper_slice = rocksdb::Slice(m_upper);
        if (m_iterator == nullptr) {
            rocksdb::ReadOptions options;
            options.snapshot = m_snapshot;
            options.iterate_upper_bound = &m_upper_slice;
            m_iterator.reset(m_db->NewIterator(options));
        }
        m_iterator_busy = true;
        return m_iterator.get();
    }
    void ReleaseIterator() const { m_iterator_busy = false; }

private:
    rocksdb::DB* m_db;
    const rocksdb::Snapshot* m_snapshot;
    // A view is used by one thread at a time; its reads are const.
    mutable std::string m_upper;
    mutable rocksdb::Slice m_upper_slice;
    mutable std::unique_ptr<rocksdb::Iterator> m_iterator;
    mutable bool m_iterator_busy = false;
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
        const RocksView* const at = static_cast<const RocksView*>(view);
        rocksdb::Iterator* const shared = at != nullptr && !end.empty() ? at->AcquireIterator(end) : nullptr;
        if (shared != nullptr) {
            const Status status = Visit(shared, begin, end, visit);
            at->ReleaseIterator();
            return status;
        }
        rocksdb::ReadOptions options;
        options.snapshot = Snapshot(view);
        const rocksdb::Slice upper(end.data(), end.size());
        if (!end.empty()) options.iterate_upper_bound = &upper;
        std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(options));
        return Visit(it.get(), begin, end, visit);
    }

    bool ViewPosition(const ReadView* view, uint64_t* position) const override {
        if (view == nullptr) return false;
        *position = Snapshot(view)->GetSequenceNumber();
        return true;
    }

    // A commit holds its stripes exclusively from before its write until
    // their sequence numbers say it wrote. Both states were taken before this
    // call, so a commit that either of them sees has written by then, and
    // once the stripe's lock is had here its stripe says so: a commit that
    // one sees and the other does not leaves the stripe's number above the
    // older state.
    bool KeyUnchanged(std::string_view key, uint64_t position, const ReadView* view) override {
        if (view == nullptr) return false;
        StripeState& stripe = m_stripes[StripeOf(key)];
        const rocksdb::SequenceNumber at = Snapshot(view)->GetSequenceNumber();
        std::shared_lock<std::shared_mutex> lock(stripe.mutex);
        return stripe.written <= std::min<rocksdb::SequenceNumber>(position, at);
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
        rocksdb::WriteBatch write(batch.ByteSize() + kBatchOverhead * batch.ops().size());
        for (const EngineBatch::Op* op : ops) {
            const rocksdb::Status s = op->kind == EngineBatch::Op::Kind::kPut ? write.Put(op->key, op->value)
                                                                               : write.Delete(op->key);
            if (!s.ok()) return FromRocks(s, "writing to " + m_dir);
        }
        const std::vector<StripeLock> locks = StripeLocks(batch);
        for (const StripeLock& lock : locks) {
            if (lock.exclusive) {
                m_stripes[lock.stripe].mutex.lock();
            } else {
                m_stripes[lock.stripe].mutex.lock_shared();
            }
        }
        Status status = CheckConditions(batch, committed);
        if (status.ok() && *committed) {
            const rocksdb::Status s = m_db->Write(m_write_options, &write);
            if (!s.ok()) status = FromRocks(s, "writing to " + m_dir);
            *committed = status.ok();
            // At or after the sequence number of this write: a view taken
            // before it is older than the stripes it wrote.
            const rocksdb::SequenceNumber written = m_db->GetLatestSequenceNumber();
            for (const StripeLock& lock : locks) {
                if (lock.exclusive) m_stripes[lock.stripe].written = written;
            }
        }
        for (auto lock = locks.rbegin(); lock != locks.rend(); ++lock) {
            if (lock->exclusive) {
                m_stripes[lock->stripe].mutex.unlock();
            } else {
                m_stripes[lock->stripe].mutex.unlock_shared();
            }
        }
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
    // Visits [begin, end) with it, whose upper bound is end (none when end
    // is empty). The keys are checked against end as well, so that a bound
    // RocksDB did not take up for a reused iterator costs steps, never keys.
    Status Visit(rocksdb::Iterator* it, std::string_view begin, std::string_view end, const Visitor& visit) const {
        const rocksdb::Slice limit(end.data(), end.size());
        for (it->Seek(rocksdb::Slice(begin.data(), begin.size())); it->Valid(); it->Next()) {
            if (!end.empty() && it->key().compare(limit) >= 0) break;
            if (!visit(std::string_view(it->key().data(), it->key().size()),
                       std::string_view(it->value().data(), it->value().size()))) {
                break;
            }
        }
        // The message is made only when there is one to give.
        return it->status().ok() ? Status::OK() : FromRocks(it->status(), "reading " + m_dir);
    }

    static const rocksdb::Snapshot* Snapshot(const ReadView* view) {
        return view != nullptr ? static_cast<const RocksView*>(view)->snapshot() : nullptr;
    }

    size_t StripeOf(std::string_view key) const { return std::hash<std::string_view>()(key) % m_stripes.size(); }

    struct StripeLock {
        size_t stripe;
        bool exclusive;
    };

    // The stripes of a batch's keys, in stripe order (so that concurrent
    // commits never wait for each other in a circle): exclusive for a key the
    // batch writes, shared for one it only checks (the schema stamp of a
    // table, which every write of the table checks and only an alter
    // writes), so that the writes of different records of one table commit
    // side by side.
    std::vector<StripeLock> StripeLocks(const EngineBatch& batch) const {
        std::vector<StripeLock> locks;
        locks.reserve(batch.ops().size() + batch.conditions().size());
        for (const EngineBatch::Op& op : batch.ops()) locks.push_back(StripeLock{StripeOf(op.key), true});
        for (const EngineBatch::Condition& condition : batch.conditions()) {
            locks.push_back(StripeLock{StripeOf(condition.key), false});
        }
        std::sort(locks.begin(), locks.end(), [](const StripeLock& a, const StripeLock& b) {
            return a.stripe < b.stripe || (a.stripe == b.stripe && a.exclusive && !b.exclusive);
        });
        // One lock per stripe, exclusive when any of its keys needs it.
        std::vector<StripeLock> merged;
        for (const StripeLock& lock : locks) {
            if (merged.empty() || merged.back().stripe != lock.stripe) merged.push_back(lock);
        }
        return merged;
    }

    // Called with the stripes of the batch held. A condition read at a view
    // holds without a read when no commit wrote its stripe since that view:
    // the key is as the view saw it.
    Status CheckConditions(const EngineBatch& batch, bool* hold) {
        *hold = true;
        std::string value;
        for (const EngineBatch::Condition& condition : batch.conditions()) {
            if (condition.read_at != nullptr &&
                m_stripes[StripeOf(condition.key)].written <= Snapshot(condition.read_at)->GetSequenceNumber()) {
                continue;
            }
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

    // Commits changing keys of one stripe are serialized by its lock, held
    // shared by commits that only check a key of it; the lock also guards
    // the sequence number at or after the last commit that changed a key of
    // it (0: none since the open; no other process writes meanwhile).
    struct StripeState {
        std::shared_mutex mutex;
        rocksdb::SequenceNumber written = 0;
    };

    // Bytes a write batch adds to each key and value (a tag and two
    // lengths), so that building one allocates once.
    static constexpr size_t kBatchOverhead = 12;

    std::string m_dir;
    std::string m_held_as;  // the canonical directory, while this engine holds it for writing
    std::unique_ptr<rocksdb::Env> m_env;
    std::shared_ptr<CategoryLogger> m_logger;
    bool m_read_only;
    rocksdb::WriteOptions m_write_options;
    EngineLimits m_limits;
    std::array<StripeState, 256> m_stripes;
    std::unique_ptr<rocksdb::DB> m_db;  // destroyed first
};

// The size of the table files compactions write.
constexpr uint64_t kTableFileBytes = 8 << 20;

// The bits per key of the Bloom filter in each table file.
constexpr int kBloomBitsPerKey = 10;

// The block cache of a store: index, filter and data blocks, filled as reads
// need them. Four shards of 16 MiB: one holds the index of a file of a
// gigabyte.
constexpr size_t kBlockCacheBytes = 64 << 20;
constexpr int kBlockCacheShardBits = 2;

// The table options of readers and writers alike. Every write of a new
// record reads its absent row marker, twice (when staged, and as the
// commit's condition): a Bloom filter in each table file answers "absent"
// without reading the file's blocks (files written before have none and are
// read as before). The index and filter blocks of a table file go to the
// block cache when a read first needs them, not when the store is opened:
// a command that reads or writes one record loads those of the few files
// its keys fall in, where loading them all (RocksDB's default) is most of
// the work of opening a large store. Level 0 files are read at open all the
// same, and theirs stay pinned: every read looks at them.
rocksdb::BlockBasedTableOptions TableOptions() {
    rocksdb::BlockBasedTableOptions table;
    table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(kBloomBitsPerKey));
    table.cache_index_and_filter_blocks = true;
    table.pin_l0_filter_and_index_blocks_in_cache = true;
    table.block_cache = NewStoreBlockCache();
    return table;
}

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
    // Every table file is opened at open, by the opening thread.
    options.max_open_files = -1;
    options.max_file_opening_threads = 1;
    // Universal compaction merges the newest small runs with each other and
    // rewrites the large ones seldom. A store written by one command after
    // another gets a small run per command (its write-ahead log, flushed at
    // the next open); merging those takes a command milliseconds, so it ends
    // before the command closes the store. Leveled compaction would merge
    // them into all of level 1 (each record has keys all over the key
    // space), a merge that a short command abandons at close: the runs would
    // pile up until writes stall for one long merge.
    options.compaction_style = rocksdb::kCompactionStyleUniversal;
    // Small table files: a reader loads the index of the files a read
    // touches (see OpenReadOnly), so a smaller file costs it less.
    options.target_file_size_base = kTableFileBytes;
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(TableOptions()));
    return options;
}

// Opens the database read-only. A process writing the store may delete a file
// while the open reads the file list: such an open is tried again.
Status OpenReadOnly(const std::string& dir, const rocksdb::Options& options, CategoryLogger* logger,
                    std::unique_ptr<rocksdb::DB>* db) {
    // Every table file opened now, and kept open (max_open_files -1). The
    // open with column families goes straight to the read-only database; the
    // plain one first tries to open the files as a fully compacted database
    // and, for any other, opens every file a second time.
    const rocksdb::DBOptions db_options(options);
    const rocksdb::ColumnFamilyOptions family(options);
    const std::vector<rocksdb::ColumnFamilyDescriptor> families = {
        rocksdb::ColumnFamilyDescriptor(rocksdb::kDefaultColumnFamilyName, family)};
    const std::string canonical = Canonical(dir);
    rocksdb::Status s;
    for (int attempt = 0; attempt < 20; ++attempt) {
        rocksdb::DB* raw = nullptr;
        std::vector<rocksdb::ColumnFamilyHandle*> handles;
        s = rocksdb::DB::OpenForReadOnly(db_options, dir, families, &handles, &raw);
        if (s.ok()) {
            db->reset(raw);
            // Reads go to the default column family, which the database
            // keeps a handle of its own to.
            for (rocksdb::ColumnFamilyHandle* handle : handles) {
                raw->DestroyColumnFamilyHandle(handle).PermitUncheckedError();
            }
            return Status::OK();
        }
        if (!WriterRegistry::Instance().WriterActive(canonical, dir)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10 * (attempt + 1)));
    }
    return OpenFailure(s, dir, logger);
}

// True when s is RocksDB's refusal of the lock file of dir: another process
// held it at that moment. Only that exact text counts (a store whose name
// merely contains "lock" fails for its own reasons).
bool LockRefused(const rocksdb::Status& s, const std::string& dir) {
    if (!s.IsIOError()) return false;
    const std::string text = s.ToString();
    const std::string refusal = "While lock file: " + dir + "/LOCK: ";
    const size_t at = text.find(refusal);
    if (at == std::string::npos) return false;
    const std::string cause = text.substr(at + refusal.size());
    return cause.rfind(std::strerror(EAGAIN), 0) == 0 || cause.rfind(std::strerror(EACCES), 0) == 0;
}

// Opens the database for writing, waiting up to wait_seconds for another
// process's lock.
Status OpenReadWrite(const std::string& dir, const std::string& canonical, const rocksdb::Options& options,
                     double wait_seconds, CategoryLogger* logger, std::unique_ptr<rocksdb::DB>* db) {
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
            case WriterRegistry::Outcome::kFailed:
                if (!LockRefused(s, dir)) return OpenFailure(s, dir, logger);
                break;  // the other process let go between its refusal and the question
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

std::shared_ptr<rocksdb::Cache> NewStoreBlockCache() {
    return rocksdb::NewLRUCache(kBlockCacheBytes, kBlockCacheShardBits);
}

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
    std::unique_ptr<rocksdb::Env> env =
        std::make_unique<StoreEnv>(rocksdb::NewCompositeEnv(std::make_shared<PrivateFileSystem>(base)));
    auto logger = std::make_shared<CategoryLogger>(options.log);
    const bool fresh = state == DirState::kMissingOrEmpty;
    const rocksdb::Options db_options = DatabaseOptions(env.get(), logger, fresh);
    std::unique_ptr<rocksdb::DB> db;

    if (options.read_only) {
        status = OpenReadOnly(dir, db_options, logger.get(), &db);
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
    status = OpenReadWrite(dir, canonical, db_options, options.wait_seconds, logger.get(), &db);
    if (!status.ok()) {
        if (fresh) DiscardNewStore(dir, *made);
        return status;
    }
    // RocksDB makes its lock file with the umask's mode; it holds nothing,
    // but a store's directory holds nothing that others may read.
    ::chmod((dir + "/LOCK").c_str(), S_IRUSR | S_IWUSR);
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
    auto logger = std::make_shared<CategoryLogger>(nullptr);
    rocksdb::Options options = DatabaseOptions(env.get(), logger, false);
    // First the logs: replay everything that reads, skipping damaged records,
    // and put the salvaged state into table files, so that the damaged logs
    // are no longer needed.
    options.wal_recovery_mode = rocksdb::WALRecoveryMode::kSkipAnyCorruptedRecords;
    rocksdb::DB* raw = nullptr;
    rocksdb::Status s = rocksdb::DB::Open(options, dir, &raw);
    if (s.ok()) {
        std::unique_ptr<rocksdb::DB> db(raw);
        s = db->Flush(rocksdb::FlushOptions());
        if (s.ok()) s = db->Close();
    } else {
        // The file list itself is damaged: rebuild it from the files.
        report->push_back("the database does not open (" + s.ToString() + "); its file list is rebuilt from its files");
        s = rocksdb::RepairDB(dir, options);
    }
    for (std::string& line : logger->Take()) report->push_back(std::move(line));
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
