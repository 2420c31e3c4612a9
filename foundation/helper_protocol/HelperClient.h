// One connection to kelvo-helperd: request/reply over its Unix socket with bounded waits.
// HelperFanController drives fans through it; kelvoctl uses it for `helper status`.
// Not thread-safe: one caller at a time (HelperFanController serialises its calls).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/helper_protocol/HelperProtocol.h"

namespace kelvo {

struct HelperCallResult {
    enum class Failure {
        none,            // a reply arrived (it may still be an error reply)
        unreachable,     // nothing accepts connections at the socket path
        timedOut,        // no connection accepted, or no whole reply, within the timeouts
        connectionLost,  // the helper closed the connection or the socket failed
        badReply,        // the bytes that came back are not a valid reply
    };

    Failure failure = Failure::none;
    std::string error;  // transport failures: a sentence for people
    helper_protocol::Reply reply;

    bool ok() const { return failure == Failure::none && reply.ok; }
    // The transport error, or the helper's error message.
    const std::string& errorText() const {
        return failure != Failure::none ? error : reply.message;
    }
};

struct HelperStatus {
    helper_protocol::VersionInfo version;
    helper_protocol::Inventory inventory;
    // None from a helper older than the `config` request.
    std::optional<helper_protocol::ConfigInfo> config;
};

struct HelperStatusResult {
    bool ok = false;
    std::string error;
    HelperStatus status;
};

struct HelperCounterResult {
    bool ok = false;
    std::string error;
    std::uint64_t value = 0;
};

class HelperClient {
public:
    static constexpr const char* kDefaultSocketPath = "/run/kelvo/helper.sock";

    explicit HelperClient(std::string socketPath = kDefaultSocketPath, int connectTimeoutMs = 250,
                          int replyTimeoutMs = 1000);
    ~HelperClient();
    HelperClient(HelperClient&& other) noexcept;
    HelperClient& operator=(HelperClient&& other) noexcept;
    HelperClient(const HelperClient&) = delete;
    HelperClient& operator=(const HelperClient&) = delete;

    const std::string& socketPath() const { return socketPath_; }
    bool connected() const { return fd_ >= 0; }
    // Counts connections opened. The helper releases a client's fans when its connection ends,
    // so a caller that took fans on an earlier connection no longer holds them.
    std::uint64_t connectionNumber() const { return connectionNumber_; }
    void disconnect();

    // Sends one request and waits for its reply, connecting first when there is no connection.
    // A transport failure closes the connection, so the next call starts on a fresh one; a call
    // whose connection the helper closes before answering retries once on a new one.
    HelperCallResult call(const helper_protocol::Request& request);

    // Version and the fans and sensors the helper sees.
    HelperStatusResult status();
    // A root-only RAPL energy counter read through the helper.
    HelperCounterResult readCounter(const std::string& counterPath);

    // Whether a helper listens at `socketPath`: a connection opens within the timeout, or its
    // backlog is full of other clients' connections (nothing is sent).
    static bool reachable(const std::string& socketPath, int connectTimeoutMs);
    static std::string notRunningMessage(const std::string& socketPath);

private:
    HelperCallResult exchange(const std::string& frame);

    std::string socketPath_;
    int connectTimeoutMs_;
    int replyTimeoutMs_;
    int fd_ = -1;
    std::uint64_t connectionNumber_ = 0;
};

}  // namespace kelvo
