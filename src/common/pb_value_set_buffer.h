// Builder and reader of value sets.
//
// PbValueSetBuffer binds to a caller-owned ProtobufValueSet_ and reads or
// writes its fields through one of two layouts:
//   - version 0: fields in astFields_ (at most 128); a field's region is its
//     own szFieldBuff_ (262144 bytes);
//   - version 1: fields in stCompactValueSet (at most 256); each entry of
//     szValueBuf holds the tag path, a NUL and the field's bytes, and a field's
//     region is the rest of szValueBuf.
//
// Binding changes nothing in the set, so a received set can be read; only
// ResetFieldNum() empties it, in O(1). Construction is O(1) and allocates
// nothing. The builder never touches more of the 44 MB set than the bytes in
// use.
//
// Every operation returns 0 (GetFieldNum(): the count) or one of the
// PBVSB_ERR_* codes of common/i_pb_value_set_buffer.h; a failing call appends
// nothing and changes no count or length. Readers check what they read (a
// received set may be malformed): counts within the arrays, entries within the
// used bytes, tag paths NUL-terminated within 1024 bytes; anything else is
// PBVSB_ERR_CORRUPT, and nothing outside the set is ever read.
//
// A null log category is accepted and nothing is logged; otherwise each
// failure is logged once at error priority, under the file text
// "corvida/src/common/pb_value_set_buffer", after the same category test as the
// protobuf bridge (bounds first, then the category's threshold).
//
// Not thread-safe: one builder, one thread. Several builders may read one set
// at once as long as nobody writes it.
#ifndef CORVIDA_COMMON_PB_VALUE_SET_BUFFER_H_
#define CORVIDA_COMMON_PB_VALUE_SET_BUFFER_H_

#include <vector>

#include "common/i_pb_value_set_buffer.h"
#include "common/pb_value_set_buffer_v0.h"
#include "common/pb_value_set_buffer_v1.h"
#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"

namespace CorvidaCommon {

class PbValueSetBuffer {
public:
    using Field = IPbValueSetBuffer::Field;

    // Binds to value_set (which may be null: every operation then fails with
    // PBVSB_ERR_NO_VALUE_SET) with layout `version` (0 or 1; any other
    // version makes every operation fail with PBVSB_ERR_BAD_VERSION). The set
    // is written through this pointer although it is declared const.
    PbValueSetBuffer(const ProtobufValueSet_* value_set, int version, LPPLOGCATEGORYINST log);
    ~PbValueSetBuffer();

    PbValueSetBuffer(const PbValueSetBuffer&) = delete;
    PbValueSetBuffer& operator=(const PbValueSetBuffer&) = delete;

    // Empties the set in O(1) and marks it with the builder's version.
    // Returns 0 or a PBVSB_ERR_* code (the set is then unchanged).
    int ResetFieldNum();

    // Appends a field with field.path and opens it. On 0, field.idx,
    // field.buf and field.buf_len are the new field's position and writable
    // region; on a PBVSB_ERR_* code nothing is appended and field is
    // untouched. A field left open holds no bytes.
    int InsertCutField(Field& field);

    // Closes the open field idx after len bytes were written into its region.
    // len must be from 0 to the region's capacity. Returns 0 or a PBVSB_ERR_*
    // code (the field then stays open and holds no bytes).
    int FinishCutField(int idx, int len);

    // The number of fields in the set (an open one included), or a
    // PBVSB_ERR_* code for a set that cannot be read.
    int GetFieldNum() const;

    // Reads field idx into field, which borrows the set's storage. Returns 0
    // or a PBVSB_ERR_* code; field is untouched on failure.
    int GetField(int idx, Field& field) const;

    // Replaces fields with every field of the set, in order. Returns 0 or a
    // PBVSB_ERR_* code; on failure fields holds the fields read before the
    // bad one.
    int GetFields(std::vector<Field>& fields) const;

private:
    IPbValueSetBuffer* m_cur_buffer;
    PbValueSetBufferV0 m_v0_buffer;
    PbValueSetBufferV1 m_v1_buffer;
    // Result (logged) of every operation of a builder without a usable
    // layout: PBVSB_ERR_NO_VALUE_SET or PBVSB_ERR_BAD_VERSION.
    int Unusable(const char* op) const;

    ProtobufValueSet_* m_value_set;
    LPPLOGCATEGORYINST m_log;
    int m_version;  // the version asked for, kept for the log line
};

}  // namespace CorvidaCommon

#endif  // CORVIDA_COMMON_PB_VALUE_SET_BUFFER_H_
