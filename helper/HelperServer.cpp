#include "helper/HelperServer.h"

#include <set>

namespace kelvo::helperd {

namespace hp = helper_protocol;

HelperServer::HelperServer(HelperOptions options, HelperConfig config, std::string version,
                           Logger log)
    : config_(config),
      log_(log ? log : Logger([](const std::string&) {})),
      handler_(options, std::move(config), std::move(version), log,
               [this](ClientId id) { transport_.restartLease(id); }),
      transport_(std::move(options), handler_, log) {}

bool HelperServer::start(std::string* error) {
    if (!transport_.lock(error)) return false;
    // Before the socket exists, so no client can take a fan that still needs restoring.
    handler_.start();
    warnAboutAbsentFans();
    return transport_.listen(error);
}

void HelperServer::warnAboutAbsentFans() {
    if (config_.floors.empty() && config_.forbidden.empty()) return;
    // The fans as any client would see them, hwmon and NVIDIA alike.
    const hp::Reply reply = handler_.handle(ClientInfo{}, hp::Request::of(hp::Op::list));
    const auto inventory = hp::decodeInventory(reply.data);
    if (!reply.ok || !inventory.ok()) {
        log_("cannot list the fans to check the configuration against them");
        return;
    }
    std::set<std::string> present;
    for (const hp::FanInfo& fan : inventory.value->fans) present.insert(fan.identity);
    // Kept, not refused: the fan may appear later (a driver loaded, a GPU woken up).
    const auto warn = [&](const char* what, const std::string& identity) {
        if (present.contains(identity)) return;
        log_(std::string("warning: ") + config_.file + ": " + what + " on " + identity +
             ", a fan that does not exist now; it applies if the fan appears");
    };
    for (const auto& [identity, duty] : config_.floors) warn("floor", identity);
    for (const auto& identity : config_.forbidden) warn("forbid", identity);
}

void HelperServer::run(int stopFd) {
    transport_.run(stopFd);
}

}  // namespace kelvo::helperd
