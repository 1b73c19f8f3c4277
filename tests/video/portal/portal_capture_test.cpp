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
#include "support/wayland_desktop.h"

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
    SyntheticReference(uint32_t width, uint32_t height) : reference_(width, height) {
        reference_.init();
        reference_.capture_frame(expected_);
    }

    /// Whether `frame` is the present reference picture or a later one (of the next thousand).
    bool matches(const CapturedFrame& frame) {
        if (frame.width != expected_.width || frame.height != expected_.height) return false;
        for (int step = 0; step < 1000; ++step) {
            if (std::equal(expected_.data.begin(), expected_.data.end(), frame.pixels())) {
                pictures_ += step > 0 ? 1 : 0;
                return true;
            }
            reference_.capture_frame(expected_);
        }
        return false;
    }
    [[nodiscard]] int pictures() const { return pictures_; }

  private:
    SyntheticCapture reference_;
    CapturedFrame expected_;
    int pictures_ = 0;
};

class Portal : public testing::Test {
  protected:
    void SetUp() override {
        desktop_ = WaylandDesktop::start();
        if (!desktop_) GTEST_SKIP() << "no session bus or PipeWire daemon on this machine";
    }

    /// Starts the portal for a source's node; with it, all that `behaviours` say.
    void start_portal(uint32_t node, std::vector<std::string> behaviours = {}) {
        behaviours.push_back("node=" + std::to_string(node));
        ASSERT_TRUE(desktop_->start_portal(behaviours));
    }
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

    std::unique_ptr<WaylandDesktop> desktop_;
    TempDir dir_;
    RestoreTokenFile token_file_{dir_.file("config/orvex/portal_restore_token")};
};

constexpr const char* kNotApproved =
    "PortalCapture: screen sharing was not approved in time. Either approve the dialog once on "
    "this "
    "machine, run an X11 session, or capture a dedicated virtual display for unattended hosts.";

