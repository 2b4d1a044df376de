// Value-set records exchanged with the service.
//
// A value set is a list of protobuf fields cut out of a message, each under
// its tag path (decimal field numbers joined by "." from the top message
// down). Two layouts share one record:
//   - version 0 keeps each field in its own ProtobufValueField_ (astFields_);
//   - version 1 keeps a compact index (stCompactValueSet) into one shared byte
//     buffer.
// CorvidaCommon::PbValueSetBuffer (common/pb_value_set_buffer.h) reads and
// writes fields in either layout; nothing else should touch the arrays.
//
// A ProtobufValueSet_ is about 44 MB. It must live on the heap or in static
// storage, never on a call stack, and every operation below touches only the
// bytes in use: construct() is O(1), pack() writes only the entries in use and
// unpack() writes only what the input carries.
//
// Packed form (all integers big-endian, "u32"/"i32" are 4 bytes):
//   i32 iVersion_
//   u32 dwFieldNum_                       at most 128
//   dwFieldNum_ times:
//     u32 tag path length L               at most 1023, no NUL inside
//     L bytes of tag path
//     u32 dwWireType_
//     u32 dwFieldLen_                     at most 262144
//     dwFieldLen_ bytes of the field
//   i32 iEncodeType
//   i32 iFieldIndexNum                    0 .. 256
//   iFieldIndexNum times: i32 iOffset, i32 iSize, i32 iFlag
//                                         0 <= iOffset, 0 <= iSize,
//                                         iOffset + iSize <= iValueBufLen
//   i32 iValueBufLen                      0 .. 10200000
//   iValueBufLen bytes of szValueBuf
#ifndef CORVIDA_PROTOCOL_CORVIDA_PROTOCOL_COMM_H_
#define CORVIDA_PROTOCOL_CORVIDA_PROTOCOL_COMM_H_

#include <cstddef>
#include <cstdint>
#include <string>

// Limits shared by the protocol and the protobuf bridge.
enum {
    CORVIDA_PROTOBUF_MAX_TAG_PATH = 1024,  // size of a tag path buffer
    CORVIDA_PROTOBUF_MAX_TAG_DEPTH = 32,   // most names in one field path
    MAX_DBFIELD_NUM = 256,                 // most field paths in one value set
};

// Capacities of the value-set arrays.
enum {
    CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0 = 128,           // entries of astFields_
    CORVIDA_PROTOBUF_MAX_FIELD_BUFF = 262144,          // bytes of one szFieldBuff_
    CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM = 256,        // entries of astFieldIndexs
    CORVIDA_PROTOBUF_MAX_VALUE_BUF = 10200000,         // bytes of szValueBuf
};

// One cut field of a version-0 value set.
struct ProtobufValueField_ {
    char szTagPath_[CORVIDA_PROTOBUF_MAX_TAG_PATH];  // NUL-terminated tag path
    uint32_t dwWireType_;                            // wire type of the bytes
    uint32_t dwFieldLen_;                            // valid bytes in szFieldBuff_
    char szFieldBuff_[CORVIDA_PROTOBUF_MAX_FIELD_BUFF];

    // Empties the record in O(1).
    void construct();
};

// Position, size and flag word of one field inside CompactValueSet::szValueBuf.
struct FieldIndex {
    int32_t iOffset;
    int32_t iSize;
    int32_t iFlag;

    // Zeroes the entry.
    void construct();
};

// Version-1 storage: an index of positions into one shared byte buffer.
struct CompactValueSet {
    int32_t iFieldIndexNum;  // entries used in astFieldIndexs
    FieldIndex astFieldIndexs[CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM];
    int32_t iValueBufLen;    // bytes used in szValueBuf
    char szValueBuf[CORVIDA_PROTOBUF_MAX_VALUE_BUF];

    // Empties the record in O(1).
    void construct();
};

// A set of protobuf fields cut out of a message.
struct ProtobufValueSet_ {
    int32_t iVersion_;    // layout version: 0 (astFields_) or 1 (stCompactValueSet)
    uint32_t dwFieldNum_; // entries used in astFields_
    ProtobufValueField_ astFields_[CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0];
    int32_t iEncodeType;  // encoding of the set; 0 is plain
    CompactValueSet stCompactValueSet;

    // Empties the set in O(1): version 0, no fields, both layouts empty.
    void construct();

    // Number of bytes pack() writes for the set as it stands, or 0 when the
    // set is inconsistent (pack() then fails with -3): a count or length
    // exceeds its array, a tag path has no NUL inside its buffer, or an index
    // entry points outside the first iValueBufLen bytes of szValueBuf.
    size_t packedSize() const;

    // Writes the entries in use into buf (format at the top of this file).
    // Returns 0 and sets *used to the bytes written; -1 when buf or used is
    // null; -2 when size is below packedSize() (nothing is written); -3 when
    // the set is inconsistent (see packedSize()). Whatever pack() accepts,
    // unpack() reads back.
    int pack(char* buf, size_t size, size_t* used) const;

    // Reads a packed set from buf. Returns 0 and sets *used to the bytes
    // consumed (trailing bytes are left alone); -1 when buf or used is null;
    // -2 when the input ends early; -3 when a count or length exceeds its
    // array; -4 when an index entry points outside the value buffer or a tag
    // path holds a NUL. On failure the set is left empty (as construct()
    // leaves it) and *used is untouched. Never reads past buf + size.
    int unpack(const char* buf, size_t size, size_t* used);

    // Appends a human-readable dump of the set to out: a header line with
    // version and encoding, the version-0 count and one line per field in use
    // (tag path, wire type, length, bytes in hex), then the compact counts and
    // one line per index entry (offset, size, flag, the entry's bytes in hex).
    // Only the first 64 bytes of a field or entry are shown. Safe on an
    // inconsistent set: counts are capped at the arrays and entries outside
    // the value buffer are flagged, not read.
    void visualize(std::string& out) const;
};

static_assert(sizeof(ProtobufValueField_) == 1024 + 4 + 4 + 262144, "ProtobufValueField_ layout is fixed");
static_assert(sizeof(FieldIndex) == 12, "FieldIndex layout is fixed");
static_assert(sizeof(CompactValueSet) == 4 + 256 * 12 + 4 + 10200000, "CompactValueSet layout is fixed");
static_assert(sizeof(ProtobufValueSet_) ==
                  4 + 4 + 128 * sizeof(ProtobufValueField_) + 4 + sizeof(CompactValueSet),
              "ProtobufValueSet_ layout is fixed");

#endif  // CORVIDA_PROTOCOL_CORVIDA_PROTOCOL_COMM_H_
