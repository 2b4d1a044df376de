// Heap allocation of the large records. They are tens of megabytes: never put
// one on the stack, and never value-initialise one (that would touch every
// byte).
#ifndef CORVIDA_TESTS_SUPPORT_RECORDS_H_
#define CORVIDA_TESTS_SUPPORT_RECORDS_H_

#include <memory>

#include "protocol/corvida_protocol_comm.h"
#include "protocol/idl_tbl.h"

namespace corvida_test {

// An empty value set (construct() called).
inline std::unique_ptr<ProtobufValueSet_> NewValueSet() {
    std::unique_ptr<ProtobufValueSet_> set(new ProtobufValueSet_);
    set->construct();
    return set;
}

// A scratch record with nothing initialised.
inline std::unique_ptr<tagtbl_idl> NewIdl() { return std::unique_ptr<tagtbl_idl>(new tagtbl_idl); }

}  // namespace corvida_test

#endif  // CORVIDA_TESTS_SUPPORT_RECORDS_H_
