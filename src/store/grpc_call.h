// One unary gRPC call made through gRPC's callback API and waited for.
// Private to the store.
//
// Unlike gRPC's blocking calls, the callback API keeps gRPC's own threads
// polling every channel, so that a server that comes back (an etcd member
// restarted) is connected to again within the channel's reconnect backoff;
// a blocking call's channel notices a finished background connection only
// at gRPC's backup poll, every five seconds, and fails fast meanwhile.
#ifndef CORVIDA_STORE_GRPC_CALL_H_
#define CORVIDA_STORE_GRPC_CALL_H_

#include <atomic>
#include <functional>
#include <future>
#include <utility>

#include <grpcpp/support/status.h>

namespace corvida {
namespace store {

// What a call is given to run when it ends.
using GrpcDone = std::function<void(grpc::Status)>;

namespace grpc_call_internal {
// Orders what the waiting thread wrote before starting a call before what
// the callback reads: gRPC hands the call to its threads in code that
// ThreadSanitizer does not see.
inline std::atomic<unsigned> handovers{0};
}  // namespace grpc_call_internal

// Calls start(done), which begins one call of a stub's async() interface
// with done as its callback, and returns the call's status once done ran.
// The call's context, request and response must live until then, which they
// do when they belong to the caller.
template <typename Start>
grpc::Status AwaitCall(const Start& start) {
    std::promise<grpc::Status> finished;
    std::future<grpc::Status> result = finished.get_future();
    grpc_call_internal::handovers.fetch_add(1, std::memory_order_release);
    start(GrpcDone([&finished](grpc::Status status) {
        grpc_call_internal::handovers.load(std::memory_order_acquire);
        finished.set_value(std::move(status));
    }));
    return result.get();
}

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_GRPC_CALL_H_
