#include "NetworkModel.h"

#include <algorithm>
#include <filesystem>

#include "BackendError.h"
#include "BackendInstance.h"
#include "BackendLog.h"
#include "FusedOps.h"
#include "LoadOptions.h"
#include "NetworkSession.h"
#include "Runtime.h"
#include "Util/ML_WideText.h"

namespace ML::OrtBackend {

namespace {

Ort::SessionOptions sessionOptions(const LoadOptions& load, const std::string& name, const Device& device) {
    Ort::SessionOptions options;
    options.SetGraphOptimizationLevel(GraphOptimizationLevel::ORT_ENABLE_ALL);
    options.SetExecutionMode(ExecutionMode::ORT_SEQUENTIAL);
    options.SetLogId(name.c_str());
    if (load.intraOpThreads > 0) {
        options.SetIntraOpNumThreads(load.intraOpThreads);
        options.SetInterOpNumThreads(1);
    } else {
        options.DisablePerSessionThreads();  // the environment's shared pool
    }
    // The C++ wrapper has no form of this one.
    if (load.height) Ort::ThrowOnError(Ort::GetApi().AddFreeDimensionOverrideByName(options, "height", *load.height));
    if (load.width) Ort::ThrowOnError(Ort::GetApi().AddFreeDimensionOverrideByName(options, "width", *load.width));
    device.addExecutionProvider(options);
    addFusedOperators(options, sharedPoolThreads());
    return options;
}

Ort::Session openSession(const BackendInstance& instance, const LoadOptions& load, const std::string& name,
                         const std::filesystem::path& file) {
    Ort::Env& env = instance.runtime()->env();
    try {
        return Ort::Session(env, file.c_str(), sessionOptions(load, name, *instance.device()));
    } catch (const Ort::Exception&) {
        if (load.intraOpThreads > 0) throw;
    }
    // ONNX Runtime's environment is one per process: another user of the library may have made it
    // without the shared pool, which the first attempt needs. The network then gets its own.
    LoadOptions ownPool = load;
    ownPool.intraOpThreads = instance.runtime()->threads();
    Ort::Session session(env, file.c_str(), sessionOptions(ownPool, name, *instance.device()));
    logLine(instance.logger(), LOG_WARNING,
            "Network '" + name + "' runs on a thread pool of its own: the shared pool is not available");
    return session;
}

}  // namespace

NetworkModel::NetworkModel(std::shared_ptr<Runtime> runtime, std::shared_ptr<Device> device, std::string name,
                           Ort::Session session)
    : runtime_(std::move(runtime)),
      device_(std::move(device)),
      name_(std::move(name)),
      session_(std::move(session)),
      signature_(NetworkSignature::of(session_)) {}

Ptr<NetworkModel> NetworkModel::load(const BackendInstance& instance, const std::wstring& path,
                                     const std::string& optionsText) {
    std::string name = ML::narrow(path);
    std::replace(name.begin(), name.end(), '\\', '/');
    if (name.empty()) throw BackendError("No network path given");

    LoadOptions load;
    try {
        load = LoadOptions::parse(optionsText);
    } catch (const BackendError& e) {
        throw BackendError("Network '" + name + "': " + e.what());
    }
    if (load.enableRefit)
        logLine(instance.logger(), LOG_WARNING,
                "Network '" + name + "' asked for refitting, which this backend does not support; loading it plain");

    const std::filesystem::path file = instance.modelFolder() / (name + ".onnx");
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error))
        throw BackendError(STATUS_HOST, "Network file of '" + name + "' not found: " + file.string());

    try {
        Ort::Session session = openSession(instance, load, name, file);
        logLine(instance.logger(), LOG_VERBOSE, "Loaded network '" + name + "' from " + file.string());
        return Ptr<NetworkModel>(new NetworkModel(instance.runtime(), instance.device(), name, std::move(session)));
    } catch (const Ort::Exception& e) {
        throw BackendError("Network '" + name + "' could not be loaded from " + file.string() + ": " + e.what());
    } catch (const BackendError& e) {
        throw BackendError(e.status(), "Network '" + name + "': " + e.what());
    }
}

Result<void> NetworkModel::run(Ptr<Backend::Session> session) {
    return guarded([&] {
        auto* own = dynamic_cast<NetworkSession*>(session.get());
        if (!own || &own->model() != this)
            throw BackendError("Network '" + name_ + "' was asked to run with a session that is not its own");
        own->run();
    });
}

Result<Ptr<Backend::Session>> NetworkModel::createSession() {
    return guarded([&] { return Ptr<Backend::Session>(new NetworkSession(Ptr<NetworkModel>(this))); });
}

Result<i32> NetworkModel::refit(Ptr<StringT<wchar_t>>) {
    return guarded([&]() -> i32 { throw BackendError("Network '" + name_ + "': this backend cannot refit networks"); });
}

}  // namespace ML::OrtBackend
