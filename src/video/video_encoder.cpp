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
#include "video/encoder_ladder.h"
#include "video/graphics_facts.h"
#include "video/libav.h"
#include "video/picture_converter.h"

namespace ox {
namespace {

constexpr const char* kDefaultRenderNode = "/dev/dri/renderD128";
constexpr uint64_t kSlowPictureUs = 1'000'000;

/// A BGRA picture; `content` identifies its pixels, 0: unknown.
struct SourcePicture {
    const uint8_t* pixels;
    uint32_t width;
    uint32_t height;
    uint64_t content;
};

}  // namespace

struct VideoEncoder::Impl {
    /// Tries the ladder, but not `excluded`.
    bool open_any(const EncoderChoice* excluded);
    /// Opens one encoder with the current settings, on any card that has it.
    bool open_choice(const EncoderChoice& wanted);
    bool open_vaapi(const EncoderChoice& wanted);
    /// One attempt on one card; adds its failure to `attempts`.
    bool open_on(const EncoderChoice& wanted, const std::string& on_node,
                 std::vector<EncoderFailure>& attempts);
    void close();
    /// Converts a picture into the session's, unless that has it already.
    PictureConverter::Result convert(const SourcePicture& source);
    bool encode(std::atomic<bool>& forced, EncodedFrame& out);
    /// One line for each of `failures`, which it empties. While another encoder works, they are
    /// worth INFO at most.
    void log_failures(bool another_works);
    void log_breakdown(const LibavLogCapture& libav_log);
    void warn_if_slow(uint64_t began_at, uint64_t ended_at);

