#include "helper/HelperServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "foundation/fans/LocalFanController.h"

namespace kelvo::helperd {

namespace hp = helper_protocol;
namespace fs = std::filesystem;

namespace {

constexpr int kMaxPollWaitMs = 1000;
constexpr auto kPendingRetryInterval = std::chrono::seconds(1);
constexpr auto kRefusalLogInterval = std::chrono::seconds(1);
// Room for a burst of connecting clients (the kernel caps it): a full backlog fails a
// non-blocking connect() at once.
constexpr int kListenBacklog = SOMAXCONN;
constexpr int kMaxAcceptsPerRound = 16;

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

const HwmonFan* findFan(const std::vector<HwmonFan>& fans, const std::string& identity) {
    const auto found = std::find_if(fans.begin(), fans.end(),
                                    [&](const HwmonFan& fan) { return fan.identity == identity; });
    return found != fans.end() ? &*found : nullptr;
}

std::optional<std::string> frameFor(const hp::Reply& reply) {
    if (auto frame = hp::encodeFrame(hp::encodeReply(reply))) return frame;
    return hp::encodeFrame(
        hp::encodeReply(hp::Reply::failure(hp::codes::io, "reply does not fit in one frame")));
}

// Best effort, for a connection that is about to be closed anyway.
void sendAndForget(int fd, const hp::Reply& reply) {
    if (const auto frame = frameFor(reply)) {
        [[maybe_unused]] const ssize_t sent =
            ::send(fd, frame->data(), frame->size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

}  // namespace

HelperServer::HelperServer(HelperOptions options, HelperConfig config, std::string version,
                           Logger log)
    : options_(std::move(options)),
      config_(std::move(config)),
      version_(std::move(version)),
      log_(log ? std::move(log) : Logger([](const std::string&) {})),
      fans_(std::make_shared<HwmonFanService>(options_.sysfsRoot)),
      arbiter_(fans_, FanJournal(options_.journalPath()), log_),
      sensors_(options_.sysfsRoot),
      counters_(options_.sysfsRoot),
      authorizer_(options_.allowedGroup, options_.allowedUids),
      sleep_(log_, [this](bool goingToSleep) { prepareForSleep(goingToSleep); }) {
    if (options_.nvmlLibrary != "none") {
        nvidia_ = std::make_unique<NvmlFans>(log_, options_.nvmlLibrary);
        if (!nvidia_->available()) log_("no NVIDIA fans: " + nvidia_->unavailableReason());
    }
}

std::size_t HelperServer::heldBy(ClientId id) const {
    return arbiter_.heldBy(id) + (nvidia_ ? nvidia_->heldBy(id) : 0);
}

void HelperServer::releaseClientFans(ClientId id, const std::string& reason) {
    arbiter_.releaseClient(id, reason);
    if (nvidia_) nvidia_->releaseClient(id, reason);
}

bool HelperServer::isNvidia(const std::string& identity) {
    return identity.starts_with("nvidia@");
}

HelperServer::~HelperServer() {
    for (auto& [id, client] : clients_) ::close(client.fd);
    if (listenFd_ >= 0) ::close(listenFd_);
    if (lockFd_ >= 0) ::close(lockFd_);
}

bool HelperServer::start(std::string* error) {
    const auto fail = [error](std::string why) {
        if (error) *error = std::move(why);
        return false;
    };
    std::error_code ec;
    fs::create_directories(options_.runtimeDir, ec);
    if (ec) return fail("cannot create " + options_.runtimeDir + ": " + ec.message());

    // One helper per runtime directory: two would fight over the journal and the fans.
    lockFd_ = ::open(options_.lockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFd_ < 0) return fail(errnoText("cannot open " + options_.lockPath()));
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        return fail("another kelvo-helperd is running with runtime directory " +
                    options_.runtimeDir);
    }

    if (!config_.file.empty()) {
        log_("configuration " + config_.file + ": " + std::to_string(config_.floors.size()) +
             " floor(s), " + std::to_string(config_.forbidden.size()) + " forbidden fan(s)");
    }
    sleep_.start();
    // Before the socket exists, so no client can take a fan that still needs restoring.
    arbiter_.restoreFromJournal();
    lastPendingRetry_ = Clock::now();

    const std::string path = options_.socketPath();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) return fail("socket path too long: " + path);
    std::memcpy(address.sun_path, path.data(), path.size());
    // A socket file left by a killed helper; the lock proves nobody serves it.
    ::unlink(path.c_str());
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd_ < 0) return fail(errnoText("cannot create a socket"));
    if (::bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return fail(errnoText("cannot bind " + path));
    }
    // Anyone may connect; SO_PEERCRED decides, so that a refused user is told why instead of
    // getting a bare "permission denied" that looks like a missing helper.
    if (::chmod(path.c_str(), 0666) != 0) return fail(errnoText("cannot set mode of " + path));
    if (::listen(listenFd_, kListenBacklog) != 0)
        return fail(errnoText("cannot listen on " + path));
    log_("listening on " + path + " (sysfs root " + options_.sysfsRoot + ", group " +
         options_.allowedGroup + ")");
    return true;
}

void HelperServer::run(int stopFd) {
    std::vector<pollfd> descriptors;
    std::vector<ClientId> owners;  // owners[i] is the client of descriptors[i + 3]
    for (;;) {
        descriptors.clear();
        owners.clear();
        descriptors.push_back({stopFd, POLLIN, 0});
        descriptors.push_back({listenFd_, POLLIN, 0});
        // A negative descriptor is ignored by poll(): no bus, no entry to skip.
        descriptors.push_back({sleep_.fd(), sleep_.events(), 0});
        for (const auto& [id, client] : clients_) {
            short events = 0;
            if (!client.closeAfterFlush) events |= POLLIN;
            if (!client.output.empty()) events |= POLLOUT;
            descriptors.push_back({client.fd, events, 0});
            owners.push_back(id);
        }
        const int ready =
            ::poll(descriptors.data(), descriptors.size(), pollTimeoutMs(Clock::now()));
        if (ready < 0 && errno != EINTR) {
            log_(errnoText("poll failed"));
            break;
        }
        if (ready > 0 && descriptors[0].revents != 0) break;
        if (ready > 0) {
            // Requests first, so that a connection whose request is already here counts as
            // busy when a newcomer needs room.
            for (std::size_t i = 0; i < owners.size(); ++i) {
                const short revents = descriptors[i + 3].revents;
                if (revents == 0) continue;
                const auto found = clients_.find(owners[i]);
                if (found == clients_.end()) continue;
                Client& client = found->second;
                if (revents & POLLOUT) flush(client);
                if (!clients_.contains(owners[i])) continue;
                if (revents & (POLLIN | POLLHUP | POLLERR)) {
                    if (client.closeAfterFlush) {
                        closeClient(client.id, "connection closed");
                    } else {
                        readFrom(client);
                    }
                }
            }
            if (descriptors[1].revents & POLLIN) acceptClients();
        }
        // Also on a timeout: sd-bus has deadlines of its own (method call replies).
        if (sleep_.active()) sleep_.process();
        checkTimers(Clock::now());
    }

    std::size_t released = arbiter_.releaseEverything("helper stopping");
    if (nvidia_) released += nvidia_->releaseEverything("helper stopping");
    log_("stopping; released " + std::to_string(released) + " fan(s)");
    for (auto& [id, client] : clients_) ::close(client.fd);
    clients_.clear();
    ::close(listenFd_);
    listenFd_ = -1;
    ::unlink(options_.socketPath().c_str());
}

int HelperServer::pollTimeoutMs(Clock::time_point now) const {
    auto wake = now + std::chrono::milliseconds(kMaxPollWaitMs);
    for (const auto& [id, client] : clients_) {
        if (heldBy(id) > 0) {
            wake =
                std::min(wake, client.lastRequest + std::chrono::milliseconds(hp::kLeaseExpiryMs));
        }
        if (client.frameStarted) {
            wake =
                std::min(wake, *client.frameStarted + std::chrono::milliseconds(kFrameAssemblyMs));
        } else {
            wake = std::min(wake, client.lastRequest + ClientAdmission::idleLimit(client.slot));
        }
    }
    if (arbiter_.hasPending()) wake = std::min(wake, lastPendingRetry_ + kPendingRetryInterval);
    if (unloggedRefusals_ > 0 && lastRefusalLog_) {
        wake = std::min(wake, *lastRefusalLog_ + kRefusalLogInterval);
    }
    if (const int busMs = sleep_.timeoutMs(); busMs >= 0) {
        wake = std::min(wake, now + std::chrono::milliseconds(busMs));
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now).count();
    // One extra millisecond so that a wake-up lands after the deadline, not just before it.
    return static_cast<int>(std::clamp<long long>(left + 1, 0, kMaxPollWaitMs));
}

void HelperServer::checkTimers(Clock::time_point now) {
    std::vector<ClientId> truncated;
    std::vector<ClientId> silent;
    for (auto& [id, client] : clients_) {
        if (heldBy(id) > 0 &&
            now - client.lastRequest >= std::chrono::milliseconds(hp::kLeaseExpiryMs)) {
            log_("lease of " + describe(client) + " expired");
            releaseClientFans(id, "lease expired");
        }
        if (client.frameStarted) {
            if (now - *client.frameStarted >= std::chrono::milliseconds(kFrameAssemblyMs)) {
                truncated.push_back(id);
            }
        } else if (now - client.lastRequest >= ClientAdmission::idleLimit(client.slot)) {
            // A slot is not kept for a client with nothing to say; it can connect again.
            silent.push_back(id);
        }
    }
    for (ClientId id : silent) closeClient(id, "no request for too long");
    for (ClientId id : truncated) {
        Client& client = clients_.at(id);
        client.frameStarted.reset();
        queue(client, hp::Reply::failure(hp::codes::badFrame,
                                         "truncated frame: the rest did not arrive within " +
                                             std::to_string(kFrameAssemblyMs) + " ms"));
        client.closeAfterFlush = true;
        flush(client);
    }
    if (arbiter_.hasPending() && now - lastPendingRetry_ >= kPendingRetryInterval) {
        lastPendingRetry_ = now;
        arbiter_.retryPending();
    }
    if (unloggedRefusals_ > 0 && lastRefusalLog_ && now - *lastRefusalLog_ >= kRefusalLogInterval) {
        log_("refused " + std::to_string(unloggedRefusals_) +
             " more peer(s) since the last refusal logged");
        unloggedRefusals_ = 0;
        lastRefusalLog_ = now;
    }
}

void HelperServer::logRefusal(const std::string& line) {
    const Clock::time_point now = Clock::now();
    if (lastRefusalLog_ && now - *lastRefusalLog_ < kRefusalLogInterval) {
        ++unloggedRefusals_;
        return;
    }
    lastRefusalLog_ = now;
    log_(line);
}

std::string HelperServer::describe(const Client& client) const {
    return "client " + std::to_string(client.id) + " (pid " + std::to_string(client.pid) +
           ", uid " + std::to_string(client.uid) + ")";
}

void HelperServer::acceptClients() {
    // Bounded, so that clients connecting faster than they can be taken cannot hold up the
    // requests and the timers (the lease above all): the rest wait for the next round.
    for (int accepted = 0; accepted < kMaxAcceptsPerRound; ++accepted) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) log_(errnoText("accept failed"));
            return;
        }
        ucred credentials{};
        socklen_t length = sizeof(credentials);
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
            log_(errnoText("cannot read peer credentials"));
            ::close(fd);
            continue;
        }
        const PeerDecision decision = authorizer_.decide(credentials.uid, credentials.gid);
        if (!decision.allowed) {
            logRefusal("refused peer pid " + std::to_string(credentials.pid) + " uid " +
                       std::to_string(credentials.uid) + " gid " + std::to_string(credentials.gid) +
                       ": not root, not an allowed uid and not in group " +
                       authorizer_.allowedGroup());
            sendAndForget(fd, hp::Reply::failure(hp::codes::notAllowed, decision.refusal));
            ::close(fd);
            continue;
        }
        const auto slot = admit(credentials.pid, credentials.uid, fd);
        if (!slot) {
            ::close(fd);
            continue;
        }
        Client client;
        client.id = nextClientId_++;
        client.fd = fd;
        client.pid = credentials.pid;
        client.uid = credentials.uid;
        client.slot = *slot;
        client.lastRequest = Clock::now();
        const ClientId id = client.id;
        auto [entry, inserted] = clients_.emplace(id, std::move(client));
        // A client usually sends its request right after connecting: answer it now, before
        // the next newcomer could take this slot as a quiet one.
        if (inserted) readFrom(entry->second);
    }
}

