// What the store's calls borrow and share: the bridge's large scratch
// records, a log category that keeps error lines for messages, and the guard
// that keeps exceptions inside the store. Private to the store.
#ifndef CORVIDA_STORE_SCRATCH_H_
#define CORVIDA_STORE_SCRATCH_H_

#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"
#include "protocol/idl_tbl.h"
#include "store/rows.h"
#include "store/status.h"

namespace corvida {
namespace store {

// Runs body, which returns a Status, and returns what it returns. An
// exception thrown inside (an allocation that failed, or one of the
// libraries below) becomes an error Status instead: nothing thrown leaves the
// store's API. The messages of the fallbacks fit a string without an
// allocation.
template <typename Body>
Status NoThrow(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return Status::IOError("out of memory");
    } catch (...) {
        return Status::IOError("unexpected");
    }
}

// The large records one call of the bridge needs: a value set (about 44 MB)
// and the key encoders' scratch record (about 10 MB). Allocated once, never
// initialised beyond construct(): only the bytes a call uses are touched.
// And a row that reads reuse, so that reading a record allocates little.
struct Scratch {
    Scratch() : values(new ProtobufValueSet_), idl(new tagtbl_idl) { values->construct(); }

    std::unique_ptr<ProtobufValueSet_> values;
    std::unique_ptr<tagtbl_idl> idl;
    StoredRow row;
    // Keys a read builds (a record's primary key, its row's key), reused as
    // the row is.
    std::string pk;
    std::string row_key;
};

// Scratch records for concurrent calls: one per call in flight, reused. The
// pool grows to the largest number of calls that ran at once.
class ScratchPool {
public:
    class Lease {
    public:
        Lease(ScratchPool* pool, std::unique_ptr<Scratch> scratch) : m_pool(pool), m_scratch(std::move(scratch)) {}
        ~Lease() { m_pool->Return(std::move(m_scratch)); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        Scratch* get() const { return m_scratch.get(); }
        Scratch* operator->() const { return m_scratch.get(); }

    private:
        ScratchPool* m_pool;
        std::unique_ptr<Scratch> m_scratch;
    };

    Lease Acquire();

private:
    void Return(std::unique_ptr<Scratch> scratch);

    std::mutex m_mutex;
    std::vector<std::unique_ptr<Scratch>> m_free;
};

// A log category that keeps the error lines written to it, for the messages
// of a Status. Used once, on one thread.
class ErrorLines {
public:
    ErrorLines();
    ErrorLines(const ErrorLines&) = delete;
    ErrorLines& operator=(const ErrorLines&) = delete;

    LPPLOGCATEGORYINST category() { return &m_category; }
    // The lines, joined by "; ".
    const std::string& text() const { return m_text; }

private:
    static void Sink(void* ctx, const PLOGEVENT* event, const char* msg, size_t len);

    PLOGCATEGORYINST m_category;
    std::string m_text;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_SCRATCH_H_
