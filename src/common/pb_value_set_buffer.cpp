#include "common/pb_value_set_buffer.h"

#include "common/pb_value_set_buffer_internal.h"

namespace CorvidaCommon {

PbValueSetBuffer::PbValueSetBuffer(const ProtobufValueSet_* value_set, int version, LPPLOGCATEGORYINST log)
    : m_cur_buffer(nullptr),
      m_v0_buffer(const_cast<ProtobufValueSet_*>(value_set), log),
      m_v1_buffer(const_cast<ProtobufValueSet_*>(value_set), log),
      m_value_set(const_cast<ProtobufValueSet_*>(value_set)),
      m_log(log),
      m_version(version) {
    if (m_value_set == nullptr) return;
    if (version == 0) {
        m_cur_buffer = &m_v0_buffer;
    } else if (version == 1) {
        m_cur_buffer = &m_v1_buffer;
    }
}

PbValueSetBuffer::~PbValueSetBuffer() = default;

int PbValueSetBuffer::ResetFieldNum() {
    if (m_cur_buffer == nullptr) return Unusable(__func__);
    return m_cur_buffer->ResetFieldNum();
}

int PbValueSetBuffer::InsertCutField(Field& field) {
    if (m_cur_buffer == nullptr) return Unusable(__func__);
    return m_cur_buffer->InsertCutField(field);
}

int PbValueSetBuffer::FinishCutField(int idx, int len) {
    if (m_cur_buffer == nullptr) return Unusable(__func__);
    return m_cur_buffer->FinishCutField(idx, len);
}

int PbValueSetBuffer::GetFieldNum() const {
    if (m_cur_buffer == nullptr) return Unusable(__func__);
    return m_cur_buffer->GetFieldNum();
}

int PbValueSetBuffer::GetField(int idx, Field& field) const {
    if (m_cur_buffer == nullptr) return Unusable(__func__);
    return m_cur_buffer->GetField(idx, field);
}

int PbValueSetBuffer::GetFields(std::vector<Field>& fields) const {
    if (m_cur_buffer == nullptr) {
        fields.clear();
        return Unusable(__func__);
    }
    return m_cur_buffer->GetFields(fields);
}

int PbValueSetBuffer::Unusable(const char* op) const {
    if (m_value_set == nullptr) {
        PBVSB_LOG_ERROR(m_log, "%s: no value set, ret=%d", op, PBVSB_ERR_NO_VALUE_SET);
        return PBVSB_ERR_NO_VALUE_SET;
    }
    PBVSB_LOG_ERROR(m_log, "%s: unsupported version %d, ret=%d", op, m_version, PBVSB_ERR_BAD_VERSION);
    return PBVSB_ERR_BAD_VERSION;
}

int IPbValueSetBuffer::GetFields(std::vector<Field>& fields) const {
    fields.clear();
    const int num = GetFieldNum();
    if (num < 0) return num;
    fields.reserve(static_cast<size_t>(num));
    for (int i = 0; i < num; ++i) {
        Field field;
        const int ret = GetField(i, field);
        if (ret != 0) return ret;
        fields.push_back(field);
    }
    return 0;
}

}  // namespace CorvidaCommon
