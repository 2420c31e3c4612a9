#include "foundation/helper_protocol/HelperProtocol.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>

namespace kelvo::helper_protocol {

namespace {

// Sysfs can hold anything; values outside these ranges are left out of a listing rather than
// sent, so that whatever the daemon encodes, a client can decode.
constexpr long long kMaxReportedRPM = 10'000'000;
constexpr long long kMinMilliCelsius = -273'150;
constexpr long long kMaxMilliCelsius = 1'000'000;
constexpr long long kMaxLeaseMs = 600'000;
constexpr std::size_t kMaxVersionLength = 128;
constexpr std::size_t kMaxCounterPathLength = 4096;
constexpr std::size_t kQuotedValueLength = 40;

std::string quoted(std::string_view value) {
    if (value.size() <= kQuotedValueLength) return "'" + std::string(value) + "'";
    return "'" + std::string(value.substr(0, kQuotedValueLength)) + "...'";
}

bool isKeyCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.';
}

bool validKey(std::string_view key) {
    return !key.empty() && key.size() <= kMaxKeyLength &&
           std::all_of(key.begin(), key.end(), isKeyCharacter);
}

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

std::optional<unsigned long long> parseUnsigned(std::string_view text) {
    if (text.empty() || text.size() > 20) return std::nullopt;
    if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    unsigned long long value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<long long> parseSigned(std::string_view text) {
    const bool negative = !text.empty() && text.front() == '-';
    const auto magnitude = parseUnsigned(negative ? text.substr(1) : text);
    if (!magnitude) return std::nullopt;
    constexpr auto limit = static_cast<unsigned long long>(std::numeric_limits<long long>::max());
    if (*magnitude > limit) return std::nullopt;
    const auto value = static_cast<long long>(*magnitude);
    return negative ? -value : value;
}

std::uint32_t readLittleEndian32(std::string_view bytes) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(bytes[static_cast<std::size_t>(i)]);
    }
    return value;
}

struct HeaderFault {
    std::string code;
    std::string message;
};

// Looks at however many header bytes are present; a fault is reported as soon as it shows.
std::optional<HeaderFault> headerFault(std::string_view header) {
    const std::size_t magicBytes = std::min<std::size_t>(header.size(), sizeof(kMagic));
    for (std::size_t i = 0; i < magicBytes; ++i) {
        if (header[i] != kMagic[i]) {
            return HeaderFault{codes::badFrame, "bad magic: not a Kelvo helper frame"};
        }
    }
    if (header.size() > sizeof(kMagic)) {
        const auto version = static_cast<unsigned char>(header[sizeof(kMagic)]);
        if (version != kVersion) {
            return HeaderFault{codes::unsupportedVersion,
                               "unsupported protocol version " + std::to_string(version) +
                                   " (this side speaks " + std::to_string(kVersion) + ")"};
        }
    }
    if (header.size() >= kHeaderSize) {
        const std::uint32_t length = readLittleEndian32(header.substr(4, 4));
        if (length > kMaxPayloadSize) {
            return HeaderFault{codes::badFrame, "frame too large: " + std::to_string(length) +
                                                    " payload bytes (limit " +
                                                    std::to_string(kMaxPayloadSize) + ")"};
        }
    }
    return std::nullopt;
}

// Reads fields by key and remembers which were read, so that anything left over (a misspelt
// or unknown field) is an error rather than silently ignored.
class FieldReader {
public:
    explicit FieldReader(const Fields& fields) : fields_(fields) {}

    const std::string* optional(std::string_view key) {
        const std::string* value = fields_.find(key);
        if (value) used_.insert(std::string(key));
        return value;
    }

    const std::string* required(std::string_view key) {
        const std::string* value = optional(key);
        if (!value) fail("missing field '" + std::string(key) + "'");
        return value;
    }

