// control_quality: every controller through every load trace on every simulated machine, same
// seed for all, in virtual time; prints one table, optionally a CSV and an SVG chart per trace.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "LeadCalibration.h"
#include "MachineProfile.h"
#include "QualityRun.h"
#include "ReportWriter.h"
#include "SvgChart.h"
#include "TraceLibrary.h"

using namespace kelvo::quality;

namespace {

struct Options {
    std::string csvPath;
    std::string svgDir;
    std::string seriesDir;
    std::uint64_t seed = 1;
    int maxSeconds = -1;
    std::string onlyTrace;
    std::string onlyMachine;
};

void usage() {
    std::fprintf(
        stderr,
        "usage: control_quality [--csv FILE] [--svg-dir DIR] [--series-dir DIR] [--seed N]\n"
        "                       [--max-seconds N] [--trace NAME] [--machine NAME]\n");
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h" || i + 1 >= argc) return false;
        std::string value = argv[++i];
        if (arg == "--csv") {
            options.csvPath = value;
        } else if (arg == "--svg-dir") {
            options.svgDir = value;
        } else if (arg == "--series-dir") {
            options.seriesDir = value;
        } else if (arg == "--seed") {
            options.seed = std::strtoull(value.c_str(), nullptr, 10);
        } else if (arg == "--max-seconds") {
            options.maxSeconds = std::atoi(value.c_str());
        } else if (arg == "--trace") {
            options.onlyTrace = value;
        } else if (arg == "--machine") {
            options.onlyMachine = value;
        } else {
            return false;
        }
    }
    return true;
}

// Every second of one run, for a closer look than the chart gives.
void writeSeries(const std::string& path, const std::vector<SeriesPoint>& series) {
    std::ofstream file(path);
    file << "second,cpu_c,gpu_c,mean_rpm\n";
    for (std::size_t i = 0; i < series.size(); ++i)
        file << i + 1 << ',' << series[i].cpuC << ',' << series[i].gpuC << ',' << series[i].rpm
             << '\n';
    if (!file) std::fprintf(stderr, "cannot write %s\n", path.c_str());
}

void printSetup(const std::vector<ControllerSpec>& controllers) {
    std::cout << "Baselines and reference:\n";
    for (const auto& controller : controllers)
        if (controller.makeBaseline)
            std::cout << "  " << controller.name << ": " << controller.makeBaseline()->parameters()
                      << '\n';
}

std::vector<QualityRow> runMachine(const MachineProfile& machine,
                                   const std::vector<LoadTrace>& traces,
                                   const std::vector<ControllerSpec>& controllers,
                                   const Options& options) {
    RunSettings settings{options.seed, calibrateLeadModel(machine, options.seed)};
    if (settings.leadModel)
        std::printf("%s: quietHybrid lead model: utilisation >= %.0f%%, lead %.0f s\n",
                    machine.name.c_str(), settings.leadModel->utilizationThresholdPct,
                    settings.leadModel->averageLeadMs / 1000);
    std::vector<QualityRow> rows;
    for (const auto& trace : traces) {
        SvgChart chart(machine.name + " / " + trace.name(), 88, 85);
        for (const auto& controller : controllers) {
            RunResult run = runController(machine, trace, controller, settings);
            rows.push_back(run.row);
            if (!options.seriesDir.empty())
                writeSeries(options.seriesDir + "/" + machine.name + "-" + trace.name() + "-" +
                                controller.name + ".csv",
                            run.series);
            chart.add({controller.name, std::move(run.series)});
        }
        if (!options.svgDir.empty()) {
            std::string path = options.svgDir + "/" + machine.name + "-" + trace.name() + ".svg";
            if (!chart.write(path)) std::fprintf(stderr, "cannot write %s\n", path.c_str());
        }
    }
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        usage();
        return 2;
    }
    for (const auto& dir : {options.svgDir, options.seriesDir})
        if (!dir.empty()) std::filesystem::create_directories(dir);

    std::vector<LoadTrace> traces;
    for (auto& trace : TraceLibrary(options.seed).all()) {
        if (!options.onlyTrace.empty() && trace.name() != options.onlyTrace) continue;
        if (options.maxSeconds >= 0) trace.truncate(options.maxSeconds);
        traces.push_back(std::move(trace));
    }
    auto controllers = standardControllers();
    printSetup(controllers);

    std::vector<QualityRow> rows;
    for (const auto& machine : standardMachines()) {
        if (!options.onlyMachine.empty() && machine.name != options.onlyMachine) continue;
        auto machineRows = runMachine(machine, traces, controllers, options);
        rows.insert(rows.end(), machineRows.begin(), machineRows.end());
    }
    if (rows.empty()) {
        std::fprintf(stderr, "no machine or trace matches\n");
        return 2;
    }

    ReportWriter report(std::move(rows));
    std::cout << '\n';
    report.printTable(std::cout);
    std::cout << '\n';
    report.printTargets(std::cout);
    if (!options.csvPath.empty() && !report.writeCsv(options.csvPath)) {
        std::fprintf(stderr, "cannot write %s\n", options.csvPath.c_str());
        return 1;
    }
    return 0;
}
