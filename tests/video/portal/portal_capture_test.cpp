// The desktop portal's capture with a real bus, PipeWire daemon and session manager; the portal and
// the compositor are simulated.
#include "video/portal/portal_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>

#include <atomic>
#include <thread>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/pipewire_source.h"
#include "support/wayland_desktop.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr auto kPatience = 60s;  // for expected events, on a busy machine
constexpr auto kShort = 400ms;   // for events that must not happen

PortalLimits patient_limits() {
    PortalLimits limits;
    limits.create_session = limits.select_sources = limits.start_with_token =
        limits.start_without_token = limits.open_remote = limits.first_frame_with_token =
            limits.first_frame_without_token = kPatience;
    return limits;
}

struct Portal : WaylandTest {
    [[nodiscard]] PortalCapture::Config config() const {
        return {.bus_address = desktop_->bus_address(),
                .token_file = token_file_,
                .limits = patient_limits(),
                .wayland_display = desktop_->wayland_socket()};
    }
    /// The portal's calls in order, without Close.
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
    "[ERROR] PortalCapture: screen sharing was not approved in time. Either approve the dialog ";

constexpr const char* kDialogDespiteToken =
    "the desktop asks again, although there is a saved choice";

TEST_F(Portal, EveryFailingCallIsLoggedAndEndsTheAttempt) {
    using Limits = PortalLimits;
    const struct {
        std::string behaviour, error;
        std::chrono::milliseconds Limits::*short_limit = nullptr;
        CaptureState state = CaptureState::Gone;
        int tries = 1;
    } cases[] = {
        {"CreateSession=2", "portal refused CreateSession (response=2)", nullptr,
         CaptureState::Gone, 2},
        {"CreateSession=fail", "CreateSession returned no request handle"},
        {"CreateSession=empty", "CreateSession did not return a session handle"},
        {"CreateSession=mute", "no Response for CreateSession within 400 ms",
         &Limits::create_session},
        {"SelectSources=silent", "no Response for SelectSources within 400 ms",
         &Limits::select_sources},
        {"Start=1", "portal refused Start (response=1)", nullptr, CaptureState::OwnerDeclined},
        {"Start=silent", "no Response for Start within 400 ms", &Limits::start_with_token,
         CaptureState::OwnerAbsent},
        {"Start=empty", "Start returned no stream node"},
        {"OpenPipeWireRemote=fail", "OpenPipeWireRemote returned no fd"},
    };
    for (const auto& [behaviour, error, short_limit, state, tries] : cases) {
        SCOPED_TRACE(behaviour);
        // A token that did not spare a dialog is deleted.
        ASSERT_TRUE(token_file_.write("unknown"));
        start_portal(0, {behaviour});
        auto with = config();
        if (short_limit != nullptr) with.limits.*short_limit = kShort;
        PortalCapture capture(with);
        const LogCapture log;
        EXPECT_FALSE(capture.init());
        EXPECT_EQ(capture.state(), state);
        EXPECT_EQ(token_file_.read().has_value(), state == CaptureState::Gone);
        EXPECT_EQ(log.count("ERROR", "PortalCapture: " + error), tries) << log.text();
        const int not_approved = state == CaptureState::OwnerAbsent ? 1 : 0;
        EXPECT_EQ(log.times(kNotApproved), not_approved) << log.text();
        EXPECT_EQ(log.times("[ERROR]"), tries + not_approved) << log.text();
        // An abandoned dialog and the session are closed.
        const std::string last_call = behaviour.substr(0, behaviour.find('='));
        const size_t sessions = last_call == "CreateSession" ? 0 : 1;
        const size_t abandoned = short_limit != nullptr ? 1 : 0;
        EXPECT_TRUE(eventually([&] {
            const auto& report = desktop_->portal_report();
            return report.count("Close Request") == abandoned &&
                   report.count("Close Session") == sessions;
        }));
        EXPECT_EQ(calls().back(), last_call);
        CapturedFrame frame;
        EXPECT_EQ(capture.capture_frame(frame), 1);
    }
    desktop_->kill_portal();
    const LogCapture log;
    EXPECT_FALSE(PortalCapture(config()).init()) << "without a portal";
    EXPECT_EQ(log.times("[ERROR] PortalCapture: CreateSession returned no request handle"), 1);
    desktop_->kill_bus();
    EXPECT_FALSE(PortalCapture(config()).init()) << "without a bus";
    EXPECT_EQ(log.times("PortalCapture: no session bus: Failed to connect to socket"), 1);
}

TEST_F(Portal, SharesWithAnyOrderOfRepliesAndSavesTheToken) {
    PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180));
    const LogCapture log;
    start_portal(source.node(), {"CreateSession=early", "SelectSources=early", "Start=early",
                                 "foreign", "token=first token"});
    {
        PortalCapture capture(config());
        ASSERT_TRUE(capture.init()) << log.text();
        EXPECT_EQ(std::pair(capture.width(), capture.height()), std::pair(320U, 180U));
        for (const char* call :
             {"SelectSources cursor_mode=2 multiple=0 persist_mode=2 types=1", "Start parent="})
            EXPECT_EQ(desktop_->portal_report().count(call), 1U);
        for (const std::string& line :
             {"once; the choice is stored in " + token_file_.path() + " and reused afterwards",
              std::string(": restore token saved (next sessions skip the dialog)"),
              std::string(": negotiated 320x180 BGRx"),
              std::string(": PipeWire stream is streaming"),
              ": streaming 320x180 (node=" + std::to_string(source.node()) + ")"})
            EXPECT_EQ(log.times(line + "\n"), 1) << log.text();
    }
    EXPECT_EQ(log.times("the last picture stays") + log.times("[ERROR]"), 0) << log.text();
    EXPECT_EQ(token_file_.read(), "first token");

    start_portal(source.node(), {"foreign", "token=second token"});
    ASSERT_TRUE(PortalCapture(config()).init()) << log.text();
    EXPECT_EQ(log.count("INFO", "PortalCapture: using saved restore token"), 1);
    EXPECT_EQ(desktop_->portal_report().count("restore_token=first token "), 1U);
    EXPECT_EQ(token_file_.read(), "second token");

    // A token that the portal refuses is deleted, and the next Start waits for the user again.
    start_portal(source.node(), {"no-token"});
    auto with = config();
    with.limits.dialog_with_token = 0ms;
    ASSERT_TRUE(PortalCapture(with).init()) << log.text();
    EXPECT_EQ(log.times(kDialogDespiteToken), 0) << log.text();
    EXPECT_THAT(calls(), ElementsAre("ready", "CreateSession", "SelectSources", "SelectSources",
                                     "Start", "OpenPipeWireRemote"));
    EXPECT_EQ(token_file_.read(), std::nullopt);

    // A portal does not report a token that it does not know: the user is asked, and has time.
    ASSERT_TRUE(token_file_.write("unknown"));
    start_portal(source.node(), {"Start=late", "token=fourth token"});
    with = config();
    with.limits.dialog_with_token = 100ms;
    std::vector<bool> awaited;
    with.on_awaiting_owner = [&](bool awaiting) { awaited.push_back(awaiting); };
    ASSERT_TRUE(PortalCapture(with).init()) << log.text();
    EXPECT_THAT(awaited, ElementsAre(true, false));
    EXPECT_EQ(log.times(kDialogDespiteToken), 1) << log.text();
    EXPECT_EQ(token_file_.read(), "fourth token");

    // A portal whose compositor has just restarted fails once.
    start_portal(source.node(), {"Start=2", "once"});
    ASSERT_TRUE(PortalCapture(config()).init()) << log.text();

    // A folder that cannot be written loses only the token.
    start_portal(source.node(), {"token=third token"});
    with = config();
    with.token_file = RestoreTokenFile("/proc/orvex/portal_restore_token");
    ASSERT_TRUE(PortalCapture(with).init()) << log.text();
    EXPECT_EQ(log.times("cannot persist restore token to /proc/orvex/portal_restore_token"), 1);
}