TEST_F(Portal, EveryCallThatFailsIsToldAndNothingElseIsAsked) {
    struct Case {
        const char* behaviour;
        std::vector<std::string> errors;
        const char* last_call;
        std::chrono::milliseconds PortalLimits::*short_limit = nullptr;
    };
    const auto late = [](const std::string& call) {
        return "PortalCapture: no Response for " + call + " within 400 ms";
    };
    const std::string unhandled = " returned no request handle";
    using Limits = PortalLimits;
    const std::vector<Case> cases = {
        {"refuse=CreateSession:2",
         {"PortalCapture: portal refused CreateSession (response=2)"},
         "CreateSession"},
        {"fail=CreateSession", {"PortalCapture: CreateSession" + unhandled}, "CreateSession"},
        {"empty=CreateSession",
         {"PortalCapture: CreateSession did not return a session handle"},
         "CreateSession"},
        {"silent=CreateSession", {late("CreateSession")}, "CreateSession", &Limits::create_session},
        {"mute=CreateSession", {late("CreateSession")}, "CreateSession", &Limits::create_session},
        {"refuse=SelectSources:1",
         {"PortalCapture: portal refused SelectSources (response=1)"},
         "SelectSources"},
        {"fail=SelectSources", {"PortalCapture: SelectSources" + unhandled}, "SelectSources"},
        {"silent=SelectSources", {late("SelectSources")}, "SelectSources", &Limits::select_sources},
        {"refuse=Start:1",
         {"PortalCapture: portal refused Start (response=1)", kNotApproved},
         "Start"},
        {"silent=Start", {late("Start"), kNotApproved}, "Start", &Limits::start_without_token},
        {"fail=Start", {"PortalCapture: Start" + unhandled}, "Start"},
        {"empty=Start", {"PortalCapture: Start returned no stream node"}, "Start"},
        {"no-fd", {"PortalCapture: OpenPipeWireRemote returned no fd"}, "OpenPipeWireRemote"},
    };
    for (const auto& [behaviour, errors, last_call, short_limit] : cases) {
        SCOPED_TRACE(behaviour);
        start_portal(0, {behaviour});
        auto with = config();
        if (short_limit != nullptr) with.limits.*short_limit = kShort;
        PortalCapture capture(with);
        const LogCapture log;
        EXPECT_FALSE(capture.init());
        for (const auto& error : errors)
            EXPECT_EQ(log.count("ERROR", error), 1) << log.text();
        size_t all_errors = 0;
        for (size_t at = 0; (at = log.text().find("[ERROR]", at)) != std::string::npos; ++at)
            ++all_errors;
        EXPECT_EQ(all_errors, errors.size()) << log.text();
        // A dialog that nobody waits for any more, and the session, are closed.
        const bool has_session = std::string(last_call) != "CreateSession";
        const bool abandoned = short_limit != nullptr;
        EXPECT_TRUE(eventually([&] {
            const auto& report = desktop_->portal_report();
            return report.count("Close Request") == (abandoned ? 1U : 0U) &&
                   report.count("Close Session") == (has_session ? 1U : 0U);
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
    EXPECT_EQ(log.count("ERROR", "PortalCapture: CreateSession" + unhandled), 1) << log.text();
    desktop_->kill_bus();
    EXPECT_FALSE(PortalCapture(config()).init()) << "without a bus";
    EXPECT_NE(log.text().find("PortalCapture: no session bus: Failed to connect to socket"),
              std::string::npos);
}

TEST_F(Portal, SharesWithWhateverOrderOfAnswersAndRemembersTheToken) {
    PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180));
    const LogCapture log;
    const std::string& path = token_file_.path();
    start_portal(source.node(), {"early=CreateSession", "early=SelectSources", "early=Start",
                                 "foreign=CreateSession", "foreign=SelectSources", "foreign=Start",
                                 "token=first token"});
    {
        PortalCapture capture(config());
        ASSERT_TRUE(capture.init()) << log.text();
        EXPECT_EQ(capture.width(), 320U);
        EXPECT_EQ(capture.height(), 180U);
        EXPECT_EQ(desktop_->portal_report().count(
                      "SelectSources cursor_mode=2 multiple=0 persist_mode=2 types=1"),
                  1U);
        EXPECT_EQ(desktop_->portal_report().count("Start parent="), 1U);
        EXPECT_EQ(log.count("WARN",
                            "PortalCapture: first run on this machine — approve the screen-share "
                            "dialog once; the choice is stored in " +
                                path + " and reused afterwards"),
                  1);
        EXPECT_EQ(
            log.count("INFO", "PortalCapture: restore token saved (next sessions skip the dialog)"),
            1);
        EXPECT_EQ(log.count("INFO", "PortalCapture: negotiated 320x180 BGRx"), 1);
        EXPECT_EQ(log.count("INFO", "PortalCapture: PipeWire stream is streaming"), 1);
        EXPECT_EQ(log.count("INFO", "PortalCapture: streaming 320x180 (node=" +
                                        std::to_string(source.node()) + ")"),
                  1);
    }
    EXPECT_EQ(log.text().find("the last picture stays"), std::string::npos) << "of a normal end";
    EXPECT_EQ(log.text().find("[ERROR]"), std::string::npos) << log.text();
    EXPECT_EQ(token_file_.read(), "first token");

    start_portal(source.node(), {"foreign=Start", "token=second token"});
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

TEST_F(Portal, PicturesArriveToTheByteHoweverTheyLieInMemory) {
    struct Case {
        const char* name;
        uint32_t width, height;
        PipewireSource::Setup setup;
    };
    for (const auto& [name, width, height, setup] : std::vector<Case>{
             {"tight", 320, 180, {}},
             {"padded rows", 333, 111, {.padding = 52}},
             {"odd padding, late begin", 301, 77, {.padding = 3, .offset = 64}},
             {"buffers without a picture", 320, 90, {.fps = 120, .blanks = true}},
             {"graphics memory offered as well",
              320,
              180,
              {.memory = PipewireSource::Memory::GraphicsFirst}},
         }) {
        SCOPED_TRACE(name);
        const LogCapture log;
        PipewireSource source(desktop_->pipewire_socket(), moving_pictures(width, height), setup);
        start_portal(source.node());
        PortalCapture capture(config());
        ASSERT_TRUE(capture.init()) << log.text();
        SyntheticReference reference(width, height);
        CapturedFrame frame;
        CapturedFrame kept;
        bool faithful = true;
        EXPECT_TRUE(eventually(
            [&] {
                EXPECT_EQ(capture.capture_frame(frame), 0);
                if (kept.empty()) kept = frame;
                faithful = faithful && reference.matches(frame);
                return !faithful || reference.pictures() >= 20;
            },
            kPatience));
        EXPECT_TRUE(faithful);
        EXPECT_EQ(frame.timestamp, 0U);
        capture.shutdown();
        capture.shutdown();
        EXPECT_EQ(capture.capture_frame(frame), 1);
        // What was lent stays readable, and as it was.
        EXPECT_TRUE(SyntheticReference(width, height).matches(kept));
        EXPECT_TRUE(reference.matches(frame));
    }
}

TEST_F(Portal, WhatCannotBeReadGivesNoFrame) {
    const LogCapture log;
    int expected = 0;
    for (const PipewireSource::Setup setup :
         {PipewireSource::Setup{.bgrx = false},
          PipewireSource::Setup{.memory = PipewireSource::Memory::Graphics}}) {
        PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180), setup);
        start_portal(source.node());
        auto with = config();
        with.limits.first_frame_without_token = kShort;
        EXPECT_FALSE(PortalCapture(with).init());
        EXPECT_EQ(log.count("ERROR",
                            "PortalCapture: no frame arrived — screen sharing was not approved, or "
                            "the compositor stopped the capture"),
                  ++expected)
            << log.text();
    }
    // A node that is not there: no other takes its place, and nobody waits for it.
    PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(320, 180));
    start_portal(camera.node() + 1000);
    EXPECT_FALSE(PortalCapture(config()).init());
    EXPECT_FALSE(camera.streaming());
}

