#pragma once
// A fresh folder per test, removed afterwards. Tests run as separate processes in parallel,
// so the name carries the process id and the test's name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

class TempDir {
public:
    TempDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = "quillon_util_" + std::to_string(::getpid());
        if (info) name += std::string("_") + info->test_suite_name() + "_" + info->name();
        path_ = std::filesystem::temp_directory_path() / name;
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};
