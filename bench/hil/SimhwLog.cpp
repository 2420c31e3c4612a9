#include "SimhwLog.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "QualityMetrics.h"

namespace kelvo::hil {

namespace {

std::vector<std::string> splitCells(const std::string& line) {
    std::vector<std::string> cells;
    std::stringstream stream(line);
    std::string cell;
    while (std::getline(stream, cell, ',')) cells.push_back(cell);
    if (!line.empty() && line.back() == ',') cells.emplace_back();
    return cells;
}

std::optional<double> parseNumber(const std::string& text) {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

}  // namespace

std::optional<std::vector<LogSecond>> readSimhwLog(const std::filesystem::path& path,
                                                   const sim::PlantConfig& plant, int rows,
                                                   std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = path.string() + ": " + why;
        return std::nullopt;
    };
    std::ifstream file(path);
    if (!file) return fail("cannot read");
    std::string line;
    if (!std::getline(file, line)) return fail("empty");
    const std::vector<std::string> header = splitCells(line);
    std::map<std::string, std::size_t> column;
    for (std::size_t i = 0; i < header.size(); ++i) column[header[i]] = i;

    std::vector<std::string> wanted = {"cpu_load", "gpu_load",       "cpu_c",         "gpu_c",
                                       "sink_c",   "cpu_mhz",        "gpu_mhz",       "total_w",
                                       "time_s",   "cpu_throttling", "gpu_throttling"};
    const std::size_t fans = plant.fans.size();
    for (std::size_t fan = 1; fan <= fans; ++fan) {
        wanted.push_back("fan" + std::to_string(fan) + "_rpm");
        wanted.push_back("fan" + std::to_string(fan) + "_enable");
    }
    for (const auto& name : wanted)
        if (!column.count(name)) return fail("no column " + name);
    if (column.count("fan" + std::to_string(fans + 1) + "_rpm"))
        return fail("more fans than the machine's " + std::to_string(fans));

    std::vector<LogSecond> seconds;
    int lineNumber = 1;
    while ((rows < 0 || static_cast<int>(seconds.size()) < rows) && std::getline(file, line)) {
        ++lineNumber;
        if (line.empty()) continue;
        const std::vector<std::string> cells = splitCells(line);
        if (cells.size() != header.size())
            return fail("line " + std::to_string(lineNumber) + " has " +
                        std::to_string(cells.size()) + " cells, the header " +
                        std::to_string(header.size()));
        std::map<std::string, double> value;
        for (const auto& name : wanted) {
            auto number = parseNumber(cells[column[name]]);
            if (!number) return fail("line " + std::to_string(lineNumber) + ": bad " + name);
            value[name] = *number;
        }
        LogSecond second;
        sim::PlantState& s = second.state;
        s.elapsedS = value["time_s"];
        s.cpuTemperatureC = value["cpu_c"];
        s.gpuTemperatureC = value["gpu_c"];
        s.sinkTemperatureC = value["sink_c"];
        s.cpuClockMHz = value["cpu_mhz"];
        s.gpuClockMHz = value["gpu_mhz"];
        s.gpuReferenceMaxClockMHz = plant.gpuReferenceMaxClockMHz;
        s.cpuThrottling = value["cpu_throttling"] != 0;
        s.gpuThrottling = value["gpu_throttling"] != 0;
        s.totalPowerW = value["total_w"];
        s.firmwareControl = true;
        for (std::size_t fan = 0; fan < fans; ++fan) {
            const std::string prefix = "fan" + std::to_string(fan + 1);
            s.fanNames.push_back(plant.fans[fan].name);
            s.fanCurrentRPM.push_back(value[prefix + "_rpm"]);
            s.fanMinRPM.push_back(plant.fans[fan].minRPM);
            s.fanMaxRPM.push_back(plant.fans[fan].maxRPM);
            // 2 is the firmware curve; any other mode means something drives that fan.
            if (value[prefix + "_enable"] != 2) s.firmwareControl = false;
        }
        second.load = {value["cpu_load"], value["gpu_load"]};
        seconds.push_back(std::move(second));
    }
    if (rows >= 0 && static_cast<int>(seconds.size()) < rows)
        return fail("only " + std::to_string(seconds.size()) + " rows, " + std::to_string(rows) +
                    " wanted");
    return seconds;
}

quality::RunResult evaluateLog(const std::vector<LogSecond>& seconds,
                               const sim::PlantConfig& plant) {
    quality::QualityMetrics metrics(plant);
    quality::RunResult result;
    result.series.reserve(seconds.size());
    for (const auto& second : seconds) {
        metrics.add(second.state, second.load, 1.0);
        result.series.push_back(quality::seriesPoint(plant, second.state));
    }
    result.row = metrics.result();
    return result;
}

}  // namespace kelvo::hil
