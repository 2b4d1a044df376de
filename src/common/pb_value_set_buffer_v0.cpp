#include "common/pb_value_set_buffer_v0.h"

#include <cstring>

#include "common/pb_value_set_buffer_internal.h"

namespace CorvidaCommon {

namespace {

constexpr int kMaxFields = CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0;
constexpr int kRegionSize = CORVIDA_PROTOBUF_MAX_FIELD_BUFF;

}  // namespace

PbValueSetBufferV0::PbValueSetBufferV0(ProtobufValueSet_* value_set, LPPLOGCATEGORYINST log)
    : m_value_set(value_set), m_log(log), m_open_idx(-1) {}

int PbValueSetBufferV0::ResetFieldNum() {
    m_value_set->construct();  // version 0, every count 0
    m_open_idx = -1;
    return 0;
}

int PbValueSetBufferV0::InsertCutField(Field& field) {
    size_t path_len = 0;
    const int ret = pbvsb_internal::CheckTagPath(field.path, &path_len);
    if (ret != 0) {
        PBVSB_LOG_ERROR(m_log, "%s, ret=%d", pbvsb_internal::TagPathError(ret), ret);
        return ret;
    }
    const uint32_t num = m_value_set->dwFieldNum_;
    if (num >= static_cast<uint32_t>(kMaxFields)) {
        PBVSB_LOG_ERROR(m_log, "too many fields, max=%d, path=%s, ret=%d", kMaxFields, field.path,
                        PBVSB_ERR_TOO_MANY_FIELDS);
        return PBVSB_ERR_TOO_MANY_FIELDS;
    }

    // A field still open stays as it is: closed with no bytes.
    ProtobufValueField_& entry = m_value_set->astFields_[num];
    std::memmove(entry.szTagPath_, field.path, path_len + 1);
    entry.dwWireType_ = static_cast<uint32_t>(field.wire_type);
    entry.dwFieldLen_ = 0;
    m_value_set->dwFieldNum_ = num + 1;
    m_open_idx = static_cast<int>(num);

    field.idx = m_open_idx;
    field.buf = entry.szFieldBuff_;
    field.buf_len = kRegionSize;
    return 0;
}

int PbValueSetBufferV0::FinishCutField(int idx, int len) {
    const int num = CheckedFieldNum();
    if (num < 0) return num;
    if (idx < 0 || idx >= num) {
        PBVSB_LOG_ERROR(m_log, "field index %d out of range, num=%d, ret=%d", idx, num, PBVSB_ERR_BAD_INDEX);
        return PBVSB_ERR_BAD_INDEX;
    }
    if (idx != m_open_idx) {
        PBVSB_LOG_ERROR(m_log, "field %d is not open, ret=%d", idx, PBVSB_ERR_NOT_OPEN);
        return PBVSB_ERR_NOT_OPEN;
    }
    if (len < 0 || len > kRegionSize) {
        PBVSB_LOG_ERROR(m_log, "bad length %d of field %d, capacity=%d, ret=%d", len, idx, kRegionSize,
                        PBVSB_ERR_BAD_LENGTH);
        return PBVSB_ERR_BAD_LENGTH;
    }
    ProtobufValueField_& entry = m_value_set->astFields_[idx];
    entry.dwFieldLen_ = static_cast<uint32_t>(len);
    entry.dwWireType_ = static_cast<uint32_t>(
        pbvsb_internal::ClosedWireType(static_cast<int>(entry.dwWireType_), entry.szFieldBuff_, len));
    m_open_idx = -1;
    return 0;
}

int PbValueSetBufferV0::GetFieldNum() const { return CheckedFieldNum(); }

int PbValueSetBufferV0::GetField(int idx, Field& field) const {
    const int num = CheckedFieldNum();
    if (num < 0) return num;
    if (idx < 0 || idx >= num) {
        PBVSB_LOG_ERROR(m_log, "field index %d out of range, num=%d, ret=%d", idx, num, PBVSB_ERR_BAD_INDEX);
        return PBVSB_ERR_BAD_INDEX;
    }
    const ProtobufValueField_& entry = m_value_set->astFields_[idx];
    if (std::memchr(entry.szTagPath_, '\0', sizeof(entry.szTagPath_)) == nullptr) {
        PBVSB_LOG_ERROR(m_log, "corrupt field %d: tag path not terminated, ret=%d", idx, PBVSB_ERR_CORRUPT);
        return PBVSB_ERR_CORRUPT;
    }
    if (entry.dwFieldLen_ > static_cast<uint32_t>(kRegionSize)) {
        PBVSB_LOG_ERROR(m_log, "corrupt field %d: length %u exceeds %d, ret=%d", idx, entry.dwFieldLen_, kRegionSize,
                        PBVSB_ERR_CORRUPT);
        return PBVSB_ERR_CORRUPT;
    }
    field.idx = idx;
    field.path = entry.szTagPath_;
    field.buf = entry.szFieldBuff_;
    field.buf_len = static_cast<int>(entry.dwFieldLen_);
    field.wire_type = static_cast<int>(entry.dwWireType_);
    return 0;
}

int PbValueSetBufferV0::CheckedFieldNum() const {
    const uint32_t num = m_value_set->dwFieldNum_;
    if (num > static_cast<uint32_t>(kMaxFields)) {
        PBVSB_LOG_ERROR(m_log, "corrupt field count %u, max=%d, ret=%d", num, kMaxFields, PBVSB_ERR_CORRUPT);
        return PBVSB_ERR_CORRUPT;
    }
    return static_cast<int>(num);
}

}  // namespace CorvidaCommon
