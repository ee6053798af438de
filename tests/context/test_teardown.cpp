// A host that never calls mlShutdown: unloading the library, or ending the process, with a
// rendered context still held must end cleanly (no crash, no use of freed loggers, and under
// AddressSanitizer no leak report: the exit code stays 0).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "Host/Host.h"
#include "Host/OwnedImage.h"

namespace {

const std::filesystem::path binDir = QUILLON_BIN_DIR;
const std::filesystem::path packageDir = QUILLON_TEST_PACKAGE_DIR;

// Loads the plug-in, renders depth of a small image, then leaves without mlShutdown.
[[noreturn]] void renderAndLeave(bool unload) {
    void* library = dlopen((binDir / "Quillon.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) std::_Exit(10);
    auto main = reinterpret_cast<ML::MainFunction>(dlsym(library, "mlMain"));
    if (!main) std::_Exit(11);

    QHost::Host host;
    host.logger().setLogLevel(3);  // verbose: the backend logs its loads through the plug-in's logger
    auto settings = std::make_shared<QHost::CallSettings>(4, 9);
    settings->setDataFolder((packageDir / "config").string());
    settings->setAuxFolder((packageDir / "models").string());
    settings->setModelIndex(0);
    settings->setInputImage(0, QHost::OwnedImage::make(ML::Rect{0, 0, 8, 8}, ML::Image::RGB, ML::Image::HWC, ML::U8));
    settings->setOutputImage(0, QHost::OwnedImage::make(ML::Rect{0, 0, 8, 8}, ML::Image::R, ML::Image::HWC, ML::F32));
    if (host.run(main, settings) != 0) std::_Exit(12);

    if (unload && dlclose(library) != 0) std::_Exit(13);
    std::exit(0);
}

TEST(TeardownWithoutShutdown, UnloadOrExitEndsCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (bool unload : {true, false}) {
        SCOPED_TRACE(unload ? "dlclose, then exit" : "exit with the library loaded");
        EXPECT_EXIT(renderAndLeave(unload), ::testing::ExitedWithCode(0), "");
    }
}

}  // namespace
