// Engine: the ordered key-value store under a table store. Private to the
// store.
//
// The record model (keys, stored fields, index and shard entries, the
// catalog) is written once over this interface; each engine maps it onto a
// real database (RocksDB in one directory, or an etcd cluster). What the
// model needs of an engine is small:
//
//   - point reads and range reads of byte-ordered keys;
//   - views: every read through one ReadView sees one state of the data,
//     whatever commits in between (a RocksDB snapshot, an etcd revision);
//   - conditional commits: an EngineBatch of puts and deletes applied all or
//     nothing, and only when each of its conditions (a key holds the value
//     it was read with, or is absent) still holds. A writer reads, builds its
//     batch with the values it read as conditions, and commits; when another
//     writer got there first the commit reports so and nothing is applied,
//     and the writer reads again. Writers in many threads, processes or
//     machines are serialized this way without a lock.
//
// Every call returns a Status and throws nothing. An Engine may be used from
// many threads at once; a ReadView from one thread at a time.
#ifndef CORVIDA_STORE_ENGINE_H_
#define CORVIDA_STORE_ENGINE_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/status.h"

namespace corvida {
namespace store {

// One state of the data that reads can be taken at.
class ReadView {
public:
    virtual ~ReadView() = default;
};

// The changes of one atomic commit and the conditions it commits under.
class EngineBatch {
public:
    struct Condition {
        std::string key;
        bool present;       // false: the key must be absent
        std::string value;  // when present: the value the key must hold
        // A view at which the key was as the condition says (the writer read
        // it there), or null. An engine that can tell that nothing wrote the
        // key since that view holds the condition true without reading the
        // key again.
        const ReadView* read_at;
    };
    struct Op {
        enum class Kind { kPut, kDelete };
        Kind kind;
        std::string key;
        std::string value;  // of a put
    };

    // Commit only while key holds value. read_at (may be null) is the view
    // the value was read at; it must stay alive until the batch is committed.
    void ExpectValue(std::string_view key, std::string_view value, const ReadView* read_at = nullptr);
    // Commit only while key is absent, as it was at read_at (may be null).
    void ExpectAbsent(std::string_view key, const ReadView* read_at = nullptr);

    void Put(std::string_view key, std::string_view value);
    void Delete(std::string_view key);

    // Moves the conditions and operations of other to the end of this batch
    // (a record staged on its own joins a commit of many); other is left
    // empty.
    void Append(EngineBatch&& other);

    const std::vector<Condition>& conditions() const { return m_conditions; }
    const std::vector<Op>& ops() const { return m_ops; }
    bool empty() const { return m_ops.empty(); }

    // What the batch asks of an engine's limits: operations, counted as an
    // etcd transaction counts them (its conditions and its changes are two
    // lists, each held to the limit on its own: the longer one counts), and
    // bytes of keys and values.
    size_t OperationCount() const { return std::max(m_conditions.size(), m_ops.size()); }
    size_t ByteSize() const { return m_bytes; }

    void Clear();

private:
    std::vector<Condition> m_conditions;
    std::vector<Op> m_ops;
    size_t m_bytes = 0;
};

// What one commit of an engine may hold; 0 means no limit.
struct EngineLimits {
    size_t max_operations = 0;
    size_t max_bytes = 0;
    // The setting of the engine that bounds each, for messages
    // ("--max-txn-ops of the etcd cluster").
    std::string operations_setting;
    std::string bytes_setting;
};

class Engine {
public:
    // Called with each key and value of a range, in key order; both are valid
    // during the call only. Returning false stops the scan.
    using Visitor = std::function<bool(std::string_view key, std::string_view value)>;

    virtual ~Engine() = default;

    // Where the engine's data is: the directory, or the etcd endpoints and
    // namespace, as given when it was opened.
    virtual const std::string& locator() const = 0;

    // What the locator names, for messages: "RocksDB database", "etcd
    // namespace".
    virtual const char* kind() const = 0;

    // True when the engine was opened for reading only: Commit refuses.
    virtual bool read_only() const = 0;

    virtual const EngineLimits& limits() const = 0;

    // A view of the data as it is now.
    virtual Status NewView(std::unique_ptr<ReadView>* view) = 0;

    // A view whose state is fixed by its first read rather than by this
    // call: it sees every commit acknowledged before this call, and its
    // reads see one state, as any view's. For a reader that reads at once
    // (a write, a lookup): where taking a view asks the database (etcd),
    // this one asks nothing until that first read.
    virtual Status NewLazyView(std::unique_ptr<ReadView>* view) { return NewView(view); }

    // Reads key at view (null: the latest state). *found is false, and the
    // status ok, when the key is absent.
    virtual Status Get(const ReadView* view, std::string_view key, std::string* value, bool* found) = 0;

    // Reads that an engine can answer without asking the database: where
    // every commit to the data goes through this engine object (RocksDB,
    // whose writer holds a lock; a read-only open, which sees the state of
    // its open), it can tell that a key is as an earlier view saw it. An
    // engine whose data other processes write (etcd) cannot, and keeps the
    // defaults: no position, nothing known unchanged.
    //
    // The position of view among the states of the data, for KeyUnchanged.
    virtual bool ViewPosition(const ReadView* view, uint64_t* position) const {
        (void)view;
        (void)position;
        return false;
    }
    // True when no commit changed key between the state at position and the
    // one view sees (either may be the older), so that key reads at view as
    // it read at position; false when it did or the engine cannot tell.
    virtual bool KeyUnchanged(std::string_view key, uint64_t position, const ReadView* view) {
        (void)key;
        (void)position;
        (void)view;
        return false;
    }

    // Visits the keys of [begin, end) in byte order at view (null: one state
    // taken for the whole scan), until visit returns false. An empty end
    // means no upper bound.
    virtual Status Scan(const ReadView* view, std::string_view begin, std::string_view end,
                        const Visitor& visit) = 0;

    // Applies batch atomically when every condition holds, and sets
    // *committed. When a condition does not hold nothing is applied,
    // *committed is false and the status ok. A batch that exceeds limits()
    // is refused with kInvalidArgument naming the setting, nothing applied.
    virtual Status Commit(const EngineBatch& batch, bool* committed) = 0;

    // Rewrites the engine's files so that deleted data leaves them (RocksDB:
    // a full compaction). kNotSupported where the engine cannot.
    virtual Status Compact() = 0;
};

// Checks batch against limits: kInvalidArgument naming the setting when it
// does not fit. what names the write ("table T: writing a record").
Status CheckLimits(const EngineBatch& batch, const EngineLimits& limits, const std::string& what);

// The smallest key above every key that begins with prefix ("" when there is
// none: prefix is empty or all 0xff bytes), for the end of a prefix scan.
std::string PrefixEnd(std::string_view prefix);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ENGINE_H_
