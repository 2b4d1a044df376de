#include "protobuf_api/protobuf_util_plans.h"

namespace PROTOBUF_UTIL {
namespace internal {

bool IsGeneratedClass(const google::protobuf::Message& msg, const google::protobuf::Descriptor* desc) {
    // Only types of the generated pool have generated classes; asking the
    // generated factory about any other type is pointless.
    if (!IsGeneratedType(desc)) return false;
    const google::protobuf::Message* prototype =
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(desc);
    return prototype != nullptr && typeid(*prototype) == typeid(msg);
}

namespace {

struct ClassPlan {
    const void* key;  // the class's std::type_info
    MessageType type;
};

}  // namespace

MessageType TypeOf(const google::protobuf::Message& msg) {
    const std::type_info& type = typeid(msg);
    if (const ClassPlan* kept = PlanCache<ClassPlan>::Find(&type)) return kept->type;
    const MessageType found{msg.GetDescriptor(), msg.GetReflection()};
    if (found.desc != nullptr && found.reflection != nullptr && PlanCache<ClassPlan>::HasRoom(&type) &&
        IsGeneratedClass(msg, found.desc)) {
        std::unique_ptr<ClassPlan> plan(new (std::nothrow) ClassPlan{&type, found});
        if (plan != nullptr) PlanCache<ClassPlan>::Publish(plan);
    }
    return found;
}

}  // namespace internal
}  // namespace PROTOBUF_UTIL
