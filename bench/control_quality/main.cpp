// control_quality: every controller through every load trace on every simulated machine, same
// seed for all, in virtual time; prints one table, optionally a CSV and an SVG chart per trace.
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "CouplingReport.h"
#include "MachineProfile.h"
#include "QualityRun.h"
#include "ReportWriter.h"
#include "SvgChart.h"
#include "TraceLibrary.h"
#include "foundation/sim/MachineFile.h"
#include "foundation/sim/TraceFile.h"

using namespace kelvo::quality;

namespace {

// How close a learned share must come to the machine file's for the fans to count as learned.
constexpr double kLearnedWithin = 0.2;

struct Options {
    std::string csvPath;
    std::string fanCsvPath;
    std::string couplingCsvPath;
    std::vector<int> learnMinutes;
    int learnedAfterMinutes = 240;
    std::string svgDir;
    std::string seriesDir;
    std::uint64_t seed = 1;
    std::uint64_t lastSeed = 0;  // with --seeds, the last of them
    int maxSeconds = -1;
    std::string onlyTrace;
    std::string onlyMachine;
    std::vector<std::string> machineFiles;
    std::vector<std::string> traceFiles;
    std::string builtinsDir;
    std::optional<double> temperatureStepC;
};

void usage() {
    std::fprintf(
        stderr,
        "usage: control_quality [--csv FILE] [--fan-csv FILE] [--coupling-csv FILE]\n"
        "                       [--svg-dir DIR] [--series-dir DIR]\n"
        "                       [--seed N] [--max-seconds N] [--trace NAME] [--machine NAME]\n"
        "                       [--machine-file FILE]... [--trace-file FILE]...\n"
        "                       [--temperature-step C]\n"
        "       control_quality --write-builtins DIR [--seed N]\n"
        "\n"
        "  --fan-csv FILE       write each fan's mean speed and level per row to FILE\n"
        "  --coupling-csv FILE  write what Kelvo measured of which die each fan cools, per run\n"
        "                       on a machine with more than one fan, beside the machine file\n"
        "  --learn-minutes N,.. instead of the table: Kelvo's quiet mode on each machine with\n"
        "                       more than one fan, from a fresh profile, through N minutes of the\n"
        "                       traces one after another, and what it measured of its fans\n"
        "  --learned-after N    the -learned rows start from the profile Kelvo's quiet mode\n"
        "                       built through N minutes of the traces one after another on the\n"
        "                       same machine (default 240; 0 leaves those rows out)\n"
        "  --seeds FIRST-LAST   with --learn-minutes: run every seed from FIRST to LAST (at most\n"
        "                       1000) and print, per machine and length of use, how close the\n"
        "                       learned shares came to the machine file's over them\n"
        "  --machine NAME       run only the built-in machine NAME\n"
        "  --machine-file FILE  run the machine described in FILE (repeatable); once any\n"
        "                       is given, built-in machines run only when named by --machine\n"
        "  --trace NAME         run only the built-in trace NAME (generated from --seed)\n"
        "  --trace-file FILE    run the trace in FILE (repeatable, not affected by --seed);\n"
        "                       once any is given, built-in traces run only when named by --trace\n"
        "  --temperature-step C every machine's temperature sensors report in steps of C degrees\n"
        "                       (1: whole degrees, as coretemp and the graphics drivers do; 0:\n"
        "                       the model's own values), whatever its file says\n"
        "  --write-builtins DIR write every built-in machine to DIR/machines/NAME.json and every\n"
        "                       built-in trace for --seed to DIR/traces/NAME.json, then exit\n");
}

// "FIRST-LAST", both whole numbers, LAST no smaller and at most kMostSeeds seeds in all.
constexpr std::uint64_t kMostSeeds = 1000;
bool parseSeeds(const std::string& value, Options& options) {
    const std::size_t dash = value.find('-');
    if (dash == std::string::npos || dash == 0 || dash + 1 == value.size()) return false;
    const std::string first = value.substr(0, dash);
    const std::string last = value.substr(dash + 1);
    auto digits = [](const std::string& text) {
        return text.size() <= 18 &&
               std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    };
    if (!digits(first) || !digits(last)) return false;
    options.seed = std::strtoull(first.c_str(), nullptr, 10);
    options.lastSeed = std::strtoull(last.c_str(), nullptr, 10);
    return options.lastSeed >= options.seed && options.lastSeed - options.seed < kMostSeeds;
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h" || i + 1 >= argc) return false;
        std::string value = argv[++i];
        if (arg == "--csv") {
            options.csvPath = value;
        } else if (arg == "--fan-csv") {
            options.fanCsvPath = value;
        } else if (arg == "--coupling-csv") {
            options.couplingCsvPath = value;
        } else if (arg == "--learn-minutes") {
            for (std::size_t at = 0; at < value.size();) {
                const std::size_t comma = std::min(value.find(',', at), value.size());
                const int minutes = std::atoi(value.substr(at, comma - at).c_str());
                if (minutes <= 0) return false;
                options.learnMinutes.push_back(minutes);
                at = comma + 1;
            }
        } else if (arg == "--learned-after") {
            options.learnedAfterMinutes = std::atoi(value.c_str());
            if (options.learnedAfterMinutes < 0) return false;
        } else if (arg == "--svg-dir") {
            options.svgDir = value;
        } else if (arg == "--series-dir") {
            options.seriesDir = value;
        } else if (arg == "--seed") {
            options.seed = std::strtoull(value.c_str(), nullptr, 10);
        } else if (arg == "--seeds") {
            if (!parseSeeds(value, options)) return false;
        } else if (arg == "--max-seconds") {
            options.maxSeconds = std::atoi(value.c_str());
        } else if (arg == "--trace") {
            options.onlyTrace = value;
        } else if (arg == "--machine") {
            options.onlyMachine = value;
        } else if (arg == "--machine-file") {
            options.machineFiles.push_back(value);
        } else if (arg == "--trace-file") {
            options.traceFiles.push_back(value);
        } else if (arg == "--write-builtins") {
            options.builtinsDir = value;
        } else if (arg == "--temperature-step") {
            char* end = nullptr;
            const double step = std::strtod(value.c_str(), &end);
            if (end == value.c_str() || *end != '\0' || !(step >= 0) ||
                step > kelvo::sim::kMostTemperatureStepC)
                return false;
            options.temperatureStepC = step;
        } else {
            return false;
        }
    }
    return true;
}

