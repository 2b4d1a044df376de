// Version-0 layout of a value set: one ProtobufValueField_ per field in
// astFields_ (at most 128). A field's writable region is its own
// szFieldBuff_ (262144 bytes), so a field holds at most 262143 bytes.
#ifndef CORVIDA_COMMON_PB_VALUE_SET_BUFFER_V0_H_
#define CORVIDA_COMMON_PB_VALUE_SET_BUFFER_V0_H_

#include "common/i_pb_value_set_buffer.h"
#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"

namespace CorvidaCommon {

class PbValueSetBufferV0 : public IPbValueSetBuffer {
public:
    // Binds to value_set, which must not be null (PbValueSetBuffer checks
    // it), and changes nothing in it; no field is open.
    PbValueSetBufferV0(ProtobufValueSet_* value_set, LPPLOGCATEGORYINST log);

    int ResetFieldNum() override;
    int InsertCutField(Field& field) override;
    int FinishCutField(int idx, int len) override;
    int GetFieldNum() const override;
    int GetField(int idx, Field& field) const override;

private:
    // The field count after checking it against the array, or
    // PBVSB_ERR_CORRUPT (logged).
    int CheckedFieldNum() const;

    ProtobufValueSet_* m_value_set;
    LPPLOGCATEGORYINST m_log;
    int m_open_idx;  // index of the field awaiting FinishCutField, or -1
};

}  // namespace CorvidaCommon

#endif  // CORVIDA_COMMON_PB_VALUE_SET_BUFFER_V0_H_
