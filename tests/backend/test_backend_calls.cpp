// The loader and the one-shot call objects against stand-in backend libraries.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "Plugin/BackendCalls.h"
#include "Plugin/ModelContext.h"

using namespace ML;

namespace {

std::filesystem::path fake(const std::string& variant) {
    return std::filesystem::path(QUILLON_FAKE_BACKEND_DIR) / ("quillon_fake_backend_" + variant + ".so");
}

template <class F>
std::string runtimeErrorOf(F&& body) {
    try {
        body();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no exception)";
}

template <class F>
Exception backendExceptionOf(F&& body) {
    try {
        body();
    } catch (const Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no ML::Exception";
    return Exception(Exception::PLUGIN, Exception::INTERNAL, "none");
}

}  // namespace

// ---- Loading ----

TEST(BackendLibrary, LoadsAndFindsBothEntryPoints) {
    BackendLibrary dll(fake("good"));
    EXPECT_TRUE(dll.isLoaded());
    EXPECT_NE(dll.getMain(), nullptr);
    EXPECT_EQ(dll.getPath(), fake("good"));
}

TEST(BackendLibrary, MissingFileNamesThePath) {
    const auto path = fake("does_not_exist");
    const std::string text = runtimeErrorOf([&] { BackendLibrary dll(path); });
    EXPECT_EQ(text.rfind("Could not load dynamic library: " + path.string(), 0), 0u) << text;
}

TEST(BackendLibrary, LibraryWithoutShutdownIsRefused) {
    const auto path = fake("no_shutdown");
    EXPECT_EQ(runtimeErrorOf([&] { BackendLibrary dll(path); }),
              "Could not find dynamic library shutdown function: " + path.string());
}

TEST(BackendLibrary, LibraryWithoutMainIsRefused) {
    const auto path = fake("no_main");
    EXPECT_EQ(runtimeErrorOf([&] { BackendLibrary dll(path); }),
              "Could not find dynamic library main function: " + path.string());
}

TEST(BackendLibrary, UnloadCallsShutdownOnceAndStopsCalls) {
    // A second handle keeps the module in memory so that its counter can be read afterwards.
    void* keep = ::dlopen(fake("good").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(keep, nullptr);
    const int* count = static_cast<const int*>(::dlsym(keep, "fakeShutdownCount"));
    ASSERT_NE(count, nullptr);
    const int before = *count;
    {
        BackendLibrary dll(fake("good"));
        dll.unload();
        EXPECT_EQ(*count, before + 1);
        EXPECT_FALSE(dll.isLoaded());
        Backend::GetAvailableDevicesCall* none = nullptr;
        EXPECT_EQ(callBackend(dll, none), STATUS_OTHER);  // refused without reaching the library
        dll.unload();
    }
    EXPECT_EQ(*count, before + 1);
    ::dlclose(keep);
}

// ---- Device discovery ----

TEST(GetAvailableDevicesCall, CollectsDevicesDefaultLabelAndDetail) {
    BackendLibrary dll(fake("good"));
    Backend::GetAvailableDevicesCall call(dll);
    EXPECT_EQ(call.devices, (std::vector<std::string>{"Fake A", "Fake B"}));
    EXPECT_EQ(call.defaultDevice, 1);
    EXPECT_EQ(call.label, "Fake");
    EXPECT_EQ(call.detail, "Fake detail");
    EXPECT_EQ(call.getCallType(), 4);
}

TEST(GetAvailableDevicesCall, BackendWithoutDevicesReportsNone) {
    BackendLibrary dll(fake("zero_devices"));
    Backend::GetAvailableDevicesCall call(dll);
    EXPECT_TRUE(call.devices.empty());
    EXPECT_EQ(call.defaultDevice, -1);
}

TEST(GetAvailableDevicesCall, DefaultStaysMinusOneWhenNotSet) {
    BackendLibrary dll(fake("no_default"));
    Backend::GetAvailableDevicesCall call(dll);
    EXPECT_EQ(call.devices.size(), 2u);
    EXPECT_EQ(call.defaultDevice, -1);
}

TEST(GetAvailableDevicesCall, SlotsOfOtherCallsRefuse) {
    BackendLibrary dll(fake("good"));
    Backend::GetAvailableDevicesCall call(dll);
    EXPECT_EQ(runtimeErrorOf([&] { call.getModelPath(); }), "Function in DefaultHost should not be called");
    EXPECT_EQ(runtimeErrorOf([&] { call.getInstance(); }), "Function in DefaultHost should not be called");
    EXPECT_EQ(runtimeErrorOf([&] { call.setTensor(nullptr); }), "Function in DefaultHost should not be called");
}

TEST(InitCall, RefusedSlotIsThrownIntoTheBackend) {
    // The stand-in calls addDevice on an initialise call and reports what it caught.
    BackendLibrary dll(fake("good"));
    const Exception e = backendExceptionOf([&] { Backend::InitCall call(dll, 0, "/aux", "/data", nullptr); });
    EXPECT_EQ(e.code(), Exception::INTERNAL);
    EXPECT_STREQ(e.what(), "BACKEND/INTERNAL: fake caught: Function in DefaultHost should not be called");
}

// ---- Status handling ----

TEST(CheckBackendResult, StatusTwoWithErrorIsHostFailure) {
    BackendLibrary dll(fake("failing"));
    const Exception e = backendExceptionOf([&] { Backend::GetAvailableDevicesCall call(dll); });
    EXPECT_EQ(e.source(), Exception::BACKEND);
    EXPECT_EQ(e.code(), Exception::HOST);
    EXPECT_STREQ(e.what(), "BACKEND/HOST: fake failure");
}

TEST(CheckBackendResult, StatusOneIsBackendCancelWithoutText) {
    BackendLibrary dll(fake("failing"));
    const Exception e = backendExceptionOf([&] { Backend::InitCall call(dll, 1, "", "", nullptr); });
    EXPECT_EQ(e.source(), Exception::BACKEND);
    EXPECT_EQ(e.code(), Exception::CANCEL);
    EXPECT_STREQ(e.what(), "BACKEND/CANCEL: ");
}

TEST(CheckBackendResult, OtherStatusesAreInternal) {
    BackendLibrary dll(fake("failing"));
    for (u32 status : {3u, 4u, 7u}) {
        const Exception e = backendExceptionOf([&] { Backend::InitCall call(dll, status, "", "", nullptr); });
        EXPECT_EQ(e.code(), Exception::INTERNAL) << status;
        EXPECT_STREQ(e.what(), "BACKEND/INTERNAL: fake init failure");
    }
}

TEST(CheckBackendResult, ContextTextGoesFirstWithColon) {
    struct Bare : Backend::DefaultApiCall {
    } call;
    call.setError(makeString("disk gone"));
    const Exception e = backendExceptionOf([&] { checkBackendResult(call, 2, "Loading"); });
    EXPECT_STREQ(e.what(), "BACKEND/HOST: Loading: disk gone");
    EXPECT_NO_THROW(checkBackendResult(call, 0, "Loading"));
}

TEST(LoadModelCall, PathReachesBackendUnchangedAndShowsForwardSlashes) {
    BackendLibrary dll(fake("failing"));
    const Exception e =
        backendExceptionOf([&] { Backend::LoadModelCall call(dll, nullptr, "imgcvt\\RGB_TO_x", "{}"); });
    EXPECT_EQ(e.code(), Exception::HOST);
    EXPECT_STREQ(e.what(), "BACKEND/HOST: Error loading model: imgcvt/RGB_TO_x: path=imgcvt\\RGB_TO_x");
}

// ---- Wrappers refuse empty results ----

TEST(ModelRuntime, NullObjectsFromTheBackendAreRefused) {
    try {
        BackendModel model(nullptr, "x");
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.source(), Exception::PLUGIN);
        EXPECT_NE(std::string(e.what()).find("Model is nullptr!"), std::string::npos) << e.what();
    }
    try {
        BackendTensor tensor(nullptr, {1}, F32);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_NE(std::string(e.what()).find("Tensor is nullptr!"), std::string::npos) << e.what();
    }
}

TEST(ModelRuntime, MultiBufferGrowsAndNeverShrinks) {
    MultiBuffer buffer;
    EXPECT_EQ(buffer.capacity(), 0u);
    void* first = buffer.get(100);
    ASSERT_NE(first, nullptr);
    static_cast<char*>(first)[99] = 1;
    EXPECT_EQ(buffer.get(50), first);
    EXPECT_EQ(buffer.capacity(), 100u);
    void* grown = buffer.get(1000);
    ASSERT_NE(grown, nullptr);
    static_cast<char*>(grown)[999] = 1;
    EXPECT_EQ(buffer.capacity(), 1000u);
}
