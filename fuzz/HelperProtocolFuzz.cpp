// libFuzzer target for the helper protocol's decoders: whatever bytes a peer sends, decoding
// must end in a value or an error (the sanitizers catch anything else), and whatever decodes
// must encode back to the same value.
//
// Build: CXX=clang++ cmake -DKELVO_BUILD_FUZZERS=ON ...; ninja helper_protocol_fuzz
// Run:   ./helper/helper_protocol_fuzz -max_total_time=30
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/helper_protocol/HelperProtocol.h"

namespace {

namespace hp = kelvo::helper_protocol;

void require(bool condition) {
    if (!condition) __builtin_trap();
}

void checkReplyData(const hp::Fields& data) {
    if (auto inventory = hp::decodeInventory(data); inventory.ok()) {
        const auto again = hp::decodeInventory(hp::encodeInventory(*inventory.value));
        require(again.ok() && *again.value == *inventory.value);
    }
    if (auto version = hp::decodeVersionInfo(data); version.ok()) {
        const auto again = hp::decodeVersionInfo(hp::encodeVersionInfo(*version.value));
        require(again.ok() && *again.value == *version.value);
    }
    if (auto lease = hp::decodeLeaseInfo(data); lease.ok()) {
        const auto again = hp::decodeLeaseInfo(hp::encodeLeaseInfo(*lease.value));
        require(again.ok() && *again.value == *lease.value);
    }
    if (auto pwm = hp::decodeAppliedPWM(data); pwm.ok()) {
        require(hp::decodeAppliedPWM(hp::encodeAppliedPWM(*pwm.value)).value == pwm.value);
    }
    if (auto counter = hp::decodeCounterValue(data); counter.ok()) {
        require(hp::decodeCounterValue(hp::encodeCounterValue(*counter.value)).value ==
                counter.value);
    }
}

void checkPayload(std::string_view payload) {
    if (auto fields = hp::parseFields(payload); fields.ok()) {
        require(hp::encodeFields(*fields.value) == payload);
    }
    if (auto request = hp::decodeRequest(payload); request.ok()) {
        const auto again = hp::decodeRequest(hp::encodeRequest(*request.value));
        require(again.ok() && *again.value == *request.value);
    }
    if (auto reply = hp::decodeReply(payload); reply.ok()) {
        const auto again = hp::decodeReply(hp::encodeReply(*reply.value));
        require(again.ok() && *again.value == *reply.value);
        if (reply.value->ok) checkReplyData(reply.value->data);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    if (auto frame = hp::decodeFrame(bytes); frame.ok()) {
        require(hp::encodeFrame(*frame.value) == bytes);
        checkPayload(*frame.value);
    }

    // The stream reader must take the same bytes however they are split; the first byte picks
    // the split.
    const std::size_t split = size == 0 ? 0 : static_cast<unsigned char>(bytes[0]) % (size + 1);
    hp::FrameReader reader;
    const auto drain = [&reader] {
        for (auto next = reader.next(); next.status == hp::FrameReader::Status::frame;
             next = reader.next()) {
            require(next.payload.size() <= hp::kMaxPayloadSize);
            checkPayload(next.payload);
        }
    };
    reader.append(bytes.substr(0, split));
    drain();
    reader.append(bytes.substr(split));
    drain();

    checkPayload(bytes);
    return 0;
}
