#include "Plugin/PluginMain.h"

#include <BuildId.h>

#include <mutex>
#include <stdexcept>
#include <string>

#include "Plugin/PluginContext.h"
#include "Plugin/PluginLogger.h"

namespace ML {

PluginContext* g_pluginContext = nullptr;

namespace {

std::mutex g_mutex;

enum CallMode : int { MODE_INIT = 1, MODE_QUERY = 2, MODE_PREPARE = 3, MODE_RENDER = 4, MODE_UNLOAD = 5 };

// Makes the logger and the context if they are missing. Runs under g_mutex.
void initialise(Host* host, u64 call, int mode) {
    if (!g_hostLogger || mode == MODE_INIT) {
        Logger* logger = host->getLogger();
        if (!logger) ML_THROW("Host must provide logger via getLogger()");
        g_hostLogger = logger;
    }
    if (!g_pluginLogger) g_pluginLogger = new PluginLogger(g_hostLogger->getLogLevel());
    if (!g_pluginContext) {
        logInfo(std::string("Initializing.. Build ID: ") + QUILLON_BUILD_ID);
        const std::filesystem::path dataFolder(toStd(host->getStringParam(call, 1, 0)));
        const std::filesystem::path auxFolder(toStd(host->getStringParam(call, 2, 0)));
        g_pluginContext = new PluginContext(dataFolder, auxFolder);
    }
}

void publishQueryFunctions(Host* host, u64 call) {
    const PluginQueryFunctions queries{
        &PluginContext::getNumBackends, &PluginContext::getBackendName,  &PluginContext::getBackendDetail,
        &PluginContext::getNumDevices,  &PluginContext::getDeviceName,   &PluginContext::getBackendLabel,
        &PluginContext::getDefaultBackendIndex, &PluginContext::getDefaultDeviceIndex,
    };
    const PluginParamFunctions params{&PluginContext::getIntPluginParam, &PluginContext::getStringPluginParam,
                                      nullptr};
    host->setPluginQueryFunctions(call, &queries, &params);
}

i32 run(Host* host, u64 call) {
    if (!host) ML_THROW("No host provided");
    const int mode = host->getCallMode(call);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        initialise(host, call, mode);
    }
    switch (mode) {
        case MODE_INIT: break;
        case MODE_QUERY: publishQueryFunctions(host, call); break;
        case MODE_PREPARE: g_pluginContext->render(host, call, true); break;
        case MODE_RENDER: g_pluginContext->render(host, call, false); break;
        case MODE_UNLOAD: g_pluginContext->unload(host, call); break;
        default: ML_THROW("Unknown call mode provided by host");
    }
    return STATUS_OK;
}

std::string currentExceptionText() {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (const std::string& s) {
        return s;
    } catch (const char* s) {
        return s ? s : "Unknown error";
    } catch (...) {
        return "Unknown error";
    }
}

}  // namespace
}  // namespace ML

extern "C" ML::i32 mlMain(ML::Host* host, ML::u64 call) {
    using ML::Exception;
    try {
        return ML::run(host, call);
    } catch (const Exception& e) {
        if (e.code() == Exception::CANCEL) return ML::STATUS_CANCELLED;
        ML::logError(e.what());
        if (e.source() == Exception::BACKEND && e.code() == Exception::INTERNAL) return ML::STATUS_BACKEND_INTERNAL;
        if (e.source() == Exception::PLUGIN && e.code() == Exception::HOST) return ML::STATUS_HOST;
        return ML::STATUS_OTHER;
    } catch (...) {
        ML::logError(ML::currentExceptionText());
        return ML::STATUS_OTHER;
    }
}

extern "C" ML::i32 mlShutdown() {
    std::lock_guard<std::mutex> lock(ML::g_mutex);
    delete ML::g_pluginContext;
    ML::g_pluginContext = nullptr;
    return 0;
}
