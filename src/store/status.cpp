#include "store/status.h"

namespace corvida {
namespace store {

const char* CodeName(Status::Code code) {
    switch (code) {
        case Status::Code::kOk: return "ok";
        case Status::Code::kNotFound: return "not found";
        case Status::Code::kIncompatibleSchema: return "incompatible schema";
        case Status::Code::kInvalidArgument: return "invalid argument";
        case Status::Code::kCorruption: return "corruption";
        case Status::Code::kIOError: return "I/O error";
        case Status::Code::kBusy: return "busy";
        case Status::Code::kNotSupported: return "not supported";
        case Status::Code::kAlreadyExists: return "already exists";
    }
    return "unknown";
}

std::string Status::ToString() const {
    if (ok()) return "ok";
    return std::string(CodeName(m_code)) + ": " + m_message;
}

}  // namespace store
}  // namespace corvida
