// A stand-in backend library, compiled once per behaviour (FAKE_*), for the loader and the call
// objects. FAKE_FAILING answers every call with an error, its status picked by the device id.
#include <string>

#include "ML/Backend.h"

using namespace ML;

// Read by the tests through a handle of their own.
extern "C" {
__attribute__((visibility("default"))) int fakeShutdownCount = 0;
}

namespace {
[[maybe_unused]] i32 fail(Backend::ApiCall* call, i32 status, const std::string& text) {
    call->setError(makeString(text));
    return status;
}
}  // namespace

#ifndef FAKE_NO_MAIN
extern "C" __attribute__((visibility("default"))) i32 mlMain(Backend::ApiCall* call, u64 reserved) {
    try {
        const i32 type = call->getCallType();
#if defined(FAKE_FAILING)
        if (type == Backend::INIT_CALL)
            return fail(call, call->getDeviceId() == 0 ? 2 : static_cast<i32>(call->getDeviceId()), "fake init failure");
        const std::wstring path = type == Backend::LOAD_MODEL_CALL ? toStd(call->getModelPath()) : L"";
        return fail(call, 2, "path=" + std::string(path.begin(), path.end()));
#else
        // An initialise call does not serve addDevice: the refusal is thrown into this library.
        if (type == Backend::INIT_CALL) call->addDevice(makeString("wrong slot"));
        if (type != Backend::GET_AVAILABLE_DEVICES_CALL || reserved != 0) return fail(call, 4, "not supported");
#if !defined(FAKE_ZERO_DEVICES)
        call->addDevice(makeString("Fake A"));
        call->addDevice(makeString("Fake B"));
#endif
#if defined(FAKE_NO_DEFAULT)
        call->setDetail(makeString("Fake without default"));
#elif !defined(FAKE_ZERO_DEVICES)
        call->setDefaultDevice(1);
        call->setDetail(makeString("Fake detail"));
#endif
        call->setLabel(makeString("Fake"));
        return 0;
#endif
    } catch (const std::exception& e) {
        return fail(call, 4, std::string("fake caught: ") + e.what());
    }
}
#endif

#ifndef FAKE_NO_SHUTDOWN
extern "C" __attribute__((visibility("default"))) void mlShutdown() { ++fakeShutdownCount; }
#endif
