#include "Host/PluginLibrary.h"

#include <dlfcn.h>

#include <system_error>

namespace QHost {

namespace {

std::string loaderError() {
    const char* text = dlerror();
    return text ? text : "unknown loader error";
}

}  // namespace

PluginLibrary::PluginLibrary(const std::filesystem::path& path) : path_(path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path_, error))
        throw PluginLoadError("Plug-in library not found: " + path_.string());
    dlerror();
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) throw PluginLoadError("Could not load plug-in library " + path_.string() + ": " + loaderError());

    const auto symbol = [this](const char* name) {
        dlerror();
        void* address = dlsym(handle_, name);
        if (!address) {
            const std::string cause = loaderError();
            dlclose(handle_);
            handle_ = nullptr;
            throw PluginLoadError("Plug-in library " + path_.string() + " does not export " + name + ": " + cause);
        }
        return address;
    };
    main_ = reinterpret_cast<ML::MainFunction>(symbol("mlMain"));
    shutdown_ = reinterpret_cast<ML::ShutdownFunction>(symbol("mlShutdown"));
}

PluginLibrary::~PluginLibrary() {
    if (!handle_) return;
    shutdown_();
    dlclose(handle_);
}

ML::i32 PluginLibrary::run(Host& host, std::shared_ptr<CallSettings> settings) const {
    return host.run(main_, std::move(settings));
}

ML::i32 PluginLibrary::run(Host& host, std::shared_ptr<CallSettings> settings, int mode) const {
    if (!settings) throw std::invalid_argument("run needs call settings");
    settings->setMode(mode);
    return host.run(main_, std::move(settings));
}

ML::i32 PluginLibrary::publishQueryTables(Host& host, std::shared_ptr<CallSettings> settings) {
    if (!settings) throw std::invalid_argument("publishQueryTables needs call settings");
    const ML::i32 result = run(host, settings, 2);
    if (auto queries = settings->queryFunctions()) queries_ = *queries;
    if (auto params = settings->paramFunctions()) params_ = *params;
    return result;
}

}  // namespace QHost