// The built-in machines and traces as files, to start a new machine or trace from.
bool writeBuiltins(const Options& options) {
    const std::filesystem::path dir = options.builtinsDir;
    std::error_code ec;
    for (const char* sub : {"machines", "traces"}) {
        if (!std::filesystem::create_directories(dir / sub, ec) && ec) {
            std::fprintf(stderr, "%s: %s\n", (dir / sub).c_str(), ec.message().c_str());
            return false;
        }
    }
    std::string error;
    for (const auto& machine : standardMachines()) {
        auto path = dir / "machines" / (machine.name + ".json");
        if (!kelvo::sim::writeMachineFile(path, {machine.name, machine.plant}, &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return false;
        }
        std::printf("%s\n", path.c_str());
    }
    for (const auto& trace : TraceLibrary(options.seed).all()) {
        auto path = dir / "traces" / (trace.name() + ".json");
        if (!kelvo::sim::writeTraceFile(path, trace.description(), &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return false;
        }
        std::printf("%s\n", path.c_str());
    }
    return true;
}

// The built-ins that --machine or --trace leave in, plus what the files describe. Without
// files every built-in runs unless a name picks one; with files only a named built-in joins them.
std::optional<std::vector<MachineProfile>> chooseMachines(const Options& options) {
    std::vector<MachineProfile> machines;
    bool found = false;
    for (const auto& machine : standardMachines()) {
        bool named = machine.name == options.onlyMachine;
        found = found || named;
        if (options.machineFiles.empty() ? options.onlyMachine.empty() || named : named)
            machines.push_back(machine);
    }
    if (!options.onlyMachine.empty() && !found) {
        std::fprintf(stderr, "no built-in machine is named %s\n", options.onlyMachine.c_str());
        return std::nullopt;
    }
    for (const auto& file : options.machineFiles) {
        std::string error;
        auto machine = kelvo::sim::readMachineFile(file, &error);
        if (!machine) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return std::nullopt;
        }
        machines.push_back({machine->name, machine->plant});
    }
    if (options.temperatureStepC)
        for (auto& machine : machines) machine.plant.temperatureStepC = *options.temperatureStepC;
    return machines;
}

std::optional<std::vector<LoadTrace>> chooseTraces(const Options& options, std::uint64_t seed) {
    std::vector<LoadTrace> traces;
    bool found = false;
    for (auto& trace : TraceLibrary(seed).all()) {
        bool named = trace.name() == options.onlyTrace;
        found = found || named;
        if (options.traceFiles.empty() ? options.onlyTrace.empty() || named : named)
            traces.push_back(std::move(trace));
    }
    if (!options.onlyTrace.empty() && !found) {
        std::fprintf(stderr, "no built-in trace is named %s\n", options.onlyTrace.c_str());
        return std::nullopt;
    }
    for (const auto& file : options.traceFiles) {
        std::string error;
        auto trace = kelvo::sim::readTraceFile(file, &error);
        if (!trace) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return std::nullopt;
        }
        traces.push_back(LoadTrace::fromDescription(*trace));
    }
    if (options.maxSeconds >= 0)
        for (auto& trace : traces) trace.truncate(options.maxSeconds);
    return traces;
}

