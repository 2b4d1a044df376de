#include "store/shared_library.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <utility>
#include <vector>

namespace corvida {
namespace store {

namespace {

std::string LastDlError(const std::string& fallback) {
    const char* reason = dlerror();
    return reason != nullptr ? std::string(reason) : fallback;
}

}  // namespace

SharedLibrary::~SharedLibrary() {
    if (m_handle != nullptr) dlclose(m_handle);
}

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept
    : m_handle(std::exchange(other.m_handle, nullptr)), m_name(std::move(other.m_name)) {}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept {
    if (this != &other) {
        if (m_handle != nullptr) dlclose(m_handle);
        m_handle = std::exchange(other.m_handle, nullptr);
        m_name = std::move(other.m_name);
    }
    return *this;
}

bool SharedLibrary::Open(const std::string& file, std::string* error) {
    *this = SharedLibrary();
    dlerror();
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        *error = LastDlError(file + ": cannot be loaded");
        return false;
    }
    m_handle = handle;
    m_name = file;
    return true;
}

void* SharedLibrary::Symbol(const char* name, std::string* error) const {
    dlerror();
    void* address = m_handle != nullptr ? dlsym(m_handle, name) : nullptr;
    if (address == nullptr) *error = LastDlError(m_name + ": no symbol " + name);
    return address;
}

std::string SharedLibrary::LoadedPath() const {
    struct link_map* map = nullptr;
    if (m_handle != nullptr && dlinfo(m_handle, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr &&
        map->l_name != nullptr && map->l_name[0] != '\0') {
        return map->l_name;
    }
    return m_name;
}

std::string DirectoryOfCode(const void* address) {
    Dl_info info{};
    struct link_map* map = nullptr;
    if (dladdr1(address, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 || map == nullptr) {
        return std::string();
    }
    // The program itself has no name in the linker's list (dladdr would give
    // the name it was started by, relative to a directory it may have left);
    // the kernel knows its path.
    std::string file;
    if (map->l_name != nullptr && map->l_name[0] != '\0') {
        file = map->l_name;
    } else {
        char target[4096];
        const ssize_t length = readlink("/proc/self/exe", target, sizeof(target) - 1);
        if (length <= 0) return std::string();
        file.assign(target, static_cast<size_t>(length));
    }
    const size_t slash = file.rfind('/');
    if (slash == std::string::npos) return std::string();
    return file.substr(0, slash == 0 ? 1 : slash);
}

std::vector<std::string> ProgramSearchPath() {
    std::vector<std::string> dirs;
    void* program = dlopen(nullptr, RTLD_LAZY);
    if (program == nullptr) return dirs;
    Dl_serinfo size{};
    if (dlinfo(program, RTLD_DI_SERINFOSIZE, &size) == 0 && size.dls_size >= sizeof(Dl_serinfo)) {
        // Dl_serinfo's own alignment for the linker's table and the strings after it.
        std::vector<Dl_serinfo> table((size.dls_size + sizeof(Dl_serinfo) - 1) / sizeof(Dl_serinfo));
        Dl_serinfo* info = table.data();
        if (dlinfo(program, RTLD_DI_SERINFOSIZE, info) == 0 && dlinfo(program, RTLD_DI_SERINFO, info) == 0) {
            for (unsigned i = 0; i < info->dls_cnt; ++i) {
                if (info->dls_serpath[i].dls_name != nullptr) dirs.emplace_back(info->dls_serpath[i].dls_name);
            }
        }
    }
    dlclose(program);
    return dirs;
}

}  // namespace store
}  // namespace corvida
