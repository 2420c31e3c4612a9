// Runs control_quality on a short trace and checks the CSV it writes: the columns, one row per
// machine and controller, every figure finite and inside its possible range. Never the targets.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cmath>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kSeconds = 150;

std::vector<std::string> splitCsv(const std::string& line) {
    std::vector<std::string> cells;
    std::stringstream stream(line);
    std::string cell;
    while (std::getline(stream, cell, ',')) cells.push_back(cell);
    return cells;
}

struct Csv {
    std::vector<std::string> header;
    std::vector<std::map<std::string, std::string>> rows;
};

Csv readCsv(const std::filesystem::path& path) {
    Csv csv;
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) return csv;
    csv.header = splitCsv(line);
    while (std::getline(file, line)) {
        auto cells = splitCsv(line);
        std::map<std::string, std::string> row;
        for (std::size_t i = 0; i < cells.size() && i < csv.header.size(); ++i)
            row[csv.header[i]] = cells[i];
        if (cells.size() != csv.header.size()) row["__width"] = std::to_string(cells.size());
        csv.rows.push_back(std::move(row));
    }
    return csv;
}

double number(const std::map<std::string, std::string>& row, const std::string& column) {
    auto it = row.find(column);
    if (it == row.end()) return NAN;
    char* end = nullptr;
    double value = std::strtod(it->second.c_str(), &end);
    return end && *end == '\0' && !it->second.empty() ? value : NAN;
}

class ControlQualitySmoke : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() /
               ("control_quality_smoke_" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
        std::string command =
            std::string(CONTROL_QUALITY_BIN) + " --trace compile --max-seconds " +
            std::to_string(kSeconds) + " --learned-after 3 --csv " + (dir_ / "out.csv").string() +
            " --fan-csv " + (dir_ / "fans.csv").string() + " --coupling-csv " +
            (dir_ / "coupling.csv").string() + " --series-dir " + (dir_ / "series").string() +
            " --svg-dir " + (dir_ / "svg").string() + " > " + (dir_ / "stdout.txt").string();
        status_ = std::system(command.c_str());
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::filesystem::path dir_;
    int status_ = -1;
};

TEST_F(ControlQualitySmoke, WritesOneSaneRowPerMachineAndController) {
    ASSERT_EQ(status_, 0);
    Csv csv = readCsv(dir_ / "out.csv");
    for (const char* column :
         {"controller", "trace", "peak_c", "p95_c", "over_limit_s", "throttled_s", "retention",
          "mean_rpm", "audible_changes_per_h", "rpm_sd", "mean_db", "peak_db"}) {
        EXPECT_NE(std::find(csv.header.begin(), csv.header.end(), column), csv.header.end())
            << column;
    }
    std::set<std::string> controllers;
    std::set<std::string> machines;
    for (const auto& row : csv.rows) {
        ASSERT_EQ(row.count("__width"), 0u) << "a row with a different width than the header";
        EXPECT_EQ(row.at("trace"), "compile");
        controllers.insert(row.at("controller"));
        machines.insert(row.at("machine"));
        for (const auto& column : csv.header) {
            if (column == "machine" || column == "controller" || column == "trace") continue;
            EXPECT_TRUE(std::isfinite(number(row, column)))
                << row.at("controller") << " " << column;
        }
        EXPECT_GE(number(row, "peak_c"), number(row, "p95_c"));
        EXPECT_GT(number(row, "p95_c"), 0.0);
        EXPECT_GE(number(row, "over_limit_s"), 0.0);
        EXPECT_LE(number(row, "over_limit_s"), kSeconds);
        EXPECT_GE(number(row, "throttled_s"), 0.0);
        EXPECT_LE(number(row, "throttled_s"), kSeconds);
        EXPECT_GT(number(row, "retention"), 0.0);
        EXPECT_LE(number(row, "retention"), 1.0);
        // Fans that stop may stand still through the whole start of a compile; the others turn.
        if (row.at("machine") == "desktop-fan-stop")
            EXPECT_GE(number(row, "mean_rpm"), 0.0);
        else
            EXPECT_GT(number(row, "mean_rpm"), 0.0) << row.at("machine");
        EXPECT_GE(number(row, "audible_changes_per_h"), 0.0);
        EXPECT_GE(number(row, "rpm_sd"), 0.0);
        EXPECT_GE(number(row, "mean_db"), 0.0);
        EXPECT_GE(number(row, "peak_db"), number(row, "mean_db"));
    }
    EXPECT_EQ(controllers,
              (std::set<std::string>{"firmware", "quiet", "quietHybrid", "performance",
                                     "quiet-learned", "quietHybrid-learned", "quiet-known",
                                     "quiet-one-duty", "linear-curve", "stepped-hysteresis", "pid",
                                     "limit-hold", "foresight", "foresight-unheard"}));
    EXPECT_GE(machines.size(), 2u);  // a laptop and a desktop at least
    EXPECT_EQ(csv.rows.size(), controllers.size() * machines.size());
}