    std::optional<long long> integer(std::string_view key, long long min, long long max,
                                     bool isRequired) {
        const std::string* text = isRequired ? required(key) : optional(key);
        if (!text) return std::nullopt;
        const auto value = parseSigned(*text);
        if (!value) {
            fail("field '" + std::string(key) + "' is not a whole number: " + quoted(*text));
            return std::nullopt;
        }
        if (*value < min || *value > max) {
            fail("field '" + std::string(key) + "' out of range " + std::to_string(min) + "-" +
                 std::to_string(max) + ": " + std::to_string(*value));
            return std::nullopt;
        }
        return value;
    }

    std::optional<bool> flag(std::string_view key) {
        const std::string* text = required(key);
        if (!text) return std::nullopt;
        if (*text == "0") return false;
        if (*text == "1") return true;
        fail("field '" + std::string(key) + "' must be 0 or 1: " + quoted(*text));
        return std::nullopt;
    }

    std::optional<std::string> identity(std::string_view key) {
        const std::string* text = required(key);
        if (!text) return std::nullopt;
        if (text->empty() || text->size() > kMaxIdentityLength) {
            fail("field '" + std::string(key) + "' must be 1-" +
                 std::to_string(kMaxIdentityLength) + " characters");
            return std::nullopt;
        }
        return *text;
    }

    void fail(std::string why) {
        if (error_.empty()) error_ = std::move(why);
    }

    // The first error, or an unexpected field; empty when everything was read and valid.
    std::string finish() const {
        if (!error_.empty()) return error_;
        for (const auto& [key, value] : fields_.entries()) {
            if (!used_.contains(key)) return "unexpected field '" + key + "'";
        }
        return {};
    }

    bool failed() const { return !error_.empty(); }

private:
    const Fields& fields_;
    std::set<std::string, std::less<>> used_;
    std::string error_;
};

std::string indexedKey(const char* group, std::size_t index, const char* name) {
    return std::string(group) + "." + std::to_string(index) + "." + name;
}

bool validIdentity(std::string_view identity) {
    return !identity.empty() && identity.size() <= kMaxIdentityLength &&
           std::none_of(identity.begin(), identity.end(), isControl);
}

}  // namespace

// ----- frames ---------------------------------------------------------------------------------

std::optional<std::string> encodeFrame(std::string_view payload) {
    if (payload.size() > kMaxPayloadSize) return std::nullopt;
    std::string frame;
    frame.reserve(kHeaderSize + payload.size());
    frame.append(kMagic, sizeof(kMagic));
    frame.push_back(static_cast<char>(kVersion));
    auto length = static_cast<std::uint32_t>(payload.size());
    for (int i = 0; i < 4; ++i) {
        frame.push_back(static_cast<char>(length & 0xff));
        length >>= 8;
    }
    frame.append(payload);
    return frame;
}

Decoded<std::string> decodeFrame(std::string_view bytes) {
    if (auto fault = headerFault(bytes.substr(0, std::min(bytes.size(), kHeaderSize)))) {
        return Decoded<std::string>::failure(fault->message);
    }
    if (bytes.size() < kHeaderSize) {
        return Decoded<std::string>::failure("truncated frame: " + std::to_string(bytes.size()) +
                                             " of " + std::to_string(kHeaderSize) +
                                             " header bytes");
    }
    const std::uint32_t length = readLittleEndian32(bytes.substr(4, 4));
    const std::size_t available = bytes.size() - kHeaderSize;
    if (available < length) {
        return Decoded<std::string>::failure("truncated frame: header says " +
                                             std::to_string(length) + " payload bytes, got " +
                                             std::to_string(available));
    }
    if (available > length) {
        return Decoded<std::string>::failure(std::to_string(available - length) +
                                             " bytes after the end of the frame");
    }
    return Decoded<std::string>::success(std::string(bytes.substr(kHeaderSize)));
}

void FrameReader::append(std::string_view bytes) {
    if (failed()) return;
    if (offset_ > 0) {
        buffer_.erase(0, offset_);
        offset_ = 0;
    }
    buffer_.append(bytes);
}

