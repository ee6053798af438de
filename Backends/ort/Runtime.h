#pragma once
// The process-wide ONNX Runtime environment. Every object of the backend holds a share of it,
// and the library holds one more until mlShutdown, so the environment goes when the library is
// shut down and no object remains; the next mlMain makes a new one.
#include <memory>

#include <onnxruntime_cxx_api.h>

namespace ML::OrtBackend {

class Runtime {
public:
    explicit Runtime(int threads);
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    Ort::Env& env() { return env_; }
    // Threads of the shared pool that networks use unless their load options ask for their own.
    int threads() const { return threads_; }

private:
    int threads_;
    Ort::Env env_;
};

// The environment, made on first use after library start or after shutdownRuntime.
std::shared_ptr<Runtime> acquireRuntime();

// Threads of the shared pool: the environment's, or what a new one would get.
int sharedPoolThreads();

// Drops the library's share; the environment goes with the last object that holds it.
void shutdownRuntime();

}  // namespace ML::OrtBackend
