#include "helper/HelperServer.h"

namespace kelvo::helperd {

HelperServer::HelperServer(HelperOptions options, HelperConfig config, std::string version,
                           Logger log)
    : handler_(options, std::move(config), std::move(version), log,
               [this](ClientId id) { transport_.restartLease(id); }),
      transport_(std::move(options), handler_, log) {}

bool HelperServer::start(std::string* error) {
    if (!transport_.lock(error)) return false;
    // Before the socket exists, so no client can take a fan that still needs restoring.
    handler_.start();
    return transport_.listen(error);
}

void HelperServer::run(int stopFd) {
    transport_.run(stopFd);
}

}  // namespace kelvo::helperd
