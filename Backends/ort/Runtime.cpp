#include "Runtime.h"

#include <mutex>
#include <string>

#include "BackendLog.h"
#include "CpuInfo.h"

namespace ML::OrtBackend {

namespace {

Ort::ThreadingOptions sharedPoolOptions(int threads) {
    Ort::ThreadingOptions options;
    options.SetGlobalIntraOpNumThreads(threads);
    options.SetGlobalInterOpNumThreads(1);
    // No spinning between runs: the fused helper operators' own threads and the host need the cores.
    options.SetGlobalSpinControl(0);
    return options;
}

std::mutex g_runtimeMutex;
std::shared_ptr<Runtime> g_runtime;

}  // namespace

Runtime::Runtime(int threads)
    : threads_(threads),
      // ONNX Runtime's own messages stay on its default sink: the environment can be shared with
      // other users of the library in the process and outlive this one, so it gets no callback
      // into this library. Its errors reach the plug-in as the texts of failed calls anyway.
      env_(sharedPoolOptions(threads), ORT_LOGGING_LEVEL_ERROR, (std::string("MLBackend_") + backendName()).c_str()) {}

std::shared_ptr<Runtime> acquireRuntime() {
    std::lock_guard<std::mutex> lock(g_runtimeMutex);
    if (!g_runtime) g_runtime = std::make_shared<Runtime>(physicalCoreCount());
    return g_runtime;
}

int sharedPoolThreads() {
    std::lock_guard<std::mutex> lock(g_runtimeMutex);
    return g_runtime ? g_runtime->threads() : physicalCoreCount();
}

void shutdownRuntime() {
    std::shared_ptr<Runtime> released;
    {
        std::lock_guard<std::mutex> lock(g_runtimeMutex);
        released.swap(g_runtime);
    }
}

}  // namespace ML::OrtBackend
