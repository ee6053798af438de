#pragma once
// A fresh folder, removed afterwards. Tests run as separate processes in parallel, so the name
// carries the process id, the test's name and a count.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

class TempDir {
public:
    TempDir() {
        static int made = 0;
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = "quillon_test_" + std::to_string(::getpid()) + "_" + std::to_string(made++);
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
