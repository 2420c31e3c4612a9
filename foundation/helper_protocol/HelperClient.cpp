#include "foundation/helper_protocol/HelperClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace kelvo {

namespace hp = helper_protocol;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kBacklogRetry = std::chrono::milliseconds(1);

int millisecondsLeft(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// poll() on one descriptor until it is ready or the deadline passes; false on timeout.
bool waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd descriptor{fd, events, 0};
        const int ready = ::poll(&descriptor, 1, millisecondsLeft(deadline));
        if (ready > 0) return true;
        if (ready == 0) return false;
        if (errno != EINTR) return false;
    }
}

// A connection, or why there is none.
struct Connection {
    int fd = -1;
    bool busy = false;  // a helper listens, but its backlog stayed full until the deadline
};

// A non-blocking connect bounded by poll(), so a wedged helper cannot stall the caller. The
// socket stays non-blocking; every later wait goes through poll() with a deadline.
Connection connectWithTimeout(const std::string& path, int timeoutMs) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return {};
    std::memcpy(address.sun_path, path.data(), path.size());

    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) return {};
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return {fd};
        }
        if (errno == EAGAIN) {
            // A full backlog: the helper is there but other clients are connecting. Unix
            // sockets say so at once instead of waiting, so wait here, within the timeout.
            ::close(fd);
            if (Clock::now() >= deadline) return {-1, true};
            std::this_thread::sleep_for(
                std::min<Clock::duration>(kBacklogRetry, deadline - Clock::now()));
            continue;
        }
        if (errno != EINPROGRESS || !waitFor(fd, POLLOUT, deadline)) {
            ::close(fd);
            return {};
        }
        int socketError = 0;
        socklen_t length = sizeof(socketError);
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &socketError, &length) != 0 ||
            socketError != 0) {
            ::close(fd);
            return {};
        }
        return {fd};
    }
}

HelperCallResult transportFailure(HelperCallResult::Failure failure, std::string error) {
    HelperCallResult result;
    result.failure = failure;
    result.error = std::move(error);
    return result;
}

}  // namespace

HelperClient::HelperClient(std::string socketPath, int connectTimeoutMs, int replyTimeoutMs)
    : socketPath_(std::move(socketPath)),
      connectTimeoutMs_(connectTimeoutMs),
      replyTimeoutMs_(replyTimeoutMs) {}

HelperClient::~HelperClient() {
    disconnect();
}

HelperClient::HelperClient(HelperClient&& other) noexcept
    : socketPath_(std::move(other.socketPath_)),
      connectTimeoutMs_(other.connectTimeoutMs_),
      replyTimeoutMs_(other.replyTimeoutMs_),
      fd_(other.fd_),
      connectionNumber_(other.connectionNumber_) {
    other.fd_ = -1;
}

HelperClient& HelperClient::operator=(HelperClient&& other) noexcept {
    if (this != &other) {
        disconnect();
        socketPath_ = std::move(other.socketPath_);
        connectTimeoutMs_ = other.connectTimeoutMs_;
        replyTimeoutMs_ = other.replyTimeoutMs_;
        fd_ = other.fd_;
        connectionNumber_ = other.connectionNumber_;
        other.fd_ = -1;
    }
    return *this;
}

void HelperClient::disconnect() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool HelperClient::reachable(const std::string& socketPath, int connectTimeoutMs) {
    const Connection connection = connectWithTimeout(socketPath, connectTimeoutMs);
    if (connection.fd >= 0) ::close(connection.fd);
    return connection.fd >= 0 || connection.busy;
}

std::string HelperClient::notRunningMessage(const std::string& socketPath) {
    return "helper not installed or not running at " + socketPath;
}

HelperCallResult HelperClient::call(const hp::Request& request) {
    const auto frame = hp::encodeFrame(hp::encodeRequest(request));
    if (!frame) {
        return transportFailure(HelperCallResult::Failure::badReply,
                                "request too large for one frame");
    }
    for (int attempt = 0;; ++attempt) {
        if (!connected()) {
            const Connection connection = connectWithTimeout(socketPath_, connectTimeoutMs_);
            fd_ = connection.fd;
            if (connection.busy) {
                return transportFailure(
                    HelperCallResult::Failure::timedOut,
                    "the helper at " + socketPath_ + " did not accept a connection within " +
                        std::to_string(connectTimeoutMs_) + " ms: too many clients are connecting");
            }
            if (fd_ < 0) {
                return transportFailure(HelperCallResult::Failure::unreachable,
                                        notRunningMessage(socketPath_));
            }
            ++connectionNumber_;
        }
        HelperCallResult result = exchange(*frame);
        if (result.failure != HelperCallResult::Failure::none) disconnect();
        // A connection that ends before the answer says little about the helper now: one kept
        // from an earlier call may have been closed for silence or by a helper that has
        // restarted since, and a new one closed to make room for another client before its
        // request was read. Try once more afresh.
        if (attempt == 0 && result.failure == HelperCallResult::Failure::connectionLost) continue;
        // The helper closes the connection of a refused peer right after saying so.
        if (!result.reply.ok && result.reply.code == hp::codes::notAllowed) disconnect();
        return result;
    }
}

