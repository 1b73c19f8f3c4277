#include "video/video_encoder.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "log/log.h"
#include "video/codec_session.h"
#include "video/encode_backlog.h"
#include "video/encoder_diagnosis.h"
#include "video/encoder_options.h"
#include "video/graphics_facts.h"
#include "video/libav_log.h"
#include "video/picture_converter.h"

namespace ox {

struct VideoEncoder::Impl {
    /// Opens one encoder with the current settings; its name becomes the encoder's. A failure is
    /// kept for `explain_failures`.
    bool open_with(const EncoderChoice& choice);
    void explain_failures(bool wanted);
    bool convert(const uint8_t* pixels, uint32_t source_width, uint32_t source_height);

    EncoderSettings settings;
    const EncoderChoice* choice = nullptr;  // of the open session
    std::string name;
    std::unique_ptr<CodecSession> session;  // null while closed
    std::optional<PictureConverter> converter;
    EncodeBacklog backlog;
    std::vector<EncoderFailure> failures;
};

bool VideoEncoder::Impl::open_with(const EncoderChoice& wanted) {
    const LibavLogTape tape;
    int error = 0;
    session = CodecSession::open_with(wanted, settings, error);
    if (!session) {
        failures.push_back({.choice = &wanted, .error = error, .said = tape.text()});
        return false;
    }
    choice = &wanted;
    name = wanted.name;
    converter.emplace(session->picture_format(), settings.width, settings.height);
    return true;
}

/// One line for each encoder that did not open: a warning when one of them was `wanted`, else, as
/// another serves, news only where the PC has the hardware.
void VideoEncoder::Impl::explain_failures(bool wanted) {
    if (failures.empty()) return;
    const GraphicsFacts facts = read_graphics_facts();
    for (const EncoderFailure& failure : failures) {
        const auto [reason, no_hardware] = diagnose(failure, facts);
        const std::string line =
            std::string(failure.choice->name) + ": " + reason.cause + " — " + reason.remedy;
        if (wanted) {
            OX_WARN("VideoEncoder: %s", line.c_str());
        } else if (no_hardware) {
            OX_DEBUG("VideoEncoder: %s", line.c_str());
        } else {
            OX_INFO("VideoEncoder: %s", line.c_str());
        }
    }
    failures.clear();
}

bool VideoEncoder::Impl::convert(const uint8_t* pixels, uint32_t source_width,
                                 uint32_t source_height) {
    if (!converter->ensure_input_ready(source_width, source_height)) return false;
    AVFrame* picture = session->writable_picture();
    return picture != nullptr && converter->convert(pixels, *picture);
}

VideoEncoder::VideoEncoder() : impl_(std::make_unique<Impl>()) {
    route_libav_log();
}

VideoEncoder::~VideoEncoder() = default;

bool VideoEncoder::init(const EncoderSettings& settings) {
    shutdown();
    impl_->settings = settings;
    for (const EncoderChoice& choice : encoder_ladder(settings.codec)) {
        if (settings.backend != EncoderBackend::Auto && settings.backend != choice.backend) {
            continue;
        }
        if (impl_->open_with(choice)) {
            impl_->explain_failures(false);
            OX_INFO("VideoEncoder: using %s (%s %ux%u @%ufps %ukbps)", choice.name,
                    settings.codec == VideoCodec::Hevc ? "hevc" : "h264", settings.width,
                    settings.height, settings.fps, settings.bitrate_kbps);
            return true;
        }
        OX_WARN("VideoEncoder: %s unavailable — trying next backend", choice.name);
        shutdown();
    }
    impl_->explain_failures(true);
    OX_ERROR("VideoEncoder: no encoder available for codec %d", static_cast<int>(settings.codec));
    return false;
}

bool VideoEncoder::encode_bgra(const uint8_t* pixels, uint32_t source_width, uint32_t source_height,
                               uint64_t timestamp, EncodedFrame& out) {
    if (!impl_->session || pixels == nullptr || source_width == 0 || source_height == 0) {
        return false;
    }
    out.width = impl_->settings.width;
    out.height = impl_->settings.height;
    if (impl_->backlog.pop(out)) {
        out.encoded_at = steady_now_us();
        return true;
    }

    out.data.clear();
    out.keyframe = false;
    out.timestamp = timestamp;
    if (!impl_->convert(pixels, source_width, source_height)) return false;
    const bool keyframe = force_idr.exchange(false);
    if (keyframe) OX_DEBUG("VideoEncoder: forcing IDR");
    CodecSession& session = *impl_->session;
    if (!session.send_picture(keyframe, timestamp)) return false;
    while (const AVPacket* packet = session.receive_packet()) {
        if (!impl_->backlog.deliver({packet->data, static_cast<size_t>(packet->size)},
                                    (packet->flags & AV_PKT_FLAG_KEY) != 0,
                                    session.captured_at(*packet), out)) {
            OX_WARN("VideoEncoder: output backlog full — dropped a frame, forcing an IDR");
            force_idr = true;
        }
    }
    out.encoded_at = steady_now_us();
    return !session.failed();
}

bool VideoEncoder::reconfigure_bitrate(uint32_t kbps) {
    if (!impl_->session) return false;
    impl_->settings.bitrate_kbps = kbps;
    OX_INFO("VideoEncoder: reconfigure bitrate → %ukbps (re-init %s)", kbps, name().c_str());
    const EncoderChoice& choice = *impl_->choice;
    shutdown();
    if (!impl_->open_with(choice)) {
        impl_->explain_failures(true);
        return false;
    }
    force_idr = true;
    return true;
}

void VideoEncoder::shutdown() {
    impl_->backlog.clear();
    impl_->converter.reset();
    impl_->session.reset();
    impl_->choice = nullptr;
    impl_->name.clear();
}

bool VideoEncoder::can_invalidate_refs() const {
    return impl_->session && impl_->choice->invalidates_refs;
}

bool VideoEncoder::any_backend_invalidates_refs() {
    const auto invalidates = [](VideoCodec codec) {
        return std::ranges::any_of(encoder_ladder(codec), &EncoderChoice::invalidates_refs);
    };
    return invalidates(VideoCodec::H264) || invalidates(VideoCodec::Hevc);
}

bool VideoEncoder::invalidate_refs(uint32_t /*first*/, uint32_t /*last*/) {
    return false;
}

const char* VideoEncoder::rfi_status() const {
    return can_invalidate_refs() ? "reference invalidation"
                                 : "no reference invalidation API; IDR path";
}

const std::string& VideoEncoder::name() const {
    return impl_->name;
}

}  // namespace ox
