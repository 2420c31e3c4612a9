// The machine and trace files shipped in bench/ against the built-ins they were written from, and
// control_quality's handling of files given on its command line.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "LoadTrace.h"
#include "MachineProfile.h"
#include "TraceLibrary.h"
#include "foundation/sim/MachineFile.h"
#include "foundation/sim/TraceFile.h"

namespace kelvo::quality {
namespace {

namespace fs = std::filesystem;

const fs::path kBench = fs::path(KELVO_SOURCE_DIR) / "bench";

std::vector<fs::path> jsonFiles(const fs::path& dir) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.path().extension() == ".json") files.push_back(entry.path());
    return files;
}

std::string contents(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class TempDir : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "kelvo-cq-files-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

    // Runs control_quality; returns its exit status, or -1 when it did not exit normally.
    int run(const std::string& arguments, const std::string& name) const {
        std::string command = std::string(CONTROL_QUALITY_BIN) + " " + arguments + " > " +
                              (dir_ / (name + ".out")).string() + " 2> " +
                              (dir_ / (name + ".err")).string();
        int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    fs::path dir_;
};

TEST(ShippedMachineFiles, ReadBackAsTheBuiltInMachines) {
    auto files = jsonFiles(kBench / "machines");
    std::set<std::string> stems;
    for (const auto& file : files) stems.insert(file.stem().string());
    std::set<std::string> builtIns;
    for (const auto& machine : standardMachines()) builtIns.insert(machine.name);
    ASSERT_EQ(stems, builtIns);

    for (const auto& machine : standardMachines()) {
        std::string error;
        auto read = sim::readMachineFile(kBench / "machines" / (machine.name + ".json"), &error);
        ASSERT_TRUE(read) << error;
        EXPECT_EQ(read->name, machine.name);
        for (const auto& field : sim::plantFields()) {
            std::visit(
                [&](auto member) {
                    EXPECT_EQ(read->plant.*member, machine.plant.*member)
                        << machine.name << " " << field.key;
                },
                field.member);
        }
        EXPECT_TRUE(read->plant == machine.plant) << machine.name;
    }
}

// bench/hil/run.sh refuses a machine without its fancontrol template; each template drives every
// pwm output of its machine and no other.
TEST(PeerTemplates, OneFancontrolTemplatePerMachineWithAnEntryPerFan) {
    for (const auto& machine : standardMachines()) {
        SCOPED_TRACE(machine.name);
        const fs::path path = kBench / "peers" / ("fancontrol." + machine.name + ".conf.in");
        ASSERT_TRUE(fs::exists(path));
        std::istringstream lines(contents(path));
        std::string line;
        std::set<std::string> settings;
        std::getline(lines, line);
        EXPECT_NE(line.find(" " + machine.name + ", " + std::to_string(machine.plant.fans.size()) +
                            " pwm output(s)"),
                  std::string::npos)
            << line;
        while (std::getline(lines, line)) {
            if (line.empty() || line[0] == '#') continue;
            const std::string setting = line.substr(0, line.find('='));
            settings.insert(setting);
            if (setting == "INTERVAL") continue;
            for (std::size_t fan = 1; fan <= machine.plant.fans.size(); ++fan) {
                const std::string entry = "@HWMON@/hwmon2/pwm" + std::to_string(fan) + "=";
                EXPECT_NE(line.find(entry), std::string::npos) << setting << " lacks " << entry;
            }
            const std::string beyond =
                "@HWMON@/hwmon2/pwm" + std::to_string(machine.plant.fans.size() + 1) + "=";
            EXPECT_EQ(line.find(beyond), std::string::npos) << setting << " has " << beyond;
        }
        EXPECT_EQ(settings, (std::set<std::string>{"INTERVAL", "FCTEMPS", "FCFANS", "MINTEMP",
                                                   "MAXTEMP", "MINSTART", "MINSTOP"}));
    }
}

TEST(ShippedTraceFiles, ReadBackAsTheBuiltInTracesForSeedOne) {
    auto files = jsonFiles(kBench / "traces");
    std::set<std::string> stems;
    for (const auto& file : files) stems.insert(file.stem().string());
    std::set<std::string> builtIns;
    for (const auto& trace : TraceLibrary(1).all()) builtIns.insert(trace.name());
    ASSERT_EQ(stems, builtIns);

    for (const auto& builtIn : TraceLibrary(1).all()) {
        std::string error;
        auto read = sim::readTraceFile(kBench / "traces" / (builtIn.name() + ".json"), &error);
        ASSERT_TRUE(read) << error;
        LoadTrace trace = LoadTrace::fromDescription(*read);
        EXPECT_EQ(trace.name(), builtIn.name());
        ASSERT_EQ(trace.seconds(), builtIn.seconds()) << builtIn.name();
        int differing = 0;
        for (int second = 0; second < trace.seconds(); ++second) {
            if (trace.at(second).cpu != builtIn.at(second).cpu ||
                trace.at(second).gpu != builtIn.at(second).gpu)
                ++differing;
        }
        EXPECT_EQ(differing, 0) << builtIn.name();
    }
}

TEST(LoadTraceDescription, HoldsOneSegmentPerRunAndPlaysBackTheSameLevels) {
    LoadTrace trace("steps");
    trace.hold(3, {0.5, 0.25});
    trace.hold(2, {0.5, 0.25});
    trace.hold(1, {1.0 / 3.0, 0.0});
    trace.hold(4, {0.5, 0.25});
    sim::TraceDescription description = trace.description();
    EXPECT_EQ(description.name, "steps");
    EXPECT_EQ(description.segments, (std::vector<sim::TraceSegment>{
                                        {5, 0.5, 0.25}, {1, 1.0 / 3.0, 0.0}, {4, 0.5, 0.25}}));

    LoadTrace back = LoadTrace::fromDescription(description);
    ASSERT_EQ(back.seconds(), 10);
    for (int second = 0; second < 10; ++second) {
        EXPECT_EQ(back.at(second).cpu, trace.at(second).cpu) << second;
        EXPECT_EQ(back.at(second).gpu, trace.at(second).gpu) << second;
    }
}

using ControlQualityFiles = TempDir;

TEST_F(ControlQualityFiles, WriteBuiltinsWritesTheShippedFiles) {
    ASSERT_EQ(run("--write-builtins " + dir_.string(), "write"), 0) << contents(dir_ / "write.err");
    for (const char* kind : {"machines", "traces"}) {
        auto written = jsonFiles(dir_ / kind);
        EXPECT_EQ(written.size(), jsonFiles(kBench / kind).size()) << kind;
        for (const auto& file : written)
            EXPECT_EQ(contents(file), contents(kBench / kind / file.filename())) << file;
    }
}

TEST_F(ControlQualityFiles, ShippedFilesGiveTheBuiltInFigures) {
    fs::path fromFiles = dir_ / "files.csv";
    fs::path fromBuiltIns = dir_ / "builtins.csv";
    ASSERT_EQ(run("--machine-file " + (kBench / "machines" / "thin-laptop.json").string() +
                      " --trace-file " + (kBench / "traces" / "compile.json").string() +
                      " --max-seconds 120 --csv " + fromFiles.string(),
                  "files"),
              0)
        << contents(dir_ / "files.err");
    ASSERT_EQ(run("--machine thin-laptop --trace compile --max-seconds 120 --csv " +
                      fromBuiltIns.string(),
                  "builtins"),
              0)
        << contents(dir_ / "builtins.err");

    std::string csv = contents(fromFiles);
    EXPECT_EQ(csv, contents(fromBuiltIns));
    std::istringstream lines(csv);
    std::string line;
    int rows = -1;  // the header
    while (std::getline(lines, line)) {
        ++rows;
        if (rows == 0) continue;
        EXPECT_EQ(line.rfind("thin-laptop,", 0), 0u) << line;
        EXPECT_NE(line.find(",compile,"), std::string::npos) << line;
    }
    EXPECT_GT(rows, 0);
}

// --temperature-step reads every machine through sensors of that step, as a machine file that
// says so would; whole degrees change what the controllers that read them do.
TEST_F(ControlQualityFiles, TheTemperatureStepOptionReadsEveryMachineThroughSensorsOfThatStep) {
    std::string text = contents(kBench / "machines" / "thin-laptop.json");
    const std::string exact = "\"temperatureStepC\": 0.0";
    const std::size_t at = text.find(exact);
    ASSERT_NE(at, std::string::npos) << text;
    text.replace(at, exact.size(), "\"temperatureStepC\": 1.0");
    const fs::path stepped = dir_ / "thin-laptop.json";
    std::ofstream(stepped) << text;

    const std::string run300 = " --trace compile --max-seconds 300 --csv ";
    ASSERT_EQ(
        run("--machine-file " + stepped.string() + run300 + (dir_ / "file.csv").string(), "file"),
        0)
        << contents(dir_ / "file.err");
    ASSERT_EQ(
        run("--machine thin-laptop --temperature-step 1" + run300 + (dir_ / "option.csv").string(),
            "option"),
        0)
        << contents(dir_ / "option.err");
    ASSERT_EQ(run("--machine thin-laptop" + run300 + (dir_ / "exact.csv").string(), "exact"), 0)
        << contents(dir_ / "exact.err");
    EXPECT_EQ(contents(dir_ / "option.csv"), contents(dir_ / "file.csv"));
    EXPECT_NE(contents(dir_ / "option.csv"), contents(dir_ / "exact.csv"));

    for (const char* refused : {"-1", "6", "one", "1x"}) {
        EXPECT_EQ(
            run(std::string("--machine thin-laptop --temperature-step ") + refused, "refused"), 2)
            << refused;
        EXPECT_NE(contents(dir_ / "refused.err").find("--temperature-step C"), std::string::npos);
    }
}

TEST_F(ControlQualityFiles, MalformedFileStopsTheRunWithOneLine) {
    struct Case {
        const char* option;
        const char* text;
        const char* problem;
    };
    const Case cases[] = {
        {"--machine-file", R"({"name": "m", "cpuLimitC": "hot"})",
         R"("cpuLimitC" must be a number)"},
        {"--machine-file", "{\"name\": \"m\",\n\"fans\": [}", "parse error at line 2"},
        {"--trace-file", R"({"name": "t", "segments": [{"seconds": 9, "cpu": 1.5, "gpu": 0}]})",
         R"("segments[0].cpu" must be from 0 to 1)"},
    };
    int index = 0;
    for (const auto& c : cases) {
        std::string name = "bad" + std::to_string(index++);
        fs::path file = dir_ / (name + ".json");
        std::ofstream(file) << c.text;
        EXPECT_EQ(run(std::string(c.option) + " " + file.string() + " --max-seconds 10", name), 2)
            << c.text;
        std::string err = contents(dir_ / (name + ".err"));
        EXPECT_EQ(err.rfind(file.string() + ": ", 0), 0u) << err;
        EXPECT_NE(err.find(c.problem), std::string::npos) << err;
        ASSERT_FALSE(err.empty());
        EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
        EXPECT_EQ(contents(dir_ / (name + ".out")), "") << c.text;
    }

    fs::path missing = dir_ / "missing.json";
    EXPECT_EQ(run("--trace-file " + missing.string(), "missing"), 2);
    EXPECT_EQ(contents(dir_ / "missing.err"),
              missing.string() + ": cannot be opened: No such file or directory\n");
}

TEST_F(ControlQualityFiles, BuiltInsRunAlongsideFilesOnlyWhenNamed) {
    fs::path machine = dir_ / "small.json";
    std::ofstream(machine) << R"({"name": "small", "fans": [{"name": "f", "maxRPM": 3000}]})";
    fs::path csv = dir_ / "out.csv";
    ASSERT_EQ(run("--machine-file " + machine.string() + " --machine sim-default --trace render" +
                      " --max-seconds 20 --csv " + csv.string(),
                  "mixed"),
              0)
        << contents(dir_ / "mixed.err");
    std::set<std::string> machines;
    std::istringstream lines(contents(csv));
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) machines.insert(line.substr(0, line.find(',')));
    EXPECT_EQ(machines, (std::set<std::string>{"small", "sim-default"}));

    EXPECT_EQ(run("--machine-file " + machine.string() + " --machine-file " + machine.string() +
                      " --trace render --max-seconds 20",
                  "twice"),
              2);
    EXPECT_EQ(contents(dir_ / "twice.err"), "two machines are named small\n");
}

}  // namespace
}  // namespace kelvo::quality
