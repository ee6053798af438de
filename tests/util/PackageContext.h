#pragma once
// The test package and the media next to the sources, and a CPU backend context over the package
// shared by the tests of a suite.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"

namespace testpkg {

inline const std::filesystem::path packageDir = QUILLON_TEST_PACKAGE_DIR;
inline const std::filesystem::path mediaDir = std::filesystem::path(QUILLON_SOURCE_DIR) / ".deps" / "media";

inline std::shared_ptr<ML::ModelContext> cpuContext(const std::filesystem::path& models = packageDir / "models") {
    return std::make_shared<ML::ModelContext>("ort_cpu", 0, packageDir / "config", models);
}

class PackageSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        context = cpuContext();
        common = std::make_shared<ML::ModelCommon>(context);
    }
    static void TearDownTestSuite() {
        common.reset();
        context.reset();
    }
    static inline std::shared_ptr<ML::ModelContext> context;
    static inline std::shared_ptr<ML::ModelCommon> common;
};

}  // namespace testpkg
