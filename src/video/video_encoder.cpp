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
namespace {

constexpr const char* kUsualRenderNode = "/dev/dri/renderD128";
constexpr uint64_t kSlowPictureUs = 1'000'000;

}  // namespace

struct VideoEncoder::Impl {
    /// Walks the ladder, past `tried`.
    bool open_any(const EncoderChoice* tried);
    /// Opens one encoder with the current settings, on whichever card has it; its name becomes the
    /// encoder's. A failure is kept for `explain_failures`.
    bool open_with(const EncoderChoice& wanted);
    bool open_vaapi(const EncoderChoice& wanted);
    /// One attempt; its failure goes to `attempts`.
    bool open_on(const EncoderChoice& wanted, const std::string& node,
                 std::vector<EncoderFailure>& attempts);
    void close();
    void explain_failures(bool wanted);
    void explain_breakdown(const LibavLogTape& tape);
    void watch_speed(uint64_t began_at, uint64_t ended_at);
    bool convert(const uint8_t* pixels, uint64_t content);

    EncoderSettings settings;
    const EncoderChoice* choice = nullptr;  // of the open session
    std::string name;
    std::string node;                       // render node of the open session, or of the last one
    std::unique_ptr<CodecSession> session;  // null while closed
    std::optional<PictureConverter> converter;
    uint64_t converted = 0;  // the content that the session's picture holds; 0: not known
    EncodeBacklog backlog;
    std::vector<EncoderFailure> failures;
    bool told_slow = false;
};

bool VideoEncoder::Impl::open_any(const EncoderChoice* tried) {
    for (const EncoderChoice& entry : encoder_ladder(settings.codec)) {
        if (&entry == tried) continue;
        if (settings.backend != EncoderBackend::Auto && settings.backend != entry.backend) continue;
        if (open_with(entry)) {
            explain_failures(false);
            OX_INFO("VideoEncoder: using %s (%s %ux%u @%ufps %ukbps)", entry.name,
                    settings.codec == VideoCodec::Hevc ? "hevc" : "h264", settings.width,
                    settings.height, settings.fps, settings.bitrate_kbps);
            return true;
        }
        OX_WARN("VideoEncoder: %s unavailable — trying next backend", entry.name);
    }
    explain_failures(true);
    return false;
}

bool VideoEncoder::Impl::open_with(const EncoderChoice& wanted) {
    if (wanted.input == EncoderInput::VaapiSurface) return open_vaapi(wanted);
    return open_on(wanted, {}, failures);
}

bool VideoEncoder::Impl::open_vaapi(const EncoderChoice& wanted) {
    std::vector<EncoderFailure> attempts;
    if (open_on(wanted, kUsualRenderNode, attempts)) return true;
    const bool had_card = attempts.back().stage == EncoderStage::Opening;
    if (!had_card && open_on(wanted, {}, attempts)) return true;
    // The usual node may be a card that does not encode.
    const GraphicsFacts facts = read_graphics_facts();
    for (const RenderNode& other : facts.nodes) {
        if (other.path != kUsualRenderNode && open_on(wanted, other.path, attempts)) return true;
    }
    const auto lacks_device = [](const EncoderFailure& attempt) {
        return attempt.stage == EncoderStage::Device;
    };
    if (std::ranges::all_of(attempts, lacks_device)) {
        OX_DEBUG("VideoEncoder: no VAAPI device (/dev/dri missing?)");
    }
    failures.push_back(most_telling(attempts, facts));
    return false;
}

bool VideoEncoder::Impl::open_on(const EncoderChoice& wanted, const std::string& on,
                                 std::vector<EncoderFailure>& attempts) {
    const LibavLogTape tape;
    EncoderFailure failure;
    session = CodecSession::open_with(wanted, settings, on, failure);
    if (!session) {
        failure.said = tape.text();
        failure.errors = tape.errors();
        attempts.push_back(std::move(failure));
        return false;
    }
    choice = &wanted;
    name = wanted.name;
    node = on;
    if (!on.empty() && on != kUsualRenderNode) {
        OX_INFO("VideoEncoder: %s on %s", wanted.name, on.c_str());
    }
    converter.emplace(session->picture_format(), settings.width, settings.height);
    told_slow = false;
    converted = 0;
    return true;
}

void VideoEncoder::Impl::close() {
    converter.reset();
    session.reset();
    choice = nullptr;
    name.clear();
}

/// One line for each encoder that failed: a warning when one of them was `wanted`, else, as
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

