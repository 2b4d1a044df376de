// The service's table of named error codes.
//
// Results are signed 32-bit integers: 0 is success, and a named failure of
// module m with code c is -(c * 256 + m). Module 0 holds the general codes,
// module 19 (0x13) those of the client API. Callers must treat every non-zero
// result as a failure; operations also return small literal negative numbers
// whose meaning is documented with each operation.
#ifndef CORVIDA_COMMON_CORVIDA_ERROR_CODE_H_
#define CORVIDA_COMMON_CORVIDA_ERROR_CODE_H_

namespace CorvErrCode {

// Dimensions of the service's error table.
enum {
    MAX_MODULE_NUM = 64,
    MAX_POSITIVE_ERR_CODE_NUM_PER_MODULE = 16,
    MAX_NEGATIVE_ERR_CODE_NUM_PER_MODULE = 256,
};

// Modules of the error table used by this library.
enum {
    ERR_MODULE_GENERAL = 0,
    ERR_MODULE_CLIENT_API = 19,
};

// The negative code of failure `code` in `module`.
constexpr int MakeErrCode(int module, int code) {
    return -(code * MAX_NEGATIVE_ERR_CODE_NUM_PER_MODULE + module);
}

enum {
    GEN_ERR_SUC = 0,
    GEN_ERR_ERR = -256,                    // general failure
    GEN_ERR_INVALID_ARGUMENTS = -2560,     // an argument is out of its domain
    API_ERR_FIELD_NOT_EXSIST = -1299,      // no field of that name (spelled so on purpose)
    API_ERR_UNSUPPORT_FIELD_TYPE = -5651,  // the field's type cannot be handled
};

static_assert(GEN_ERR_ERR == MakeErrCode(ERR_MODULE_GENERAL, 1), "GEN_ERR_ERR");
static_assert(GEN_ERR_INVALID_ARGUMENTS == MakeErrCode(ERR_MODULE_GENERAL, 10), "GEN_ERR_INVALID_ARGUMENTS");
static_assert(API_ERR_FIELD_NOT_EXSIST == MakeErrCode(ERR_MODULE_CLIENT_API, 5), "API_ERR_FIELD_NOT_EXSIST");
static_assert(API_ERR_UNSUPPORT_FIELD_TYPE == MakeErrCode(ERR_MODULE_CLIENT_API, 22), "API_ERR_UNSUPPORT_FIELD_TYPE");

}  // namespace CorvErrCode

#endif  // CORVIDA_COMMON_CORVIDA_ERROR_CODE_H_
