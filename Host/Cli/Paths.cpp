#include "Host/Cli/Paths.h"

#include <system_error>

namespace QCli {

std::filesystem::path executableDir() {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) return std::filesystem::current_path();
    return self.parent_path();
}

std::filesystem::path defaultPluginPath() { return executableDir() / "Quillon.so"; }

std::filesystem::path defaultPackageDir() { return executableDir() / "package"; }

}  // namespace QCli