/// Why the open encoder does not go on.
void VideoEncoder::Impl::explain_breakdown(const LibavLogTape& tape) {
    failures.push_back({.choice = choice,
                        .stage = EncoderStage::Streaming,
                        .error = session->error(),
                        .node = node,
                        .said = tape.text(),
                        .errors = tape.errors()});
    explain_failures(true);
}

/// A card that hangs shows as a picture that stands still: says so once.
void VideoEncoder::Impl::watch_speed(uint64_t began_at, uint64_t ended_at) {
    if (told_slow || ended_at - began_at < kSlowPictureUs) return;
    told_slow = true;
    OX_WARN("VideoEncoder: %s took %.1f s for one picture", name.c_str(),
            static_cast<double>(ended_at - began_at) / 1e6);
}

/// False when the session has failed.
bool VideoEncoder::Impl::convert(const uint8_t* pixels, uint64_t content) {
    if (content != 0 && content == converted) return true;
    converted = 0;
    AVFrame* picture = session->writable_picture();
    if (picture == nullptr || !converter->convert(pixels, *picture)) return false;
    converted = content;
    return true;
}

VideoEncoder::VideoEncoder() : impl_(std::make_unique<Impl>()) {
    route_libav_log();
}

VideoEncoder::~VideoEncoder() = default;

bool VideoEncoder::init(const EncoderSettings& settings) {
    shutdown();
    impl_->settings = settings;
    if (impl_->open_any(nullptr)) return true;
    OX_ERROR("VideoEncoder: no encoder available for codec %d", static_cast<int>(settings.codec));
    return false;
}

bool VideoEncoder::encode_bgra(const uint8_t* pixels, uint32_t source_width, uint32_t source_height,
                               uint64_t timestamp, EncodedFrame& out, uint64_t content) {
    if (!impl_->session || pixels == nullptr || source_width == 0 || source_height == 0) {
        return false;
    }
    out.width = impl_->settings.width;
    out.height = impl_->settings.height;
    const uint64_t began_at = steady_now_us();
    if (impl_->backlog.pop(out)) {
        out.encoded_at = began_at;
        return true;
    }

    out.data.clear();
    out.keyframe = false;
    out.timestamp = timestamp;
    if (!impl_->converter->ensure_input_ready(source_width, source_height)) return false;
    const LibavLogTape tape;
    if (!encode(pixels, timestamp, content, out)) {
        impl_->explain_breakdown(tape);
        return false;
    }
    out.encoded_at = steady_now_us();
    impl_->watch_speed(began_at, out.encoded_at);
    return true;
}

/// False when the session has failed.
bool VideoEncoder::encode(const uint8_t* pixels, uint64_t timestamp, uint64_t content,
                          EncodedFrame& out) {
    CodecSession& session = *impl_->session;
    if (!impl_->convert(pixels, content)) return false;
    const bool keyframe = force_idr.exchange(false);
    if (keyframe) OX_DEBUG("VideoEncoder: forcing IDR");
    if (!session.send_picture(keyframe, timestamp)) return false;
    while (const AVPacket* packet = session.receive_packet()) {
        if (!impl_->backlog.deliver({packet->data, static_cast<size_t>(packet->size)},
                                    (packet->flags & AV_PKT_FLAG_KEY) != 0,
                                    session.captured_at(*packet), out)) {
            OX_WARN("VideoEncoder: output backlog full — dropped a frame, forcing an IDR");
            force_idr = true;
        }
    }
    return session.error() == 0;
}

bool VideoEncoder::reconfigure_bitrate(uint32_t kbps) {
    if (!impl_->session) return false;
    const EncoderChoice& choice = *impl_->choice;
    const std::string node = impl_->node;
    const uint32_t before = impl_->settings.bitrate_kbps;
    OX_INFO("VideoEncoder: reconfigure bitrate → %ukbps (re-init %s)", kbps, name().c_str());
    const auto reopen = [&](uint32_t at_kbps) {
        impl_->settings.bitrate_kbps = at_kbps;
        return impl_->open_on(choice, node, impl_->failures);
    };
    // What it has given out already is still to be sent.
    impl_->close();
    bool open = reopen(kbps);
    if (!open) {
        impl_->explain_failures(true);
        open = reopen(before);
        if (open) {
            OX_WARN("VideoEncoder: %s refuses %ukbps and goes on at %ukbps", choice.name, kbps,
                    before);
        } else {
            impl_->failures.clear();
            impl_->settings.bitrate_kbps = kbps;
            open = impl_->open_any(&choice);
        }
    }
    if (open) force_idr = true;
    return open;
}

uint32_t VideoEncoder::bitrate_kbps() const {
    return impl_->settings.bitrate_kbps;
}

void VideoEncoder::shutdown() {
    impl_->backlog.clear();
    impl_->close();
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