FrameReader::Result FrameReader::next() {
    if (failed()) return Result{Status::error, {}, error_, code_};
    const std::string_view pending = std::string_view(buffer_).substr(offset_);
    if (auto fault = headerFault(pending.substr(0, std::min(pending.size(), kHeaderSize)))) {
        error_ = fault->message;
        code_ = fault->code;
        return Result{Status::error, {}, error_, code_};
    }
    if (pending.size() < kHeaderSize) return Result{};
    const std::uint32_t length = readLittleEndian32(pending.substr(4, 4));
    if (pending.size() - kHeaderSize < length) return Result{};
    Result frame{Status::frame, std::string(pending.substr(kHeaderSize, length)), {}, {}};
    offset_ += kHeaderSize + length;
    if (offset_ == buffer_.size()) {
        buffer_.clear();
        offset_ = 0;
    }
    return frame;
}

// ----- payload fields -------------------------------------------------------------------------

void Fields::set(std::string_view key, std::string_view value) {
    std::string clean(value);
    std::replace_if(clean.begin(), clean.end(), isControl, '?');
    for (auto& entry : entries_) {
        if (entry.first == key) {
            entry.second = std::move(clean);
            return;
        }
    }
    entries_.emplace_back(std::string(key), std::move(clean));
}

const std::string* Fields::find(std::string_view key) const {
    for (const auto& entry : entries_) {
        if (entry.first == key) return &entry.second;
    }
    return nullptr;
}

std::string encodeFields(const Fields& fields) {
    std::string payload;
    for (const auto& [key, value] : fields.entries()) {
        payload.append(key).append("=").append(value).append("\n");
    }
    return payload;
}

Decoded<Fields> parseFields(std::string_view payload) {
    if (payload.size() > kMaxPayloadSize) {
        return Decoded<Fields>::failure("payload too large: " + std::to_string(payload.size()) +
                                        " bytes");
    }
    Fields fields;
    if (payload.empty()) return Decoded<Fields>::success(std::move(fields));
    if (payload.back() != '\n') return Decoded<Fields>::failure("payload does not end a line");
    std::set<std::string_view> seen;
    std::size_t lineNumber = 0;
    while (!payload.empty()) {
        ++lineNumber;
        const std::size_t end = payload.find('\n');
        const std::string_view line = payload.substr(0, end);
        payload.remove_prefix(end + 1);
        const std::string where = "line " + std::to_string(lineNumber) + ": ";
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            return Decoded<Fields>::failure(where + "no '=' between key and value");
        }
        const std::string_view key = line.substr(0, equals);
        const std::string_view value = line.substr(equals + 1);
        if (!validKey(key)) {
            return Decoded<Fields>::failure(where + "invalid key (1-" +
                                            std::to_string(kMaxKeyLength) +
                                            " of a-z, 0-9, '_' and '.')");
        }
        if (std::any_of(value.begin(), value.end(), isControl)) {
            return Decoded<Fields>::failure(where + "control character in the value of '" +
                                            std::string(key) + "'");
        }
        if (!seen.insert(key).second) {
            return Decoded<Fields>::failure(where + "duplicate field '" + std::string(key) + "'");
        }
        fields.set(key, value);
    }
    return Decoded<Fields>::success(std::move(fields));
}

// ----- requests -------------------------------------------------------------------------------

namespace {

constexpr std::pair<Op, std::string_view> kOpNames[] = {
    {Op::version, "version"},
    {Op::list, "list"},
    {Op::setTarget, "set_target"},
    {Op::release, "release"},
    {Op::releaseAll, "release_all"},
    {Op::readCounter, "read_counter"},
    {Op::renew, "renew"},
    {Op::config, "config"},
};

}  // namespace

std::string_view opName(Op op) {
    for (const auto& [candidate, name] : kOpNames) {
        if (candidate == op) return name;
    }
    return "unknown";
}

