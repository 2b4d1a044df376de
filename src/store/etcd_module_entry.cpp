// The entry point of libcorvida_store_etcd.so (store/etcd_module.h): the one
// symbol the table store looks up in it, and the routing of gRPC's log lines.
#include <atomic>
#include <cstring>

#include <grpc/support/log.h>

#include "plog/plog.h"
#include "store/etcd_engine.h"
#include "store/etcd_module.h"

namespace corvida {
namespace store {
namespace {

std::atomic<RuntimeLogFunction> g_runtime_log{nullptr};

// gRPC calls this from its own threads, at any time.
void WriteGrpcLine(gpr_log_func_args* args) {
    const RuntimeLogFunction write = g_runtime_log.load(std::memory_order_acquire);
    if (write == nullptr || args == nullptr || args->message == nullptr) return;
    const int priority = args->severity == GPR_LOG_SEVERITY_ERROR  ? PLOG_PRIORITY_ERROR
                         : args->severity == GPR_LOG_SEVERITY_INFO ? PLOG_PRIORITY_INFO
                                                                   : PLOG_PRIORITY_DEBUG;
    write(priority, "grpc", args->message, std::strlen(args->message));
}

// gRPC has no way back to its own writer once replaced, so a null function
// (never passed by the store once it has passed another) leaves gRPC's.
void SetGrpcLog(RuntimeLogFunction function) {
    if (function == nullptr) return;
    g_runtime_log.store(function, std::memory_order_release);
    gpr_set_log_function(&WriteGrpcLine);
}

}  // namespace
}  // namespace store
}  // namespace corvida

extern "C" __attribute__((visibility("default"))) const corvida::store::EtcdModule* corvida_store_etcd_module() {
    static const corvida::store::EtcdModule module{corvida::store::kEtcdModuleAbi, &corvida::store::OpenEtcdEngine,
                                                   &corvida::store::SetGrpcLog};
    return &module;
}
