#pragma once
// Loader of a library that follows the mlMain/mlShutdown pattern: loads by full path at
// construction, finds both entry points, and calls mlShutdown before it unloads.
#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "ML/Types.h"

namespace ML {

template <class Call>
class DLL {
public:
    using MainFunction = i32 (*)(Call* call, u64 reserved);
    using ShutdownFunction = void (*)();

    // Loads the library at once; a missing library or entry point is a std::runtime_error.
    explicit DLL(std::filesystem::path libraryPath) : path(std::move(libraryPath)) {
        // The library's own folder is searched first through its RUNPATH ($ORIGIN).
        module = ::dlopen(path.c_str(), mode);
        if (!module) {
            const char* reason = ::dlerror();
            throw std::runtime_error("Could not load dynamic library: " + path.string() +
                                     (reason ? std::string(" (") + reason + ")" : std::string()));
        }
        mainFunction = reinterpret_cast<MainFunction>(::dlsym(module, "mlMain"));
        if (!mainFunction) fail("Could not find dynamic library main function: ");
        shutdownFunction = reinterpret_cast<ShutdownFunction>(::dlsym(module, "mlShutdown"));
        if (!shutdownFunction) fail("Could not find dynamic library shutdown function: ");
    }

    ~DLL() { unload(); }

    DLL(const DLL&) = delete;
    DLL& operator=(const DLL&) = delete;

    bool isLoaded() const { return module != nullptr; }
    MainFunction getMain() const { return mainFunction; }
    const std::filesystem::path& getPath() const { return path; }

    // Calls mlShutdown, then unloads. Safe to call twice.
    void unload() {
        if (!module) return;
        if (shutdownFunction) shutdownFunction();
        mainFunction = nullptr;
        shutdownFunction = nullptr;
        ::dlclose(module);
        module = nullptr;
    }

private:
    // The entry points were never used, so the library is closed without mlShutdown.
    [[noreturn]] void fail(const char* what) {
        ::dlclose(module);
        module = nullptr;
        mainFunction = nullptr;
        shutdownFunction = nullptr;
        throw std::runtime_error(what + path.string());
    }

    void* module = nullptr;
    std::filesystem::path path;
    MainFunction mainFunction = nullptr;
    ShutdownFunction shutdownFunction = nullptr;
    int mode = RTLD_NOW | RTLD_LOCAL;
};

}  // namespace ML