std::optional<Op> opFromName(std::string_view name) {
    for (const auto& [op, candidate] : kOpNames) {
        if (candidate == name) return op;
    }
    return std::nullopt;
}

Request Request::of(Op op) {
    Request request;
    request.op = op;
    return request;
}

Request Request::targetRPM(std::string fan, int rpm) {
    Request request = of(Op::setTarget);
    request.fan = std::move(fan);
    request.rpm = rpm;
    return request;
}

Request Request::targetPWM(std::string fan, int pwm) {
    Request request = of(Op::setTarget);
    request.fan = std::move(fan);
    request.pwm = pwm;
    return request;
}

Request Request::releaseOf(std::string fan) {
    Request request = of(Op::release);
    request.fan = std::move(fan);
    return request;
}

Request Request::counter(std::string path) {
    Request request = of(Op::readCounter);
    request.counterPath = std::move(path);
    return request;
}

std::string encodeRequest(const Request& request) {
    Fields fields;
    fields.set("op", opName(request.op));
    if (!request.fan.empty()) fields.set("fan", request.fan);
    if (request.rpm) fields.set("rpm", std::to_string(*request.rpm));
    if (request.pwm) fields.set("pwm", std::to_string(*request.pwm));
    if (!request.counterPath.empty()) fields.set("path", request.counterPath);
    return encodeFields(fields);
}

Decoded<Request> decodeRequest(std::string_view payload) {
    auto parsed = parseFields(payload);
    if (!parsed.ok()) return Decoded<Request>::failure(parsed.error);
    FieldReader reader(*parsed.value);
    const std::string* opText = reader.required("op");
    if (!opText) return Decoded<Request>::failure(reader.finish());
    const auto op = opFromName(*opText);
    if (!op) return Decoded<Request>::failure("unknown op " + quoted(*opText));

    Request request;
    request.op = *op;
    switch (*op) {
        case Op::version:
        case Op::list:
        case Op::releaseAll:
        case Op::renew:
        case Op::config: break;
        case Op::setTarget: {
            if (auto fan = reader.identity("fan")) request.fan = *fan;
            if (auto rpm = reader.integer("rpm", 1, kMaxRPM, false)) {
                request.rpm = static_cast<int>(*rpm);
            }
            if (auto pwm = reader.integer("pwm", 0, kMaxPWM, false)) {
                request.pwm = static_cast<int>(*pwm);
            }
            if (reader.failed()) break;
            if (request.rpm && request.pwm) reader.fail("set_target takes rpm or pwm, not both");
            if (!request.rpm && !request.pwm) reader.fail("set_target needs rpm or pwm");
            break;
        }
        case Op::release:
            if (auto fan = reader.identity("fan")) request.fan = *fan;
            break;
        case Op::readCounter:
            if (const std::string* path = reader.required("path")) {
                if (path->empty() || path->size() > kMaxCounterPathLength) {
                    reader.fail("field 'path' must be 1-" + std::to_string(kMaxCounterPathLength) +
                                " characters");
                } else {
                    request.counterPath = *path;
                }
            }
            break;
    }
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<Request>::failure(std::move(error));
    }
    return Decoded<Request>::success(std::move(request));
}

// ----- replies --------------------------------------------------------------------------------

Reply Reply::success(Fields data) {
    Reply reply;
    reply.data = std::move(data);
    return reply;
}

Reply Reply::failure(std::string code, std::string message) {
    Reply reply;
    reply.ok = false;
    reply.code = std::move(code);
    reply.message = std::move(message);
    return reply;
}

std::string encodeReply(const Reply& reply) {
    Fields fields;
    if (reply.ok) {
        fields.set("status", "ok");
        for (const auto& [key, value] : reply.data.entries()) {
            if (key != "status") fields.set(key, value);
        }
    } else {
        fields.set("status", "error");
        fields.set("code", reply.code.empty() ? "error" : reply.code);
        fields.set("message", reply.message);
    }
    return encodeFields(fields);
}