std::optional<ClientAdmission::Slot> HelperServer::admit(pid_t pid, uid_t uid, int fd) {
    std::vector<ClientAdmission::Connection> connections;
    connections.reserve(clients_.size());
    for (const auto& [id, client] : clients_) {
        ClientAdmission::Connection connection;
        connection.id = id;
        connection.uid = client.uid;
        connection.slot = client.slot;
        connection.engaged = heldBy(id) > 0 || client.reader.midFrame() || !client.output.empty() ||
                             client.closeAfterFlush;
        connection.everRequested = client.everRequested;
        connection.lastActivity = client.lastRequest;
        connections.push_back(connection);
    }
    for (;;) {
        const ClientAdmission::Decision decision = ClientAdmission::decide(uid, connections);
        if (!decision.admitted) {
            logRefusal("refused peer pid " + std::to_string(pid) + " uid " + std::to_string(uid) +
                       ": " + decision.refusal);
            sendAndForget(fd, hp::Reply::failure(hp::codes::busy, decision.refusal));
            return std::nullopt;
        }
        if (decision.evict) {
            // A request that arrived since the last poll makes that connection busy, not quiet.
            int unread = 0;
            if (::ioctl(clients_.at(*decision.evict).fd, FIONREAD, &unread) == 0 && unread > 0) {
                for (auto& connection : connections) {
                    if (connection.id == *decision.evict) connection.engaged = true;
                }
                continue;
            }
            closeClient(*decision.evict, "closed to make room for a new connection");
        }
        return decision.slot;
    }
}

