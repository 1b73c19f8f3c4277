#include "check/session_checks.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "app/session/capture_selection.h"
#include "base/clock.h"
#include "base/encoded_frame.h"
#include "check/default_output.h"
#include "check/portal_probe.h"
#include "video/capture_factory.h"
#include "video/encoder_ladder.h"
#include "video/video_encoder.h"

namespace ox {
namespace {

bool never() {
    return false;
}

/// Gives the open encoder more pictures than any of the ladder holds back.
bool gives_pictures(VideoEncoder& encoder, const EncoderSettings& settings) {
    constexpr int kPictures = 5;
    std::vector<uint8_t> pixels;
    resize_with_slack(pixels, size_t{settings.width} * settings.height * 4);
    for (int i = 0; i < kPictures; ++i) {
        EncodedFrame frame;
        if (!encoder.encode_bgra(pixels.data(), settings.width, settings.height, steady_now_us(),
                                 frame)) {
            return false;
        }
        if (!frame.data.empty()) return true;
    }
    return false;
}

bool encodes_on_processor(const std::string& name, VideoCodec codec) {
    return std::ranges::any_of(encoder_ladder(codec), [&](const EncoderChoice& choice) {
        return choice.name == name && choice.backend == EncoderBackend::Software;
    });
}

std::string check_x11(const Desktop& desktop) {
    const auto capture =
        make_capture({.backend = CaptureBackend::X11, .desktop = desktop, .cancelled = never});
    CapturedFrame frame;
    if (!capture->init() || capture->capture_frame(frame) != 0) return "none";
    const char* usual = std::getenv("DISPLAY");
    const std::string name = desktop.display.empty() && usual != nullptr ? usual : desktop.display;
    return "x11 " + name + " " + std::to_string(frame.width) + "x" + std::to_string(frame.height);
}

std::string check_portal() {
    constexpr std::chrono::seconds kLimit{5};
    switch (probe_portal("", RestoreTokenFile::of_user(), kLimit)) {
        case PortalAnswer::Missing:
            return "portal-missing";
        case PortalAnswer::Asks:
            return "portal-asks";
        case PortalAnswer::KnowsToken:
            break;
    }
    return "portal-knows";
}

}  // namespace

std::string check_encoder(const Options& options) {
    const EncoderSettings settings{
        .codec = options.codec, .backend = options.encoder, .width = 1280, .height = 720};
    VideoEncoder encoder;
    if (!encoder.init(settings)) return "none";
    const std::string name = encoder.name();
    if (!gives_pictures(encoder, settings)) return "fails " + name;
    if (!encodes_on_processor(name, options.codec)) return "hardware " + name;
    return (options.encoder == EncoderBackend::Software ? "processor " : "only-processor ") + name;
}

std::string check_picture(const Options& options) {
    if (options.capture == CaptureBackend::Synthetic) return "test";
    const Desktop desktop = desktop_for(options, never);
    if (!uses_portal({.backend = options.capture, .desktop = desktop})) return check_x11(desktop);
    std::string answer = check_portal();
    // The way of a session: a portal that was asked for by name has X11 behind it.
    if (answer == "portal-missing" && options.capture == CaptureBackend::Portal) {
        if (std::string x11 = check_x11(desktop); x11 != "none") return x11;
    }
    return answer;
}

std::string check_sound(const Options& options) {
    constexpr std::chrono::seconds kLimit{3};
    if (!options.audio) return "off";
    const DefaultOutput output = read_default_output(kLimit);
    if (!output.server) return "no-server";
    if (output.monitor.empty()) return "no-output";
    return (output.muted ? "muted " : "monitor ") + output.monitor;
}

bool is_playable(const std::string& encoder, const std::string& picture) {
    const auto begins_with_one_of = [](std::string_view text, auto words) {
        return std::ranges::any_of(words, [&](const char* word) { return text.starts_with(word); });
    };
    return begins_with_one_of(encoder, std::array{"hardware ", "processor ", "only-processor "}) &&
           begins_with_one_of(picture, std::array{"x11 ", "portal-knows", "test"});
}

}  // namespace ox
