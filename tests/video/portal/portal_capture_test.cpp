// The desktop portal's capture against a real bus, PipeWire daemon and session manager; the portal
// and the compositor are the tests' own.
#include "video/portal/portal_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/pipewire_source.h"
#include "support/screen_pictures.h"
#include "support/unix_socket.h"
#include "support/wayland_test.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

// For what is expected to happen, on a machine as busy as can be.
constexpr auto kPatience = 60s;
// For what is expected not to happen.
constexpr auto kShort = 400ms;

PortalLimits patient() {
    PortalLimits limits;
    limits.create_session = limits.select_sources = limits.start_with_token =
        limits.start_without_token = limits.open_remote = limits.first_frame_with_token =
            limits.first_frame_without_token = kPatience;
    return limits;
}

/// Tells byte by byte whether pictures are the synthetic ones, in order.
class SyntheticReference {
  public:
    SyntheticReference(uint32_t width, uint32_t height) : next_(moving_pictures(width, height)) {
        next_(expected_);
    }

    /// Whether `frame` is the present reference picture or a later one (of the next thousand).
    bool matches(const CapturedFrame& frame) {
        if (frame.width != expected_.width || frame.height != expected_.height) return false;
        for (int step = 0; step < 1000; ++step, next_(expected_)) {
            if (!std::equal(expected_.data.begin(), expected_.data.end(), frame.pixels())) continue;
            pictures_ += step > 0 ? 1 : 0;
            return true;
        }
        return false;
    }
    [[nodiscard]] int pictures() const { return pictures_; }

  private:
    ScreenPictures next_;
    CapturedFrame expected_;
    int pictures_ = 0;
};

class Portal : public WaylandTest {
  protected:
    [[nodiscard]] PortalCapture::Config config() const {
        return {.bus_address = desktop_->bus_address(),
                .token_file = token_file_,
                .limits = patient(),
                .cancelled = {}};
    }
    /// Those that came in, in order, but for Close.
    [[nodiscard]] std::vector<std::string> calls() const {
        std::vector<std::string> names;
        for (const auto& line : desktop_->portal_report().lines()) {
            if (!line.starts_with("Close")) names.push_back(line.substr(0, line.find(' ')));
        }
        return names;
    }

    TempDir dir_;
    RestoreTokenFile token_file_{dir_.file("config/orvex/portal_restore_token")};
};

constexpr const char* kNotApproved =
    "PortalCapture: screen sharing was not approved in time. Either approve the dialog once on "
    "this machine, run an X11 session, or capture a dedicated virtual display for unattended "
    "hosts.";

TEST_F(Portal, EveryCallThatFailsIsToldAndNothingElseIsAsked) {
    using Limits = PortalLimits;
    const struct {
        std::string behaviour, error;
        bool not_approved = false;
        std::chrono::milliseconds Limits::*short_limit = nullptr;
    } cases[] = {
        {"CreateSession=2", "portal refused CreateSession (response=2)"},
        {"CreateSession=fail", "CreateSession returned no request handle"},
        {"CreateSession=empty", "CreateSession did not return a session handle"},
        {"CreateSession=mute", "no Response for CreateSession within 400 ms", false,
         &Limits::create_session},
        {"SelectSources=silent", "no Response for SelectSources within 400 ms", false,
         &Limits::select_sources},
        {"Start=1", "portal refused Start (response=1)", true},
        {"Start=silent", "no Response for Start within 400 ms", true, &Limits::start_without_token},
        {"Start=empty", "Start returned no stream node"},
        {"OpenPipeWireRemote=fail", "OpenPipeWireRemote returned no fd"},
    };
    for (const auto& [behaviour, error, not_approved, short_limit] : cases) {
        SCOPED_TRACE(behaviour);
        start_portal(0, {behaviour});
        auto with = config();
        if (short_limit != nullptr) with.limits.*short_limit = kShort;
        PortalCapture capture(with);
        const LogCapture log;
        EXPECT_FALSE(capture.init());
        EXPECT_EQ(log.count("ERROR", "PortalCapture: " + error), 1) << log.text();
        EXPECT_EQ(log.count("ERROR", kNotApproved), not_approved ? 1 : 0) << log.text();
        EXPECT_EQ(log.times("[ERROR]"), not_approved ? 2 : 1) << log.text();
        // A dialog that nobody waits for any more, and the session, are closed.
        const std::string last_call = behaviour.substr(0, behaviour.find('='));
        const size_t sessions = last_call == "CreateSession" ? 0 : 1;
        const size_t abandoned = short_limit != nullptr ? 1 : 0;
        EXPECT_TRUE(eventually([&] {
            const auto& report = desktop_->portal_report();
            return report.count("Close Request") == abandoned &&
                   report.count("Close Session") == sessions;
        }));
        ASSERT_FALSE(calls().empty());
        EXPECT_EQ(calls().back(), last_call);
        CapturedFrame frame;
        EXPECT_EQ(capture.capture_frame(frame), 1);
        EXPECT_TRUE(frame.empty());
    }
    desktop_->kill_portal();
    const LogCapture log;
    EXPECT_FALSE(PortalCapture(config()).init()) << "without a portal";
    EXPECT_EQ(log.count("ERROR", "PortalCapture: CreateSession returned no request handle"), 1)
        << log.text();
    desktop_->kill_bus();
    EXPECT_FALSE(PortalCapture(config()).init()) << "without a bus";
    EXPECT_EQ(log.times("PortalCapture: no session bus: Failed to connect to socket"), 1);
}

