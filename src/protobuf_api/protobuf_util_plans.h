// Per-type plans of the request-path operations (private to the bridge's .cpp
// files).
//
// What an operation derives from a message type alone (descriptor and
// reflection, key fields in number order, how each field is written, where
// each name leads) is the same on every call. For generated types it is
// worked out once and kept here, process-wide:
//
//   - Plans of a message's C++ class are found by its std::type_info, which
//     costs a pointer comparison, where asking the message for its descriptor
//     and reflection costs a virtual call and a once-flag each. Plans of a
//     message type are found by its descriptor.
//   - Only generated classes (IsGeneratedClass) and descriptors of the
//     generated pool are planned once: they live as long as the process, and
//     every instance of one generated class has the same descriptor and
//     reflection. Types of any other pool, which may be destroyed and another
//     built at the same address, and message classes of other kinds are
//     planned on every call.
//   - The hit path takes no lock: slots are atomic pointers to plans that are
//     immutable once published. A plan is published once and never freed, and
//     the table is bounded (kSlots plans of each kind, each key taking one of
//     kProbes slots from its home). When the slots a type may take are all
//     held by others, which lasts for the life of the process, its plan is
//     worked out on every call, as for types of other pools: callers ask
//     HasRoom before building a plan to keep, so that such a call allocates
//     nothing more than one of a type never planned; what it costs is the
//     lookups by name and number a kept plan saves.
#ifndef CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_PLANS_H_
#define CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_PLANS_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <typeinfo>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

namespace PROTOBUF_UTIL {
namespace internal {

// True when msg is an instance of the generated C++ class of desc (its
// descriptor, which must be non-null): the class then has one descriptor and
// one reflection, both living as long as the process.
bool IsGeneratedClass(const google::protobuf::Message& msg, const google::protobuf::Descriptor* desc);

// The descriptor and reflection of a message.
struct MessageType {
    const google::protobuf::Descriptor* desc;
    const google::protobuf::Reflection* reflection;
};

// msg's descriptor and reflection (either may be null), as msg.GetDescriptor()
// and msg.GetReflection() give them; kept per generated class.
MessageType TypeOf(const google::protobuf::Message& msg);

// True for descriptors of the generated pool, which live as long as the
// process.
inline bool IsGeneratedType(const google::protobuf::Descriptor* desc) {
    // Asking protobuf for its generated pool runs a once-flag and builds
    // descriptor.proto's descriptors on first use; the pool never moves.
    static const google::protobuf::DescriptorPool* const generated = google::protobuf::DescriptorPool::generated_pool();
    return desc->file()->pool() == generated;
}

// The published plans of one kind. Plan has a member `const void* key`: the
// std::type_info of the class, or the descriptor, it was made for.
template <typename Plan>
class PlanCache {
public:
    static constexpr size_t kSlots = 256;

    // The plan made for key, or null when none is published.
    static const Plan* Find(const void* key) {
        const size_t home = Home(key);
        for (size_t probe = 0; probe < kProbes; ++probe) {
            const Plan* plan = s_slots[(home + probe) % kSlots].load(std::memory_order_acquire);
            if (plan == nullptr) return nullptr;
            if (plan->key == key) return plan;
        }
        return nullptr;
    }

    // False when a plan for key can never be published: every slot it may
    // take holds the plan of another key (slots are never freed). A plan for
    // key may already be published; Find tells.
    static bool HasRoom(const void* key) {
        const size_t home = Home(key);
        for (size_t probe = 0; probe < kProbes; ++probe) {
            const Plan* plan = s_slots[(home + probe) % kSlots].load(std::memory_order_acquire);
            if (plan == nullptr || plan->key == key) return true;
        }
        return false;
    }

    // Publishes plan (of a generated class or type) and returns the plan now
    // kept for its key: this one, or one another thread published first.
    // Returns null, and leaves plan with the caller, when there is no room.
    static const Plan* Publish(std::unique_ptr<Plan>& plan) {
        const size_t home = Home(plan->key);
        for (size_t probe = 0; probe < kProbes; ++probe) {
            std::atomic<const Plan*>& slot = s_slots[(home + probe) % kSlots];
            const Plan* expected = nullptr;
            if (slot.compare_exchange_strong(expected, plan.get(), std::memory_order_acq_rel)) {
                return plan.release();  // kept for the life of the process
            }
            if (expected->key == plan->key) return expected;
        }
        return nullptr;
    }

private:
    static constexpr size_t kProbes = 8;

    static size_t Home(const void* key) {
        const uintptr_t address = reinterpret_cast<uintptr_t>(key);
        return static_cast<size_t>((address >> 4) ^ (address >> 12)) % kSlots;
    }

    static std::atomic<const Plan*> s_slots[kSlots];
};

template <typename Plan>
std::atomic<const Plan*> PlanCache<Plan>::s_slots[PlanCache<Plan>::kSlots] = {};

}  // namespace internal
}  // namespace PROTOBUF_UTIL

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_PLANS_H_
