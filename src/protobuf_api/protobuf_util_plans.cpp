#include "protobuf_api/protobuf_util_plans.h"

namespace PROTOBUF_UTIL {
namespace internal {

bool IsGeneratedClass(const google::protobuf::Message& msg, const google::protobuf::Descriptor* desc) {
    // Only types of the generated pool have generated classes; asking the
    // generated factory about any other type is pointless.
    if (desc->file()->pool() != google::protobuf::DescriptorPool::generated_pool()) return false;
    const google::protobuf::Message* prototype =
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(desc);
    return prototype != nullptr && typeid(*prototype) == typeid(msg);
}

}  // namespace internal
}  // namespace PROTOBUF_UTIL
