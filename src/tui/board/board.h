#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "base/mutex.h"

namespace ox::tui {

enum class EventKind : uint8_t {
    AgentStarted = 0,
    PlatformConnected = 1,
    PlatformLost = 2,
    PcRented = 3,
    PlayerConnected = 4,
    SessionEnded = 5,
    SessionNotStarted = 6,
    PlayerDropped = 7,
    PlayerBack = 8,
    StreamRelayed = 9,
    StreamDirect = 10,
    AlertRaised = 11,
    Stopping = 12,
    StoppedOnError = 13,
};

enum class Alert : uint8_t {
    NvidiaDriverMissing = 0,
    CaptureFailed = 1,
    EncoderFailed = 2,
    PortBusy = 3,
    TokenRejected = 4,
    SecondAgent = 5,
    UinputDenied = 6,
};
inline constexpr size_t kAlertCount = 7;

enum class LinkState : uint8_t { None = 0, Connected = 1, Reconnecting = 2, Standalone = 3 };

/// `Streaming` also while the session waits for a lost launcher.
enum class SessionState : uint8_t { None = 0, Preparing = 1, Streaming = 2 };

enum class PictureState : uint8_t {
    Fine = 0,
    AwaitingOwner = 1,  ///< the desktop asks the PC's owner for permission to share it
    Lost = 2,           ///< its source is gone; input is blocked
};

/// The causes of Alert::CaptureFailed that have remedies of their own.
enum class CaptureTrouble : uint8_t {
    NoPicture = 0,
    Declined = 1,    ///< the owner refused to share the screen
    Unanswered = 2,  ///< nobody answered the desktop's question
    Stopped = 3,     ///< the owner stopped the share
    Black = 4,       ///< the desktop shows nothing
};

/// One entry of the recent-events list.
struct Event {
    int64_t time_s = 0;  ///< system clock, seconds
    std::string clock;   ///< local time of the event as "HH:MM"
    std::string detail;  ///< free text; empty for the board's own events
    EventKind kind = EventKind::AgentStarted;
    int64_t value = 0;  ///< duration in seconds for SessionEnded and PlayerDropped, else 0
    Alert alert = Alert::NvidiaDriverMissing;  ///< for AlertRaised
    uint16_t port = 0;                         ///< for AlertRaised with PortBusy
};

/// One measurement of a stream; -1 where there is none yet.
struct StreamMetrics {
    float mbps = 0.0F;
    float fps = 0.0F;
    float rtt_ms = -1.0F;
    float loss_pct = -1.0F;
};
/// Length of the graphs: a little over three minutes at one measurement in two seconds.
inline constexpr size_t kMetricsHistory = 100;

/// The session as the screen shows it.
struct SessionView {
    SessionState state = SessionState::None;
    int64_t since_s = 0;   ///< system clock when the state was entered
    std::string id;        ///< platform session id, empty in standalone mode
    std::string launcher;  ///< the launcher's address
    std::string encoder;   ///< label: "NVENC", "VA-API", "x264"...
    std::string codec;     ///< "H.264" or "HEVC"
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t fps = 0;            ///< negotiated frame rate
    double measured_mbps = 0.0;  ///< over the last two seconds
    double measured_fps = 0.0;
    double rtt_ms = -1.0;  ///< -1 until the launcher has reported
    double loss_pct = -1.0;
    std::deque<StreamMetrics> history;  ///< oldest first, at most kMetricsHistory
    bool active = false;                ///< a session was assigned to this PC
    bool holding = false;               ///< the launcher is gone, the session waits for it
    int64_t hold_until_s = 0;           ///< system clock, end of the wait
    PictureState picture = PictureState::Fine;

    /// Appends the current measurements to the history.
    void record_metrics();
};

/// The control port as long as no launcher can connect to it.
struct ClosedPort {
    uint16_t port = 0;
    int error = 0;  ///< errno of the failure to open it; 0: it is open

