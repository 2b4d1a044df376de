// The interface of one value-set layout.
//
// A layout reads and writes the fields of a ProtobufValueSet_
// (protocol/corvida_protocol_comm.h). CorvidaCommon::PbValueSetBuffer picks
// the layout by version; applications use that facade, not this interface.
//
// Writing a field is two calls: InsertCutField() appends a field with its tag
// path and hands out a writable region inside the set; the caller writes the
// field's bytes there and closes the field with FinishCutField(), giving the
// number of bytes written. Until then the field is open and holds no bytes.
#ifndef CORVIDA_COMMON_I_PB_VALUE_SET_BUFFER_H_
#define CORVIDA_COMMON_I_PB_VALUE_SET_BUFFER_H_

#include <vector>

namespace CorvidaCommon {

// Failures of the value-set builder. Every failing call leaves the set as it
// was: nothing is appended and no length changes.
enum {
    PBVSB_ERR_NO_VALUE_SET = -1,      // the builder is bound to no value set
    PBVSB_ERR_BAD_VERSION = -2,       // the builder's version is neither 0 nor 1
    PBVSB_ERR_INVALID_ARGUMENT = -3,  // null tag path
    PBVSB_ERR_TOO_MANY_FIELDS = -4,   // the layout's field array is full
    PBVSB_ERR_TAG_PATH_TOO_LONG = -5, // tag path of 1024 characters or more
    PBVSB_ERR_NO_ROOM = -6,           // no byte left for a new field's region
    PBVSB_ERR_BAD_INDEX = -7,         // index out of range
    PBVSB_ERR_NOT_OPEN = -8,          // FinishCutField on a field that is not the open one
    PBVSB_ERR_BAD_LENGTH = -9,        // FinishCutField length negative or above the region's capacity
    PBVSB_ERR_CORRUPT = -10,          // a stored entry is inconsistent (received set)
};

class IPbValueSetBuffer {
public:
    // One field handed to or read from a value set. The pointers borrow
    // storage of the caller or of the set and stay valid only as long as it.
    // A region handed out by InsertCutField() is writable although `buf` is
    // declared const: the caller writes the field's bytes into it.
    struct Field {
        int idx;          // position of the field in the set
        const char* path; // NUL-terminated tag path, not owned
        const char* buf;  // the field's bytes (or the region to write them), not owned
        int buf_len;      // length of buf (or capacity of the region)
        int wire_type;    // protobuf wire type, -1 when unknown
    };

    virtual ~IPbValueSetBuffer() {}

    // Empties the set in O(1) and marks it with this layout's version.
    virtual int ResetFieldNum() = 0;

    // Appends a field with field.path. On success returns 0 and sets
    // field.idx, field.buf and field.buf_len to the new field's position and
    // writable region. When field.wire_type is negative, the wire type is taken
    // from the low three bits of the field's first byte at FinishCutField().
    virtual int InsertCutField(Field& field) = 0;

    // Closes the open field idx with len bytes written into its region; len
    // may be anything from 0 to the region's capacity.
    virtual int FinishCutField(int idx, int len) = 0;

    // Number of fields in the set (the open one included).
    virtual int GetFieldNum() const = 0;

    // Reads field idx; the Field borrows the set's storage.
    virtual int GetField(int idx, Field& field) const = 0;

    // Replaces the contents of fields with every field of the set, in order.
    // On failure fields holds the fields read before the bad one.
    // The same for every layout: the fields one by one through GetField().
    int GetFields(std::vector<Field>& fields) const;
};

}  // namespace CorvidaCommon

#endif  // CORVIDA_COMMON_I_PB_VALUE_SET_BUFFER_H_
