#pragma once
// The plug-in as a shared library: loaded by path, entered through its two exports, unloaded
// when this object goes.
//
// Loading uses dlopen with RTLD_NOW | RTLD_LOCAL and looks up "mlMain" and "mlShutdown".
// The destructor calls mlShutdown (a second call is harmless to the plug-in, so an explicit
// shutdown() before is fine) and then unloads the library. The host must not run calls while the
// library is shut down or destroyed.
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "ML/Host.h"

namespace QHost {

// Failure to load a plug-in library: missing file, refused by the loader, missing export.
class PluginLoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class PluginLibrary {
public:
    // Throws PluginLoadError with the path and the cause.
    explicit PluginLibrary(const std::filesystem::path& path);
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    const std::filesystem::path& path() const { return path_; }
    ML::MainFunction mainFunction() const { return main_; }
    ML::ShutdownFunction shutdownFunction() const { return shutdown_; }

    // mlMain(host, call) as it is.
    ML::i32 main(ML::Host* host, ML::u64 call) const { return main_(host, call); }
    // mlShutdown().
    ML::i32 shutdown() const { return shutdown_(); }

    // One whole call: registers settings with host, runs mlMain, ends the call; mlMain's result.
    ML::i32 run(Host& host, std::shared_ptr<CallSettings> settings) const;
    // The same after settings->setMode(mode).
    ML::i32 run(Host& host, std::shared_ptr<CallSettings> settings, int mode) const;

    // Runs a call in mode 2 and keeps copies of the tables it published (settings need the data
    // and aux folders when this is the plug-in's first call). Returns mlMain's result; the tables
    // stay as they were when the call published none.
    ML::i32 publishQueryTables(Host& host, std::shared_ptr<CallSettings> settings);
    // The tables from publishQueryTables, or null before; valid while this object lives.
    const ML::PluginQueryFunctions* queryFunctions() const { return queries_ ? &*queries_ : nullptr; }
    const ML::PluginParamFunctions* paramFunctions() const { return params_ ? &*params_ : nullptr; }

private:
    std::filesystem::path path_;
    void* handle_ = nullptr;
    ML::MainFunction main_ = nullptr;
    ML::ShutdownFunction shutdown_ = nullptr;
    std::optional<ML::PluginQueryFunctions> queries_;
    std::optional<ML::PluginParamFunctions> params_;
};

}  // namespace QHost
