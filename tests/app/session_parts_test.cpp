// The decisions of a session that need no clock of their own: keyframes, pacing, settings.

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <random>

#include "app/session/capture_selection.h"
#include "app/session/end_reason.h"
#include "app/session/feedback_handler.h"
#include "app/session/frame_pacer.h"
#include "app/session/frame_phase.h"
#include "app/session/keyframe_requests.h"
#include "app/session/stream_settings.h"
#include "launcher/client/feedback_packets.h"
#include "support/environment.h"
#include "support/log_capture.h"
#include "support/xvfb.h"
#include "tui/board/board.h"

namespace ox {
namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;

const SteadyClock::time_point kStart{1000s};

/// Whether a request has been accepted. Far enough from the last call for the rate limit.
bool take_accepted(KeyframeRequests& keyframes) {
    static auto now = kStart;
    keyframes.apply(now += 2s);
    return keyframes.take_forced();
}

TEST(KeyframeRequests, AKeyframeInFlightAnswersThem) {
    const std::tuple<float, int64_t, bool> cases[] = {
        {20, 169'999, true},    {20, 170'000, false},   {0, 249'999, true},
        {0, 250'000, false},    {-1, 249'999, true},    {999, 1'148'999, true},
        {1000, 250'000, false}, {999, 1'149'000, false}};
    for (const auto& [rtt_ms, after_us, in_flight] : cases) {
        KeyframeRequests keyframes;
        keyframes.sent(kStart);
        keyframes.request(kStart + microseconds(after_us), rtt_ms);
        EXPECT_EQ(take_accepted(keyframes), !in_flight) << rtt_ms << " " << after_us;
        EXPECT_EQ(keyframes.answered_in_flight(), in_flight ? 1U : 0U);
    }
    // None is in flight before the first one, however early the clock.
    KeyframeRequests fresh;
    fresh.request(SteadyClock::time_point(10us), 0);
    EXPECT_TRUE(take_accepted(fresh));
}

TEST(KeyframeRequests, AreServedAtMostOnceASecond) {
    KeyframeRequests keyframes;
    const auto forced_at = [&](SteadyClock::duration after) {
        keyframes.apply(kStart + after);
        return keyframes.take_forced();
    };
    EXPECT_FALSE(forced_at(0s));
    keyframes.request(kStart, 0);
    EXPECT_TRUE(forced_at(0s));
    keyframes.request(kStart, 0);
    EXPECT_FALSE(forced_at(999'999'999ns)) << "waits for the end of the second";
    EXPECT_TRUE(forced_at(1s));
    EXPECT_FALSE(forced_at(3s)) << "once for each request";
    keyframes.request(kStart, 0);
    keyframes.sent(kStart + 3s);
    EXPECT_FALSE(forced_at(4s)) << "any keyframe answers a request";
    keyframes.force_now();
    EXPECT_TRUE(forced_at(4s));
    keyframes.request(kStart + 4s, 0);
    EXPECT_TRUE(forced_at(4s)) << "what was forced otherwise does not count";
    EXPECT_EQ(keyframes.forced(), 3U);
}

TEST(FeedbackHandler, RequestsKeyframesButForValidRfiRequestsAtMostOnceASecond) {
    const InputPacket plain = launcher::make_keyframe_request();
    const InputPacket valid = launcher::make_lost_frames_request(
        {.last_delivered = 7, .first_missing = 8, .last_missing = 9, .attempt = 1});
    const InputPacket rejected = launcher::make_lost_frames_request(
        {.last_delivered = 7, .first_missing = 9, .last_missing = 9, .attempt = 1});
    const InputPacket report =
        launcher::make_media_feedback({.rtt_ms = 31, .keyframe_wanted = true});
    FeedbackHandler handler;
    handler.keyframes().sent(kStart);
    const std::tuple<InputPacket, int64_t, bool> steps[] = {
        {plain, 100'000, false},    {valid, 100'000, false},   {rejected, 100'000, false},
        {report, 100'000, false},   {report, 1'000'000, true}, {valid, 4'000'000, true},
        {valid, 4'999'999, false},  {valid, 5'000'000, true},  {plain, 5'000'001, true},
        {rejected, 5'000'002, true}};
    for (const auto& [packet, at_us, accepted] : steps) {
        handler.handle(packet, kStart + microseconds(at_us));
        EXPECT_EQ(take_accepted(handler.keyframes()), accepted) << +packet.kind << " at " << at_us;
    }
    EXPECT_EQ(handler.keyframes().answered_in_flight(), 4U);
    EXPECT_EQ(handler.rfi_counters().valid, 4U);
}

TEST(FeedbackHandler, MediaFeedbackReplacesTheStatsForTwoSeconds) {
    FeedbackHandler handler;
    const ClientStats stats{.rtt_ms = 8, .packet_loss_pct = 0.5};
    const auto shown = [&] { return std::pair(handler.rtt_ms(), handler.loss_pct()); };
    handler.handle(stats, kStart);
    EXPECT_EQ(shown(), std::pair(8.0F, 0.5F));
    handler.handle(launcher::make_media_feedback({.loss_pct = 1.25, .rtt_ms = 31}), kStart + 1s);
    handler.handle(stats, kStart + 2'999'999us);
    EXPECT_EQ(shown(), std::pair(31.0F, 1.25F));
    handler.handle(stats, kStart + 3s);
    EXPECT_EQ(shown(), std::pair(8.0F, 0.5F));
}

TEST(EndReason, NamesTheFailureOfTheHandshake) {
    const std::pair<HandshakeFailure, const char*> rows[] = {
        {HandshakeFailure::cannot_listen, "handshake_failed:AUTH_FAIL"},
        {HandshakeFailure::cannot_answer, "handshake_failed:AUTH_FAIL"},
        {HandshakeFailure::rejected, "handshake_failed:AUTH_REJECTED"},
        {HandshakeFailure::timed_out, "handshake_failed:HANDSHAKE_TIMEOUT"},
        {HandshakeFailure::aborted, "handshake_failed:SESSION_ABORTED"}};
    for (const auto& [failure, text] : rows)
        EXPECT_EQ(to_string({EndReason::handshake_failed, failure}), text);
    EXPECT_EQ(to_string({EndReason::shutdown, HandshakeFailure::timed_out}), "shutdown");
}

using std::chrono::nanoseconds;

TEST(FramePacer, CatchesUpWithinFourIntervalsAndRestartsBeyond) {
    FramePacer pacer(50, kStart);  // 20 ms
    EXPECT_EQ(pacer.next_deadline(), kStart + 20ms);
    pacer.arrived(kStart + 100ms);  // exactly four late: the schedule stands
    EXPECT_EQ(pacer.next_deadline(), kStart + 40ms);
    const auto late = kStart + 120ms + 1ns;
    pacer.arrived(late);
    EXPECT_EQ(pacer.next_deadline(), late + 20ms);
    pacer.reset(kStart + 500ms);
    EXPECT_EQ(pacer.next_deadline(), kStart + 520ms);
}

/// Mean age of the newest picture at each capture from the third second on, in ms, beside a source
/// of `hz` (0: it reports no changes) that pauses between the fourth and the sixth second. Also
/// checks the frame rate.
double mean_age_ms(double hz, double jitter_ms, bool pauses, double start_ms, bool steered) {
    constexpr int kFrames = 60 * 12;
    constexpr double kIntervalMs = 1000.0 / 60;
    const auto at = [](double ms) { return kStart + nanoseconds(std::llround(ms * 1e6)); };
    const auto ms = [](auto span) {
        return std::chrono::duration<double, std::milli>(span).count();
    };
    std::minstd_rand random(7);
    std::uniform_real_distribution<double> jitter(-jitter_ms, jitter_ms);
    FramePacer pacer(60, at(start_ms));
    FramePhase phase(60);
    auto newest = kStart;
    auto last = at(start_ms);
    int pictures = 0;
    double next_ms = 0;
    double ages_ms = 0;
    int counted = 0;
    for (int frame = 1; frame <= kFrames; ++frame) {
        if (steered) pacer.shift(phase.step(pacer.upcoming()));
        const auto now = pacer.next_deadline();
        EXPECT_GT(ms(now - last), kIntervalMs * 0.98);
        EXPECT_LT(ms(now - last), kIntervalMs * 1.25);
        last = now;
        for (; hz > 0 && at(next_ms) <= now; ++pictures) {
            const bool paused = pauses && next_ms > 4000 && next_ms < 6000;
            if (!paused) phase.changed(newest = at(next_ms));
            next_ms = pictures * 1000 / hz + jitter(random);
        }
        if (frame < 180 || ms(now - newest) > 100) continue;  // a pause
        ages_ms += ms(now - newest);
        ++counted;
    }
    EXPECT_NEAR(ms(last - at(start_ms)), kFrames * kIntervalMs, kFrames * kIntervalMs / 100);
    EXPECT_TRUE(hz > 0 || last == at(start_ms) + 12s);
    return counted == 0 ? 0 : ages_ms / counted;
}

TEST(FramePhase, PicturesAreCapturedSoonAfterTheyChangedAtAnyRate) {
    // Unsteered, the worst phase at 60 Hz makes the mean age 16 ms.
    const std::tuple<double, double, bool, double> sources[] = {
        {60, 0, false, 0.8},   {60, 0.3, false, 1.7},  {59.94, 0.1, false, 0.8},
        {30, 0.2, false, 9.3}, {120, 0.2, false, 1.0}, {144, 0.2, false, 3.8},
        {60, 4, false, 5},     {60, 0.3, true, 1.7},   {59.2, 0.1, false, 8.7},
        {0, 0, false, 0},
    };
    for (const auto& [hz, jitter_ms, pauses, at_most_ms] : sources) {
        for (double start_ms = 0.5; start_ms < 16.7; start_ms += 2.7) {
            SCOPED_TRACE(std::to_string(hz) + " Hz, start " + std::to_string(start_ms));
            const double steered = mean_age_ms(hz, jitter_ms, pauses, start_ms, true);
            EXPECT_LE(steered, at_most_ms);
            EXPECT_LE(steered, mean_age_ms(hz, jitter_ms, pauses, start_ms, false) + 1);
        }
    }
}

TEST(StreamSettings, ClampTheRequestOfTheLauncher) {
    // Codec, width, height, frame rate, kbit/s.
    const std::tuple<std::array<int32_t, 5>, VideoCodec, std::array<uint32_t, 4>> cases[] = {
        {{0, 1920, 1080, 60, 15000}, VideoCodec::H264, {1920, 1080, 60, 15000}},
        {{1, 8000, 8000, 500, 50}, VideoCodec::Hevc, {4096, 4096, 120, 200}},
        {{2, 1367, 769, 0, 999'999}, VideoCodec::H264, {1366, 768, 1, 200'000}},
        {{-7, INT_MIN, 17, -1, INT_MIN}, VideoCodec::H264, {16, 16, 1, 200}},
        {{INT_MAX, INT_MAX, 0, INT_MAX, INT_MAX}, VideoCodec::H264, {4096, 16, 120, 200'000}},
    };
    for (const auto& [asked, codec, clamped] : cases) {
        const EncoderSettings got = encoder_settings({.codec = asked[0],
                                                      .width = asked[1],
                                                      .height = asked[2],
                                                      .fps = asked[3],
                                                      .bitrate = asked[4]},
                                                     EncoderBackend::Software);
        EXPECT_EQ(got.codec, codec);
        EXPECT_EQ((std::array{got.width, got.height, got.fps, got.bitrate_kbps}), clamped);
        // Half as much again as the bitrate, without overflow at the top.
        EXPECT_EQ(uint64_t{pacing_rate_bps(got.bitrate_kbps)}, uint64_t{got.bitrate_kbps} * 1500);
    }
}

TEST(CaptureSelection, TheNextBestPictureTakesThePlaceOfOneThatCannotBeHad) {
    const test::Environment no_bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    const auto server = test::Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    const std::string no_automatic =
        "Session: automatic capture unavailable — falling back to synthetic";
    const std::string to_x11 = "Session: portal capture failed — falling back to X11";
    using enum CaptureBackend;
    const std::tuple<CaptureBackend, const char*, std::string, std::string, std::string> cases[] = {
        {Auto, "x11", server->display(), "", "auto"},
        {Auto, "wayland", server->display(), no_automatic, "synthetic"},
        {Portal, "x11", server->display(), to_x11, "x11"},
        {Portal, "wayland", ":64999", to_x11, "synthetic"},
        {X11, "wayland", server->display(), "", "x11"},
        {X11, "x11", ":64999", "", ""}};
    for (const auto& [mode, session_type, display, warning, backend] : cases) {
        const test::LogCapture log;
        tui::board().update([](tui::Snapshot& state) { state.alerts = {}; });
        const Desktop desktop{.session_type = session_type, .display = display};
        const auto capture = select_capture({.backend = mode,
                                             .desktop = desktop,
                                             .synthetic_width = 320,
                                             .synthetic_height = 200})
                                 .capture;
        EXPECT_EQ(capture != nullptr, backend != "");
        EXPECT_EQ(log.count("WARN", warning), warning.empty() ? 0 : 1) << log.text();
        EXPECT_EQ(log.times("Session: capture backend = " + backend + "\n"),
                  backend.empty() ? 0 : 1);
        EXPECT_EQ(tui::board().snapshot().alerts.at(static_cast<size_t>(tui::Alert::CaptureFailed)),
                  backend.empty() || warning == no_automatic);
    }
    // Nothing takes the place of what nobody waits for any more.
    const CaptureRequest cancelled{
        .backend = Portal, .synthetic_width = 320, .synthetic_height = 200, .cancelled = [] {
            return true;
        }};
    EXPECT_EQ(select_capture(cancelled).capture, nullptr);
}

}  // namespace
}  // namespace ox
