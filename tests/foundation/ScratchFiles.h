// A fresh temporary folder per test, and files written into it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kelvo::test_support {

class ScratchFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kelvo-scratch-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::filesystem::path file(const std::string& name, const std::string& text) const {
        std::filesystem::path path = dir_ / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    std::filesystem::path dir_;
};

}  // namespace kelvo::test_support
