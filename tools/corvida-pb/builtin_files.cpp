#include "corvida-pb/builtin_files.h"

#include <google/protobuf/descriptor.h>

namespace corvida_pb {
namespace {

const char kProtobufDir[] = "google/protobuf/";

}  // namespace

bool IsBuiltinProtoName(const std::string& name) {
    return name == kOptionProtoName || name.compare(0, sizeof(kProtobufDir) - 1, kProtobufDir) == 0;
}

bool BuiltinProtoText(const std::string& name, std::string* text) {
    if (name == kOptionProtoName) {
        *text = kOptionProtoText;
        return true;
    }
    if (!IsBuiltinProtoName(name)) return false;
    // DebugString() of a file descriptor is valid .proto text.
    const google::protobuf::FileDescriptor* file =
        google::protobuf::DescriptorPool::generated_pool()->FindFileByName(name);
    if (file == nullptr) return false;
    *text = file->DebugString();
    return true;
}

}  // namespace corvida_pb