// Each row's fans, one line each in the fan CSV, every speed inside its fan's range or at rest;
// each series file has a column per fan.
TEST_F(ControlQualitySmoke, WritesEachFansSpeedPerRowAndPerSecond) {
    ASSERT_EQ(status_, 0);
    const Csv rows = readCsv(dir_ / "out.csv");
    const Csv fans = readCsv(dir_ / "fans.csv");
    EXPECT_EQ(fans.header, (std::vector<std::string>{"machine", "controller", "trace", "fan",
                                                     "name", "mean_rpm", "mean_db"}));
    std::map<std::string, int> fansOf;  // machine × controller
    for (const auto& fan : fans.rows) {
        ++fansOf[fan.at("machine") + "/" + fan.at("controller")];
        EXPECT_GE(number(fan, "mean_rpm"), 0.0);
        EXPECT_GE(number(fan, "mean_db"), 0.0);
        EXPECT_EQ(fan.at("name").front(), '"');
    }
    ASSERT_FALSE(rows.rows.empty());
    for (const auto& row : rows.rows) {
        const int count = fansOf[row.at("machine") + "/" + row.at("controller")];
        EXPECT_GE(count, 1) << row.at("machine");
    }
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "series")) {
        const Csv series = readCsv(entry.path());
        const std::string machine = entry.path().filename().string();
        ASSERT_GE(series.header.size(), 6u) << machine;
        EXPECT_EQ(series.header[5], "fan1_rpm") << machine;
        EXPECT_EQ(series.rows.size(), static_cast<std::size_t>(kSeconds)) << machine;
        ++files;
    }
    EXPECT_EQ(files, static_cast<int>(rows.rows.size()));
}

// What Kelvo measured of its fans, per Kelvo run on every machine with more than one fan, beside
// the machine file's shares, which add up to 1 for each die.
void expectCouplingRows(const Csv& coupling, const std::set<std::string>& controllers) {
    EXPECT_EQ(coupling.header,
              (std::vector<std::string>{"machine", "controller", "trace", "fan", "name", "die",
                                        "learned_share", "file_share", "confidence", "probes"}));
    std::map<std::string, double> fileTotal;  // machine × controller × trace × die
    std::set<std::string> seen;
    for (const auto& row : coupling.rows) {
        ASSERT_EQ(row.count("__width"), 0u);
        seen.insert(row.at("controller"));
        fileTotal[row.at("machine") + "/" + row.at("controller") + "/" + row.at("trace") + "/" +
                  row.at("die")] += number(row, "file_share");
        if (!row.at("learned_share").empty()) {
            EXPECT_GE(number(row, "learned_share"), 0.0);
            EXPECT_LE(number(row, "learned_share"), 1.0);
        }
        EXPECT_GE(number(row, "confidence"), 0.0);
        EXPECT_LE(number(row, "confidence"), 1.0);
        EXPECT_GE(number(row, "probes"), 0.0);
    }
    EXPECT_EQ(seen, controllers);
    ASSERT_FALSE(fileTotal.empty());
    // Written to six digits.
    for (const auto& [key, total] : fileTotal) EXPECT_NEAR(total, 1.0, 1e-5) << key;
}