TEST_F(Portal, PicturesArriveUnchangedInAnyMemoryLayoutAndFollowTheMonitorsSize) {
    for (const PipewireSource::Setup setup : {PipewireSource::Setup{},
                                              {.padding = 3},
                                              {.padding = 16, .blanks = true},
                                              {.layout = SPA_VIDEO_FORMAT_BGRA, .stalls = true}}) {
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
        CapturedFrame first;
        ASSERT_EQ(capture.capture_frame(first), 0);
        const std::vector<uint8_t> copy(first.pixels(), first.pixels() + size_t{4} * 301 * 177);
        SyntheticReference before(301, 177);
        SyntheticReference after(500, 90);
        CapturedFrame frame;
        bool faithful = before.matches(first);
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
        EXPECT_EQ(std::pair(capture.width(), capture.height()), std::pair(500U, 90U));
        EXPECT_EQ(log.times("PortalCapture: negotiated 500x90 BGR"), 1) << log.text();
        EXPECT_EQ(capture.state(), CaptureState::Live);
        capture.shutdown();
        capture.shutdown();
        EXPECT_EQ(capture.capture_frame(frame), 1);
        // Lent pixels stay readable and unchanged.
        EXPECT_TRUE(std::equal(copy.begin(), copy.end(), first.pixels()));
        EXPECT_TRUE(after.matches(frame));
    }
}

