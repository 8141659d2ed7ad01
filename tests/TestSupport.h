#pragma once

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

#include <gtest/gtest.h>

namespace veltra::testing {

// A fresh folder per test, removed when the test passed and kept for a look when it failed.
class TempDir {
public:
    TempDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = info != nullptr
                               ? std::string(info->test_suite_name()) + "." + info->name()
                               : std::string("veltra-test");
        for (auto& c : name) {
            if (c == '/') {
                c = '_';
            }
        }
        path_ = std::filesystem::temp_directory_path() /
                ("veltra-" + name + "-" + std::to_string(::getpid()) + "-" +
                 std::to_string(counter()++));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        if (!::testing::Test::HasFailure()) {
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    static int& counter() {
        static int value = 0;
        return value;
    }
    std::filesystem::path path_;
};

inline void writeFile(const std::filesystem::path& path, std::string_view contents) {
    if (path.has_parent_path()) {
        std::filesystem::create_directories(path.parent_path());
    }
    std::ofstream out(path, std::ios::binary);
    out << contents;
}

inline void writeScript(const std::filesystem::path& path, std::string_view body) {
    writeFile(path, "#!/bin/sh\n" + std::string(body) + "\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all |
                                           std::filesystem::perms::group_read |
                                           std::filesystem::perms::group_exec);
}

// Sets an environment variable for one test and puts the old value back.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        ::setenv(name, value.c_str(), 1);
        ::tzset();
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment() {
        if (old_) {
            ::setenv(name_, old_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
        ::tzset();
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

} // namespace veltra::testing
