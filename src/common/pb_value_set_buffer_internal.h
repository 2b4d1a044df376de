// Helpers shared by the value-set layouts (private to their .cpp files).
//
// PBVSB_LOG_ERROR(log, format, ...) writes one line at error priority when
// the category takes it (plog_category_accepts); the arguments are evaluated
// only after the test passed. A null category writes nothing.
#ifndef CORVIDA_COMMON_PB_VALUE_SET_BUFFER_INTERNAL_H_
#define CORVIDA_COMMON_PB_VALUE_SET_BUFFER_INTERNAL_H_

#include <cstring>

#include "common/i_pb_value_set_buffer.h"
#include "plog/plog.h"
#include "protocol/corvida_protocol_comm.h"

namespace CorvidaCommon {
namespace pbvsb_log {

// Every line of the builder carries this file text, whichever layout wrote it.
constexpr const char kLogFile[] = "corvida/src/common/pb_value_set_buffer";

}  // namespace pbvsb_log

namespace pbvsb_internal {

// Checks a tag path handed to InsertCutField() and sets *len to its length.
// Scans at most CORVIDA_PROTOBUF_MAX_TAG_PATH bytes of it.
inline int CheckTagPath(const char* path, size_t* len) {
    if (path == nullptr) return PBVSB_ERR_INVALID_ARGUMENT;
    *len = strnlen(path, CORVIDA_PROTOBUF_MAX_TAG_PATH);
    return *len >= CORVIDA_PROTOBUF_MAX_TAG_PATH ? PBVSB_ERR_TAG_PATH_TOO_LONG : 0;
}

// Log text of a CheckTagPath() failure.
inline const char* TagPathError(int ret) {
    return ret == PBVSB_ERR_INVALID_ARGUMENT ? "null tag path" : "tag path of 1024 characters or more";
}

// The wire type a closed field keeps: the one given to InsertCutField(), or,
// when that was negative and the field has bytes, the low three bits of its
// first byte (the field's own key starts it).
inline int ClosedWireType(int given, const char* bytes, int len) {
    return given < 0 && len > 0 ? static_cast<unsigned char>(bytes[0]) & 0x7 : given;
}

}  // namespace pbvsb_internal
}  // namespace CorvidaCommon

#define PBVSB_LOG_ERROR(log, ...) \
    PLOG_WRITE_IF((log), PLOG_PRIORITY_ERROR, ::CorvidaCommon::pbvsb_log::kLogFile, plog_category_logv, __VA_ARGS__)

#endif  // CORVIDA_COMMON_PB_VALUE_SET_BUFFER_INTERNAL_H_
