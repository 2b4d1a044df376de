// SharedLibrary: a shared object opened with dlopen, closed when the handle
// goes. Private to the store.
//
// Open never aborts and throws nothing: a file that is missing, is not a
// shared object of this machine, or needs a library or symbol the process
// cannot provide leaves the handle empty and returns the dynamic linker's
// reason, which names the file. Objects are opened with every symbol bound
// at once (a missing symbol fails here, not at the first call) and kept out
// of the global scope, so that nothing they define takes the place of the
// program's own definitions.
//
// A handle that is Released stays loaded for the rest of the process: the
// store does that with code whose objects or threads may outlive any one
// caller.
#ifndef CORVIDA_STORE_SHARED_LIBRARY_H_
#define CORVIDA_STORE_SHARED_LIBRARY_H_

#include <string>
#include <vector>

namespace corvida {
namespace store {

class SharedLibrary {
public:
    SharedLibrary() = default;
    ~SharedLibrary();
    SharedLibrary(SharedLibrary&& other) noexcept;
    SharedLibrary& operator=(SharedLibrary&& other) noexcept;
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // Opens file (a path, or a bare name looked up the dynamic linker's way).
    // On failure the handle is empty and *error the reason.
    bool Open(const std::string& file, std::string* error);

    bool is_open() const { return m_handle != nullptr; }

    // The address of the symbol named name, or null (and *error) when the
    // object does not define it.
    void* Symbol(const char* name, std::string* error) const;

    // The file the object was loaded from (a bare name resolved), or the
    // name it was opened by when the dynamic linker does not say.
    std::string LoadedPath() const;

    // Leaves the object loaded until the process ends.
    void Release() { m_handle = nullptr; }

private:
    void* m_handle = nullptr;
    std::string m_name;
};

// The directory of the file holding the code at address: the program, or the
// shared library linked into it. Empty when it cannot be told.
std::string DirectoryOfCode(const void* address);

// The directories the dynamic linker searches for the program's own
// libraries, in its order: the program's RUNPATH (or RPATH),
// LD_LIBRARY_PATH, the system's directories. Asked of the program's handle
// rather than left to dlopen's own search of a bare name, which takes the
// RUNPATH of the object that called dlopen: under a sanitizer that
// intercepts dlopen that caller is the sanitizer's runtime, whose search
// knows nothing of the program's. Empty when the linker does not say.
std::vector<std::string> ProgramSearchPath();

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_SHARED_LIBRARY_H_
