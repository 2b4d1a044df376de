// The etcd engine as a module of its own: what the table store and the
// module agree on. Private to the store.
//
// The etcd engine needs gRPC, and gRPC with what it links (Abseil, c-ares,
// re2, ...) costs a process tens of milliseconds to map and relocate before
// main, whichever store it opens. So the engine (store/etcd_*.cpp and etcd's
// generated API) is built as the shared object libcorvida_store_etcd.so, and
// the table store loads it the first time an etcd:// locator is opened: a
// process that opens directories only never maps gRPC.
//
// Where the module is looked for, in order:
//   1. the file named by CORVIDA_STORE_ETCD_MODULE, when that variable is set
//      (the only place then);
//   2. the directory of the code that holds the table store: the directory
//      of libcorvida_table_store.so, or of the program that links the static
//      library;
//   3. the library directory of an installed tree seen from there (../lib
//      from bin/);
//   4. the dynamic linker's search for the program's libraries (the
//      program's RUNPATH, LD_LIBRARY_PATH, the system's directories): how
//      programs of the build tree find it; then its search of the bare name
//      (the system's library cache).
// Nothing depends on where the tree was installed or moved to.
//
// The module exports one function with C linkage, kEtcdModuleEntry, which
// returns its EtcdModule. The store checks that abi equals kEtcdModuleAbi (the
// project version and a mark of the configuration that built both: the
// module and the store share C++ types, so they must come from one build)
// before it calls anything else. A module that is
// missing is kNotSupported naming the file; one that cannot be loaded, lacks
// the entry or is of another version is kIOError naming the file and the
// reason. Nothing aborts the process.
//
// Once loaded the module stays loaded until the process ends: its engines
// may outlive the store that opened them, and gRPC keeps threads of its own.
// It is loaded once per process: its generated etcd API registers its files
// in protobuf's pool of generated descriptors, which takes each file once.
// A program that links the module itself (the engine's tests) has the same
// object when the store asks for it, so nothing registers twice.
#ifndef CORVIDA_STORE_ETCD_MODULE_H_
#define CORVIDA_STORE_ETCD_MODULE_H_

#include <memory>
#include <string_view>

#include "store/engine.h"
#include "store/status.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

// The module's table of entry points; its address stays valid while the
// module is loaded.
struct EtcdModule {
    // kEtcdModuleAbi of the build the module comes from.
    const char* abi;
    // OpenEtcdEngine (store/etcd_engine.h).
    Status (*open)(std::string_view locator, const StoreOptions& options, std::unique_ptr<Engine>* engine);
    // SetRuntimeLog (store/table_store.h) for gRPC's lines: the store passes
    // the function on when it loads the module and whenever it changes.
    void (*set_runtime_log)(RuntimeLogFunction function);
};

constexpr char kEtcdModuleFile[] = "libcorvida_store_etcd.so";
constexpr char kEtcdModuleEntry[] = "corvida_store_etcd_module";
constexpr char kEtcdModuleVariable[] = "CORVIDA_STORE_ETCD_MODULE";
constexpr char kEtcdModuleAbi[] = "corvida-store-etcd " CORVIDA_STORE_VERSION;

// Loads the module (once per process) and opens locator with it, as
// OpenEtcdEngine does; the loading failures above otherwise.
Status OpenEtcdEngineModule(std::string_view locator, const StoreOptions& options, std::unique_ptr<Engine>* engine);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ETCD_MODULE_H_
