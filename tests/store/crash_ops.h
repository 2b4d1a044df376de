// The writes of the crash test: a sequence of puts, updates and deletes on a
// few Player3 records, the same for the writer process and for the test that
// checks what survived, plus the model of what the sequence leaves behind.
#ifndef CORVIDA_TESTS_STORE_CRASH_OPS_H_
#define CORVIDA_TESTS_STORE_CRASH_OPS_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tables3.pb.h"

namespace corvida_store_test {

// The operations of one Write call of the bulk writer.
constexpr uint64_t kBulkCall = 16;

struct CrashOp {
    enum Kind { kPut, kUpdateLevel, kUpdateNameAndStats, kDelete };
    Kind kind;
    corvida::test3::Player3 record;  // key fields, and the fields written
    std::vector<std::string> paths;  // of an update
};

// Operation number i of the sequence.
inline CrashOp MakeCrashOp(uint64_t i) {
    uint64_t h = i + 0x9e3779b97f4a7c15ULL;  // splitmix64
    h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ULL;
    h = (h ^ (h >> 27)) * 0x94d049bb133111ebULL;
    h ^= h >> 31;
    CrashOp op;
    op.kind = static_cast<CrashOp::Kind>((h >> 16) % 4);
    op.record.set_zone(static_cast<int32_t>((h >> 8) % 2));
    op.record.set_uid(h % 12);
    switch (op.kind) {
        case CrashOp::kPut:
            op.record.set_name("put" + std::to_string(i));
            op.record.set_level(static_cast<int32_t>(i % 5));
            op.record.mutable_stats()->set_hp(static_cast<int32_t>(i));
            op.record.add_tags("t" + std::to_string(i));
            break;
        case CrashOp::kUpdateLevel:
            op.record.set_level(static_cast<int32_t>((i * 7) % 5));
            op.paths = {"level"};
            break;
        case CrashOp::kUpdateNameAndStats:
            op.record.set_name("upd" + std::to_string(i));
            op.record.mutable_stats()->set_mp(static_cast<int32_t>(i));
            op.paths = {"name", "stats"};
            break;
        case CrashOp::kDelete: break;
    }
    return op;
}

// The records after operations [0, count), by (zone, uid).
inline std::map<std::pair<int32_t, uint64_t>, corvida::test3::Player3> CrashModel(uint64_t count) {
    std::map<std::pair<int32_t, uint64_t>, corvida::test3::Player3> model;
    for (uint64_t i = 0; i < count; ++i) {
        const CrashOp op = MakeCrashOp(i);
        const std::pair<int32_t, uint64_t> key(op.record.zone(), op.record.uid());
        if (op.kind == CrashOp::kDelete) {
            model.erase(key);
            continue;
        }
        if (op.kind == CrashOp::kPut) {
            model[key] = op.record;
            continue;
        }
        corvida::test3::Player3& record = model[key];
        record.set_zone(key.first);
        record.set_uid(key.second);
        if (op.kind == CrashOp::kUpdateLevel) {
            record.set_level(op.record.level());
        } else {
            record.set_name(op.record.name());
            *record.mutable_stats() = op.record.stats();
        }
    }
    return model;
}

}  // namespace corvida_store_test

#endif  // CORVIDA_TESTS_STORE_CRASH_OPS_H_
