#include "Plugin/PlatformUtil.h"

#include <dlfcn.h>

#include <stdexcept>

namespace ML {

std::filesystem::path pluginLibraryFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&pluginLibraryFolder), &info) == 0 || !info.dli_fname)
        throw std::runtime_error("Could not find the plug-in's own library path");
    std::error_code ec;
    std::filesystem::path self = std::filesystem::canonical(info.dli_fname, ec);
    if (ec) self = std::filesystem::absolute(info.dli_fname);
    return self.parent_path();
}

std::string backendLibraryFileName(const std::string& backendName) { return "MLBackend_" + backendName + ".so"; }

}  // namespace ML
