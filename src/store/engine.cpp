#include "store/engine.h"

#include <iterator>

namespace corvida {
namespace store {

void EngineBatch::ExpectValue(std::string_view key, std::string_view value, const ReadView* read_at) {
    m_conditions.push_back(Condition{std::string(key), true, std::string(value), read_at});
    m_bytes += key.size() + value.size();
}

void EngineBatch::ExpectAbsent(std::string_view key, const ReadView* read_at) {
    m_conditions.push_back(Condition{std::string(key), false, std::string(), read_at});
    m_bytes += key.size();
}

void EngineBatch::Put(std::string_view key, std::string_view value) {
    m_ops.push_back(Op{Op::Kind::kPut, std::string(key), std::string(value)});
    m_bytes += key.size() + value.size();
}

void EngineBatch::Delete(std::string_view key) {
    m_ops.push_back(Op{Op::Kind::kDelete, std::string(key), std::string()});
    m_bytes += key.size();
}

void EngineBatch::Append(EngineBatch&& other) {
    m_conditions.insert(m_conditions.end(), std::make_move_iterator(other.m_conditions.begin()),
                        std::make_move_iterator(other.m_conditions.end()));
    m_ops.insert(m_ops.end(), std::make_move_iterator(other.m_ops.begin()), std::make_move_iterator(other.m_ops.end()));
    m_bytes += other.m_bytes;
    other.Clear();
}

void EngineBatch::Clear() {
    m_conditions.clear();
    m_ops.clear();
    m_bytes = 0;
}

Status CheckLimits(const EngineBatch& batch, const EngineLimits& limits, const std::string& what) {
    if (limits.max_operations != 0 && batch.OperationCount() > limits.max_operations) {
        return Status::InvalidArgument(what + ": the write needs " + std::to_string(batch.OperationCount()) +
                                       " operations in one commit, more than the " +
                                       std::to_string(limits.max_operations) + " that " + limits.operations_setting +
                                       " allows; nothing was written");
    }
    if (limits.max_bytes != 0 && batch.ByteSize() > limits.max_bytes) {
        return Status::InvalidArgument(what + ": the write needs " + std::to_string(batch.ByteSize()) +
                                       " bytes in one commit, more than the " + std::to_string(limits.max_bytes) +
                                       " that " + limits.bytes_setting + " allows; nothing was written");
    }
    return Status::OK();
}

std::string PrefixEnd(std::string_view prefix) {
    std::string end(prefix);
    while (!end.empty() && static_cast<uint8_t>(end.back()) == 0xff) end.pop_back();
    if (!end.empty()) end.back() = static_cast<char>(static_cast<uint8_t>(end.back()) + 1);
    return end;
}

}  // namespace store
}  // namespace corvida