TEST_F(Portal, SharesWithWhateverOrderOfAnswersAndRemembersTheToken) {
    PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180));
    const LogCapture log;
    start_portal(source.node(), {"CreateSession=early", "SelectSources=early", "Start=early",
                                 "foreign", "token=first token"});
    {
        PortalCapture capture(config());
        ASSERT_TRUE(capture.init()) << log.text();
        EXPECT_EQ(capture.width(), 320U);
        EXPECT_EQ(capture.height(), 180U);
        EXPECT_EQ(desktop_->portal_report().count(
                      "SelectSources cursor_mode=2 multiple=0 persist_mode=2 types=1"),
                  1U);
        EXPECT_EQ(desktop_->portal_report().count("Start parent="), 1U);
        for (const std::string& line :
             {"first run on this machine — approve the screen-share dialog once; the choice is "
              "stored in " +
                  token_file_.path() + " and reused afterwards",
              std::string("restore token saved (next sessions skip the dialog)"),
              std::string("negotiated 320x180 BGRx"), std::string("PipeWire stream is streaming"),
              "streaming 320x180 (node=" + std::to_string(source.node()) + ")"}) {
            EXPECT_EQ(log.times("PortalCapture: " + line + "\n"), 1) << log.text();
        }
    }
    EXPECT_EQ(log.times("the last picture stays") + log.times("[ERROR]"), 0) << log.text();
    EXPECT_EQ(token_file_.read(), "first token");

    start_portal(source.node(), {"foreign", "token=second token"});
    ASSERT_TRUE(PortalCapture(config()).init()) << log.text();
    EXPECT_EQ(log.count("INFO", "PortalCapture: using saved restore token"), 1);
    EXPECT_EQ(desktop_->portal_report().count("restore_token=first token "), 1U);
    EXPECT_EQ(token_file_.read(), "second token");

    // One that the portal cannot read is forgotten, and the next Start waits for the user again.
    start_portal(source.node(), {"no-token"});
    auto with = config();
    with.limits.start_with_token = 0ms;
    ASSERT_TRUE(PortalCapture(with).init()) << log.text();
    EXPECT_THAT(calls(), ElementsAre("ready", "CreateSession", "SelectSources", "SelectSources",
                                     "Start", "OpenPipeWireRemote"));
    EXPECT_EQ(token_file_.read(), std::nullopt);

    // A folder that cannot be written costs the token only.
    start_portal(source.node(), {"token=third token"});
    with = config();
    with.token_file = RestoreTokenFile("/proc/orvex/portal_restore_token");
    ASSERT_TRUE(PortalCapture(with).init()) << log.text();
    EXPECT_EQ(log.count("WARN",
                        "PortalCapture: cannot persist restore token to "
                        "/proc/orvex/portal_restore_token"),
              1);
}

TEST_F(Portal, PicturesArriveToTheByteHoweverTheyLieInMemoryAndFollowTheMonitorsSize) {
    for (const PipewireSource::Setup setup :
         {PipewireSource::Setup{}, {.padding = 3}, {.padding = 16, .blanks = true}}) {
        SCOPED_TRACE(setup.padding);
        std::atomic<bool> changed{false};
        PipewireSource source(
            desktop_->pipewire_socket(),
            [&, old = moving_pictures(301, 177), next = moving_pictures(500, 90)](
                CapturedFrame& frame) { return changed ? next(frame) : old(frame); },
            setup);
        start_portal(source.node());
        const LogCapture log;
        PortalCapture capture(config());
        ASSERT_TRUE(capture.init()) << log.text();
        CapturedFrame kept;
        ASSERT_EQ(capture.capture_frame(kept), 0);
        const std::vector<uint8_t> copy(kept.pixels(), kept.pixels() + size_t{4} * 301 * 177);
        SyntheticReference before(301, 177);
        SyntheticReference after(500, 90);
        CapturedFrame frame;
        bool faithful = before.matches(kept);
        EXPECT_TRUE(eventually(
            [&] {
                EXPECT_EQ(capture.capture_frame(frame), 0);
                changed = before.pictures() >= 20;
                faithful = faithful && (frame.width == 301 ? before : after).matches(frame);
                return !faithful || after.pictures() >= 20;
            },
            kPatience));
        EXPECT_TRUE(faithful);
        EXPECT_EQ(frame.timestamp, 0U);
        EXPECT_EQ(capture.width(), 500U);
        EXPECT_EQ(capture.height(), 90U);
        EXPECT_EQ(log.count("INFO", "PortalCapture: negotiated 500x90 BGRx"), 1) << log.text();
        capture.shutdown();
        capture.shutdown();
        EXPECT_EQ(capture.capture_frame(frame), 1);
        // What was lent stays readable, and as it was.
        EXPECT_TRUE(std::equal(copy.begin(), copy.end(), kept.pixels()));
        EXPECT_TRUE(after.matches(frame));
    }
}

