// Conditional commits tried again when another writer got there first.
// Private to the store.
#ifndef CORVIDA_STORE_RETRY_H_
#define CORVIDA_STORE_RETRY_H_

#include <string>

#include "store/status.h"

namespace corvida {
namespace store {

// How many times a write reads and commits before it gives up.
constexpr int kMaxCommitAttempts = 32;

// Sleeps before attempt number `attempt` (1 for the first retry): a random
// time up to a bound that doubles with each attempt, from 1 ms to 64 ms, so
// that writers that collided do not collide again in step.
void BackOff(int attempt);

// Runs attempt(&committed) until it returns an error or commits. attempt
// reads what it needs, builds its batch with the values it read as
// conditions and commits it, setting *committed. After kMaxCommitAttempts
// commits refused, kBusy saying that other writers kept changing what `what`
// writes.
template <typename Attempt>
Status RetryConflicts(const std::string& what, Attempt attempt) {
    for (int i = 0; i < kMaxCommitAttempts; ++i) {
        if (i > 0) BackOff(i);
        bool committed = false;
        Status status = attempt(&committed);
        if (!status.ok() || committed) return status;
    }
    return Status::Busy(what + ": other writers changed it " + std::to_string(kMaxCommitAttempts) +
                        " times while this write was being made; nothing was written, try again");
}

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_RETRY_H_