    EncoderSettings settings;
    const EncoderChoice* choice = nullptr;  // of the open session
    std::string name;
    std::string node;                       // render node of the open session, or of the last one
    std::unique_ptr<CodecSession> session;  // null while closed
    std::optional<PictureConverter> converter;
    uint64_t converted = 0;  // content of the session's picture; 0: unknown
    EncodeBacklog backlog;
    std::vector<EncoderFailure> failures;
    bool slow_warned = false;
};

bool VideoEncoder::Impl::open_any(const EncoderChoice* excluded) {
    for (const EncoderChoice& entry : encoder_ladder(settings.codec)) {
        if (&entry == excluded) continue;
        if (settings.backend != EncoderBackend::Auto && settings.backend != entry.backend) continue;
        if (open_choice(entry)) {
            log_failures(true);
            OX_INFO("VideoEncoder: using %s (%s %ux%u @%ufps %ukbps)", entry.name,
                    codec_info(settings.codec).option_name, settings.width, settings.height,
                    settings.fps, settings.bitrate_kbps);
            return true;
        }
        OX_WARN("VideoEncoder: %s unavailable — trying next backend", entry.name);
    }
    log_failures(false);
    return false;
}

bool VideoEncoder::Impl::open_choice(const EncoderChoice& wanted) {
    if (wanted.input == EncoderInput::VaapiSurface) return open_vaapi(wanted);
    return open_on(wanted, {}, failures);
}

bool VideoEncoder::Impl::open_vaapi(const EncoderChoice& wanted) {
    std::vector<EncoderFailure> attempts;
    if (open_on(wanted, kDefaultRenderNode, attempts)) return true;
    const bool had_card = attempts.back().stage == EncoderStage::Opening;
    if (!had_card && open_on(wanted, {}, attempts)) return true;
    // The default node may be a card that does not encode.
    const GraphicsFacts facts = read_graphics_facts();
    for (const RenderNode& other : facts.nodes) {
        if (other.path != kDefaultRenderNode && open_on(wanted, other.path, attempts)) return true;
    }
    const auto lacks_device = [](const EncoderFailure& attempt) {
        return attempt.stage == EncoderStage::Device;
    };
    if (std::ranges::all_of(attempts, lacks_device)) {
        OX_DEBUG("VideoEncoder: no VAAPI device (/dev/dri missing?)");
    }
    failures.push_back(most_informative(attempts, facts));
    return false;
}

bool VideoEncoder::Impl::open_on(const EncoderChoice& wanted, const std::string& on_node,
                                 std::vector<EncoderFailure>& attempts) {
    session.reset();
    auto opened = CodecSession::open(wanted, settings, on_node);
    if (auto* failure = std::get_if<EncoderFailure>(&opened)) {
        attempts.push_back(std::move(*failure));
        return false;
    }
    session = std::get<std::unique_ptr<CodecSession>>(std::move(opened));
    choice = &wanted;
    name = wanted.name;
    node = on_node;
    if (!on_node.empty() && on_node != kDefaultRenderNode) {
        OX_INFO("VideoEncoder: %s on %s", wanted.name, on_node.c_str());
    }
    converter.emplace(session->picture_format(), settings.width, settings.height);
    slow_warned = false;
    converted = 0;
    return true;
}

void VideoEncoder::Impl::close() {
    converter.reset();
    session.reset();
    choice = nullptr;
    name.clear();
}

void VideoEncoder::Impl::log_failures(bool another_works) {
    if (failures.empty()) return;
    const GraphicsFacts facts = read_graphics_facts();
    for (const EncoderFailure& failure : failures) {
        const auto [reason, no_hardware] = diagnose(failure, facts);
        const std::string line = std::string(failure.choice->name) + ": " + reason.log_text();
        if (!another_works) {
            OX_WARN("VideoEncoder: %s", line.c_str());
        } else if (no_hardware) {
            OX_DEBUG("VideoEncoder: %s", line.c_str());
        } else {
            OX_INFO("VideoEncoder: %s", line.c_str());
        }
    }
    failures.clear();
}

/// Logs why the open encoder failed.
void VideoEncoder::Impl::log_breakdown(const LibavLogCapture& libav_log) {
    failures.push_back({.choice = choice,
                        .stage = EncoderStage::Streaming,
                        .error = session->error(),
                        .node = node,
                        .messages = libav_log.messages(),
                        .errors = libav_log.errors()});
    log_failures(false);
}

/// Once per session: a card that hangs looks like a stopped picture.
void VideoEncoder::Impl::warn_if_slow(uint64_t began_at, uint64_t ended_at) {
    if (slow_warned || ended_at - began_at < kSlowPictureUs) return;
    slow_warned = true;
    OX_WARN("VideoEncoder: %s took %.1f s for one picture", name.c_str(),
            static_cast<double>(ended_at - began_at) / 1e6);
}

PictureConverter::Result VideoEncoder::Impl::convert(const SourcePicture& source) {
    using Result = PictureConverter::Result;
    if (source.content != 0 && source.content == converted) return Result::Converted;
    converted = 0;
    AVFrame* picture = session->writable_picture();
    if (picture == nullptr) return Result::Failed;
    const Result result = converter->convert(source.pixels, source.width, source.height, *picture);
    if (result == Result::Converted) converted = source.content;
    return result;
}

/// Encodes the session's picture. False when the session has failed.
bool VideoEncoder::Impl::encode(std::atomic<bool>& forced, EncodedFrame& out) {
    const bool keyframe = forced.exchange(false);
    if (keyframe) OX_DEBUG("VideoEncoder: forcing IDR");
    if (!session->send_picture(keyframe, out.timestamp)) return false;
    while (const AVPacket* packet = session->receive_packet()) {
        if (!backlog.deliver({packet->data, static_cast<size_t>(packet->size)},
                             (packet->flags & AV_PKT_FLAG_KEY) != 0, session->captured_at(*packet),
                             out)) {
            OX_WARN("VideoEncoder: output backlog full — dropped a frame, forcing an IDR");
            forced = true;
        }
    }
    return session->error() == 0;
}

VideoEncoder::VideoEncoder() : impl_(std::make_unique<Impl>()) {}

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
    using Result = PictureConverter::Result;
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
    const LibavLogCapture libav_log;
    const Result converted = impl_->convert({pixels, source_width, source_height, content});
    if (converted == Result::BadSize) return false;
    if (converted == Result::Failed || !impl_->encode(force_idr, out)) {
        impl_->log_breakdown(libav_log);
        return false;
    }
    out.encoded_at = steady_now_us();
    impl_->warn_if_slow(began_at, out.encoded_at);
    return true;
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
    impl_->close();  // but keeps the backlog, which is still to be sent
    bool open = reopen(kbps);
    if (!open) {
        impl_->log_failures(false);
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
    return std::ranges::any_of(kVideoCodecs, [](VideoCodec codec) {
        return std::ranges::any_of(encoder_ladder(codec), &EncoderChoice::invalidates_refs);
    });
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