TEST_F(Portal, TheSizeFollowsTheMonitorWithoutATornPicture) {
    std::atomic<bool> changed{false};
    PipewireSource source(desktop_->pipewire_socket(),
                          std::make_unique<ResizedPictures>(moving_pictures(320, 180),
                                                            moving_pictures(500, 90), changed),
                          {.padding = 16});
    start_portal(source.node());
    const LogCapture log;
    PortalCapture capture(config());
    ASSERT_TRUE(capture.init()) << log.text();
    SyntheticReference before(320, 180);
    SyntheticReference after(500, 90);
    CapturedFrame frame;
    bool faithful = true;
    EXPECT_TRUE(eventually(
        [&] {
            EXPECT_EQ(capture.capture_frame(frame), 0);
            changed = before.pictures() >= 5;
            faithful = faithful && (frame.width == 320 ? before : after).matches(frame);
            return !faithful || after.pictures() >= 5;
        },
        kPatience));
    EXPECT_TRUE(faithful);
    EXPECT_EQ(capture.width(), 500U);
    EXPECT_EQ(capture.height(), 90U);
    EXPECT_EQ(log.count("INFO", "PortalCapture: negotiated 500x90 BGRx"), 1) << log.text();
}

TEST_F(Portal, WhenTheScreenGoesItsLastPictureStaysAndNothingElseIsShown) {
    PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(64, 64));
    const std::atomic<bool> still{true};
    auto screen = std::make_unique<PipewireSource>(
        desktop_->pipewire_socket(),
        std::make_unique<FrozenPictures>(moving_pictures(320, 180), still));
    start_portal(screen->node());
    const LogCapture log;
    PortalCapture capture(config());
    ASSERT_TRUE(capture.init()) << log.text();
    const auto shows_the_screen = [&] {
        CapturedFrame frame;
        return capture.capture_frame(frame) == 0 && SyntheticReference(320, 180).matches(frame);
    };
    EXPECT_TRUE(shows_the_screen());
    const auto stops = [&] {
        int found = 0;
        const std::string text = log.text();
        for (size_t at = 0; (at = text.find("the last picture stays", at)) != std::string::npos;)
            ++at, ++found;
        return found;
    };
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
    PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180), {.bgrx = false});
    const UniqueFd silent_bus = listen_unix(dir_.file("silent"));
    struct Case {
        const char* behaviour;
        const char* last_call;
        size_t dialogs;
    };
    for (const auto& [behaviour, last_call, dialogs] :
         {Case{"silent bus", "ready", 0}, Case{"mute=CreateSession", "CreateSession", 1},
          Case{"silent=Start", "Start", 1}, Case{"no frame", "OpenPipeWireRemote", 0}}) {
        SCOPED_TRACE(behaviour);
        start_portal(source.node(), {behaviour});
        std::atomic<bool> cancelled{false};
        std::atomic<bool> ended{false};
        std::atomic<bool> asked{false};
        auto with = config();
        with.cancelled = [&] {
            asked = true;
            return cancelled.load();
        };
        if (std::string(last_call) == "ready") {
            with.bus_address = "unix:path=" + dir_.file("silent");
        }
        const LogCapture log;
        PortalCapture capture(with);
        std::jthread owner([&] {
            EXPECT_FALSE(capture.init());
            ended = true;
        });
        EXPECT_TRUE(eventually(
            [&] { return asked && desktop_->portal_report().count(last_call) == 1; }, kPatience));
        EXPECT_FALSE(ended);
        cancelled = true;
        EXPECT_TRUE(eventually([&] { return ended.load(); }, 2s));
        EXPECT_TRUE(eventually(
            [&] { return desktop_->portal_report().count("Close Request") == dialogs; }));
        EXPECT_EQ(log.text().find("[ERROR]"), std::string::npos) << log.text();
    }
}

}  // namespace
}  // namespace ox::test