Decoded<Reply> decodeReply(std::string_view payload) {
    auto parsed = parseFields(payload);
    if (!parsed.ok()) return Decoded<Reply>::failure(parsed.error);
    const Fields& fields = *parsed.value;
    const std::string* status = fields.find("status");
    if (!status) return Decoded<Reply>::failure("missing field 'status'");
    if (*status == "ok") {
        Reply reply;
        for (const auto& [key, value] : fields.entries()) {
            if (key != "status") reply.data.set(key, value);
        }
        return Decoded<Reply>::success(std::move(reply));
    }
    if (*status != "error") return Decoded<Reply>::failure("unknown status " + quoted(*status));
    FieldReader reader(fields);
    reader.required("status");
    const std::string* code = reader.required("code");
    const std::string* message = reader.required("message");
    if (code && !validKey(*code)) reader.fail("field 'code' is not a valid code");
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<Reply>::failure(std::move(error));
    }
    return Decoded<Reply>::success(Reply::failure(*code, *message));
}

Fields encodeVersionInfo(const VersionInfo& info) {
    Fields data;
    data.set("version", info.version);
    data.set("protocol", std::to_string(info.protocol));
    return data;
}

Decoded<VersionInfo> decodeVersionInfo(const Fields& data) {
    FieldReader reader(data);
    VersionInfo info;
    if (const std::string* version = reader.required("version")) {
        if (version->empty() || version->size() > kMaxVersionLength) {
            reader.fail("field 'version' must be 1-" + std::to_string(kMaxVersionLength) +
                        " characters");
        } else {
            info.version = *version;
        }
    }
    if (auto protocol = reader.integer("protocol", 1, 255, true)) {
        info.protocol = static_cast<int>(*protocol);
    }
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<VersionInfo>::failure(std::move(error));
    }
    return Decoded<VersionInfo>::success(std::move(info));
}

Fields encodeInventory(const Inventory& inventory) {
    const auto inRange = [](auto value, long long min, long long max) {
        return value >= min && value <= max;
    };
    Fields data;
    // An identity the decoder would refuse cannot be addressed by a request either.
    std::vector<const FanInfo*> fans;
    for (const FanInfo& fan : inventory.fans) {
        if (validIdentity(fan.identity) && fans.size() < kMaxListEntries) fans.push_back(&fan);
    }
    data.set("fans", std::to_string(fans.size()));
    for (std::size_t i = 0; i < fans.size(); ++i) {
        const FanInfo& fan = *fans[i];
        data.set(indexedKey("fan", i, "id"), fan.identity);
        data.set(indexedKey("fan", i, "controllable"), fan.controllable ? "1" : "0");
        if (fan.rpm && inRange(*fan.rpm, 0, kMaxReportedRPM)) {
            data.set(indexedKey("fan", i, "rpm"), std::to_string(*fan.rpm));
        }
        data.set(indexedKey("fan", i, "min"),
                 std::to_string(std::clamp<long long>(fan.minRPM, 0, kMaxReportedRPM)));
        data.set(indexedKey("fan", i, "max"),
                 std::to_string(std::clamp<long long>(fan.maxRPM, 0, kMaxReportedRPM)));
        if (fan.pwm && inRange(*fan.pwm, 0, kMaxPWM)) {
            data.set(indexedKey("fan", i, "pwm"), std::to_string(*fan.pwm));
        }
        if (fan.mode && inRange(*fan.mode, 0, 255)) {
            data.set(indexedKey("fan", i, "mode"), std::to_string(*fan.mode));
        }
        data.set(indexedKey("fan", i, "held"), fan.held ? "1" : "0");
        data.set(indexedKey("fan", i, "mine"), fan.mine ? "1" : "0");
    }
    std::vector<const SensorInfo*> sensors;
    for (const SensorInfo& sensor : inventory.sensors) {
        if (validIdentity(sensor.identity) && sensors.size() < kMaxListEntries) {
            sensors.push_back(&sensor);
        }
    }
    data.set("sensors", std::to_string(sensors.size()));
    for (std::size_t i = 0; i < sensors.size(); ++i) {
        const SensorInfo& sensor = *sensors[i];
        data.set(indexedKey("sensor", i, "id"), sensor.identity);
        if (!sensor.label.empty()) data.set(indexedKey("sensor", i, "label"), sensor.label);
        if (sensor.milliCelsius &&
            inRange(*sensor.milliCelsius, kMinMilliCelsius, kMaxMilliCelsius)) {
            data.set(indexedKey("sensor", i, "millicelsius"), std::to_string(*sensor.milliCelsius));
        }
    }
    return data;
}