void HelperServer::readFrom(Client& client) {
    const ClientId id = client.id;
    char buffer[16 * 1024];
    // Bounded, so one chatty client cannot starve the others (and the lease timers).
    for (int round = 0; round < 8 && !client.closeAfterFlush; ++round) {
        const ssize_t n = ::recv(client.fd, buffer, sizeof(buffer), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return;
            closeClient(id, "connection error");
            return;
        }
        if (n == 0) {
            if (client.reader.midFrame()) {
                // The peer may only have shut down its sending side: tell it why.
                queue(client,
                      hp::Reply::failure(hp::codes::badFrame,
                                         "truncated frame: the connection ended inside a frame"));
                client.closeAfterFlush = true;
                flush(client);
                if (clients_.contains(id)) closeClient(id, "connection closed");
            } else {
                closeClient(id, "connection closed");
            }
            return;
        }
        client.reader.append(std::string_view(buffer, static_cast<std::size_t>(n)));
        for (;;) {
            hp::FrameReader::Result next = client.reader.next();
            if (next.status == hp::FrameReader::Status::needMore) break;
            if (next.status == hp::FrameReader::Status::error) {
                // A stream cannot be resynchronised after a bad header: answer, then hang up.
                queue(client, hp::Reply::failure(next.code, next.error));
                client.closeAfterFlush = true;
                break;
            }
            queue(client, handle(client, next.payload));
            if (client.closeAfterFlush) break;
        }
        if (client.reader.midFrame()) {
            if (!client.frameStarted) client.frameStarted = Clock::now();
        } else {
            client.frameStarted.reset();
        }
        flush(client);
        if (!clients_.contains(id)) return;
    }
}

