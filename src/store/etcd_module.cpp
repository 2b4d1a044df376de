#include "store/etcd_module.h"

#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "store/scratch.h"
#include "store/shared_library.h"

namespace corvida {
namespace store {

namespace {

using EtcdModuleEntryFn = const EtcdModule* (*)();

// Takes the table of entry points of an opened module; the module stays
// loaded when it fits (store/etcd_module.h), and is closed again otherwise.
Status UseModule(SharedLibrary library, const EtcdModule** module) {
    const std::string path = library.LoadedPath();
    std::string error;
    void* entry = library.Symbol(kEtcdModuleEntry, &error);
    if (entry == nullptr) return Status::IOError("the etcd engine's module cannot be used: " + error);
    const EtcdModule* table = reinterpret_cast<EtcdModuleEntryFn>(entry)();
    if (table == nullptr || table->abi == nullptr || table->open == nullptr) {
        return Status::IOError(path + ": the etcd engine's module gives no entry points");
    }
    if (std::strcmp(table->abi, kEtcdModuleAbi) != 0) {
        return Status::IOError(path + ": the etcd engine's module comes from another build (" + table->abi +
                               ") than this table store (" + kEtcdModuleAbi + ")");
    }
    library.Release();
    *module = table;
    return Status::OK();
}

Status LoadModuleFile(const std::string& file, const EtcdModule** module) {
    SharedLibrary library;
    std::string error;
    if (!library.Open(file, &error)) return Status::IOError("the etcd engine's module cannot be loaded: " + error);
    return UseModule(std::move(library), module);
}

bool FileExists(const std::string& file) { return access(file.c_str(), F_OK) == 0; }

// The places 2 and 3 of store/etcd_module.h, without repeats.
std::vector<std::string> ModuleDirectories() {
    std::vector<std::string> dirs;
    const std::string code = DirectoryOfCode(reinterpret_cast<const void*>(&LoadModuleFile));
    if (code.empty()) return dirs;
    dirs.push_back(code);
    const std::string installed = code + "/" + CORVIDA_STORE_BIN_TO_LIB;
    char resolved[PATH_MAX];
    if (realpath(installed.c_str(), resolved) != nullptr && code != resolved) dirs.emplace_back(resolved);
    return dirs;
}

Status FindAndLoadModule(const EtcdModule** module) {
    const char* chosen = secure_getenv(kEtcdModuleVariable);
    if (chosen != nullptr && chosen[0] != '\0') {
        if (!FileExists(chosen)) {
            return Status::NotSupported(std::string(chosen) + ": no such file (the etcd engine's module named by " +
                                        kEtcdModuleVariable + ")");
        }
        return LoadModuleFile(chosen, module);
    }
    const std::vector<std::string> dirs = ModuleDirectories();
    for (const std::string& dir : dirs) {
        const std::string file = dir + "/" + kEtcdModuleFile;
        if (FileExists(file)) return LoadModuleFile(file, module);
    }
    // The dynamic linker's search for the program's libraries, then its own
    // search of the bare name (the system's library cache): a failure there
    // means not found, as far as it tells.
    for (const std::string& dir : ProgramSearchPath()) {
        const std::string file = dir + "/" + kEtcdModuleFile;
        if (FileExists(file)) return LoadModuleFile(file, module);
    }
    SharedLibrary library;
    std::string error;
    if (library.Open(kEtcdModuleFile, &error)) return UseModule(std::move(library), module);
    std::string where;
    for (const std::string& dir : dirs) where += dir + ", ";
    return Status::NotSupported(std::string("the etcd engine's module ") + kEtcdModuleFile + " is not installed (not in " +
                                where + "nor on the dynamic linker's path)");
}

// The module of this process, once loaded, and what it is to be told.
struct LoadedModule {
    std::mutex mutex;
    const EtcdModule* module = nullptr;
    RuntimeLogFunction runtime_log = nullptr;
};

LoadedModule& Loaded() {
    static LoadedModule loaded;
    return loaded;
}

}  // namespace

Status OpenEtcdEngineModule(std::string_view locator, const StoreOptions& options, std::unique_ptr<Engine>* engine) {
    LoadedModule& loaded = Loaded();
    const EtcdModule* module = nullptr;
    Status s = NoThrow([&] {
        std::lock_guard<std::mutex> lock(loaded.mutex);
        if (loaded.module == nullptr) {
            Status found = FindAndLoadModule(&loaded.module);
            if (!found.ok()) return found;
            if (loaded.runtime_log != nullptr) loaded.module->set_runtime_log(loaded.runtime_log);
        }
        module = loaded.module;
        return Status::OK();
    });
    if (!s.ok()) {
        const std::string where(locator);
        return s.IsNotSupported() ? Status::NotSupported(where + ": " + s.message())
                                  : Status::IOError(where + ": " + s.message());
    }
    return module->open(locator, options, engine);
}

void SetRuntimeLog(RuntimeLogFunction function) {
    if (function == nullptr) return;
    LoadedModule& loaded = Loaded();
    std::lock_guard<std::mutex> lock(loaded.mutex);
    loaded.runtime_log = function;
    if (loaded.module != nullptr) loaded.module->set_runtime_log(function);
}

}  // namespace store
}  // namespace corvida
