// Two threads of one command working in step: one produces pieces of work
// (records parsed from the input, records read from the store), the other
// consumes them, so that protobuf's JSON conversion on one core overlaps the
// store's work on the other.
//
// A Handoff carries pieces from one thread to the other, at most `capacity`
// at a time (so the memory in flight stays bounded): Push blocks while it is
// full, Pop while it is empty. Close() from either side ends it: Push then
// refuses, and Pop hands out what is left and then refuses. Two Handoffs, one
// each way, recycle the pieces.
//
// A Worker runs the other side on a thread of its own and keeps what it
// throws, for Finish() to throw again on the command's thread.
#ifndef CORVIDA_PB_HANDOFF_H_
#define CORVIDA_PB_HANDOFF_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace corvida_pb {

template <typename T>
class Handoff {
public:
    explicit Handoff(size_t capacity) : m_capacity(capacity) {}

    Handoff(const Handoff&) = delete;
    Handoff& operator=(const Handoff&) = delete;

    // False, and item dropped, when the handoff is closed.
    bool Push(T item) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_closed || m_items.size() < m_capacity; });
        if (m_closed) return false;
        m_items.push_back(std::move(item));
        m_changed.notify_all();
        return true;
    }

    // False when the handoff is closed and empty.
    bool Pop(T* item) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_closed || !m_items.empty(); });
        if (m_items.empty()) return false;
        *item = std::move(m_items.front());
        m_items.pop_front();
        m_changed.notify_all();
        return true;
    }

    void Close() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_changed.notify_all();
    }

private:
    const size_t m_capacity;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_items;
    bool m_closed = false;
};

class Worker {
public:
    // Runs body on a new thread. stop makes body return soon (it closes the
    // handoffs body waits on); the destructor calls it when Finish() was not
    // called, as when the command's thread failed.
    Worker(std::function<void()> body, std::function<void()> stop) : m_stop(std::move(stop)) {
        m_thread = std::thread([this, body = std::move(body)] {
            try {
                body();
            } catch (...) {
                m_thrown = std::current_exception();
                m_stop();
            }
        });
    }

    ~Worker() {
        if (!m_thread.joinable()) return;
        m_stop();
        m_thread.join();
    }

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Waits for body to return, and throws what it threw.
    void Finish() {
        m_thread.join();
        if (m_thrown) std::rethrow_exception(m_thrown);
    }

private:
    std::function<void()> m_stop;
    std::exception_ptr m_thrown;
    std::thread m_thread;
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_HANDOFF_H_
