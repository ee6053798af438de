// The loader and the one-shot call objects against stand-in backend libraries.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "BackendTestUtil.h"
#include "Plugin/BackendCalls.h"

using namespace ML;
using BackendTest::errorText;
using BackendTest::exceptionOf;

namespace {
std::filesystem::path fake(const std::string& variant) {
    return std::filesystem::path(QUILLON_FAKE_BACKEND_DIR) / ("quillon_fake_backend_" + variant + ".so");
}
}  // namespace

TEST(BackendLibrary, RefusesLibrariesWithoutBothEntryPoints) {
    const struct { const char* variant; const char* text; } cases[] = {
        {"does_not_exist", "Could not load dynamic library: "},
        {"no_shutdown", "Could not find dynamic library shutdown function: "},
        {"no_main", "Could not find dynamic library main function: "},
    };
    for (const auto& c : cases) {
        const std::string text = errorText([&] { BackendLibrary dll(fake(c.variant)); });
        EXPECT_EQ(text.rfind(c.text + fake(c.variant).string(), 0), 0u) << text;
    }
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

TEST(GetAvailableDevicesCall, CollectsDevicesDefaultLabelAndDetail) {
    const struct { const char* variant; std::vector<std::string> devices; int defaultDevice; const char* detail; } cases[] =
        {{"good", {"Fake A", "Fake B"}, 1, "Fake detail"},
         {"no_default", {"Fake A", "Fake B"}, -1, "Fake without default"},
         {"zero_devices", {}, -1, ""}};
    for (const auto& c : cases) {
        BackendLibrary dll(fake(c.variant));
        Backend::GetAvailableDevicesCall call(dll);
        EXPECT_EQ(call.devices, c.devices) << c.variant;
        EXPECT_EQ(call.defaultDevice, c.defaultDevice) << c.variant;
        EXPECT_EQ(call.label, "Fake") << c.variant;
        EXPECT_EQ(call.detail, c.detail) << c.variant;
    }
}

TEST(GetAvailableDevicesCall, SlotsOfOtherCallsRefuseOnBothSides) {
    BackendLibrary dll(fake("good"));
    Backend::GetAvailableDevicesCall call(dll);
    EXPECT_EQ(errorText([&] { call.getModelPath(); }), "Function in DefaultHost should not be called");
    // The stand-in calls addDevice on an initialise call and reports what it caught.
    const Exception e = exceptionOf([&] { Backend::InitCall init(dll, 0, "/aux", "/data", nullptr); });
    EXPECT_STREQ(e.what(), "BACKEND/INTERNAL: fake caught: Function in DefaultHost should not be called");
}

TEST(CheckBackendResult, StatusesBecomeExceptionsWithTheBackendsText) {
    // The failing stand-in answers an initialise call with the device id as its status.
    BackendLibrary dll(fake("failing"));
    const struct { u32 status; Exception::Code code; const char* text; } cases[] = {
        {1, Exception::CANCEL, "BACKEND/CANCEL: "},
        {2, Exception::HOST, "BACKEND/HOST: fake init failure"},
        {7, Exception::INTERNAL, "BACKEND/INTERNAL: fake init failure"},
    };
    for (const auto& c : cases) {
        const Exception e = exceptionOf([&] { Backend::InitCall call(dll, c.status, "", "", nullptr); });
        EXPECT_EQ(e.source(), Exception::BACKEND) << c.status;
        EXPECT_EQ(e.code(), c.code) << c.status;
        EXPECT_STREQ(e.what(), c.text);
    }

    struct Bare : Backend::DefaultApiCall {
    } call;
    call.setError(makeString("disk gone"));
    EXPECT_STREQ(exceptionOf([&] { checkBackendResult(call, 2, "Loading"); }).what(),
                 "BACKEND/HOST: Loading: disk gone");
    EXPECT_NO_THROW(checkBackendResult(call, 0, "Loading"));
}

TEST(LoadModelCall, PathReachesBackendUnchangedAndShowsForwardSlashes) {
    BackendLibrary dll(fake("failing"));
    EXPECT_EQ(errorText([&] { Backend::LoadModelCall call(dll, nullptr, "imgcvt\\RGB_TO_x", "{}"); }),
              "BACKEND/HOST: Error loading model: imgcvt/RGB_TO_x: path=imgcvt\\RGB_TO_x");
}

TEST(ModelRuntime, NullObjectsFromTheBackendAreRefused) {
    const Exception model = exceptionOf([] { BackendModel m(nullptr, "x"); });
    EXPECT_EQ(model.source(), Exception::PLUGIN);
    EXPECT_TRUE(BackendTest::contains(model, "Model is nullptr!")) << model.what();
    EXPECT_NE(errorText([] { BackendTensor t(nullptr, {1}, F32); }).find("Tensor is nullptr!"), std::string::npos);
}
