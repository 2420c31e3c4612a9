#include "foundation/core/FanChoices.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <sstream>
#include <vector>

namespace kelvo {

namespace {
// Above 0 (which hands the fan to the firmware) and below any fan's real lowest speed.
constexpr double kDefaultMinRPM = 1;
constexpr double kDefaultMaxRPM = 5000;

std::optional<double> percent(const std::string& word) {
    double value = 0;
    const char* end = word.data() + word.size();
    auto [ptr, ec] = std::from_chars(word.data(), end, value);
    if (ec != std::errc() || ptr != end || !std::isfinite(value)) return std::nullopt;
    if (value < 0 || value > 100) return std::nullopt;
    return value;
}

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string number(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}
}  // namespace

const char* fanChoiceWords() {
    return "auto, firmware, fixed N, min N, stop on|off (N a percentage from 0 to 100)";
}

std::optional<FanChoice> parseFanChoice(const std::string& text, FanChoice base, std::string* why) {
    const auto refuse = [&](std::string reason) -> std::optional<FanChoice> {
        if (why) *why = std::move(reason);
        return std::nullopt;
    };
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;) words.push_back(word);
    if (words.empty()) return refuse("it is empty");
    FanChoice choice = base;
    choice.problem.clear();  // what is said now is read afresh
    std::size_t i = 0;
    while (i < words.size()) {
        const std::string& word = words[i];
        if (word == "auto" || word == "firmware") {
            choice.kind = word == "auto" ? FanChoiceKind::automatic : FanChoiceKind::firmware;
            choice.kindGiven = true;
            ++i;
        } else if (word == "fixed" || word == "min") {
            if (i + 1 >= words.size()) return refuse("'" + word + "' needs a percentage");
            auto value = percent(words[i + 1]);
            if (!value)
                return refuse("'" + words[i + 1] + "' after '" + word +
                              "' is not a percentage from 0 to 100");
            if (word == "fixed") {
                choice.kind = FanChoiceKind::fixed;
                choice.kindGiven = true;
                choice.fixedPercent = *value;
            } else {
                choice.minimumPercent = *value;
            }
            i += 2;
        } else if (word == "stop") {
            if (i + 1 >= words.size() || (words[i + 1] != "on" && words[i + 1] != "off"))
                return refuse("'stop' needs on or off");
            choice.stopWhenCool = words[i + 1] == "on";
            i += 2;
        } else {
            return refuse("unknown word '" + word + "'");
        }
    }
    return choice;
}

std::string formatFanChoice(const FanChoice& choice) {
    std::string text;
    if (!choice.kindGiven) {
        text = "min " + number(choice.minimumPercent);
        if (choice.stopWhenCool) text += *choice.stopWhenCool ? " stop on" : " stop off";
        return text;
    }
    switch (choice.kind) {
        case FanChoiceKind::automatic: text = "auto"; break;
        case FanChoiceKind::firmware: text = "firmware"; break;
        case FanChoiceKind::fixed: text = "fixed " + number(choice.fixedPercent); break;
    }
    if (choice.minimumPercent > 0) text += " min " + number(choice.minimumPercent);
    if (choice.stopWhenCool) text += *choice.stopWhenCool ? " stop on" : " stop off";
    return text;
}

bool isPumpChannel(const std::string& label, const std::string& driver) {
    return lower(label).find("pump") != std::string::npos ||
           lower(driver).find("pump") != std::string::npos;
}

std::string driverOfIdentity(const std::string& identity) {
    const auto at = identity.find('@');
    return at == std::string::npos ? std::string() : identity.substr(0, at);
}

FanChoice effectiveFanChoice(const FanState& fan, const FanChoices& choices) {
    const bool pump = isPumpChannel(fan.label, driverOfIdentity(fan.name));
    FanChoice fallback;
    if (pump) {
        fallback.kind = FanChoiceKind::fixed;
        fallback.fixedPercent = 100;
    }
    auto it = choices.find(fan.name);
    if (it == choices.end()) it = choices.find(kEveryOtherFan);
    if (it == choices.end()) return fallback;
    FanChoice choice = it->second;
    if (!choice.kindGiven) {
        // "min 20" alone on a pump is its fixed 100 with a minimum, as kelvoctl stores it.
        choice.kind = fallback.kind;
        choice.fixedPercent = fallback.fixedPercent;
        choice.kindGiven = true;
    }
    return choice;
}

namespace {
bool isPump(const FanState& fan) {
    return isPumpChannel(fan.label, driverOfIdentity(fan.name));
}
}  // namespace

bool fanStopWanted(const FanState& fan, const FanChoice& choice) {
    return !isPump(fan) && choice.stopWhenCool.value_or(fan.firmwareStops);
}

std::string fanStopBlocker(const FanState& fan, const FanChoice& choice) {
    if (isPump(fan)) return "a pump never stops";
    switch (choice.kind) {
        case FanChoiceKind::firmware: return "the firmware drives it";
        case FanChoiceKind::fixed: return "it runs at a fixed duty";
        case FanChoiceKind::automatic: break;
    }
    if (choice.minimumPercent > 0) return "its minimum keeps it turning";
    return {};
}

bool fanMayStop(const FanState& fan, const FanChoice& choice) {
    return fanStopWanted(fan, choice) && fanStopBlocker(fan, choice).empty();
}

bool fanUnderAutoControl(const FanState& fan, const FanChoice& choice) {
    return choice.kind == FanChoiceKind::automatic && choice.problem.empty() &&
           !isPumpChannel(fan.label, driverOfIdentity(fan.name));
}

FanSpeedRange fanSpeedRange(const FanState& fan) {
    const double lo = fan.minRPM > 0 ? fan.minRPM : kDefaultMinRPM;
    const double hi = fan.maxRPM > lo ? fan.maxRPM : std::max(lo, kDefaultMaxRPM);
    return {lo, hi};
}

double fanTargetRPM(const FanState& fan, const FanChoice& choice, double duty) {
    const FanSpeedRange range = fanSpeedRange(fan);
    double share = 0;
    switch (choice.kind) {
        case FanChoiceKind::firmware: return 0;
        case FanChoiceKind::fixed: share = choice.fixedPercent / 100; break;
        case FanChoiceKind::automatic:
            share = std::max(std::clamp(duty, 0.0, 1.0), choice.minimumPercent / 100);
            break;
    }
    return range.minRPM + std::clamp(share, 0.0, 1.0) * (range.maxRPM - range.minRPM);
}

}  // namespace kelvo
