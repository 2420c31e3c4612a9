#include "helper/HelperTransport.h"

#include <fcntl.h>
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

#include "helper/PathTrust.h"

namespace kelvo::helperd {

namespace hp = helper_protocol;
namespace fs = std::filesystem;

namespace {

constexpr int kMaxPollWaitMs = 1000;
constexpr auto kRefusalLogInterval = std::chrono::seconds(1);
// Room for a burst of connecting clients (the kernel caps it): a full backlog fails a
// non-blocking connect() at once.
constexpr int kListenBacklog = SOMAXCONN;
constexpr int kMaxAcceptsPerRound = 16;
// The stop descriptor, the listening socket and the system bus come before the clients.
constexpr std::size_t kFirstClientDescriptor = 3;

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
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

HelperTransport::HelperTransport(HelperOptions options, HelperRequestHandler& handler, Logger log)
    : options_(std::move(options)),
      handler_(handler),
      log_(log ? std::move(log) : Logger([](const std::string&) {})),
      authorizer_(options_.allowedGroup, options_.allowedUids) {}

HelperTransport::~HelperTransport() {
    for (auto& [id, client] : clients_) ::close(client.fd);
    if (listenFd_ >= 0) ::close(listenFd_);
    if (lockFd_ >= 0) ::close(lockFd_);
}

bool HelperTransport::lock(std::string* error) {
    const auto fail = [error](std::string why) {
        if (error) *error = std::move(why);
        return false;
    };
    // Missing directories are made 0755 whatever the umask, so that one the helper made itself
    // passes the check below.
    fs::path made;
    for (const fs::path& part : fs::path(options_.runtimeDir)) {
        made /= part;
        if (::mkdir(made.c_str(), 0755) != 0 && errno != EEXIST) {
            return fail(errnoText("cannot create " + made.string()));
        }
    }
    // Without a journal another user cannot tamper with, the helper could not promise to give
    // fans back after a crash, and root would write wherever a planted link points: it does
    // not start.
    if (const auto problem = PathTrust(::geteuid()).privateDirectoryProblem(options_.runtimeDir)) {
        return fail("runtime directory " + options_.runtimeDir + " is not the helper's own (" +
                    *problem +
                    "): it must belong to the helper's user and be writable by nobody else, as "
                    "must every directory above it");
    }

    // One helper per runtime directory: two would fight over the journal and the fans.
    lockFd_ = ::open(options_.lockPath().c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (lockFd_ < 0) return fail(errnoText("cannot open " + options_.lockPath()));
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        return fail("another kelvo-helperd is running with runtime directory " +
                    options_.runtimeDir);
    }
    return true;
}

bool HelperTransport::listen(std::string* error) {
    const auto fail = [error](std::string why) {
        if (error) *error = std::move(why);
        return false;
    };
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

void HelperTransport::run(int stopFd) {
    std::vector<pollfd> descriptors;
    std::vector<ClientId> owners;  // owners[i] is the client of descriptors[i + 3]
    for (;;) {
        descriptors.clear();
        owners.clear();
        descriptors.push_back({stopFd, POLLIN, 0});
        descriptors.push_back({listenFd_, POLLIN, 0});
        // A negative descriptor is ignored by poll(): no bus, no entry to skip.
        descriptors.push_back(handler_.busDescriptor());
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
        if (ready > 0) serveReady(descriptors, owners);
        // Also on a timeout: sd-bus has deadlines of its own (method call replies).
        handler_.processBus();
        checkTimers(Clock::now());
    }

    handler_.stop();
    for (auto& [id, client] : clients_) ::close(client.fd);
    clients_.clear();
    ::close(listenFd_);
    listenFd_ = -1;
    ::unlink(options_.socketPath().c_str());
}

void HelperTransport::serveReady(const std::vector<pollfd>& descriptors,
                                 const std::vector<ClientId>& owners) {
    // Requests first, so that a connection whose request is already here counts as busy when a
    // newcomer needs room.
    for (std::size_t i = 0; i < owners.size(); ++i) {
        const short revents = descriptors[i + kFirstClientDescriptor].revents;
        if (revents == 0) continue;
        const auto found = clients_.find(owners[i]);
        if (found == clients_.end()) continue;
        Client& client = found->second;
        if (revents & POLLOUT) flush(client);
        if (!clients_.contains(owners[i])) continue;
        if (revents & (POLLIN | POLLHUP | POLLERR)) {
            if (client.closeAfterFlush) {
                closeClient(client.info.id, "connection closed");
            } else {
                readFrom(client);
            }
        }
    }
    if (descriptors[1].revents & POLLIN) acceptClients();
}

void HelperTransport::restartLease(ClientId id) {
    const auto found = clients_.find(id);
    if (found != clients_.end()) found->second.lastRequest = Clock::now();
}

int HelperTransport::pollTimeoutMs(Clock::time_point now) const {
    auto wake = now + std::chrono::milliseconds(kMaxPollWaitMs);
    for (const auto& [id, client] : clients_) {
        if (handler_.heldBy(id) > 0) {
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
    if (unloggedRefusals_ > 0 && lastRefusalLog_) {
        wake = std::min(wake, *lastRefusalLog_ + kRefusalLogInterval);
    }
    if (const auto handlerWake = handler_.nextDeadline(now)) wake = std::min(wake, *handlerWake);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now).count();
    // One extra millisecond so that a wake-up lands after the deadline, not just before it.
    return static_cast<int>(std::clamp<long long>(left + 1, 0, kMaxPollWaitMs));
}

void HelperTransport::checkTimers(Clock::time_point now) {
    std::vector<ClientId> truncated;
    std::vector<ClientId> silent;
    for (auto& [id, client] : clients_) {
        if (handler_.heldBy(id) > 0 &&
            now - client.lastRequest >= std::chrono::milliseconds(hp::kLeaseExpiryMs)) {
            log_("lease of " + client.info.describe() + " expired");
            handler_.releaseFans(id, "lease expired");
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
    handler_.retryFailedRestores(now);
    if (unloggedRefusals_ > 0 && lastRefusalLog_ && now - *lastRefusalLog_ >= kRefusalLogInterval) {
        log_("refused " + std::to_string(unloggedRefusals_) +
             " more peer(s) since the last refusal logged");
        unloggedRefusals_ = 0;
        lastRefusalLog_ = now;
    }
}

void HelperTransport::logRefusal(const std::string& line) {
    const Clock::time_point now = Clock::now();
    if (lastRefusalLog_ && now - *lastRefusalLog_ < kRefusalLogInterval) {
        ++unloggedRefusals_;
        return;
    }
    lastRefusalLog_ = now;
    log_(line);
}

void HelperTransport::acceptClients() {
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
        client.info = {nextClientId_++, credentials.pid, credentials.uid};
        client.fd = fd;
        client.slot = *slot;
        client.lastRequest = Clock::now();
        const ClientId id = client.info.id;
        auto [entry, inserted] = clients_.emplace(id, std::move(client));
        // A client usually sends its request right after connecting: answer it now, before
        // the next newcomer could take this slot as a quiet one.
        if (inserted) readFrom(entry->second);
    }
}

std::vector<ClientAdmission::Connection> HelperTransport::connections() const {
    std::vector<ClientAdmission::Connection> connections;
    connections.reserve(clients_.size());
    for (const auto& [id, client] : clients_) {
        ClientAdmission::Connection connection;
        connection.id = id;
        connection.uid = client.info.uid;
        connection.slot = client.slot;
        connection.engaged = handler_.heldBy(id) > 0 || client.reader.midFrame() ||
                             !client.output.empty() || client.closeAfterFlush;
        connection.everRequested = client.everRequested;
        connection.lastActivity = client.lastRequest;
        connections.push_back(connection);
    }
    return connections;
}

std::optional<ClientAdmission::Slot> HelperTransport::admit(pid_t pid, uid_t uid, int fd) {
    std::vector<ClientAdmission::Connection> current = connections();
    for (;;) {
        const ClientAdmission::Decision decision = ClientAdmission::decide(uid, current);
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
                for (auto& connection : current) {
                    if (connection.id == *decision.evict) connection.engaged = true;
                }
                continue;
            }
            closeClient(*decision.evict, "closed to make room for a new connection");
        }
        return decision.slot;
    }
}

void HelperTransport::readFrom(Client& client) {
    const ClientId id = client.info.id;
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
        answerFrames(client);
        flush(client);
        if (!clients_.contains(id)) return;
    }
}

void HelperTransport::answerFrames(Client& client) {
    for (;;) {
        hp::FrameReader::Result next = client.reader.next();
        if (next.status == hp::FrameReader::Status::needMore) break;
        if (next.status == hp::FrameReader::Status::error) {
            // A stream cannot be resynchronised after a bad header: answer, then hang up.
            queue(client, hp::Reply::failure(next.code, next.error));
            client.closeAfterFlush = true;
            break;
        }
        queue(client, answer(client, next.payload));
        if (client.closeAfterFlush) break;
    }
    if (client.reader.midFrame()) {
        if (!client.frameStarted) client.frameStarted = Clock::now();
    } else {
        client.frameStarted.reset();
    }
}

hp::Reply HelperTransport::answer(Client& client, const std::string& payload) {
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
    return handler_.handle(client.info, request);
}

void HelperTransport::queue(Client& client, const hp::Reply& reply) {
    if (const auto frame = frameFor(reply)) client.output += *frame;
}

void HelperTransport::flush(Client& client) {
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
                closeClient(client.info.id, "not reading its replies");
            }
            return;
        }
        closeClient(client.info.id, "connection error");
        return;
    }
    if (client.closeAfterFlush) closeClient(client.info.id, "connection closed after an error");
}

void HelperTransport::closeClient(ClientId id, const std::string& reason) {
    const auto found = clients_.find(id);
    if (found == clients_.end()) return;
    handler_.clientGone(found->second.info, reason);
    ::close(found->second.fd);
    clients_.erase(found);
}

}  // namespace kelvo::helperd
