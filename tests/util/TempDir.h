#pragma once
// A fresh folder, removed afterwards. Tests run as separate processes in parallel, so the name
// carries the process id, a count and the test's name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

class TempDir {
public:
    TempDir() {
        static int made = 0;
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::temp_directory_path() /
                ("quillon_test_" + std::to_string(::getpid()) + "_" + std::to_string(made++) + "_" +
                 (info ? std::string(info->test_suite_name()) + "_" + info->name() : std::string()));
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