void HelperServer::queue(Client& client, const hp::Reply& reply) {
    if (const auto frame = frameFor(reply)) client.output += *frame;
}

void HelperServer::flush(Client& client) {
    while (!client.output.empty()) {
        const ssize_t n = ::send(client.fd, client.output.data(), client.output.size(),
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            client.output.erase(0, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (client.output.size() > kMaxPendingOutput) {
                closeClient(client.id, "not reading its replies");
            }
            return;
        }
        closeClient(client.id, "connection error");
        return;
    }
    if (client.closeAfterFlush) closeClient(client.id, "connection closed after an error");
}

void HelperServer::closeClient(ClientId id, const std::string& reason) {
    const auto found = clients_.find(id);
    if (found == clients_.end()) return;
    if (heldBy(id) > 0) {
        log_(describe(found->second) + ": " + reason);
        releaseClientFans(id, reason);
    }
    if (sleepHolds_.erase(id) > 0) {
        log_(describe(found->second) + " gone during sleep (" + reason +
             "); its fans are not retaken");
    }
    ::close(found->second.fd);
    clients_.erase(found);
}

void HelperServer::forgetSleepHold(ClientId id, const std::string* identity) {
    const auto found = sleepHolds_.find(id);
    if (found == sleepHolds_.end()) return;
    if (identity) {
        std::erase_if(found->second, [&](const auto& hold) { return hold.first == *identity; });
    }
    if (!identity || found->second.empty()) sleepHolds_.erase(found);
}

void HelperServer::prepareForSleep(bool goingToSleep) {
    if (goingToSleep) {
        std::size_t fans = 0;
        for (auto& [id, client] : clients_) {
            auto duties = arbiter_.heldDuties(id);
            if (duties.empty()) continue;
            fans += duties.size();
            auto& remembered = sleepHolds_[id];
            remembered.insert(remembered.end(), duties.begin(), duties.end());
            arbiter_.releaseClient(id, "system going to sleep");
        }
        // NVIDIA fans go back to the driver; the client's next write takes them again.
        if (nvidia_) fans += nvidia_->releaseEverything("system going to sleep");
        log_("system going to sleep: gave back " + std::to_string(fans) + " fan(s) of " +
             std::to_string(sleepHolds_.size()) + " client(s); they are retaken on resume");
        return;
    }
    std::size_t retaken = 0;
    const std::vector<HwmonFan> fans = arbiter_.discover();
    for (const auto& [id, holds] : sleepHolds_) {
        const auto client = clients_.find(id);
        if (client == clients_.end()) continue;
        for (const auto& [identity, pwm] : holds) {
            // A fan taken again since (by this client or another) keeps its newer owner.
            if (arbiter_.holder(identity)) continue;
            const HwmonFan* fan = findFan(fans, identity);
            if (!fan) {
                log_("cannot retake " + identity + " after resume: the fan is gone");
                continue;
            }
            const ArbiterOutcome outcome = arbiter_.take(id, *fan, pwm);
            if (outcome.ok) {
                ++retaken;
            } else {
                log_("cannot retake " + identity + " after resume: " + outcome.message);
            }
        }
        // The sleep did not count against the client: its lease starts afresh.
        client->second.lastRequest = Clock::now();
    }
    sleepHolds_.clear();
    log_("system resumed: retook " + std::to_string(retaken) + " fan(s)");
}

hp::Reply HelperServer::handle(Client& client, const std::string& payload) {
    const auto decoded = hp::decodeRequest(payload);
    if (!decoded.ok()) return hp::Reply::failure(hp::codes::badRequest, decoded.error);
    const hp::Request& request = *decoded.value;
    // Every valid request renews the lease; "renew" exists for clients with nothing else to say.
    client.lastRequest = Clock::now();
    client.everRequested = true;
    if (client.slot == ClientAdmission::Slot::status &&
        !ClientAdmission::allowedInStatusSlot(request.op)) {
        client.closeAfterFlush = true;
        return hp::Reply::failure(hp::codes::busy,
                                  "too many clients: this connection may only ask for status (" +
                                      std::string(hp::opName(request.op)) + " refused)");
    }
    switch (request.op) {
        case hp::Op::version:
            return hp::Reply::success(hp::encodeVersionInfo({version_, hp::kVersion}));
        case hp::Op::list: return list(client);
        case hp::Op::setTarget: return setTarget(client, request);
        case hp::Op::release: return release(client, request);
        case hp::Op::releaseAll:
            forgetSleepHold(client.id, nullptr);
            releaseClientFans(client.id, "released by " + describe(client));
            return hp::Reply::success(hp::encodeLeaseInfo({0, hp::kLeaseExpiryMs}));
        case hp::Op::readCounter: {
            if (!PowercapCounter::allowedPath(request.counterPath)) {
                return hp::Reply::failure(
                    hp::codes::badRequest,
                    "counter path not allowed: only /sys/class/powercap/intel-rapl*/.../energy_uj");
            }
            const auto value = counters_.read(request.counterPath);
            if (!value.ok()) return hp::Reply::failure(hp::codes::io, value.error);
            return hp::Reply::success(hp::encodeCounterValue(*value.value));
        }
        case hp::Op::renew:
            return hp::Reply::success(
                hp::encodeLeaseInfo({static_cast<int>(heldBy(client.id)), hp::kLeaseExpiryMs}));
        case hp::Op::config: return configReply();
    }
    return hp::Reply::failure(hp::codes::badRequest, "unhandled op");
}

hp::Reply HelperServer::list(const Client& client) {
    hp::Inventory inventory;
    for (const HwmonFan& fan : arbiter_.discover()) {
        hp::FanInfo info;
        info.identity = fan.identity;
        info.controllable = fan.controllable;
        if (fan.currentRPM) info.rpm = static_cast<int>(*fan.currentRPM);
        info.minRPM = static_cast<int>(fan.minRPM);
        info.maxRPM = static_cast<int>(fan.maxRPM);
        info.pwm = fan.pwm;
        info.mode = fan.pwmEnable;
        const auto holder = arbiter_.holder(fan.identity);
        info.held = holder.has_value();
        info.mine = holder == client.id;
        inventory.fans.push_back(std::move(info));
    }
    if (nvidia_) {
        for (const NvmlFan& fan : nvidia_->discover()) {
            hp::FanInfo info;
            info.identity = fan.identity;
            info.controllable = true;
            // NVML reports a speed share, not revolutions: no rpm, the share as a duty.
            if (fan.percent) info.pwm = (*fan.percent * hp::kMaxPWM + 50) / 100;
            const auto holder = nvidia_->holder(fan.identity);
            info.mode = holder ? 1 : 2;
            info.held = holder.has_value();
            info.mine = holder == client.id;
            inventory.fans.push_back(std::move(info));
        }
    }
    inventory.sensors = sensors_.discover();
    return hp::Reply::success(hp::encodeInventory(inventory));
}

hp::Reply HelperServer::setTarget(Client& client, const hp::Request& request) {
    if (nvidia_ && isNvidia(request.fan)) {
        if (config_.isForbidden(request.fan)) {
            return hp::Reply::failure(hp::codes::forbidden,
                                      request.fan + " is forbidden to clients by " + config_.file);
        }
        const int pwm =
            request.pwm ? *request.pwm : LocalFanController::linearPWMForRPM(*request.rpm, 0, 0);
        if (const auto floor = config_.floorOf(request.fan); floor && pwm < *floor) {
            return hp::Reply::failure(hp::codes::belowFloor,
                                      "duty cycle " + std::to_string(pwm) + " is below the floor " +
                                          std::to_string(*floor) + " that " + config_.file +
                                          " sets for " + request.fan);
        }
        const ArbiterOutcome outcome = nvidia_->take(client.id, request.fan, pwm);
        if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
        return hp::Reply::success(hp::encodeAppliedPWM(pwm));
    }
    // A fan this client already holds needs no fresh discovery: its paths and speed range do
    // not change while it is held, and the control loop sets the same fans every tick.
    std::vector<HwmonFan> fans;
    const HwmonFan* fan = arbiter_.heldFan(client.id, request.fan);
    if (!fan) {
        fans = arbiter_.discover();
        fan = findFan(fans, request.fan);
    }
    if (!fan) return hp::Reply::failure(hp::codes::unknownFan, "unknown fan " + request.fan);
    if (config_.isForbidden(request.fan)) {
        return hp::Reply::failure(hp::codes::forbidden,
                                  request.fan + " is forbidden to clients by " + config_.file);
    }
    const int pwm =
        request.pwm ? *request.pwm
                    : LocalFanController::linearPWMForRPM(*request.rpm, fan->minRPM, fan->maxRPM);
    if (const auto floor = config_.floorOf(request.fan); floor && pwm < *floor) {
        return hp::Reply::failure(hp::codes::belowFloor,
                                  "duty cycle " + std::to_string(pwm) +
                                      (request.rpm ? " (for the requested rpm)" : "") +
                                      " is below the floor " + std::to_string(*floor) + " that " +
                                      config_.file + " sets for " + request.fan);
    }
    const ArbiterOutcome outcome = arbiter_.take(client.id, *fan, pwm);
    if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
    return hp::Reply::success(hp::encodeAppliedPWM(pwm));
}

hp::Reply HelperServer::configReply() const {
    hp::ConfigInfo info;
    info.file = config_.file;
    for (const auto& [identity, duty] : config_.floors) info.floors.emplace_back(identity, duty);
    info.forbidden.assign(config_.forbidden.begin(), config_.forbidden.end());
    info.sleepHandling = sleep_.active();
    return hp::Reply::success(hp::encodeConfigInfo(info));
}

hp::Reply HelperServer::release(Client& client, const hp::Request& request) {
    if (nvidia_ && isNvidia(request.fan)) {
        const ArbiterOutcome outcome = nvidia_->release(client.id, request.fan);
        if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
        return hp::Reply::success(
            hp::encodeLeaseInfo({static_cast<int>(heldBy(client.id)), hp::kLeaseExpiryMs}));
    }
    // A held fan whose hardware vanished can still be released (its journal entry goes).
    if (!arbiter_.holder(request.fan)) {
        const std::vector<HwmonFan> fans = arbiter_.discover();
        if (!findFan(fans, request.fan)) {
            return hp::Reply::failure(hp::codes::unknownFan, "unknown fan " + request.fan);
        }
    }
    forgetSleepHold(client.id, &request.fan);
    const ArbiterOutcome outcome = arbiter_.release(client.id, request.fan);
    if (!outcome.ok) return hp::Reply::failure(outcome.code, outcome.message);
    return hp::Reply::success(
        hp::encodeLeaseInfo({static_cast<int>(heldBy(client.id)), hp::kLeaseExpiryMs}));
}

}  // namespace kelvo::helperd
