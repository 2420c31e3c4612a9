// The wire format spoken between kelvo-helperd and its clients (HelperFanController,
// HelperClient, kelvoctl). helper/PROTOCOL.md explains it for people; this is the only code that
// encodes or decodes it, so the daemon and the clients cannot drift apart.
//
// Everything here is pure: no I/O, no allocation beyond the inputs' size limits, and every
// malformed input decodes to an error message rather than to undefined behaviour (the decoder is
// fuzzed, see fuzz/HelperProtocolFuzz.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvo::helper_protocol {

// Frame: "KLV", one version byte, the payload length as 4 bytes little-endian, the payload.
inline constexpr char kMagic[3] = {'K', 'L', 'V'};
inline constexpr std::uint8_t kVersion = 1;
inline constexpr std::size_t kHeaderSize = 8;
inline constexpr std::size_t kMaxFrameSize = 64 * 1024;
inline constexpr std::size_t kMaxPayloadSize = kMaxFrameSize - kHeaderSize;

// A client holding fans renews at least every kLeaseRenewMs; the helper gives the fans back once
// kLeaseExpiryMs pass without a request (the margin absorbs scheduling jitter).
inline constexpr int kLeaseRenewMs = 2000;
inline constexpr int kLeaseExpiryMs = 2500;

inline constexpr int kMaxRPM = 65535;
inline constexpr int kMaxPWM = 255;
inline constexpr std::size_t kMaxIdentityLength = 512;
inline constexpr std::size_t kMaxListEntries = 256;
inline constexpr std::size_t kMaxKeyLength = 64;

// A decoded value or the reason it could not be decoded.
template <class T>
struct Decoded {
    std::optional<T> value;
    std::string error;

    bool ok() const { return value.has_value(); }
    static Decoded success(T v) { return Decoded{std::move(v), {}}; }
    static Decoded failure(std::string why) { return Decoded{std::nullopt, std::move(why)}; }
};

// ----- frames ---------------------------------------------------------------------------------

// None when the payload is larger than kMaxPayloadSize.
std::optional<std::string> encodeFrame(std::string_view payload);
// Exactly one whole frame: short input, bytes after the frame and every header fault are errors.
Decoded<std::string> decodeFrame(std::string_view bytes);

// Splits a byte stream into frames. A header fault is detected as soon as the offending byte
// arrives (a wrong first byte fails at once, an oversized length before any payload is read);
// after a fault the reader stays failed, since a stream cannot be resynchronised.
class FrameReader {
public:
    enum class Status { needMore, frame, error };
    struct Result {
        Status status = Status::needMore;
        std::string payload;  // Status::frame
        std::string error;    // Status::error
        std::string code;     // Status::error: codes::badFrame or codes::unsupportedVersion
    };

    void append(std::string_view bytes);
    Result next();

    bool failed() const { return !error_.empty(); }
    // Some bytes of a frame that is not complete yet are buffered.
    bool midFrame() const { return buffer_.size() > offset_; }

private:
    std::string buffer_;
    std::size_t offset_ = 0;  // start of the first unread frame in buffer_
    std::string error_;
    std::string code_;
};

// ----- payload fields -------------------------------------------------------------------------

// A payload is lines "key=value\n". Keys: 1-64 of [a-z0-9_.]; each key once. Values: any bytes
// except control characters (so a value can never break a line).
class Fields {
public:
    // Appends, or replaces the value of an existing key. Control characters in the value become
    // '?' so that whatever sysfs holds can be sent.
    void set(std::string_view key, std::string_view value);
    const std::string* find(std::string_view key) const;
    const std::vector<std::pair<std::string, std::string>>& entries() const { return entries_; }
    bool empty() const { return entries_.empty(); }

    bool operator==(const Fields&) const = default;

private:
    std::vector<std::pair<std::string, std::string>> entries_;
};

std::string encodeFields(const Fields& fields);
Decoded<Fields> parseFields(std::string_view payload);

// ----- requests -------------------------------------------------------------------------------

enum class Op { version, list, setTarget, release, releaseAll, readCounter, renew, config };

std::string_view opName(Op op);
std::optional<Op> opFromName(std::string_view name);

struct Request {
    Op op = Op::version;
    std::string fan;          // setTarget, release: the fan's stable identity
    std::optional<int> rpm;   // setTarget: exactly one of rpm (1-65535) and pwm (0-255)
    std::optional<int> pwm;   //
    std::string counterPath;  // readCounter: "/sys/class/powercap/intel-rapl.../energy_uj"

