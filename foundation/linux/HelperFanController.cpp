#include "foundation/linux/HelperFanController.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kelvo {

namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// A non-blocking connect bounded by poll(), so a wedged helper cannot stall the caller.
bool connectWithTimeout(const std::string& path, int timeoutMs) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.data(), path.size());

    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) return false;
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
        0) {
        return true;
    }
    // A full backlog gives EAGAIN on Unix sockets; a busy helper counts as unreachable.
    if (errno != EINPROGRESS) return false;

    pollfd descriptor{socket.get(), POLLOUT, 0};
    int ready = 0;
    do {
        ready = ::poll(&descriptor, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return false;
    int socketError = 0;
    socklen_t length = sizeof(socketError);
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &socketError, &length) != 0) return false;
    return socketError == 0;
}

}  // namespace

HelperFanController::HelperFanController(std::string socketPath, int connectTimeoutMs)
    : socketPath_(std::move(socketPath)), connectTimeoutMs_(connectTimeoutMs) {}

bool HelperFanController::helperReachable() const {
    return connectWithTimeout(socketPath_, connectTimeoutMs_);
}

FanResult HelperFanController::checkHelper() const {
    if (!helperReachable()) return FanResult::failure(kUnavailable);
    // The daemon's wire protocol is not part of this build yet: a reachable socket is reported
    // honestly rather than guessed at.
    return FanResult::failure(kProtocolUnsupported);
}

FanReadResult HelperFanController::readFans() {
    const FanResult check = checkHelper();
    return FanReadResult{check.ok, check.error, {}};
}

FanResult HelperFanController::setTargets(const std::vector<double>&) {
    return checkHelper();
}

FanResult HelperFanController::releaseToAutomatic() {
    // Nothing was ever written through the helper, so there is nothing to give back; the
    // helper itself also restores automatic control when its client disconnects.
    return FanResult::success();
}

std::optional<std::string> HelperFanController::helperVersion() {
    // Without the protocol there is no way to ask, even when the socket answers.
    return std::nullopt;
}

}  // namespace kelvo
