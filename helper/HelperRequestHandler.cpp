#include "helper/HelperRequestHandler.h"

#include <algorithm>

#include "foundation/fans/LocalFanController.h"

namespace kelvo::helperd {

namespace hp = helper_protocol;

namespace {

constexpr auto kPendingRetryInterval = std::chrono::seconds(1);

const HwmonFan* findFan(const std::vector<HwmonFan>& fans, const std::string& identity) {
    const auto found = std::find_if(fans.begin(), fans.end(),
                                    [&](const HwmonFan& fan) { return fan.identity == identity; });
    return found != fans.end() ? &*found : nullptr;
}

hp::FanInfo hwmonInfo(const HwmonFan& fan) {
    hp::FanInfo info;
    info.identity = fan.identity;
    info.controllable = fan.controllable;
    if (fan.currentRPM) info.rpm = static_cast<int>(*fan.currentRPM);
    info.minRPM = static_cast<int>(fan.minRPM);
    info.maxRPM = static_cast<int>(fan.maxRPM);
    info.pwm = fan.pwm;
    info.mode = fan.pwmEnable;
    return info;
}

hp::FanInfo nvidiaInfo(const NvmlFan& fan, bool held) {
    hp::FanInfo info;
    info.identity = fan.identity;
    info.controllable = true;
    // NVML reports a speed share, not revolutions: no rpm, the share as a duty.
    if (fan.percent) info.pwm = (*fan.percent * hp::kMaxPWM + 50) / 100;
    info.mode = held ? 1 : 2;
    return info;
}

}  // namespace

HelperRequestHandler::HelperRequestHandler(const HelperOptions& options, HelperConfig config,
                                           std::string version, Logger log,
                                           LeaseRestarter restartLease)
    : config_(std::move(config)),
      version_(std::move(version)),
      log_(log ? std::move(log) : Logger([](const std::string&) {})),
      restartLease_(std::move(restartLease)),
      owner_(FanJournal(options.journalPath()), log_),
      hwmon_(std::make_shared<HwmonFanService>(options.sysfsRoot), owner_),
      sensors_(options.sysfsRoot),
      counters_(options.sysfsRoot),
      sleep_(log_, [this](bool goingToSleep) { prepareForSleep(goingToSleep); }) {
    if (options.nvmlLibrary != "none") {
        nvidia_ = std::make_unique<NvmlFans>(owner_, options.nvmlLibrary);
        if (!nvidia_->available()) log_("no NVIDIA fans: " + nvidia_->unavailableReason());
    }
}

void HelperRequestHandler::start() {
    if (!config_.file.empty()) {
        log_("configuration " + config_.file + ": " + std::to_string(config_.floors.size()) +
             " floor(s), " + std::to_string(config_.forbidden.size()) + " forbidden fan(s)");
    }
    sleep_.start();
    owner_.restoreFromJournal();
    lastPendingRetry_ = Clock::now();
}

void HelperRequestHandler::stop() {
    const std::size_t released = owner_.releaseEverything("helper stopping");
    log_("stopping; released " + std::to_string(released) + " fan(s)");
}

bool HelperRequestHandler::isNvidia(const std::string& identity) {
    return identity.starts_with("nvidia@");
}

void HelperRequestHandler::clientGone(const ClientInfo& client, const std::string& reason) {
    if (heldBy(client.id) > 0) {
        log_(client.describe() + ": " + reason);
        releaseFans(client.id, reason);
    }
    if (sleepHolds_.erase(client.id) > 0) {
        log_(client.describe() + " gone during sleep (" + reason + "); its fans are not retaken");
    }
}

pollfd HelperRequestHandler::busDescriptor() const {
    return {sleep_.fd(), sleep_.events(), 0};
}

void HelperRequestHandler::processBus() {
    if (sleep_.active()) sleep_.process();
}

std::optional<HelperRequestHandler::Clock::time_point> HelperRequestHandler::nextDeadline(
    Clock::time_point now) const {
    std::optional<Clock::time_point> wake;
    if (owner_.hasPending()) wake = lastPendingRetry_ + kPendingRetryInterval;
    if (const int busMs = sleep_.timeoutMs(); busMs >= 0) {
        const auto bus = now + std::chrono::milliseconds(busMs);
        wake = wake ? std::min(*wake, bus) : bus;
    }
    return wake;
}

void HelperRequestHandler::retryFailedRestores(Clock::time_point now) {
    if (owner_.hasPending() && now - lastPendingRetry_ >= kPendingRetryInterval) {
        lastPendingRetry_ = now;
        owner_.retryPending();
    }
}

hp::Reply HelperRequestHandler::handle(const ClientInfo& client, const hp::Request& request) {
    switch (request.op) {
        case hp::Op::version:
            return hp::Reply::success(hp::encodeVersionInfo({version_, hp::kVersion}));
        case hp::Op::list: return list(client);
        case hp::Op::setTarget: return setTarget(client, request);
        case hp::Op::release: return release(client, request);
        case hp::Op::releaseAll: return releaseAll(client);
        case hp::Op::readCounter: return readCounter(request);
        case hp::Op::renew: return leaseReply(client.id);
        case hp::Op::config: return configReply();
    }
    return hp::Reply::failure(hp::codes::badRequest, "unhandled op");
}

hp::Reply HelperRequestHandler::list(const ClientInfo& client) {
    hp::Inventory inventory;
    for (const HwmonFan& fan : hwmon_.discover()) {
        hp::FanInfo info = hwmonInfo(fan);
        const auto holder = owner_.holder(fan.identity);
        info.held = holder.has_value();
        info.mine = holder == client.id;
        inventory.fans.push_back(std::move(info));
    }
    if (nvidia_) {
        for (const NvmlFan& fan : nvidia_->discover()) {
            const auto holder = owner_.holder(fan.identity);
            hp::FanInfo info = nvidiaInfo(fan, holder.has_value());
            info.held = holder.has_value();
            info.mine = holder == client.id;
            inventory.fans.push_back(std::move(info));
        }
    }
    inventory.sensors = sensors_.discover();
    return hp::Reply::success(hp::encodeInventory(inventory));
}

std::optional<hp::Reply> HelperRequestHandler::forbiddenReply(const std::string& fan) const {
    if (!config_.isForbidden(fan)) return std::nullopt;
    return hp::Reply::failure(hp::codes::forbidden,
                              fan + " is forbidden to clients by " + config_.file);
}

std::optional<hp::Reply> HelperRequestHandler::floorReply(const std::string& fan, int pwm,
                                                          const std::string& note) const {
    const auto floor = config_.floorOf(fan);
    if (!floor || pwm >= *floor) return std::nullopt;
    return hp::Reply::failure(hp::codes::belowFloor, "duty cycle " + std::to_string(pwm) + note +
                                                         " is below the floor " +
                                                         std::to_string(*floor) + " that " +
                                                         config_.file + " sets for " + fan);
}

hp::Reply HelperRequestHandler::setNvidiaTarget(const ClientInfo& client,
                                                const hp::Request& request) {
    if (auto refused = forbiddenReply(request.fan)) return *refused;
    const int pwm =
        request.pwm ? *request.pwm : LocalFanController::linearPWMForRPM(*request.rpm, 0, 0);
    if (auto refused = floorReply(request.fan, pwm, "")) return *refused;
    const ArbiterOutcome outcome = nvidia_->take(client.id, request.fan, pwm);
    if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
    return hp::Reply::success(hp::encodeAppliedPWM(pwm));
}

hp::Reply HelperRequestHandler::setTarget(const ClientInfo& client, const hp::Request& request) {
    if (nvidia_ && isNvidia(request.fan)) return setNvidiaTarget(client, request);
    // A fan this client already holds needs no fresh discovery: its paths and speed range do
    // not change while it is held, and the control loop sets the same fans every tick.
    std::vector<HwmonFan> fans;
    const HwmonFan* fan = hwmon_.heldFan(client.id, request.fan);
    if (!fan) {
        fans = hwmon_.discover();
        fan = findFan(fans, request.fan);
    }
    if (!fan) return hp::Reply::failure(hp::codes::unknownFan, "unknown fan " + request.fan);
    if (auto refused = forbiddenReply(request.fan)) return *refused;
    const int pwm =
        request.pwm ? *request.pwm
                    : LocalFanController::linearPWMForRPM(*request.rpm, fan->minRPM, fan->maxRPM);
    if (auto refused =
            floorReply(request.fan, pwm, request.rpm ? " (for the requested rpm)" : "")) {
        return *refused;
    }
    const ArbiterOutcome outcome = hwmon_.take(client.id, *fan, pwm);
    if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
    return hp::Reply::success(hp::encodeAppliedPWM(pwm));
}

hp::Reply HelperRequestHandler::release(const ClientInfo& client, const hp::Request& request) {
    if (nvidia_ && isNvidia(request.fan)) {
        const ArbiterOutcome outcome = nvidia_->release(client.id, request.fan);
        if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
        return leaseReply(client.id);
    }
    // A held fan whose hardware vanished can still be released (its journal entry goes).
    if (!owner_.holder(request.fan)) {
        const std::vector<HwmonFan> fans = hwmon_.discover();
        if (!findFan(fans, request.fan)) {
            return hp::Reply::failure(hp::codes::unknownFan, "unknown fan " + request.fan);
        }
    }
    forgetSleepHold(client.id, &request.fan);
    const ArbiterOutcome outcome = hwmon_.release(client.id, request.fan);
    if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
    return leaseReply(client.id);
}

hp::Reply HelperRequestHandler::releaseAll(const ClientInfo& client) {
    forgetSleepHold(client.id, nullptr);
    releaseFans(client.id, "released by " + client.describe());
    // A fan whose restore failed is not back with the firmware: the client must not say it is.
    if (const auto stuck = owner_.unrestored(client.id); !stuck.empty()) {
        std::string fans;
        for (const auto& [identity, error] : stuck)
            fans += (fans.empty() ? "" : ", ") + identity + " (" + error + ")";
        return hp::Reply::failure(hp::codes::io,
                                  "cannot restore " + fans + " yet; the helper keeps retrying");
    }
    return hp::Reply::success(hp::encodeLeaseInfo({0, hp::kLeaseExpiryMs}));
}

hp::Reply HelperRequestHandler::readCounter(const hp::Request& request) {
    if (!PowercapCounter::allowedPath(request.counterPath)) {
        return hp::Reply::failure(
            hp::codes::badRequest,
            "counter path not allowed: only /sys/class/powercap/intel-rapl*/.../energy_uj");
    }
    const auto value = counters_.read(request.counterPath);
    if (!value.ok()) return hp::Reply::failure(hp::codes::io, value.error);
    return hp::Reply::success(hp::encodeCounterValue(*value.value));
}

hp::Reply HelperRequestHandler::leaseReply(ClientId id) const {
    return hp::Reply::success(
        hp::encodeLeaseInfo({static_cast<int>(heldBy(id)), hp::kLeaseExpiryMs}));
}

hp::Reply HelperRequestHandler::configReply() const {
    hp::ConfigInfo info;
    info.file = config_.file;
    for (const auto& [identity, duty] : config_.floors) info.floors.emplace_back(identity, duty);
    info.forbidden.assign(config_.forbidden.begin(), config_.forbidden.end());
    info.sleepHandling = sleep_.active();
    return hp::Reply::success(hp::encodeConfigInfo(info));
}

void HelperRequestHandler::forgetSleepHold(ClientId id, const std::string* identity) {
    const auto found = sleepHolds_.find(id);
    if (found == sleepHolds_.end()) return;
    if (identity) {
        std::erase_if(found->second, [&](const auto& hold) { return hold.first == *identity; });
    }
    if (!identity || found->second.empty()) sleepHolds_.erase(found);
}

void HelperRequestHandler::prepareForSleep(bool goingToSleep) {
    if (!goingToSleep) {
        retakeAfterResume();
        return;
    }
    std::size_t fans = 0;
    // Every holder is a live client: a connection that ends gives its fans back at once.
    for (const ClientId id : hwmon_.holders()) {
        auto duties = hwmon_.heldDuties(id);
        fans += duties.size();
        auto& remembered = sleepHolds_[id];
        remembered.insert(remembered.end(), duties.begin(), duties.end());
        hwmon_.releaseClient(id, "system going to sleep");
    }
    // NVIDIA fans go back to the driver; the client's next write takes them again.
    if (nvidia_) fans += nvidia_->releaseEverything("system going to sleep");
    log_("system going to sleep: gave back " + std::to_string(fans) + " fan(s) of " +
         std::to_string(sleepHolds_.size()) + " client(s); they are retaken on resume");
}

void HelperRequestHandler::retakeAfterResume() {
    std::size_t retaken = 0;
    const std::vector<HwmonFan> fans = hwmon_.discover();
    // clientGone() drops the holds of a client that went away, so each one here is connected.
    for (const auto& [id, holds] : sleepHolds_) {
        for (const auto& [identity, pwm] : holds) {
            // A fan taken again since (by this client or another) keeps its newer owner.
            if (owner_.holder(identity)) continue;
            const HwmonFan* fan = findFan(fans, identity);
            if (!fan) {
                log_("cannot retake " + identity + " after resume: the fan is gone");
                continue;
            }
            const ArbiterOutcome outcome = hwmon_.take(id, *fan, pwm);
            if (outcome.ok) {
                ++retaken;
            } else {
                log_("cannot retake " + identity + " after resume: " + outcome.message);
            }
        }
        // The sleep did not count against the client: its lease starts afresh.
        if (restartLease_) restartLease_(id);
    }
    sleepHolds_.clear();
    log_("system resumed: retook " + std::to_string(retaken) + " fan(s)");
}

}  // namespace kelvo::helperd