    static Request of(Op op);
    static Request targetRPM(std::string fan, int rpm);
    static Request targetPWM(std::string fan, int pwm);
    static Request releaseOf(std::string fan);
    static Request counter(std::string path);
    bool operator==(const Request&) const = default;
};

// Encodes any request, including invalid ones (tests send those on purpose).
std::string encodeRequest(const Request& request);
Decoded<Request> decodeRequest(std::string_view payload);

// ----- replies --------------------------------------------------------------------------------

// Error codes carried by error replies.
namespace codes {
inline constexpr const char* badFrame = "bad_frame";
inline constexpr const char* unsupportedVersion = "unsupported_version";
inline constexpr const char* badRequest = "bad_request";
inline constexpr const char* notAllowed = "not_allowed";
inline constexpr const char* unknownFan = "unknown_fan";
inline constexpr const char* notControllable = "not_controllable";
inline constexpr const char* heldByAnother = "held_by_another_client";
inline constexpr const char* io = "io_error";
inline constexpr const char* busy = "busy";
// A held fan's mode was changed from outside: the hold ended without a restore.
inline constexpr const char* takenBack = "taken_back";
inline constexpr const char* forbidden = "forbidden";
inline constexpr const char* belowFloor = "below_floor";
}  // namespace codes

struct Reply {
    bool ok = true;
    std::string code;     // error replies
    std::string message;  // error replies
    Fields data;          // ok replies

    static Reply success(Fields data = {});
    static Reply failure(std::string code, std::string message);
    bool operator==(const Reply&) const = default;
};

std::string encodeReply(const Reply& reply);
Decoded<Reply> decodeReply(std::string_view payload);

// Payload data of each operation's ok reply.
struct VersionInfo {
    std::string version;
    int protocol = kVersion;
    bool operator==(const VersionInfo&) const = default;
};

struct FanInfo {
    std::string identity;
    bool controllable = false;
    std::optional<int> rpm;   // fanN_input; none when unreadable
    int minRPM = 0;           // 0 when the driver has no fanN_min
    int maxRPM = 0;           // 0 when the driver has no fanN_max
    std::optional<int> pwm;   // pwmN
    std::optional<int> mode;  // pwmN_enable
    bool held = false;        // some client of the helper holds it
    bool mine = false;        // the asking client holds it
    bool operator==(const FanInfo&) const = default;
};

struct SensorInfo {
    std::string identity;  // driver@device#tempN
    std::string label;     // tempN_label, empty when absent
    std::optional<long long> milliCelsius;
    bool operator==(const SensorInfo&) const = default;
};

struct Inventory {
    std::vector<FanInfo> fans;
    std::vector<SensorInfo> sensors;
    bool operator==(const Inventory&) const = default;
};

struct LeaseInfo {
    int heldFans = 0;  // fans the asking client still holds
    int expiryMs = kLeaseExpiryMs;
    bool operator==(const LeaseInfo&) const = default;
};

// `config`: what the helper's configuration file enforces, and whether it follows sleep.
struct ConfigInfo {
    std::string file;                                 // empty when there is no configuration
    std::vector<std::pair<std::string, int>> floors;  // fan identity, lowest duty cycle
    std::vector<std::string> forbidden;               // fan identities
    bool sleepHandling = false;                       // subscribed to logind's PrepareForSleep
    bool operator==(const ConfigInfo&) const = default;
};

Fields encodeVersionInfo(const VersionInfo& info);
Decoded<VersionInfo> decodeVersionInfo(const Fields& data);
Fields encodeInventory(const Inventory& inventory);
Decoded<Inventory> decodeInventory(const Fields& data);
Fields encodeLeaseInfo(const LeaseInfo& info);
Decoded<LeaseInfo> decodeLeaseInfo(const Fields& data);
// set_target: the duty cycle written.
Fields encodeAppliedPWM(int pwm);
Decoded<int> decodeAppliedPWM(const Fields& data);
Fields encodeConfigInfo(const ConfigInfo& info);
Decoded<ConfigInfo> decodeConfigInfo(const Fields& data);
// read_counter: the counter's value.
Fields encodeCounterValue(std::uint64_t value);
Decoded<std::uint64_t> decodeCounterValue(const Fields& data);

}  // namespace kelvo::helper_protocol