// Names key the chart and series files, so two of one name would overwrite each other's.
bool namesAreUnique(const std::vector<std::string>& names, const char* what) {
    std::set<std::string> seen;
    for (const auto& name : names) {
        if (!seen.insert(name).second) {
            std::fprintf(stderr, "two %s are named %s\n", what, name.c_str());
            return false;
        }
    }
    return true;
}

// Every second of one run, for a closer look than the chart gives.
void writeSeries(const std::string& path, const std::vector<SeriesPoint>& series) {
    std::ofstream file(path);
    const std::size_t fans = series.empty() ? 0 : series.front().fanRPM.size();
    file << "second,cpu_c,gpu_c,mean_rpm,db";
    for (std::size_t fan = 1; fan <= fans; ++fan) file << ",fan" << fan << "_rpm";
    file << '\n';
    for (std::size_t i = 0; i < series.size(); ++i) {
        file << i + 1 << ',' << series[i].cpuC << ',' << series[i].gpuC << ',' << series[i].rpm
             << ',' << series[i].db;
        for (std::size_t fan = 0; fan < fans; ++fan)
            file << ',' << (fan < series[i].fanRPM.size() ? series[i].fanRPM[fan] : 0.0);
        file << '\n';
    }
    if (!file) std::fprintf(stderr, "cannot write %s\n", path.c_str());
}

void printSetup(const std::vector<ControllerSpec>& controllers) {
    std::cout << "Controllers:\n";
    for (const auto& controller : controllers)
        if (controller.makeBaseline)
            std::cout << "  " << controller.name << ": " << controller.makeBaseline()->parameters()
                      << '\n';
        else if (!controller.description.empty())
            std::cout << "  " << controller.name << ": " << controller.description << '\n';
}

// A database Kelvo's quiet mode left on a machine after the long mixed use, from a fresh
// profile; removed when done with.
class LearnedProfile {
public:
    LearnedProfile(const MachineProfile& machine, const std::vector<LoadTrace>& traces,
                   const std::vector<ControllerSpec>& controllers, const Options& options) {
        const auto quiet = std::find_if(controllers.begin(), controllers.end(), [](const auto& c) {
            return c.kelvoMode == kelvo::ControlMode::quiet && !c.afterLearning;
        });
        const bool wanted = std::any_of(controllers.begin(), controllers.end(),
                                        [](const auto& c) { return c.afterLearning; });
        if (!wanted || quiet == controllers.end() || options.learnedAfterMinutes <= 0) return;
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kelvo-learned-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) return;
        dir_ = pattern;
        RunSettings settings{options.seed, {}, dir_ + "/kelvo.db"};
        runController(machine, mixedUse(traces, options.learnedAfterMinutes * 60), *quiet,
                      settings);
    }
    ~LearnedProfile() {
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    LearnedProfile(const LearnedProfile&) = delete;
    LearnedProfile& operator=(const LearnedProfile&) = delete;

    std::string path() const { return dir_.empty() ? std::string() : dir_ + "/kelvo.db"; }

private:
    std::string dir_;
};

