// hil_metrics: judges runs on a real-time kelvo-simhw mount from their logs, with the metrics
// and the charts control_quality uses for its in-process runs, so the two can be compared.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "QualityMetrics.h"
#include "ReportWriter.h"
#include "SimhwLog.h"
#include "SvgChart.h"
#include "foundation/sim/MachineFile.h"

using namespace kelvo;

namespace {

struct RunArgument {
    std::string machineFile;
    std::string trace;
    std::string controller;
    std::string log;
};

struct Options {
    std::string csvPath;
    std::string svgDir;
    int rows = -1;
    std::vector<RunArgument> runs;
};

void usage() {
    std::fprintf(
        stderr,
        "usage: hil_metrics [--csv FILE] [--svg-dir DIR] [--rows N]\n"
        "                   --run MACHINE_FILE TRACE CONTROLLER LOG.csv ...\n"
        "\n"
        "  --run       one logged run: the machine file it ran, the trace's name, the\n"
        "              controller's name and the log kelvo-simhw --log wrote (repeatable)\n"
        "  --rows N    use exactly the first N seconds of every log; a shorter log is an\n"
        "              error\n"
        "  --csv FILE  the rows, with control_quality's columns\n"
        "  --svg-dir   one chart per machine and trace, one line per controller\n");
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--run") {
            if (i + 4 >= argc) return false;
            options.runs.push_back({argv[i + 1], argv[i + 2], argv[i + 3], argv[i + 4]});
            i += 4;
            continue;
        }
        if (i + 1 >= argc) return false;
        const std::string value = argv[++i];
        if (arg == "--csv") {
            options.csvPath = value;
        } else if (arg == "--svg-dir") {
            options.svgDir = value;
        } else if (arg == "--rows") {
            char* end = nullptr;
            const long rows = std::strtol(value.c_str(), &end, 10);
            if (end == value.c_str() || *end != '\0' || rows < 1) return false;
            options.rows = static_cast<int>(rows);
        } else {
            return false;
        }
    }
    return !options.runs.empty();
}

struct Group {
    std::string machine;
    std::string trace;
    quality::SvgChart chart;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        usage();
        return 2;
    }
    const quality::MetricLimits limits;
    std::vector<quality::QualityRow> rows;
    std::vector<Group> groups;
    bool failed = false;
    for (const auto& run : options.runs) {
        std::string error;
        const auto machine = sim::readMachineFile(run.machineFile, &error);
        if (!machine) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 2;
        }
        const auto seconds = hil::readSimhwLog(run.log, machine->plant, options.rows, &error);
        if (!seconds) {
            // One broken run should not hide the others: report it and go on.
            std::fprintf(stderr, "%s\n", error.c_str());
            failed = true;
            continue;
        }
        quality::RunResult result = hil::evaluateLog(*seconds, machine->plant);
        result.row.machine = machine->name;
        result.row.trace = run.trace;
        result.row.controller = run.controller;
        rows.push_back(result.row);
        Group* group = nullptr;
        for (auto& candidate : groups)
            if (candidate.machine == machine->name && candidate.trace == run.trace)
                group = &candidate;
        if (!group) {
            groups.push_back({machine->name, run.trace,
                              quality::SvgChart(machine->name + " / " + run.trace + " (real time)",
                                                limits.cpuLimitC, limits.gpuLimitC)});
            group = &groups.back();
        }
        group->chart.add({run.controller, std::move(result.series)});
    }
    if (rows.empty()) return 1;

    quality::ReportWriter report(rows);
    report.printTable(std::cout);
    std::cout << '\n';
    report.printTargets(std::cout);
    if (!options.csvPath.empty() && !report.writeCsv(options.csvPath)) {
        std::fprintf(stderr, "cannot write %s\n", options.csvPath.c_str());
        return 1;
    }
    if (!options.svgDir.empty()) {
        std::filesystem::create_directories(options.svgDir);
        for (const auto& group : groups) {
            const std::string path =
                options.svgDir + "/" + group.machine + "-" + group.trace + ".svg";
            if (!group.chart.write(path)) {
                std::fprintf(stderr, "cannot write %s\n", path.c_str());
                failed = true;
            }
        }
    }
    return failed ? 1 : 0;
}