Decoded<Inventory> decodeInventory(const Fields& data) {
    FieldReader reader(data);
    Inventory inventory;
    const auto fanCount = reader.integer("fans", 0, kMaxListEntries, true);
    for (long long i = 0; fanCount && i < *fanCount && !reader.failed(); ++i) {
        const auto index = static_cast<std::size_t>(i);
        const auto key = [index](const char* name) { return indexedKey("fan", index, name); };
        FanInfo fan;
        if (auto id = reader.identity(key("id"))) fan.identity = *id;
        if (auto flag = reader.flag(key("controllable"))) fan.controllable = *flag;
        if (auto rpm = reader.integer(key("rpm"), 0, kMaxReportedRPM, false)) {
            fan.rpm = static_cast<int>(*rpm);
        }
        if (auto min = reader.integer(key("min"), 0, kMaxReportedRPM, true)) {
            fan.minRPM = static_cast<int>(*min);
        }
        if (auto max = reader.integer(key("max"), 0, kMaxReportedRPM, true)) {
            fan.maxRPM = static_cast<int>(*max);
        }
        if (auto pwm = reader.integer(key("pwm"), 0, kMaxPWM, false)) {
            fan.pwm = static_cast<int>(*pwm);
        }
        if (auto mode = reader.integer(key("mode"), 0, 255, false)) {
            fan.mode = static_cast<int>(*mode);
        }
        if (auto flag = reader.flag(key("held"))) fan.held = *flag;
        if (auto flag = reader.flag(key("mine"))) fan.mine = *flag;
        if (fan.mine && !fan.held) reader.fail(key("mine") + " is set on a fan nobody holds");
        inventory.fans.push_back(std::move(fan));
    }
    const auto sensorCount = reader.integer("sensors", 0, kMaxListEntries, true);
    for (long long i = 0; sensorCount && i < *sensorCount && !reader.failed(); ++i) {
        const auto index = static_cast<std::size_t>(i);
        const auto key = [index](const char* name) { return indexedKey("sensor", index, name); };
        SensorInfo sensor;
        if (auto id = reader.identity(key("id"))) sensor.identity = *id;
        if (const std::string* label = reader.optional(key("label"))) sensor.label = *label;
        sensor.milliCelsius =
            reader.integer(key("millicelsius"), kMinMilliCelsius, kMaxMilliCelsius, false);
        inventory.sensors.push_back(std::move(sensor));
    }
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<Inventory>::failure(std::move(error));
    }
    return Decoded<Inventory>::success(std::move(inventory));
}

Fields encodeLeaseInfo(const LeaseInfo& info) {
    Fields data;
    data.set("held", std::to_string(info.heldFans));
    data.set("lease_ms", std::to_string(info.expiryMs));
    return data;
}

Decoded<LeaseInfo> decodeLeaseInfo(const Fields& data) {
    FieldReader reader(data);
    LeaseInfo info;
    if (auto held = reader.integer("held", 0, kMaxListEntries, true)) {
        info.heldFans = static_cast<int>(*held);
    }
    if (auto lease = reader.integer("lease_ms", 1, kMaxLeaseMs, true)) {
        info.expiryMs = static_cast<int>(*lease);
    }
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<LeaseInfo>::failure(std::move(error));
    }
    return Decoded<LeaseInfo>::success(info);
}

