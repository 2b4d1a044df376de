// Key/value buffer record of one table row.
//
// The protobuf bridge uses it as a large scratch area: encrypted key fields
// are produced into szValue, and string values of query results are decoded
// through it. At about 10 MB it must live on the heap or in static storage,
// never on a call stack.
#ifndef CORVIDA_PROTOCOL_IDL_TBL_H_
#define CORVIDA_PROTOCOL_IDL_TBL_H_

#include <cstdint>

struct tagtbl_idl {
    int32_t iKlen;              // number of valid bytes in szKey
    uint8_t szKey[1024];        // key bytes
    int32_t iVlen;              // number of valid bytes in szValue
    uint8_t szValue[10000000];  // value bytes
};

static_assert(sizeof(tagtbl_idl) == 4 + 1024 + 4 + 10000000, "tagtbl_idl layout is fixed");

#endif  // CORVIDA_PROTOCOL_IDL_TBL_H_