TEST_F(Portal, UnreadableSourcesGiveNoFrame) {
    const LogCapture log;
    PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(320, 180));
    start_portal(camera.node());
    ASSERT_TRUE(PortalCapture(config()).init()) << "nothing is linked here\n" << log.text();
    ASSERT_TRUE(eventually([&] { return !camera.streaming(); }));
    PipewireSource source(desktop_->pipewire_socket(), moving_pictures(320, 180),
                          {.layout = SPA_VIDEO_FORMAT_xRGB});
    start_portal(source.node());
    auto with = config();
    with.limits.first_frame_without_token = kShort;
    EXPECT_FALSE(PortalCapture(with).init());
    EXPECT_EQ(log.count("ERROR",
                        "PortalCapture: no frame arrived — screen sharing was not approved, or "
                        "the compositor stopped the capture"),
              1)
        << log.text();
    // A node that does not exist: no other replaces it, and there is no wait.
    start_portal(camera.node() + 1000);
    EXPECT_FALSE(PortalCapture(config()).init());
    EXPECT_FALSE(camera.streaming());
}

TEST_F(Portal, ALinkToAnotherNodeEndsTheShareAndTheLastPictureStays) {
    PipewireSource screen(desktop_->pipewire_socket(), moving_pictures(320, 180));
    PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(320, 180));
    start_portal(screen.node());
    const LogCapture log;
    PortalCapture capture(config());
    ASSERT_TRUE(capture.init()) << log.text();
    camera.link_to("ox_portal_test");
    EXPECT_TRUE(eventually([&] { return capture.state() == CaptureState::Lost; })) << log.text();
    EXPECT_EQ(log.times("instead of the screen"), 1) << log.text();
    CapturedFrame frame;
    EXPECT_EQ(capture.capture_frame(frame), 0);
    EXPECT_TRUE(SyntheticReference(320, 180).matches(frame));
    EXPECT_FALSE(screen.streaming() || camera.streaming());
}

TEST_F(Portal, ARotatedPictureWithRedFirstIsUprightWithItsColours) {
    // Two rows of three pixels, "abc" and "def": lower case as red, upper case as blue.
    const auto picture = [](CapturedFrame& frame) {
        frame.width = 3;
        frame.height = 2;
        frame.data.clear();
        for (uint8_t i = 0; i < 6; ++i)
            frame.data.insert(frame.data.end(), {uint8_t('a' + i), 0, uint8_t('A' + i), 0});
        return true;
    };
    // The picture expected after undoing the rotation.
    for (const auto& [transform, upright] : {std::pair{SPA_META_TRANSFORMATION_None, "abc def "},
                                             {SPA_META_TRANSFORMATION_90, "da eb fc "},
                                             {SPA_META_TRANSFORMATION_180, "fed cba "},
                                             {SPA_META_TRANSFORMATION_270, "cf be ad "},
                                             {SPA_META_TRANSFORMATION_Flipped90, "ad be cf "}}) {
        PipewireSource source(desktop_->pipewire_socket(), picture,
                              {.layout = SPA_VIDEO_FORMAT_RGBx, .transform = transform});
        start_portal(source.node());
        PortalCapture capture(config());
        CapturedFrame frame;
        ASSERT_TRUE(capture.init() && capture.capture_frame(frame) == 0);
        std::string seen;
        for (uint32_t i = 0; i < frame.width * frame.height; ++i) {
            const uint8_t* pixel = frame.pixels() + size_t{i} * 4;
            EXPECT_EQ(pixel[0], pixel[2] - 'a' + 'A');
            seen += static_cast<char>(pixel[2]);
            if ((i + 1) % frame.width == 0) seen += ' ';
        }
        EXPECT_EQ(seen, upright);
    }
}

