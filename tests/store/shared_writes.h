// The writes that several processes make at once to the same few records of
// the table Task (store_tables.proto), and the check of what they leave
// behind: store_writer makes them ("store_writer shared"), the tests check
// the store against what the writers reported.
//
// Each write of writer w (1, 2, ...) numbered n carries the tag
// w * 10000 + n in every field group it writes, so that a stored value
// names the write it came from. The fields of a record fall in three groups
// that writes replace whole (owner and level, which the indexes hold; queue,
// the sharding key, and note; stats), besides whether the record exists: a
// put writes every group, an update one, a delete clears them all.
//
// A writer reports each write once it returned: its number, when it began
// and returned (steady-clock nanoseconds, one clock for every process of the
// machine), and whether it was acknowledged. Whatever order the store put
// concurrent writes in, each group of a record must end as some write of it
// left it that no acknowledged write followed (began after it returned). A
// write that failed may or may not have been applied, at any time after it
// began: it counts as in flight to the end.
#ifndef CORVIDA_TESTS_STORE_SHARED_WRITES_H_
#define CORVIDA_TESTS_STORE_SHARED_WRITES_H_

#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "store_tables.pb.h"

namespace corvida_store_test {

// The records the writers share: ids 1 to kSharedRecords.
constexpr int kSharedRecords = 10;

struct SharedWrite {
    enum Kind { kPut, kUpdateOwner, kUpdateQueue, kUpdateStats, kDelete };
    Kind kind;
    corvida::storetest::Task record;  // the id, and the fields written
    std::vector<std::string> paths;   // of an update
};

// Write number n of writer w.
inline SharedWrite MakeSharedWrite(int writer, uint64_t n) {
    const int64_t tag = static_cast<int64_t>(writer) * 10000 + static_cast<int64_t>(n);
    uint64_t h = static_cast<uint64_t>(tag) + 0x9e3779b97f4a7c15ULL;  // splitmix64
    h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ULL;
    h = (h ^ (h >> 27)) * 0x94d049bb133111ebULL;
    h ^= h >> 31;
    static const SharedWrite::Kind kKinds[] = {SharedWrite::kPut,         SharedWrite::kPut,
                                               SharedWrite::kUpdateOwner, SharedWrite::kUpdateOwner,
                                               SharedWrite::kUpdateQueue, SharedWrite::kUpdateQueue,
                                               SharedWrite::kUpdateStats, SharedWrite::kDelete};
    SharedWrite write;
    write.kind = kKinds[(h >> 8) % 8];
    write.record.set_id(static_cast<int64_t>(h % kSharedRecords) + 1);
    corvida::storetest::Task& r = write.record;
    const bool put = write.kind == SharedWrite::kPut;
    if (put || write.kind == SharedWrite::kUpdateOwner) {
        r.set_owner("o" + std::to_string(tag % 3));  // few owners: index values shared by records
        r.set_level(static_cast<int32_t>(tag));
        write.paths = {"owner", "level"};
    }
    if (put || write.kind == SharedWrite::kUpdateQueue) {
        r.set_queue(static_cast<int32_t>(tag % 4));  // few shards
        r.set_note("w" + std::to_string(tag));
        write.paths = {"queue", "note"};
    }
    if (put || write.kind == SharedWrite::kUpdateStats) {
        r.mutable_stats()->set_hp(static_cast<int32_t>(tag));
        r.mutable_stats()->add_history(static_cast<int32_t>(n));
        write.paths = {"stats"};
    }
    if (put) write.paths.clear();
    return write;
}

// What a writer reported of one write.
struct SharedWriteOutcome {
    int writer = 0;
    uint64_t n = 0;
    int64_t begin_ns = 0;
    int64_t end_ns = 0;
    bool acknowledged = false;
    std::string error;  // of a write that failed
};

// The line a writer prints for a write: "N BEGIN END ok", or
// "N BEGIN END failed: ERROR".
inline std::string SharedWriteLine(const SharedWriteOutcome& outcome) {
    return std::to_string(outcome.n) + " " + std::to_string(outcome.begin_ns) + " " +
           std::to_string(outcome.end_ns) + (outcome.acknowledged ? " ok" : " failed: " + outcome.error);
}

// Parses a line of writer's output; false when it is not one.
inline bool ParseSharedWriteLine(int writer, const std::string& line, SharedWriteOutcome* outcome) {
    std::istringstream in(line);
    std::string verdict;
    outcome->writer = writer;
    if (!(in >> outcome->n >> outcome->begin_ns >> outcome->end_ns >> verdict)) return false;
    outcome->acknowledged = verdict == "ok";
    if (!outcome->acknowledged) {
        std::getline(in, outcome->error);
        if (!outcome->error.empty()) outcome->error.erase(0, 1);
    }
    return outcome->acknowledged || verdict == "failed:";
}

// A record's part that writes replace whole, as text: whether it exists
// (group 0), owner and level (1), queue and note (2), stats (3). An absent
// record is a default one.
constexpr int kSharedGroups = 4;

inline std::string SharedGroup(const corvida::storetest::Task* record, int group) {
    static const corvida::storetest::Task kAbsent;
    const corvida::storetest::Task& r = record != nullptr ? *record : kAbsent;
    switch (group) {
        case 0: return record != nullptr ? "present" : "absent";
        case 1: return r.owner() + "/" + std::to_string(r.level());
        case 2: return std::to_string(r.queue()) + "/" + r.note();
        default: return "{" + r.stats().ShortDebugString() + "}";
    }
}

// Whether write writes group (0: the record's existence, which every write
// sets).
inline bool WritesGroup(const SharedWrite& write, int group) {
    switch (write.kind) {
        case SharedWrite::kPut:
        case SharedWrite::kDelete: return true;
        case SharedWrite::kUpdateOwner: return group == 0 || group == 1;
        case SharedWrite::kUpdateQueue: return group == 0 || group == 2;
        default: return group == 0 || group == 3;
    }
}

// Checks the records the store holds (by id; absent ones missing) against
// what the writers reported. Returns one line per group that no write
// explains; none when the state is one the writes allow.
inline std::vector<std::string> CheckSharedWrites(const std::vector<SharedWriteOutcome>& outcomes,
                                                  const std::map<int64_t, corvida::storetest::Task>& stored) {
    constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
    std::vector<std::string> problems;
    for (int64_t id = 1; id <= kSharedRecords; ++id) {
        const auto found = stored.find(id);
        const corvida::storetest::Task* record = found != stored.end() ? &found->second : nullptr;
        for (int group = 0; group < kSharedGroups; ++group) {
            // The writes of the group, and the last beginning of an
            // acknowledged one: a write that returned before it cannot be
            // the last.
            struct Candidate {
                std::string value;
                int64_t end_ns;
                std::string who;
            };
            std::vector<Candidate> candidates = {{SharedGroup(nullptr, group), std::numeric_limits<int64_t>::min(),
                                                  "the record as it was before every write"}};
            int64_t last_acknowledged_begin = std::numeric_limits<int64_t>::min();
            for (const SharedWriteOutcome& outcome : outcomes) {
                const SharedWrite write = MakeSharedWrite(outcome.writer, outcome.n);
                if (write.record.id() != id || !WritesGroup(write, group)) continue;
                const bool deletes = write.kind == SharedWrite::kDelete;
                candidates.push_back({SharedGroup(deletes ? nullptr : &write.record, group),
                                      outcome.acknowledged ? outcome.end_ns : kNever,
                                      "write " + std::to_string(outcome.n) + " of writer " +
                                          std::to_string(outcome.writer)});
                if (outcome.acknowledged && outcome.begin_ns > last_acknowledged_begin) {
                    last_acknowledged_begin = outcome.begin_ns;
                }
            }
            const std::string held = SharedGroup(record, group);
            bool explained = false;
            std::string allowed;
            for (const Candidate& candidate : candidates) {
                if (candidate.end_ns < last_acknowledged_begin) continue;
                explained = explained || candidate.value == held;
                allowed += "\n    " + candidate.value + " (" + candidate.who + ")";
            }
            if (!explained) {
                problems.push_back("record " + std::to_string(id) + " holds " + held + ", but the writes leave" +
                                   allowed);
            }
        }
    }
    return problems;
}

}  // namespace corvida_store_test

#endif  // CORVIDA_TESTS_STORE_SHARED_WRITES_H_
