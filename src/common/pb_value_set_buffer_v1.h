// Version-1 layout of a value set: the compact index stCompactValueSet (at
// most 256 fields) into one shared byte buffer. Entry i of astFieldIndexs
// covers szValueBuf[iOffset, iOffset + iSize): the tag path, a NUL, then the
// field's bytes; iFlag holds the wire type. A field's writable region is the
// rest of szValueBuf after its tag path.
#ifndef CORVIDA_COMMON_PB_VALUE_SET_BUFFER_V1_H_
#define CORVIDA_COMMON_PB_VALUE_SET_BUFFER_V1_H_

#include "common/i_pb_value_set_buffer.h"
#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"

namespace CorvidaCommon {

class PbValueSetBufferV1 : public IPbValueSetBuffer {
public:
    // Binds to value_set, which must not be null (PbValueSetBuffer checks
    // it), and changes nothing in it; no field is open.
    PbValueSetBufferV1(ProtobufValueSet_* value_set, LPPLOGCATEGORYINST log);

    int ResetFieldNum() override;
    int InsertCutField(Field& field) override;
    int FinishCutField(int idx, int len) override;
    int GetFieldNum() const override;
    int GetField(int idx, Field& field) const override;

private:
    // The field count after checking it and iValueBufLen against their
    // arrays, or PBVSB_ERR_CORRUPT (logged).
    inline int CheckedFieldNum() const;
    // CheckedFieldNum of a set that fails the checks: logs and returns
    // PBVSB_ERR_CORRUPT.
    int CorruptCount() const;

    ProtobufValueSet_* m_value_set;
    LPPLOGCATEGORYINST m_log;
    int m_open_idx;  // index of the field awaiting FinishCutField, or -1
};

}  // namespace CorvidaCommon

#endif  // CORVIDA_COMMON_PB_VALUE_SET_BUFFER_V1_H_
