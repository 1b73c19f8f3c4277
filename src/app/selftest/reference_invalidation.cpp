#include <algorithm>
#include <string_view>

#include "app/options.h"
#include "app/selftest/checks.h"
#include "app/session/feedback_handler.h"
#include "app/session/stream_settings.h"
#include "audio/audio_packetizer.h"
#include "base/byte_order.h"
#include "base/clock.h"
#include "control/auth_line.h"
#include "input/input_packet.h"
#include "video/video_encoder.h"

namespace ox::selftest {
namespace {

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

/// A packet as the agent receives it; empty when it cannot be opened.
InputPacket receive(const InputBytes& bytes) {
    const Key key = test_key(6);
    InputPacket packet;
    return open_input_datagram(key.data(), seal_input(key, bytes), packet) ? packet : InputPacket{};
}

bool media_rfi_by_default() {
    return parse_command_line({}, default_options()).options.media_rfi;
}

/// The first seven mean on.
constexpr std::array<const char*, 12> kSwitchWords{"1",   "on", "true", "yes", "enabled", "Enabled",
                                                   "YES", "0",  "off",  "no",  "2",       ""};

void check_switch() {
    const ScopedVariable variable("OX_MEDIA_RFI");
    const ScopedVariable parity("OX_AUDIO_PARITY");
    check(!media_rfi_by_default() && !parse_media_rfi_switch(nullptr),
          "OX_MEDIA_RFI unset keeps RFI off");
    bool parses = true;
    bool is_shared = true;
    for (size_t i = 0; i < kSwitchWords.size(); ++i) {
        const char* word = kSwitchWords.at(i);
        const bool on = i < 7;
        variable.set(word);
        parity.set(word);
        parses = parses && media_rfi_by_default() == on;
        is_shared =
            is_shared && default_options().audio_parity == on && parse_media_rfi_switch(word) == on;
    }
    check(parses, "explicit on/off values parse");
    check(is_shared, "RFI env switch parser is shared with P6 (off/on)");
}

/// No packet that is sent carries the bit.
bool recovery_flag_is_free() {
    using namespace packet_flags;
    uint8_t used = KEYFRAME | FEC_PACKET | AUDIO | LAST_IN_FRAME | AUDIO_PARITY |
                   audio_data_header(0, 0).flags | audio_repair_header(0, 0, 0).flags;
    for (const bool keyframe : {false, true}) {
        for (const OutgoingPacket& packet : packetize_test_frame(keyframe, 0.1F))
            used |= packet.header.flags;
    }
    return RECOVERY_POINT == 0x10 && (used & RECOVERY_POINT) == 0;
}

bool request_fits() {
    InputBytes only_last_byte{1, 7};
    only_last_byte.back() = 1;
    return InputPacket::kPayloadOffset == 12 && InputPacket::kPayloadBytes == 16 &&
           !parse_rfi_request(receive(only_last_byte)).all_zero &&
           grant_caps(caps::RFI, caps::RFI) == caps::RFI;
}

bool valid_request_survives() {
    const InputPacket packet = receive(request_bytes(kValid));
    const RfiRequest request = parse_rfi_request(packet);
    return packet.kind == 7 && packet.seq == 9 && request.last_delivered == kValid.last_delivered &&
           request.first_missing == kValid.first_missing &&
           request.last_missing == kValid.last_missing && request.epoch && request.attempt == 2 &&
           !request.all_zero && rfi_rejection(request).empty();
}

/// What the session does about a packet.
struct Reaction {
    bool keyframe = false;
    FeedbackHandler::RfiCounters counters;
};

Reaction react(const InputBytes& bytes) {
    constexpr SteadyClock::time_point kNow{std::chrono::seconds(90)};
    FeedbackHandler handler;
    handler.handle(receive(bytes), kNow);
    handler.keyframes().apply(kNow);
    return {handler.keyframes().take_forced(), handler.rfi_counters()};
}

bool legacy_request_asks_for_keyframe() {
    constexpr InputBytes kAllZero{1, 7};
    const Reaction zero = react(kAllZero);
    return parse_rfi_request(receive(kAllZero)).all_zero && react({1, 6}).keyframe &&
           zero.keyframe && zero.counters.requests == 1 && zero.counters.valid == 0 &&
           zero.counters.idr_fallbacks == 0;
}

bool is_refused(const Request& request, std::string_view reason) {
    const InputBytes bytes = request_bytes(request);
    const Reaction reaction = react(bytes);
    return rfi_rejection(parse_rfi_request(receive(bytes))) == reason && reaction.keyframe &&
           reaction.counters.valid == 0;
}

bool refusals_fall_back() {
    const Reaction valid = react(request_bytes(kValid));
    return is_refused({0, 1, 1, 1, 0}, "last_delivered == 0") &&
           is_refused({UINT32_MAX, 0, 0, 1, 0}, "last_delivered + 1 overflows") &&
           is_refused({7, 9, 9, 1, 0}, "first_missing != L + 1") &&
           is_refused({7, 8, 7, 1, 0}, "last_missing < first_missing") &&
           is_refused({7, 8, 8 + 255, 1, 0}, "span > 255") &&
           is_refused({7, 8, 8, 0xFE, 0}, "epoch bit unset") &&
           is_refused({7, 8, 8, 1, 3}, "attempt > 2") && valid.keyframe &&
           valid.counters.valid == 1 && valid.counters.idr_fallbacks == 1;
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
    check(packet_flags::RECOVERY_POINT != packet_flags::KEYFRAME && recovery_flag_is_free(),
          "P5 flag is 0x10, free and never an IDR");
    check(request_fits(), "P5 caps + 16-byte request fit the unchanged 28-byte input packet");
    check(sizeof(InputPacket) == 28 && receive(request_bytes(kValid)).kind == 7,
          "the RFI payload does not resize the input packet");
    check(valid_request_survives(), "valid RFI request round-trips through InputPacket");
    check(legacy_request_asks_for_keyframe(),
          "an old launcher's all-zero payload is still a legacy IDR request");
    check(refusals_fall_back(), "RFI is refused with a reason and falls back to IDR");
    check_backend();
}

}  // namespace ox::selftest