std::vector<QualityRow> runMachine(const MachineProfile& machine,
                                   const std::vector<LoadTrace>& traces,
                                   const std::vector<ControllerSpec>& controllers,
                                   const Options& options, std::vector<CouplingRow>& couplings) {
    const RunSettings settings{options.seed, {}, {}};
    // The profile the -learned rows start from, built once per machine by Kelvo's quiet mode.
    const LearnedProfile learned(machine, traces, controllers, options);
    std::vector<QualityRow> rows;
    for (const auto& trace : traces) {
        SvgChart chart(machine.name + " / " + trace.name(), 88, 85);
        chart.setFans(machine.plant.fans);
        for (const auto& controller : controllers) {
            if (controller.afterLearning && learned.path().empty()) continue;
            RunSettings runSettings = settings;
            if (controller.afterLearning) runSettings.startDatabase = learned.path();
            RunResult run = runController(machine, trace, controller, runSettings);
            rows.push_back(run.row);
            if (controller.kelvoMode && machine.plant.fans.size() > 1)
                couplings.push_back({machine.name, controller.name, trace.name(), machine.plant,
                                     run.evidence.couplings});
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

// How well Kelvo's quiet mode learns which die each fan cools, by how long it has run.
int learnCouplings(const std::vector<MachineProfile>& machines,
                   const std::vector<LoadTrace>& traces,
                   const std::vector<ControllerSpec>& controllers, const Options& options) {
    const auto quiet = std::find_if(controllers.begin(), controllers.end(), [](const auto& c) {
        return c.kelvoMode == kelvo::ControlMode::quiet;
    });
    const std::uint64_t last = std::max(options.seed, options.lastSeed);
    std::vector<SeededRow> runs;
    for (std::uint64_t seed = options.seed; seed <= last; ++seed) {
        // Each seed draws its own traces, as a table run with --seed does. A trace file that
        // could be read for the first seed and no longer can is reported, not run without.
        const auto drawn =
            seed == options.seed ? std::optional(traces) : chooseTraces(options, seed);
        if (!drawn) return 2;
        for (const auto& machine : machines) {
            if (machine.plant.fans.size() < 2) continue;
            for (int minutes : options.learnMinutes) {
                const LoadTrace trace = mixedUse(*drawn, minutes * 60);
                RunResult run = runController(machine, trace, *quiet, RunSettings{seed, {}, {}});
                runs.push_back({seed,
                                {machine.name, quiet->name, trace.name(), machine.plant,
                                 std::move(run.evidence.couplings)}});
            }
        }
    }
    if (options.lastSeed > options.seed) {
        printLearningSummary(std::cout, summarizeLearning(runs, kLearnedWithin), kLearnedWithin);
        return 0;
    }
    std::vector<CouplingRow> rows;
    for (auto& run : runs) rows.push_back(std::move(run.row));
    printCouplingTable(std::cout, rows);
    if (!options.couplingCsvPath.empty() && !writeCouplingCsv(options.couplingCsvPath, rows)) {
        std::fprintf(stderr, "cannot write %s\n", options.couplingCsvPath.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        usage();
        return 2;
    }
    if (!options.builtinsDir.empty()) return writeBuiltins(options) ? 0 : 1;
    if (options.lastSeed > 0 && options.lastSeed < options.seed) {
        std::fprintf(stderr, "--seed after --seeds FIRST-LAST moved FIRST past LAST\n");
        return 2;
    }
    if (options.lastSeed > 0 && options.learnMinutes.empty()) {
        std::fprintf(stderr, "--seeds goes with --learn-minutes\n");
        return 2;
    }
    if (options.lastSeed > options.seed && !options.couplingCsvPath.empty()) {
        std::fprintf(stderr, "--coupling-csv writes one seed's runs: give --seed N, not --seeds\n");
        return 2;
    }

    auto machines = chooseMachines(options);
    auto traces = chooseTraces(options, options.seed);
    if (!machines || !traces) return 2;
    std::vector<std::string> machineNames;
    std::vector<std::string> traceNames;
    for (const auto& machine : *machines) machineNames.push_back(machine.name);
    for (const auto& trace : *traces) traceNames.push_back(trace.name());
    if (!namesAreUnique(machineNames, "machines") || !namesAreUnique(traceNames, "traces"))
        return 2;

    for (const auto& dir : {options.svgDir, options.seriesDir})
        if (!dir.empty()) std::filesystem::create_directories(dir);

    auto controllers = standardControllers();
    if (options.learnedAfterMinutes == 0)
        std::erase_if(controllers, [](const ControllerSpec& c) { return c.afterLearning; });
    if (!options.learnMinutes.empty())
        return learnCouplings(*machines, *traces, controllers, options);
    printSetup(controllers);

    std::vector<QualityRow> rows;
    std::vector<CouplingRow> couplings;
    for (const auto& machine : *machines) {
        auto machineRows = runMachine(machine, *traces, controllers, options, couplings);
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
    if (!couplings.empty()) {
        std::cout << '\n';
        printCouplingTable(std::cout, couplings);
    }
    if (!options.couplingCsvPath.empty() && !writeCouplingCsv(options.couplingCsvPath, couplings)) {
        std::fprintf(stderr, "cannot write %s\n", options.couplingCsvPath.c_str());
        return 1;
    }
    if (!options.csvPath.empty() && !report.writeCsv(options.csvPath)) {
        std::fprintf(stderr, "cannot write %s\n", options.csvPath.c_str());
        return 1;
    }
    if (!options.fanCsvPath.empty() && !report.writeFanCsv(options.fanCsvPath)) {
        std::fprintf(stderr, "cannot write %s\n", options.fanCsvPath.c_str());
        return 1;
    }
    return 0;
}
