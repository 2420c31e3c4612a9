#include "foundation/sim/TraceFile.h"
#include "tests/foundation/ScratchFiles.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

namespace kelvo::sim {
namespace {

namespace fs = std::filesystem;

class TraceFileTest : public test_support::ScratchFilesTest {};

TEST_F(TraceFileTest, WritesLoadsThatReadBackExactly) {
    TraceDescription trace{"odd",
                           {{1, 1.0 / 3.0, 0.1 + 0.2},
                            {7, std::numeric_limits<double>::denorm_min(), 1.0},
                            {kMaxTraceSeconds - 9, std::nextafter(1.0, 0.0), 0.0},
                            {1, 0.0, std::nextafter(0.0, 1.0) * 3}}};
    fs::path path = dir_ / "odd.json";
    std::string error;
    ASSERT_TRUE(writeTraceFile(path, trace, &error)) << error;
    auto read = readTraceFile(path, &error);
    ASSERT_TRUE(read) << error;
    EXPECT_EQ(*read, trace);
}

TEST_F(TraceFileTest, MergesNeighbouringSegmentsAtTheSameLoad) {
    TraceDescription trace{"steps",
                           {{10, 0.5, 0.25}, {5, 0.5, 0.25}, {3, 0.5, 0.3}, {2, 0.5, 0.25}}};
    fs::path path = dir_ / "steps.json";
    std::string error;
    ASSERT_TRUE(writeTraceFile(path, trace, &error)) << error;
    auto read = readTraceFile(path, &error);
    ASSERT_TRUE(read) << error;
    EXPECT_EQ(read->segments,
              (std::vector<TraceSegment>{{15, 0.5, 0.25}, {3, 0.5, 0.3}, {2, 0.5, 0.25}}));
}

struct Malformed {
    const char* what;
    const char* text;
    const char* problem;
};

TEST_F(TraceFileTest, MalformedFilesSayWhichFileAndWhatIsWrong) {
    const Malformed cases[] = {
        {"CPU load above 1", R"({"name": "t", "segments": [{"seconds": 5, "cpu": 1.5, "gpu": 0}]})",
         R"("segments[0].cpu" must be from 0 to 1)"},
        {"negative GPU load",
         R"({"name": "t", "segments": [{"seconds": 5, "cpu": 1, "gpu": -0.1}]})",
         R"("segments[0].gpu" must be from 0 to 1)"},
        {"negative seconds",
         R"({"name": "t", "segments": [{"seconds": 5, "cpu": 1, "gpu": 0},
                                       {"seconds": -5, "cpu": 1, "gpu": 0}]})",
         R"("segments[1].seconds" must be an integer from 1 to 604800)"},
        {"no seconds", R"({"name": "t", "segments": [{"seconds": 0, "cpu": 1, "gpu": 0}]})",
         R"("segments[0].seconds" must be an integer from 1 to 604800)"},
        {"fractional seconds",
         R"({"name": "t", "segments": [{"seconds": 2.5, "cpu": 1, "gpu": 0}]})",
         R"("segments[0].seconds" must be an integer)"},
        {"longer than a week",
         R"({"name": "t", "segments": [{"seconds": 400000, "cpu": 1, "gpu": 0},
                                       {"seconds": 400000, "cpu": 0, "gpu": 0}]})",
         "the segments last 800000 s, more than the 604800 s allowed"},
        {"text for a load", R"({"name": "t", "segments": [{"seconds": 5, "cpu": "1", "gpu": 0}]})",
         R"("segments[0].cpu" must be a number)"},
        {"missing GPU load", R"({"name": "t", "segments": [{"seconds": 5, "cpu": 1}]})",
         R"("segments[0].gpu" is missing)"},
        {"unknown segment key",
         R"({"name": "t", "segments": [{"seconds": 5, "cpu": 1, "gpu": 0, "fan": 1}]})",
         R"(unknown key "segments[0].fan")"},
        {"unknown key", R"({"name": "t", "seed": 1, "segments": []})", R"(unknown key "seed")"},
        {"no segments", R"({"name": "t", "segments": []})",
         R"("segments" must list at least one segment)"},
        {"missing segments", R"({"name": "t"})", R"("segments" is missing)"},
        {"missing name", R"({"segments": [{"seconds": 5, "cpu": 1, "gpu": 0}]})",
         R"("name" is missing)"},
        {"segment not an object", R"({"name": "t", "segments": [5]})",
         R"("segments[0]" must be an object)"},
        {"syntax error", "{\"name\": \"t\",\n \"segments\": [\n {\"seconds\": 5,}]}", "line 3"},
    };
    int index = 0;
    for (const auto& malformed : cases) {
        fs::path path = file("case" + std::to_string(index++) + ".json", malformed.text);
        std::string error;
        EXPECT_FALSE(readTraceFile(path, &error)) << malformed.what;
        EXPECT_EQ(error.rfind(path.string() + ": ", 0), 0u) << malformed.what << ": " << error;
        EXPECT_NE(error.find(malformed.problem), std::string::npos)
            << malformed.what << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << malformed.what << ": " << error;
    }
}

TEST_F(TraceFileTest, MissingFileSaysSo) {
    std::string error;
    fs::path missing = dir_ / "missing.json";
    EXPECT_FALSE(readTraceFile(missing, &error));
    EXPECT_EQ(error, missing.string() + ": cannot be opened: No such file or directory");
}

TEST_F(TraceFileTest, RefusesToWriteWhatWouldNotReadBack) {
    std::string error;
    fs::path path = dir_ / "t.json";
    EXPECT_FALSE(writeTraceFile(path, {"t", {{5, 1.25, 0}}}, &error));
    EXPECT_EQ(error, path.string() + R"(: "segments[0].cpu" must be from 0 to 1)");
    EXPECT_FALSE(writeTraceFile(path, {"t", {}}, &error));
    EXPECT_EQ(error, path.string() + R"(: "segments" must list at least one segment)");
    EXPECT_FALSE(fs::exists(path));
}

}  // namespace
}  // namespace kelvo::sim