    friend bool operator==(const ClosedPort&, const ClosedPort&) = default;
};

/// Where launchers reach this PC in standalone mode.
struct OwnAddress {
    std::string ip;  ///< empty when the PC has no network
    uint16_t port_base = 0;

    friend bool operator==(const OwnAddress&, const OwnAddress&) = default;
};

/// The causes of alerts whose remedy depends on it.
struct AlertReason {
    bool uinput_absent = false;  ///< Alert::UinputDenied: no device, rather than no permission
    CaptureTrouble capture = CaptureTrouble::NoPicture;  ///< Alert::CaptureFailed
};

struct Snapshot {
    bool started = false;
    std::string version;
    std::string host;
    std::string log_path;  ///< empty when no log file is open
    std::string gpu;
    LinkState link = LinkState::None;
    int64_t link_since_s = 0;  ///< system clock, seconds
    uint8_t link_detail = 0;   ///< 3 while the platform link is up, else 0
    SessionView session;
    std::array<bool, kAlertCount> alerts{};
    uint16_t busy_port = 0;  ///< for Alert::PortBusy
    AlertReason alert_reason;
    ClosedPort closed_port;
    OwnAddress own_address;
    std::deque<Event> events;   ///< oldest first, at most 8
    uint64_t events_total = 0;  ///< events ever added; tells which of `events` are new
    uint64_t changes = 0;       ///< grows with every change

    /// Adds an event and drops the oldest beyond 8.
    void add_event(EventKind kind, int64_t value = 0);
    void add_event(Event event);
};

/// The state that the program reports and the screen shows. Each change is counted and wakes it.
class Board {
  public:
    [[nodiscard]] Snapshot snapshot() const OX_EXCLUDES(mutex);

    /// Runs `change(state)` under the lock. It must not call the board.
    template <typename Change>
    void update(Change&& change) OX_EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        change(state);
        touch_locked();
    }

    /// The first time also adds an event. `port` is for PortBusy only; the newest is kept.
    void raise(Alert alert, uint16_t port) OX_EXCLUDES(mutex);
    /// Sets Alert::CaptureFailed with this cause; the newest one is kept.
    void raise_capture(CaptureTrouble trouble) OX_EXCLUDES(mutex);
    /// Clears an alert. Counts as a change only when it was active.
    void clear(Alert alert) OX_EXCLUDES(mutex);
    /// Clears PortBusy if it is about this port.
    void clear_port(uint16_t port) OX_EXCLUDES(mutex);

    /// Result of creating the input device: 0 clears the alert, an errno sets it.
    void input_device(int error) OX_EXCLUDES(mutex);

    /// `error` is an errno. Counts as a change only when it differs from the last one.
    void control_port_closed(uint16_t port, int error) OX_EXCLUDES(mutex);
    void control_port_open(uint16_t port) OX_EXCLUDES(mutex);
    [[nodiscard]] ClosedPort closed_port() const OX_EXCLUDES(mutex);

    void push_locked(EventKind kind, int64_t value) OX_REQUIRES(mutex);
    void push(EventKind kind, int64_t value = 0) OX_EXCLUDES(mutex);

    /// Adds SessionEnded when it was streaming (or `started` says so), else SessionNotStarted. A
    /// negative duration: since the session entered its state.
    void session_ended(bool started, int64_t duration_s) OX_EXCLUDES(mutex);

    /// Counts a change and wakes the screen.
    void touch_locked() OX_REQUIRES(mutex);

    mutable Mutex mutex;
    std::condition_variable changed;  ///< notified on every change
    Snapshot state OX_GUARDED_BY(mutex);

    /// Set by signal handlers, which cannot notify: the screen polls it at least every 100 ms.
    std::atomic<bool> quit{false};

  private:
    void raise_locked(Alert alert, uint16_t port) OX_REQUIRES(mutex);
};

Board& board();

}  // namespace ox::tui