Fields encodeConfigInfo(const ConfigInfo& info) {
    Fields data;
    if (!info.file.empty()) data.set("file", info.file);
    std::size_t count = 0;
    for (const auto& [identity, duty] : info.floors) {
        if (!validIdentity(identity) || duty < 0 || duty > kMaxPWM || count >= kMaxListEntries)
            continue;
        data.set(indexedKey("floor", count, "fan"), identity);
        data.set(indexedKey("floor", count, "pwm"), std::to_string(duty));
        ++count;
    }
    data.set("floors", std::to_string(count));
    count = 0;
    for (const std::string& identity : info.forbidden) {
        if (!validIdentity(identity) || count >= kMaxListEntries) continue;
        data.set(indexedKey("forbidden", count, "fan"), identity);
        ++count;
    }
    data.set("forbidden", std::to_string(count));
    data.set("sleep_handling", info.sleepHandling ? "1" : "0");
    return data;
}

Decoded<ConfigInfo> decodeConfigInfo(const Fields& data) {
    FieldReader reader(data);
    ConfigInfo info;
    if (const std::string* file = reader.optional("file")) {
        if (file->empty() || file->size() > kMaxCounterPathLength) {
            reader.fail("field 'file' must be 1-" + std::to_string(kMaxCounterPathLength) +
                        " characters");
        } else {
            info.file = *file;
        }
    }
    const auto floors = reader.integer("floors", 0, kMaxListEntries, true);
    for (long long i = 0; floors && i < *floors && !reader.failed(); ++i) {
        const auto index = static_cast<std::size_t>(i);
        auto identity = reader.identity(indexedKey("floor", index, "fan"));
        auto duty = reader.integer(indexedKey("floor", index, "pwm"), 0, kMaxPWM, true);
        if (identity && duty) info.floors.emplace_back(*identity, static_cast<int>(*duty));
    }
    const auto forbidden = reader.integer("forbidden", 0, kMaxListEntries, true);
    for (long long i = 0; forbidden && i < *forbidden && !reader.failed(); ++i) {
        if (auto identity =
                reader.identity(indexedKey("forbidden", static_cast<std::size_t>(i), "fan"))) {
            info.forbidden.push_back(*identity);
        }
    }
    if (auto flag = reader.flag("sleep_handling")) info.sleepHandling = *flag;
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<ConfigInfo>::failure(std::move(error));
    }
    return Decoded<ConfigInfo>::success(std::move(info));
}

Fields encodeAppliedPWM(int pwm) {
    Fields data;
    data.set("pwm", std::to_string(pwm));
    return data;
}

Decoded<int> decodeAppliedPWM(const Fields& data) {
    FieldReader reader(data);
    const auto pwm = reader.integer("pwm", 0, kMaxPWM, true);
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<int>::failure(std::move(error));
    }
    return Decoded<int>::success(static_cast<int>(*pwm));
}

Fields encodeCounterValue(std::uint64_t value) {
    Fields data;
    data.set("value", std::to_string(value));
    return data;
}

Decoded<std::uint64_t> decodeCounterValue(const Fields& data) {
    FieldReader reader(data);
    std::optional<unsigned long long> value;
    if (const std::string* text = reader.required("value")) {
        value = parseUnsigned(*text);
        if (!value) reader.fail("field 'value' is not a counter value: " + quoted(*text));
    }
    if (std::string error = reader.finish(); !error.empty()) {
        return Decoded<std::uint64_t>::failure(std::move(error));
    }
    return Decoded<std::uint64_t>::success(static_cast<std::uint64_t>(*value));
}

}  // namespace kelvo::helper_protocol
