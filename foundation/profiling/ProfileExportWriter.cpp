#include "foundation/profiling/ProfileExportWriter.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>

#include "foundation/core/XmlText.h"

namespace kelvo::ProfileExportWriter {

namespace {

namespace fs = std::filesystem;

std::string number(double value, int decimals = 3) {
    if (!std::isfinite(value)) return "";
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

std::string optionalNumber(const std::optional<double>& value, int decimals = 3) {
    return value ? number(*value, decimals) : std::string();
}

std::string jsonNumber(const std::optional<double>& value, int decimals = 3) {
    if (!value || !std::isfinite(*value)) return "null";
    return number(*value, decimals);
}

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char buffer[8];
                    std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
                    out += buffer;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string csvField(std::string_view text) {
    if (text.find_first_of(",\"\n\r") == std::string_view::npos) return std::string(text);
    std::string out = "\"";
    for (char c : text) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

std::string isoTime(Timestamp t) {
    if (!std::isfinite(t) || std::abs(t) > 1e15) return "";
    // Whole milliseconds first, so 0.725 s never prints as .724 through binary rounding.
    const long long totalMs = std::llround(t * 1000.0);
    long long seconds = totalMs / 1000;
    long long millis = totalMs % 1000;
    if (millis < 0) {
        millis += 1000;
        seconds -= 1;
    }
    const auto whole = static_cast<std::time_t>(seconds);
    std::tm utc{};
    if (!gmtime_r(&whole, &utc)) return "";
    char buffer[40];
    if (std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &utc) == 0) return "";
    char out[48];
    std::snprintf(out, sizeof out, "%s.%03lldZ", buffer, millis);
    return out;
}

std::string machineJson() {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) std::strcpy(host, "unknown");
    utsname names{};
    const bool haveNames = uname(&names) == 0;
    return "{\"hostname\": " + jsonString(host) +
           ", \"kernel\": " + jsonString(haveNames ? names.release : "unknown") +
           ", \"architecture\": " + jsonString(haveNames ? names.machine : "unknown") + "}";
}

struct SeriesStats {
    std::optional<double> min, max, mean;
};

template <class Get>
SeriesStats stats(const std::vector<TelemetrySample>& samples, Get get) {
    SeriesStats s;
    double sum = 0;
    int count = 0;
    for (const auto& sample : samples) {
        const std::optional<double> value = get(sample);
        if (!value || !std::isfinite(*value)) continue;
        s.min = s.min ? std::min(*s.min, *value) : *value;
        s.max = s.max ? std::max(*s.max, *value) : *value;
        sum += *value;
        ++count;
    }
    if (count > 0) s.mean = sum / count;
    return s;
}

std::string statsJson(const SeriesStats& s) {
    return "{\"min\": " + jsonNumber(s.min) + ", \"max\": " + jsonNumber(s.max) +
           ", \"mean\": " + jsonNumber(s.mean) + "}";
}

bool writeFile(const fs::path& path, const std::string& content, std::string& error) {
    std::FILE* file = std::fopen(path.c_str(), "wbx");
    if (!file) {
        error = "cannot create " + path.string() + ": " + std::strerror(errno);
        return false;
    }
    const bool wrote = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    const int writeErrno = errno;
    const bool closed = std::fclose(file) == 0;
    if (!wrote || !closed) {
        error = "cannot write " + path.string() + ": " + std::strerror(wrote ? errno : writeErrno);
        return false;
    }
    return true;
}

// ----- summary.svg --------------------------------------------------------------------------

struct Series {
    const char* name;
    const char* color;
    std::optional<double> (*get)(const TelemetrySample&);
};

struct Panel {
    const char* title;
    const char* unit;
    std::vector<Series> series;
};

constexpr double kWidth = 1000, kLeft = 70, kRight = 20, kTop = 40, kPanelHeight = 150,
                 kPanelGap = 40;
constexpr std::size_t kMaxPointsPerSeries = 2000;

const char* eventColor(std::string_view kind) {
    if (kind == "thermal_pressure") return "#d62728";
    if (kind == "freq_droop") return "#ff7f0e";
    if (kind == "burst_ramp") return "#9467bd";
    return "#7f7f7f";
}

std::vector<Panel> panels() {
    return {
        {"Temperature",
         "°C",
         {{"CPU", "#d62728", [](const TelemetrySample& s) { return s.cpuTemperatureC; }},
          {"GPU", "#1f77b4", [](const TelemetrySample& s) { return s.gpuTemperatureC; }}}},
        {"Clock",
         "MHz",
         {{"CPU", "#d62728", [](const TelemetrySample& s) { return s.cpuClockMHz; }},
          {"GPU", "#1f77b4", [](const TelemetrySample& s) { return s.gpuClockMHz; }}}},
        {"Power",
         "W",
         {{"Total", "#2ca02c", [](const TelemetrySample& s) { return s.totalPowerW; }}}},
        {"Fan",
         "RPM",
         {{"Mean", "#8c564b", [](const TelemetrySample& s) { return s.meanFanCurrentRPM(); }}}},
    };
}

}  // namespace

std::string runJson(const ProfileExportInput& input) {
    const auto& run = input.run;
    const auto& samples = input.samples;
    std::map<std::string, int> eventCounts;
    for (const auto& event : input.events) ++eventCounts[event.kind];
    std::string counts = "{";
    for (const auto& [kind, count] : eventCounts) {
        if (counts.size() > 1) counts += ", ";
        counts += jsonString(kind) + ": " + std::to_string(count);
    }
    counts += "}";
    std::string model = "null";
    if (input.model) {
        const auto& m = *input.model;
        model = "{\"id\": " + std::to_string(m.id) + ", \"source\": " + jsonString(m.source) +
                ", \"createdAt\": " + jsonNumber(m.createdAt) +
                ", \"cpuReferenceClockMHz\": " + jsonNumber(m.cpuReferenceClockMHz, 1) +
                ", \"gpuReferenceClockMHz\": " + jsonNumber(m.gpuReferenceClockMHz, 1) +
                ", \"temperatureReferenceC\": " + jsonNumber(m.temperatureReferenceC, 2) + "}";
    }
    const std::optional<double> duration =
        run.stoppedAt ? std::optional<double>(*run.stoppedAt - run.startedAt) : std::nullopt;
    std::string out = "{\n";
    out += "  \"format\": \"kelvo-capture\",\n  \"formatVersion\": 1,\n";
    out += "  \"exportedAt\": " + jsonString(isoTime(input.exportedAt)) + ",\n";
    out += "  \"run\": {\"id\": " + std::to_string(run.id) +
           ", \"scenario\": " + jsonString(run.scenario) + ", \"mode\": " + jsonString(run.mode) +
           ", \"modelID\": " + jsonString(run.modelID) +
           ", \"modelSource\": " + jsonString(run.modelSource) +
           ", \"notes\": " + jsonString(run.notes) +
           ", \"startedAt\": " + jsonString(isoTime(run.startedAt)) + ", \"stoppedAt\": " +
           (run.stoppedAt ? jsonString(isoTime(*run.stoppedAt)) : std::string("null")) +
           ", \"status\": " + jsonString(run.status) + "},\n";
    out += "  \"machine\": " + machineJson() + ",\n";
    out += "  \"model\": " + model + ",\n";
    out += "  \"summary\": {\n";
    out += "    \"durationSeconds\": " + jsonNumber(duration) + ",\n";
    out += "    \"sampleCount\": " + std::to_string(samples.size()) + ",\n";
    out += "    \"eventCount\": " + std::to_string(input.events.size()) + ",\n";
    out += "    \"eventsByKind\": " + counts + ",\n";
    out += "    \"cpuTemperatureC\": " +
           statsJson(stats(samples, [](const auto& s) { return s.cpuTemperatureC; })) + ",\n";
    out += "    \"gpuTemperatureC\": " +
           statsJson(stats(samples, [](const auto& s) { return s.gpuTemperatureC; })) + ",\n";
    out += "    \"cpuClockMHz\": " +
           statsJson(stats(samples, [](const auto& s) { return s.cpuClockMHz; })) + ",\n";
    out += "    \"gpuClockMHz\": " +
           statsJson(stats(samples, [](const auto& s) { return s.gpuClockMHz; })) + ",\n";
    out += "    \"totalPowerW\": " +
           statsJson(stats(samples, [](const auto& s) { return s.totalPowerW; })) + ",\n";
    out += "    \"fanRPM\": " +
           statsJson(stats(samples, [](const auto& s) { return s.meanFanCurrentRPM(); })) + "\n";
    out += "  }\n}\n";
    return out;
}

std::string samplesCsv(const std::vector<TelemetrySample>& samples) {
    std::string out =
        "timestamp,time_utc,cpu_temp_c,gpu_temp_c,cpu_clock_mhz,gpu_clock_mhz,"
        "gpu_ref_clock_mhz,cpu_util_pct,gpu_util_pct,power_w,fan_rpm,thermal_pressure\n";
    out.reserve(out.size() + samples.size() * 120);
    for (const auto& s : samples) {
        out += number(s.timestamp) + ',' + isoTime(s.timestamp) + ',' +
               optionalNumber(s.cpuTemperatureC, 2) + ',' + optionalNumber(s.gpuTemperatureC, 2) +
               ',' + optionalNumber(s.cpuClockMHz, 1) + ',' + optionalNumber(s.gpuClockMHz, 1) +
               ',' + optionalNumber(s.gpuReferenceMaxClockMHz, 1) + ',' +
               optionalNumber(s.cpuUtilizationPct, 2) + ',' +
               optionalNumber(s.gpuUtilizationPct, 2) + ',' + optionalNumber(s.totalPowerW, 2) +
               ',' + optionalNumber(s.meanFanCurrentRPM(), 0) + ',' +
               (s.thermalPressure ? std::string(rawValue(*s.thermalPressure)) : std::string()) +
               '\n';
    }
    return out;
}

std::string eventsCsv(const std::vector<ProfilingRunEvent>& events) {
    std::string out = "timestamp,time_utc,kind,severity,details\n";
    for (const auto& e : events) {
        std::string details;
        for (const auto& [name, value] : e.values) {
            if (!details.empty()) details += ' ';
            details += name + '=' + number(value);
        }
        out += number(e.timestamp) + ',' + isoTime(e.timestamp) + ',' + csvField(e.kind) + ',' +
               csvField(e.severity) + ',' + csvField(details) + '\n';
    }
    return out;
}

std::string summarySvg(const ProfileExportInput& input) {
    const auto& samples = input.samples;
    const auto panelList = panels();
    const double height =
        kTop + static_cast<double>(panelList.size()) * (kPanelHeight + kPanelGap) + 20;
    const double plotWidth = kWidth - kLeft - kRight;
    double t0 = input.run.startedAt, t1 = input.run.stoppedAt.value_or(t0);
    for (const auto& s : samples) {
        t0 = std::min(t0, s.timestamp);
        t1 = std::max(t1, s.timestamp);
    }
    const double span = std::max(t1 - t0, 1.0);
    auto x = [&](Timestamp t) { return kLeft + (t - t0) / span * plotWidth; };
    const std::size_t stride = std::max<std::size_t>(1, samples.size() / kMaxPointsPerSeries + 1);

    std::string out = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(kWidth, 0) +
                      "\" height=\"" + number(height, 0) + "\" viewBox=\"0 0 " + number(kWidth, 0) +
                      " " + number(height, 0) + "\" font-family=\"sans-serif\" font-size=\"11\">\n";
    out += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    out += "<text x=\"" + number(kLeft, 0) + "\" y=\"22\" font-size=\"15\">Kelvo capture run " +
           std::to_string(input.run.id) + " — " + xmlText(input.run.scenario) + ", " +
           number(span, 0) + " s, " + std::to_string(samples.size()) + " samples, " +
           std::to_string(input.events.size()) + " events</text>\n";

    double top = kTop;
    for (const auto& panel : panelList) {
        std::optional<double> lo, hi;
        for (const auto& series : panel.series)
            for (const auto& s : samples)
                if (auto v = series.get(s); v && std::isfinite(*v)) {
                    lo = lo ? std::min(*lo, *v) : *v;
                    hi = hi ? std::max(*hi, *v) : *v;
                }
        double vmin = lo.value_or(0), vmax = hi.value_or(1);
        if (vmax - vmin < 1e-9) vmax = vmin + 1;
        const double pad = (vmax - vmin) * 0.05;
        vmin -= pad;
        vmax += pad;
        auto y = [&](double v) {
            return top + kPanelHeight - (v - vmin) / (vmax - vmin) * kPanelHeight;
        };

        out += "<g>\n<rect x=\"" + number(kLeft, 1) + "\" y=\"" + number(top, 1) + "\" width=\"" +
               number(plotWidth, 1) + "\" height=\"" + number(kPanelHeight, 1) +
               "\" fill=\"none\" stroke=\"#bbbbbb\"/>\n";
        out += "<text x=\"" + number(kLeft, 1) + "\" y=\"" + number(top - 6, 1) + "\">" +
               xmlText(panel.title) + " (" + xmlText(panel.unit) + ")</text>\n";
        out += "<text x=\"" + number(kLeft - 6, 1) + "\" y=\"" + number(top + 10, 1) +
               "\" text-anchor=\"end\">" + number(vmax, 0) + "</text>\n";
        out += "<text x=\"" + number(kLeft - 6, 1) + "\" y=\"" + number(top + kPanelHeight, 1) +
               "\" text-anchor=\"end\">" + number(vmin, 0) + "</text>\n";
        double legendX = kLeft + 160;
        for (const auto& series : panel.series) {
            out += "<text x=\"" + number(legendX, 1) + "\" y=\"" + number(top - 6, 1) +
                   "\" fill=\"" + series.color + "\">" + series.name + "</text>\n";
            legendX += 60;
            std::string points;
            for (std::size_t i = 0; i < samples.size(); i += stride) {
                auto v = series.get(samples[i]);
                if (!v || !std::isfinite(*v)) continue;
                points += number(x(samples[i].timestamp), 1) + ',' + number(y(*v), 1) + ' ';
            }
            if (!points.empty())
                out += "<polyline fill=\"none\" stroke=\"" + std::string(series.color) +
                       "\" stroke-width=\"1.2\" points=\"" + points + "\"/>\n";
        }
        for (const auto& event : input.events) {
            const double ex = x(event.timestamp);
            out += "<line class=\"event\" x1=\"" + number(ex, 1) + "\" y1=\"" + number(top, 1) +
                   "\" x2=\"" + number(ex, 1) + "\" y2=\"" + number(top + kPanelHeight, 1) +
                   "\" stroke=\"" + eventColor(event.kind) + "\" stroke-dasharray=\"3,2\"><title>" +
                   xmlText(event.kind) + " (" + xmlText(event.severity) + ")</title></line>\n";
        }
        out += "</g>\n";
        top += kPanelHeight + kPanelGap;
    }
    out += "<text x=\"" + number(kLeft, 1) + "\" y=\"" + number(top - kPanelGap + 16, 1) + "\">" +
           isoTime(t0) + "</text>\n";
    out += "<text x=\"" + number(kWidth - kRight, 1) + "\" y=\"" + number(top - kPanelGap + 16, 1) +
           "\" text-anchor=\"end\">" + isoTime(t1) + "</text>\n";
    out += "</svg>\n";
    return out;
}

ProfilingResult<ProfilingExportArtifacts> write(const std::string& folder,
                                                const ProfileExportInput& input) {
    using Result = ProfilingResult<ProfilingExportArtifacts>;
    const fs::path dir(folder);
    std::error_code ec;
    if (fs::exists(dir, ec)) return Result::failure("export folder " + folder + " already exists");
    if (dir.has_parent_path()) {
        fs::create_directories(dir.parent_path(), ec);
        if (ec)
            return Result::failure("cannot create " + dir.parent_path().string() + ": " +
                                   ec.message());
    }
    if (!fs::create_directory(dir, ec) || ec)
        return Result::failure("cannot create " + folder + ": " +
                               (ec ? ec.message() : std::string("it appeared meanwhile")));

    const std::string contents[] = {runJson(input), samplesCsv(input.samples),
                                    eventsCsv(input.events), summarySvg(input)};
    ProfilingExportArtifacts artifacts;
    artifacts.folder = folder;
    artifacts.sampleCount = input.samples.size();
    artifacts.eventCount = input.events.size();
    for (std::size_t i = 0; i < std::size(kFileNames); ++i) {
        std::string error;
        if (!writeFile(dir / kFileNames[i], contents[i], error)) {
            // A half-written export would look complete to whoever opens the folder.
            fs::remove_all(dir, ec);
            return Result::failure(error);
        }
        artifacts.files.emplace_back(kFileNames[i]);
    }
    return Result::success(std::move(artifacts));
}

}  // namespace kelvo::ProfileExportWriter
