#include <algorithm>
#include <optional>
#include <string_view>

#include "app/options.h"
#include "app/selftest/groups.h"
#include "app/selftest/launcher_side.h"
#include "app/selftest/scoped_variable.h"
#include "app/session/feedback_handler.h"
#include "app/session/stream_settings.h"
#include "audio/audio_headers.h"
#include "audio/audioparity.h"
#include "base/byte_order.h"
#include "control/capabilities.h"
#include "input/feedback.h"
#include "input/input_datagram.h"
#include "transport/packetizer.h"
#include "video/video_encoder.h"

namespace ox::selftest {
namespace {

constexpr int64_t kNowUs = 90'000'000;
constexpr uint8_t kRecoveryPoint = 0x10;

struct Request {
    uint32_t last_delivered;
    uint32_t first_missing;
    uint32_t last_missing;
    uint8_t flags;
    uint8_t attempt;
};
constexpr Request kValid{.last_delivered = 0x01020304,
                         .first_missing = 0x01020305,
                         .last_missing = 0x01020309,
                         .flags = 0x01,
                         .attempt = 2};

/// An input packet of kind 7 in the bytes of the wire; the request begins at byte 12.
InputBytes request_bytes(const Request& request) {
    InputBytes bytes{1, 7, 9};
    store_le<uint32_t>(bytes.data() + 12, request.last_delivered);
    store_le<uint32_t>(bytes.data() + 16, request.first_missing);
    store_le<uint32_t>(bytes.data() + 20, request.last_missing);
    bytes[24] = request.flags;
    bytes[25] = request.attempt;
    return bytes;
}

std::optional<InputPacket> through_the_wire(const InputBytes& bytes) {
    const Key key = test_key(6);
    const Bytes datagram = seal_input_as_launcher(key, bytes);
    InputPacket packet;
    if (datagram.size() != 56 || !open_input_datagram(key.data(), datagram, packet)) {
        return std::nullopt;
    }
    return packet;
}

bool media_rfi_by_default() {
    constexpr const char* kProgram = "orvex-agent";
    const CommandLine line = parse_command_line(1, &kProgram, option_defaults_from_environment());
    return std::get<RunRequest>(line).options.media_rfi;
}

struct SwitchWord {
    const char* text;
    bool on;
};
constexpr std::array<SwitchWord, 12> kSwitchWords{{{"1", true},
                                                   {"on", true},
                                                   {"true", true},
                                                   {"yes", true},
                                                   {"enabled", true},
                                                   {"Enabled", true},
                                                   {"YES", true},
                                                   {"0", false},
                                                   {"off", false},
                                                   {"no", false},
                                                   {"2", false},
                                                   {"", false}}};

void check_switch() {
    const ScopedVariable variable("OX_MEDIA_RFI");
    check(!media_rfi_by_default() && !parse_media_rfi_switch(nullptr),
          "OX_MEDIA_RFI unset keeps RFI off");
    check(std::ranges::all_of(kSwitchWords,
                              [&](const SwitchWord& word) {
                                  variable.set(word.text);
                                  return media_rfi_by_default() == word.on;
                              }),
          "explicit on/off values parse");
    const ScopedVariable parity("OX_AUDIO_PARITY");
    check(std::ranges::all_of(kSwitchWords,
                              [&](const SwitchWord& word) {
                                  parity.set(word.text);
                                  const OptionDefaults defaults =
                                      option_defaults_from_environment();
                                  return defaults.audio_parity == word.on &&
                                         parse_media_rfi_switch(word.text) == word.on;
                              }),
          "RFI env switch parser is shared with P6 (off/on)");
}

/// Neither a kind of packet nor a frame that is sent today carries the bit.
bool recovery_flag_is_free() {
    using namespace packet_flags;
    uint8_t used = KEYFRAME | FEC_PACKET | AUDIO | LAST_IN_FRAME | AUDIO_PARITY;
    Packetizer packetizer;
    packetizer.set_repair_ratio(0.1F);
    for (const bool keyframe : {false, true}) {
        EncodedFrame frame;
        frame.data.assign(5000, 1);
        frame.keyframe = keyframe;
        std::vector<OutgoingPacket> packets;
        packetizer.packetize(frame, kStreamVideo, packets);
        for (const OutgoingPacket& packet : packets)
            used |= packet.header.flags;
    }
    used |= audio_data_header(0, 0).flags;
    used |= audio_repair_header(0, 0, 0).flags;
    return (used & kRecoveryPoint) == 0;
}

bool request_fits() {
    InputBytes only_last_byte{1, 7};
    only_last_byte.back() = 1;
    const auto packet = through_the_wire(only_last_byte);
    return InputPacket::kPayloadOffset == 12 && InputPacket::kPayloadBytes == 16 && packet &&
           !parse_rfi_request(*packet).all_zero && grant_caps(caps::RFI, caps::RFI) == caps::RFI;
}

bool valid_request_survives() {
    const auto packet = through_the_wire(request_bytes(kValid));
    if (!packet || packet->kind != 7 || packet->seq != 9) return false;
    const RfiRequest request = parse_rfi_request(*packet);
    return request.last_delivered == kValid.last_delivered &&
           request.first_missing == kValid.first_missing &&
           request.last_missing == kValid.last_missing && request.epoch && request.attempt == 2 &&
           !request.all_zero && rfi_rejection(request).empty();
}

/// What the session makes of one packet of a launcher.
struct Reaction {
    bool keyframe = false;
    FeedbackHandler::RfiCounters counters;
};

std::optional<Reaction> react(const InputBytes& bytes) {
    const auto packet = through_the_wire(bytes);
    if (!packet || !is_feedback(packet->kind)) return std::nullopt;
    SessionSignals signals;
    FeedbackHandler handler(signals);
    handler.handle(*packet, kNowUs);
    return Reaction{signals.keyframe_requested, handler.rfi_counters()};
}

bool legacy_request_asks_for_keyframe() {
    constexpr InputBytes kAllZero{1, 7};
    const auto packet = through_the_wire(kAllZero);
    const auto plain = react({1, 6});
    const auto zero = react(kAllZero);
    return packet && parse_rfi_request(*packet).all_zero && plain && plain->keyframe && zero &&
           zero->keyframe && zero->counters.requests == 1 && zero->counters.valid == 0 &&
           zero->counters.idr_fallbacks == 0;
}

bool is_refused(const Request& request, std::string_view reason) {
    const InputBytes bytes = request_bytes(request);
    const auto packet = through_the_wire(bytes);
    const auto reaction = react(bytes);
    return packet && rfi_rejection(parse_rfi_request(*packet)) == reason && reaction &&
           reaction->keyframe && reaction->counters.valid == 0;
}

bool refusals_fall_back() {
    const auto valid = react(request_bytes(kValid));
    return is_refused({0, 1, 1, 1, 0}, "last_delivered == 0") &&
           is_refused({UINT32_MAX, 0, 0, 1, 0}, "last_delivered + 1 overflows") &&
           is_refused({7, 9, 9, 1, 0}, "first_missing != L + 1") &&
           is_refused({7, 8, 7, 1, 0}, "last_missing < first_missing") &&
           is_refused({7, 8, 8 + 255, 1, 0}, "span > 255") &&
           is_refused({7, 8, 8, 0xFE, 0}, "epoch bit unset") &&
           is_refused({7, 8, 8, 1, 3}, "attempt > 2") && valid && valid->keyframe &&
           valid->counters.valid == 1 && valid->counters.idr_fallbacks == 1;
}

void check_backend() {
    VideoEncoder encoder;
    const bool ready = encoder.init({.codec = VideoCodec::H264,
                                     .backend = EncoderBackend::Software,
                                     .width = 320,
                                     .height = 180,
                                     .fps = 60,
                                     .bitrate_kbps = 1000});
    check(ready, "software encoder init for the RFI capability probe");
    check(ready && !encoder.can_invalidate_refs() && !VideoEncoder::any_backend_invalidates_refs(),
          "no backend in this build exposes reference invalidation");
    check(ready && !encoder.invalidate_refs(kValid.first_missing, kValid.last_missing),
          "invalidate_refs refuses instead of pretending");
    check(grant_caps(UINT32_MAX, host_caps(true)) == 0,
          "the agent grants caps=0 while no backend can invalidate");
}

}  // namespace

void check_reference_invalidation() {
    check_switch();
    check(packet_flags::RECOVERY_POINT == kRecoveryPoint &&
              packet_flags::RECOVERY_POINT != packet_flags::KEYFRAME && recovery_flag_is_free(),
          "P5 flag is 0x10, free and never an IDR");
    check(request_fits(), "P5 caps + 16-byte request fit the unchanged 28-byte input packet");
    check(sizeof(InputPacket) == 28 && through_the_wire(request_bytes(kValid)).has_value(),
          "the RFI payload does not resize the input packet");
    check(valid_request_survives(), "valid RFI request round-trips through InputPacket");
    check(legacy_request_asks_for_keyframe(),
          "an old launcher's all-zero payload is still a legacy IDR request");
    check(refusals_fall_back(), "RFI is refused with a reason and falls back to IDR");
    check_backend();
}

}  // namespace ox::selftest
