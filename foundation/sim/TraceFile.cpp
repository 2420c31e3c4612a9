#include "foundation/sim/TraceFile.h"

#include "foundation/sim/JsonFile.h"

namespace kelvo::sim {

namespace {

using detail::invalid;
using detail::Json;
using detail::quotedKey;

std::string segmentKey(std::size_t index, std::string_view member) {
    return "segments[" + std::to_string(index) + "]." + std::string(member);
}

void checkLoad(double load, const std::string& key) {
    detail::checkFinite(load, key);
    if (load < 0 || load > 1) invalid(quotedKey(key) + " must be from 0 to 1");
}

// What both reading and writing insist on, so that whatever is written reads back.
void check(const TraceDescription& trace) {
    detail::checkName(trace.name, "name");
    if (trace.segments.empty()) invalid(quotedKey("segments") + " must list at least one segment");
    long long total = 0;
    for (std::size_t i = 0; i < trace.segments.size(); ++i) {
        const TraceSegment& segment = trace.segments[i];
        if (segment.seconds < 1 || segment.seconds > kMaxTraceSeconds)
            invalid(quotedKey(segmentKey(i, "seconds")) + " must be an integer from 1 to " +
                    std::to_string(kMaxTraceSeconds));
        checkLoad(segment.cpu, segmentKey(i, "cpu"));
        checkLoad(segment.gpu, segmentKey(i, "gpu"));
        total += segment.seconds;
    }
    if (total > kMaxTraceSeconds)
        invalid("the segments last " + std::to_string(total) + " s, more than the " +
                std::to_string(kMaxTraceSeconds) + " s allowed");
}

TraceSegment segmentFromJson(const Json& json, std::size_t index) {
    if (!json.is_object())
        invalid(quotedKey("segments[" + std::to_string(index) + "]") + " must be an object");
    for (const char* key : {"seconds", "cpu", "gpu"})
        if (!json.contains(key)) invalid(quotedKey(segmentKey(index, key)) + " is missing");
    TraceSegment segment;
    for (const auto& [key, value] : json.items()) {
        if (key == "seconds")
            segment.seconds = static_cast<int>(
                detail::readInteger(value, segmentKey(index, key), 1, kMaxTraceSeconds));
        else if (key == "cpu")
            segment.cpu = detail::readDouble(value, segmentKey(index, key));
        else if (key == "gpu")
            segment.gpu = detail::readDouble(value, segmentKey(index, key));
        else
            invalid("unknown key " + quotedKey(segmentKey(index, key)));
    }
    return segment;
}

TraceDescription traceFromJson(const Json& json) {
    if (!json.is_object()) invalid("must hold a JSON object");
    for (const char* key : {"name", "segments"})
        if (!json.contains(key)) invalid(quotedKey(key) + " is missing");
    TraceDescription trace;
    for (const auto& [key, value] : json.items()) {
        if (key == "name") {
            trace.name = detail::readString(value, key);
        } else if (key == "segments") {
            if (!value.is_array()) invalid(quotedKey("segments") + " must be a list");
            for (std::size_t i = 0; i < value.size(); ++i)
                trace.segments.push_back(segmentFromJson(value[i], i));
        } else {
            invalid("unknown key " + quotedKey(key));
        }
    }
    check(trace);
    return trace;
}

std::vector<TraceSegment> merged(const std::vector<TraceSegment>& segments) {
    std::vector<TraceSegment> out;
    for (const TraceSegment& segment : segments) {
        if (!out.empty() && out.back().cpu == segment.cpu && out.back().gpu == segment.gpu)
            out.back().seconds += segment.seconds;
        else
            out.push_back(segment);
    }
    return out;
}

std::string traceText(const TraceDescription& trace) {
    std::string text = "{\n  \"name\": " + Json(trace.name).dump() + ",\n  \"segments\": [";
    const char* separator = "\n    ";
    for (const TraceSegment& segment : merged(trace.segments)) {
        Json json = {{"seconds", segment.seconds}, {"cpu", segment.cpu}, {"gpu", segment.gpu}};
        text += separator + json.dump();
        separator = ",\n    ";
    }
    return text + "\n  ]\n}\n";
}

}  // namespace

std::optional<TraceDescription> readTraceFile(const std::filesystem::path& path,
                                              std::string* error) {
    auto json = detail::readJsonFile(path, kMaxTraceFileBytes, error);
    if (!json) return std::nullopt;
    try {
        return traceFromJson(*json);
    } catch (const detail::Invalid& e) {
        detail::setError(error, path, e.what());
    }
    return std::nullopt;
}

bool writeTraceFile(const std::filesystem::path& path, const TraceDescription& trace,
                    std::string* error) {
    std::string text;
    try {
        check(trace);
        text = traceText(trace);
    } catch (const detail::Invalid& e) {
        detail::setError(error, path, e.what());
        return false;
    } catch (const nlohmann::json::type_error&) {
        detail::setError(error, path, "the name must be valid UTF-8");
        return false;
    }
    return detail::writeTextFile(path, text, error);
}

}  // namespace kelvo::sim
