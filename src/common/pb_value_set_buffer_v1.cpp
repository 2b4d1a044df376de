#include "common/pb_value_set_buffer_v1.h"

#include <cstdint>
#include <cstring>

#include "common/pb_value_set_buffer_internal.h"

namespace CorvidaCommon {

namespace {

constexpr int kMaxFields = CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM;
constexpr int kValueBufSize = CORVIDA_PROTOBUF_MAX_VALUE_BUF;

// A tag path has fewer than CORVIDA_PROTOBUF_MAX_TAG_PATH characters, so its
// NUL lies within this many bytes of the entry's start.
constexpr int32_t kPathPart = CORVIDA_PROTOBUF_MAX_TAG_PATH;

}  // namespace

inline int PbValueSetBufferV1::CheckedFieldNum() const {
    const CompactValueSet& compact = m_value_set->stCompactValueSet;
    if (compact.iFieldIndexNum >= 0 && compact.iFieldIndexNum <= kMaxFields && compact.iValueBufLen >= 0 &&
        compact.iValueBufLen <= kValueBufSize) {
        return compact.iFieldIndexNum;
    }
    return CorruptCount();
}

int PbValueSetBufferV1::CorruptCount() const {
    const CompactValueSet& compact = m_value_set->stCompactValueSet;
    if (compact.iFieldIndexNum < 0 || compact.iFieldIndexNum > kMaxFields) {
        PBVSB_LOG_ERROR(m_log, "corrupt field count %d, max=%d, ret=%d", compact.iFieldIndexNum, kMaxFields,
                        PBVSB_ERR_CORRUPT);
    } else {
        PBVSB_LOG_ERROR(m_log, "corrupt value_buf_len %d, max=%d, ret=%d", compact.iValueBufLen, kValueBufSize,
                        PBVSB_ERR_CORRUPT);
    }
    return PBVSB_ERR_CORRUPT;
}

PbValueSetBufferV1::PbValueSetBufferV1(ProtobufValueSet_* value_set, LPPLOGCATEGORYINST log)
    : m_value_set(value_set), m_log(log), m_open_idx(-1) {}

int PbValueSetBufferV1::ResetFieldNum() {
    m_value_set->construct();  // every count 0
    m_value_set->iVersion_ = 1;
    m_open_idx = -1;
    return 0;
}

int PbValueSetBufferV1::InsertCutField(Field& field) {
    size_t path_len = 0;
    const int ret = pbvsb_internal::CheckTagPath(field.path, &path_len);
    if (ret != 0) {
        PBVSB_LOG_ERROR(m_log, "%s, ret=%d", pbvsb_internal::TagPathError(ret), ret);
        return ret;
    }
    const int num = CheckedFieldNum();
    if (num < 0) return num;
    if (num >= kMaxFields) {
        PBVSB_LOG_ERROR(m_log, "too many fields, max=%d, path=%s, ret=%d", kMaxFields, field.path,
                        PBVSB_ERR_TOO_MANY_FIELDS);
        return PBVSB_ERR_TOO_MANY_FIELDS;
    }
    CompactValueSet& compact = m_value_set->stCompactValueSet;
    const int32_t offset = compact.iValueBufLen;
    const int32_t path_size = static_cast<int32_t>(path_len) + 1;  // with its NUL
    if (offset + path_size >= kValueBufSize) {
        PBVSB_LOG_ERROR(m_log, "no room for field, path=%s, value_buf_len=%d, ret=%d", field.path, offset,
                        PBVSB_ERR_NO_ROOM);
        return PBVSB_ERR_NO_ROOM;
    }

    // A field still open stays as it is: its entry ends with its tag path,
    // so it is closed with no bytes.
    std::memmove(compact.szValueBuf + offset, field.path, static_cast<size_t>(path_size));
    FieldIndex& entry = compact.astFieldIndexs[num];
    entry.iOffset = offset;
    entry.iSize = path_size;
    entry.iFlag = field.wire_type;
    compact.iFieldIndexNum = num + 1;
    compact.iValueBufLen = offset + path_size;
    m_open_idx = num;

    field.idx = num;
    field.buf = compact.szValueBuf + compact.iValueBufLen;
    field.buf_len = kValueBufSize - compact.iValueBufLen;
    return 0;
}

int PbValueSetBufferV1::FinishCutField(int idx, int len) {
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
    CompactValueSet& compact = m_value_set->stCompactValueSet;
    FieldIndex& entry = compact.astFieldIndexs[idx];
    // The open field is the last entry and still ends the used bytes; its
    // region starts there.
    const int32_t region = compact.iValueBufLen;
    if (entry.iOffset < 0 || entry.iSize < 1 || int64_t{entry.iOffset} + entry.iSize != region) {
        PBVSB_LOG_ERROR(m_log, "corrupt field %d: offset %d size %d, value_buf_len=%d, ret=%d", idx, entry.iOffset,
                        entry.iSize, region, PBVSB_ERR_CORRUPT);
        return PBVSB_ERR_CORRUPT;
    }
    const int capacity = kValueBufSize - region;
    if (len < 0 || len > capacity) {
        PBVSB_LOG_ERROR(m_log, "bad length %d of field %d, capacity=%d, ret=%d", len, idx, capacity,
                        PBVSB_ERR_BAD_LENGTH);
        return PBVSB_ERR_BAD_LENGTH;
    }
    entry.iSize += len;
    entry.iFlag = pbvsb_internal::ClosedWireType(entry.iFlag, compact.szValueBuf + region, len);
    compact.iValueBufLen = region + len;
    m_open_idx = -1;
    return 0;
}

int PbValueSetBufferV1::GetFieldNum() const { return CheckedFieldNum(); }

int PbValueSetBufferV1::GetField(int idx, Field& field) const {
    const int num = CheckedFieldNum();
    if (num < 0) return num;
    if (idx < 0 || idx >= num) {
        PBVSB_LOG_ERROR(m_log, "field index %d out of range, num=%d, ret=%d", idx, num, PBVSB_ERR_BAD_INDEX);
        return PBVSB_ERR_BAD_INDEX;
    }
    const CompactValueSet& compact = m_value_set->stCompactValueSet;
    const FieldIndex& entry = compact.astFieldIndexs[idx];
    if (entry.iOffset < 0 || entry.iSize < 0 || int64_t{entry.iOffset} + entry.iSize > compact.iValueBufLen) {
        PBVSB_LOG_ERROR(m_log, "corrupt field %d: offset %d size %d outside value_buf_len=%d, ret=%d", idx,
                        entry.iOffset, entry.iSize, compact.iValueBufLen, PBVSB_ERR_CORRUPT);
        return PBVSB_ERR_CORRUPT;
    }
    const char* start = compact.szValueBuf + entry.iOffset;
    const void* nul = std::memchr(start, '\0', static_cast<size_t>(entry.iSize < kPathPart ? entry.iSize : kPathPart));
    if (nul == nullptr) {
        PBVSB_LOG_ERROR(m_log, "corrupt field %d: tag path not terminated, ret=%d", idx, PBVSB_ERR_CORRUPT);
        return PBVSB_ERR_CORRUPT;
    }
    const char* bytes = static_cast<const char*>(nul) + 1;
    field.idx = idx;
    field.path = start;
    field.buf = bytes;
    field.buf_len = entry.iSize - static_cast<int>(bytes - start);
    field.wire_type = entry.iFlag;
    return 0;
}

}  // namespace CorvidaCommon
