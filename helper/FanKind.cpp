#include "helper/FanKind.h"

namespace kelvo::helperd {

FanKind::FanKind(FanOwner& owner) : owner_(owner) {
    owner_.addKind(*this);
}

FanKind::~FanKind() {
    owner_.removeKind(*this);
}

std::optional<ClientId> FanKind::holder(const std::string& identity) const {
    return owner_.holder(identity);
}

std::size_t FanKind::heldBy(ClientId client) const {
    return owner_.heldBy(client, this);
}

std::vector<ClientId> FanKind::holders() const {
    return owner_.holders(this);
}

std::vector<std::pair<std::string, int>> FanKind::heldDuties(ClientId client) const {
    return owner_.heldDuties(client, this);
}

ArbiterOutcome FanKind::release(ClientId client, const std::string& identity) {
    return owner_.release(client, identity);
}

std::size_t FanKind::releaseClient(ClientId client, const std::string& reason) {
    return owner_.releaseClient(client, reason, this);
}

std::size_t FanKind::releaseEverything(const std::string& reason) {
    return owner_.releaseEverything(reason, this);
}

}  // namespace kelvo::helperd