TEST_F(ControlQualitySmoke, WritesWhatKelvoMeasuredOfEachFanBesideTheMachineFile) {
    ASSERT_EQ(status_, 0);
    expectCouplingRows(readCsv(dir_ / "coupling.csv"),
                       {"quiet", "quietHybrid", "performance", "quiet-learned",
                        "quietHybrid-learned", "quiet-known", "quiet-one-duty"});
}

TEST_F(ControlQualitySmoke, LearningRunsKelvosQuietModeOnTheMachinesWithSeveralFans) {
    const auto csv = dir_ / "learning.csv";
    const std::string command = std::string(CONTROL_QUALITY_BIN) +
                                " --trace render --learn-minutes 2,4 --coupling-csv " +
                                csv.string() + " > " + (dir_ / "learning.txt").string();
    ASSERT_EQ(std::system(command.c_str()), 0);
    const Csv coupling = readCsv(csv);
    expectCouplingRows(coupling, {"quiet"});
    std::set<std::string> traces;
    for (const auto& row : coupling.rows) traces.insert(row.at("trace"));
    EXPECT_EQ(traces, (std::set<std::string>{"mixed-use-2min", "mixed-use-4min"}));
}

TEST_F(ControlQualitySmoke, LearningOverSeveralSeedsPrintsHowCloseEachMachineCame) {
    const auto out = dir_ / "seeds.txt";
    const std::string command = std::string(CONTROL_QUALITY_BIN) +
                                " --machine laptop-two-blowers --trace render --learn-minutes 3"
                                " --seeds 4-5 > " +
                                out.string();
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::ifstream file(out);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    EXPECT_NE(text.find("laptop-two-blowers       mixed-use-3min   mean gap"), std::string::npos)
        << text;
    EXPECT_NE(text.find(" of   2  worst"), std::string::npos) << text;
    // One seed's CSV cannot hold several seeds' runs: refused, not written.
    const std::string csv = (dir_ / "seeds.csv").string();
    const std::string refused = std::string(CONTROL_QUALITY_BIN) +
                                " --machine laptop-two-blowers --learn-minutes 3 --seeds 4-5"
                                " --coupling-csv " +
                                csv + " 2> /dev/null";
    EXPECT_NE(std::system(refused.c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(csv));
}

TEST_F(ControlQualitySmoke, DrawsOneChartPerMachineAndTrace) {
    ASSERT_EQ(status_, 0);
    std::map<std::string, int> fansOf;
    for (const auto& fan : readCsv(dir_ / "fans.csv").rows)
        if (fan.at("controller") == "firmware") ++fansOf[fan.at("machine")];
    int charts = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "svg")) {
        std::ifstream file(entry.path());
        std::string text((std::istreambuf_iterator<char>(file)), {});
        EXPECT_EQ(text.rfind("<svg", 0), 0u) << entry.path();
        EXPECT_NE(text.find("<polyline"), std::string::npos) << entry.path();
        EXPECT_NE(text.find("</svg>"), std::string::npos) << entry.path();
        // A machine with more than one fan gets the panel of each fan's speed.
        const bool perFan = text.find("each fan, % of its range") != std::string::npos;
        const std::string machine = entry.path().stem().string().substr(
            0, entry.path().stem().string().size() - std::string("-compile").size());
        EXPECT_EQ(perFan, fansOf[machine] > 1) << entry.path();
        ++charts;
    }
    std::set<std::string> machines;
    for (const auto& row : readCsv(dir_ / "out.csv").rows) machines.insert(row.at("machine"));
    ASSERT_FALSE(machines.empty());
    EXPECT_EQ(charts, static_cast<int>(machines.size()));
}

}  // namespace