TEST_F(Portal, TheCauseOfAnEndIsRecognisedAndTheLastPictureStays) {
    const std::pair<const char*, CaptureState> cases[] = {
        {"stop", CaptureState::OwnerStopped},
        {"stop, and the screen goes", CaptureState::OwnerStopped},
        {"turn, stop", CaptureState::Lost},
        {"the screen goes", CaptureState::Lost},
        {"the portal dies, the screen goes", CaptureState::Lost},
        {"the compositor dies, the screen goes", CaptureState::Lost},
        {"PipeWire dies", CaptureState::Lost}};
    for (const auto& [events, state] : cases) {
        SCOPED_TRACE(events);
        const auto happens = [&, text = std::string(events)](const char* event) {
            return text.find(event) != std::string::npos;
        };
        auto compositor = std::make_unique<WaylandCompositor>(desktop_->wayland_socket());
        PipewireSource camera(desktop_->pipewire_socket(), moving_pictures(64, 64));
        // A desktop that shows one picture and then does not change.
        auto screen = std::make_unique<PipewireSource>(
            desktop_->pipewire_socket(),
            [frames = 0, pictures = moving_pictures(320, 180)](CapturedFrame& frame) mutable {
                return frames++ < 2 && pictures(frame);
            });
        start_portal(screen->node(), {"token=the choice"});
        const LogCapture log;
        PortalCapture capture(config());
        ASSERT_TRUE(capture.init()) << log.text();
        ASSERT_TRUE(eventually([&] {
            EXPECT_EQ(capture.state(), CaptureState::Live);
            return compositor->watchers() == 1;
        }));
        EXPECT_FALSE(eventually([&] { return capture.state() != CaptureState::Live; }, kShort));
        if (happens("turn")) compositor->turn_monitor();
        if (happens("compositor")) compositor.reset();
        if (happens("portal")) desktop_->kill_portal();
        if (happens("stop")) desktop_->stop_sharing();
        if (happens("screen")) screen.reset();
        if (happens("PipeWire")) desktop_->kill_pipewire();
        EXPECT_TRUE(eventually(
            [&] {
                const CaptureState now = capture.state();
                return now != CaptureState::Live && now != CaptureState::Doubtful;
            },
            kPatience));
        EXPECT_EQ(capture.state(), state) << log.text();
        EXPECT_EQ(log.times("the screen share"), 1) << log.text();
        // The token is deleted when the owner has stopped the share.
        EXPECT_EQ(token_file_.read().has_value(), state == CaptureState::Lost);
        EXPECT_FALSE(camera.streaming());
        CapturedFrame frame;
        EXPECT_EQ(capture.capture_frame(frame), 0);
        EXPECT_TRUE(SyntheticReference(320, 180).matches(frame));
    }
}

TEST_F(Portal, CancellingEndsEveryWait) {
    // Has a picture for the connection, and never sends it.
    PipewireSource source(
        desktop_->pipewire_socket(),
        [first = true, pictures = moving_pictures(320, 180)](CapturedFrame& frame) mutable {
            return std::exchange(first, false) && pictures(frame);
        });
    for (const auto& [behaviour, last_call, dialogs] :
         {std::tuple{"CreateSession=mute", std::string("CreateSession"), 1U},
          {"Start=silent", "Start", 1},
          {"no frame", "OpenPipeWireRemote", 0}}) {
        SCOPED_TRACE(behaviour);
        start_portal(source.node(), {behaviour});
        std::atomic<bool> cancelled{false}, ended{false};
        std::atomic<int> polls{0};
        auto with = config();
        with.cancelled = [&] {
            ++polls;
            return cancelled.load();
        };
        const LogCapture log;
        PortalCapture capture(with);
        std::jthread owner([&] {
            EXPECT_FALSE(capture.init());
            ended = true;
        });
        EXPECT_TRUE(eventually([&] { return desktop_->portal_report().count(last_call) == 1; }));
        // The portal's replies have been processed, and the next wait has begun.
        EXPECT_TRUE(eventually([&, before = polls.load()] { return polls >= before + 3; }));
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