HelperCallResult HelperClient::exchange(const std::string& frame) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(replyTimeoutMs_);
    const auto lost = [this] {
        return transportFailure(HelperCallResult::Failure::connectionLost,
                                "the helper at " + socketPath_ + " closed the connection");
    };
    const auto timedOut = [this] {
        return transportFailure(HelperCallResult::Failure::timedOut,
                                "the helper at " + socketPath_ + " did not answer within " +
                                    std::to_string(replyTimeoutMs_) + " ms");
    };

    // A refused peer gets its error reply and a closed connection, so a failed send can still
    // leave a reply to read; only reading decides.
    std::size_t sent = 0;
    while (sent < frame.size()) {
        const ssize_t n = ::send(fd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!waitFor(fd_, POLLOUT, deadline)) return timedOut();
        } else {
            break;
        }
    }

    hp::FrameReader reader;
    char buffer[16 * 1024];
    for (;;) {
        const hp::FrameReader::Result next = reader.next();
        if (next.status == hp::FrameReader::Status::frame) {
            auto reply = hp::decodeReply(next.payload);
            if (!reply.ok()) {
                return transportFailure(
                    HelperCallResult::Failure::badReply,
                    "unreadable reply from the helper at " + socketPath_ + ": " + reply.error);
            }
            HelperCallResult result;
            result.reply = std::move(*reply.value);
            return result;
        }
        if (next.status == hp::FrameReader::Status::error) {
            return transportFailure(
                HelperCallResult::Failure::badReply,
                "unreadable reply from the helper at " + socketPath_ + ": " + next.error);
        }
        const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
        if (n > 0) {
            reader.append(std::string_view(buffer, static_cast<std::size_t>(n)));
        } else if (n == 0) {
            return lost();
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!waitFor(fd_, POLLIN, deadline)) return timedOut();
        } else {
            return lost();
        }
    }
}

HelperStatusResult HelperClient::status() {
    HelperStatusResult result;
    const HelperCallResult version = call(hp::Request::of(hp::Op::version));
    if (!version.ok()) {
        result.error = version.errorText();
        return result;
    }
    auto versionInfo = hp::decodeVersionInfo(version.reply.data);
    if (!versionInfo.ok()) {
        result.error = "unreadable version reply from the helper: " + versionInfo.error;
        return result;
    }
    const HelperCallResult list = call(hp::Request::of(hp::Op::list));
    if (!list.ok()) {
        result.error = list.errorText();
        return result;
    }
    auto inventory = hp::decodeInventory(list.reply.data);
    if (!inventory.ok()) {
        result.error = "unreadable fan list from the helper: " + inventory.error;
        return result;
    }
    const HelperCallResult config = call(hp::Request::of(hp::Op::config));
    if (config.ok()) {
        auto info = hp::decodeConfigInfo(config.reply.data);
        if (!info.ok()) {
            result.error = "unreadable configuration reply from the helper: " + info.error;
            return result;
        }
        result.status.config = std::move(*info.value);
    } else if (config.failure != HelperCallResult::Failure::none ||
               config.reply.code != hp::codes::badRequest) {
        // bad_request is an older helper that has no `config`; anything else is a real failure.
        result.error = config.errorText();
        return result;
    }
    result.ok = true;
    result.status.version = std::move(*versionInfo.value);
    result.status.inventory = std::move(*inventory.value);
    return result;
}

HelperCounterResult HelperClient::readCounter(const std::string& counterPath) {
    HelperCounterResult result;
    const HelperCallResult reply = call(hp::Request::counter(counterPath));
    if (!reply.ok()) {
        result.error = reply.errorText();
        return result;
    }
    auto value = hp::decodeCounterValue(reply.reply.data);
    if (!value.ok()) {
        result.error = "unreadable counter reply from the helper: " + value.error;
        return result;
    }
    result.ok = true;
    result.value = *value.value;
    return result;
}

}  // namespace kelvo
