#pragma once
// The loaded plug-in with the host that answers it: one per command.
//
// The logger's level is fixed before the first call, since the plug-in reads it only once;
// lines are echoed to the error stream.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/PluginLibrary.h"

namespace QCli {

struct SessionConfig {
    std::filesystem::path plugin;   // empty: default
    std::filesystem::path package;  // empty: default
    int verbosity = 0;
    std::uint64_t cacheBytes = std::uint64_t(2048) << 20;
};

class Session {
public:
    // Throws CliError (EXIT_HOST) when the package or the plug-in library is missing.
    Session(const SessionConfig& config, std::ostream& log);
    ~Session();

    QHost::Host& host() { return *host_; }
    QHost::PluginLibrary& library() { return *library_; }
    const std::filesystem::path& packageDir() const { return package_; }

    // Settings for one call with the package folders filled in.
    std::shared_ptr<QHost::CallSettings> newSettings(int mode, int target) const;
    // One whole call.
    int run(const std::shared_ptr<QHost::CallSettings>& settings);

    // Runs mode 2 and returns the tables; throws CliError when the plug-in publishes none.
    const ML::PluginQueryFunctions& queries();
    const ML::PluginParamFunctions& params();

    // The text of the plug-in's most recent error line, without its prefix; "" when none.
    std::string lastPluginError() const;

private:
    void publishTables();

    std::filesystem::path package_;
    std::unique_ptr<QHost::Host> host_;
    std::unique_ptr<QHost::PluginLibrary> library_;
};

}  // namespace QCli
