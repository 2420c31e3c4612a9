// kelvo-simhw's command line: the shipped machines and traces by their bare names.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <unistd.h>

#include "simhw/SimhwOptions.h"

namespace fs = std::filesystem;
using kelvo::simhw::resolveShippedFile;

namespace {

class ShippedFiles : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() /
                ("kelvo-simhw-shipped-" + std::to_string(::getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(root_ / "machines");
        std::ofstream(root_ / "machines" / "thin-laptop.json") << "{}";
    }
    void TearDown() override { fs::remove_all(root_); }
    fs::path root_;
};

TEST_F(ShippedFiles, ABareNameIsTheShippedMachine) {
    EXPECT_EQ(resolveShippedFile("thin-laptop", root_ / "machines"),
              (root_ / "machines" / "thin-laptop.json").string());
    EXPECT_EQ(resolveShippedFile("thin-laptop.json", root_ / "machines"),
              (root_ / "machines" / "thin-laptop.json").string());
}

TEST_F(ShippedFiles, APathOrAnUnknownNameIsLeftForTheReaderToReport) {
    EXPECT_EQ(resolveShippedFile("./thin-laptop", root_ / "machines"), "./thin-laptop");
    EXPECT_EQ(resolveShippedFile("no-such-machine", root_ / "machines"), "no-such-machine");
    EXPECT_EQ(resolveShippedFile("thin-laptop", root_ / "traces"), "thin-laptop");
}

TEST_F(ShippedFiles, AFileInTheWorkingDirectoryWinsOverTheShippedOne) {
    const fs::path here = fs::current_path();
    fs::create_directories(root_ / "cwd");
    std::ofstream(root_ / "cwd" / "thin-laptop") << "{}";
    fs::current_path(root_ / "cwd");
    const std::string resolved = resolveShippedFile("thin-laptop", root_ / "machines");
    fs::current_path(here);
    EXPECT_EQ(resolved, "thin-laptop");
}

}  // namespace