TEST_F(Portal, WhatCannotBeReadGivesNoFrame) {
    const LogCapture log;
    PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180), {.bgrx = false});
    start_portal(source.node());
    auto with = config();
    with.limits.first_frame_without_token = kShort;
    EXPECT_FALSE(PortalCapture(with).init());
    EXPECT_EQ(log.count("ERROR",
                        "PortalCapture: no frame arrived — screen sharing was not approved, or "
                        "the compositor stopped the capture"),
              1)
        << log.text();
    // A node that is not there: no other takes its place, and nobody waits for it.
    PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(320, 180));
    start_portal(camera.node() + 1000);
    EXPECT_FALSE(PortalCapture(config()).init());
    EXPECT_FALSE(camera.streaming());
}

TEST_F(Portal, WhenTheScreenGoesItsLastPictureStaysAndNothingElseIsShown) {
    PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(64, 64));
    // A desktop that shows one picture, and nothing new after it.
    auto screen = std::make_unique<PipewireSource>(
        desktop_->pipewire_socket(),
        [asked = 0, pictures = moving_pictures(320, 180)](CapturedFrame& frame) mutable {
            return asked++ < 2 && pictures(frame);
        });
    start_portal(screen->node());
    const LogCapture log;
    PortalCapture capture(config());
    ASSERT_TRUE(capture.init()) << log.text();
    const auto shows_the_screen = [&] {
        CapturedFrame frame;
        return capture.capture_frame(frame) == 0 && SyntheticReference(320, 180).matches(frame);
    };
    EXPECT_TRUE(shows_the_screen());
    const auto stops = [&] { return log.times("the last picture stays"); };
    EXPECT_EQ(stops(), 0);
    screen.reset();
    EXPECT_TRUE(eventually([&] { return stops() == 1; }, kPatience)) << log.text();
    desktop_->kill_portal();
    desktop_->kill_pipewire();
    desktop_->kill_bus();
    EXPECT_FALSE(eventually([&] { return camera.streaming(); }, kShort));
    EXPECT_TRUE(shows_the_screen());
    EXPECT_EQ(stops(), 1) << log.text();
}

TEST_F(Portal, CancellingEndsEveryWait) {
    // Has a picture to be connected with, and never shows it.
    PipewireSource source(
        desktop_->pipewire_socket(),
        [first = true, pictures = moving_pictures(320, 180)](CapturedFrame& frame) mutable {
            return std::exchange(first, false) && pictures(frame);
        });
    const UniqueFd silent_bus = listen_unix(dir_.file("silent"));
    struct Case {
        const char* behaviour;
        std::string last_call;
        size_t dialogs;
    };
    for (const auto& [behaviour, last_call, dialogs] :
         {Case{"silent bus", "ready", 0}, Case{"CreateSession=mute", "CreateSession", 1},
          Case{"Start=silent", "Start", 1}, Case{"no frame", "OpenPipeWireRemote", 0}}) {
        SCOPED_TRACE(behaviour);
        start_portal(source.node(), {behaviour});
        std::atomic<bool> cancelled{false}, ended{false};
        std::atomic<int> asked{0};
        auto with = config();
        with.cancelled = [&] {
            ++asked;
            return cancelled.load();
        };
        if (last_call == "ready") with.bus_address = "unix:path=" + dir_.file("silent");
        const LogCapture log;
        PortalCapture capture(with);
        std::jthread owner([&] {
            EXPECT_FALSE(capture.init());
            ended = true;
        });
        EXPECT_TRUE(eventually([&] { return desktop_->portal_report().count(last_call) == 1; }));
        // What the portal has answered is taken in, and the next wait has begun.
        EXPECT_TRUE(eventually([&, before = asked.load()] { return asked >= before + 3; }));
        EXPECT_FALSE(ended);
        cancelled = true;
        EXPECT_TRUE(eventually([&] { return ended.load(); }, 2s));
        EXPECT_TRUE(eventually(
            [&] { return desktop_->portal_report().count("Close Request") == dialogs; }));
        EXPECT_EQ(log.times("[ERROR]"), 0) << log.text();
    }
}

}  // namespace
}  // namespace ox::test
