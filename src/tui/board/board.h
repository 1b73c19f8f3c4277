#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

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

/// What the board knows of the session. `Streaming` also while a lost launcher is waited for.
enum class SessionState : uint8_t { None = 0, Preparing = 1, Streaming = 2 };

/// How it is with a session's picture.
enum class PictureState : uint8_t {
    Fine = 0,
    AwaitingOwner = 1,  ///< the desktop asks the PC's owner whether it may be shared
    Lost = 2,           ///< its source is gone; no input is let through
};

/// What is behind Alert::CaptureFailed, as far as it takes another remedy.
enum class CaptureTrouble : uint8_t {
    NoPicture = 0,
    Declined = 1,    ///< the owner has refused to share the screen
    Unanswered = 2,  ///< nobody has answered the desktop's question
    Stopped = 3,     ///< the owner has stopped the share
    Black = 4,       ///< the desktop shows nothing
};

/// One entry of the recent-events list.
struct Event {
    int64_t time_s = 0;  ///< system clock, seconds
    std::string clock;   ///< local time as "HH:MM", taken when the event was made
    std::string detail;  ///< free text; empty for the events made by the board itself
    EventKind kind = EventKind::AgentStarted;
    int64_t value = 0;  ///< duration in seconds for SessionEnded and PlayerDropped, else 0
    Alert alert = Alert::NvidiaDriverMissing;  ///< for AlertRaised
    uint16_t port = 0;                         ///< for AlertRaised with PortBusy
};

/// What was measured of a stream at one moment. Readings that nobody has reported are -1.
struct Figures {
    float mbps = 0.0F;
    float fps = 0.0F;
    float rtt_ms = -1.0F;
    float loss_pct = -1.0F;
};
/// Figures that a session keeps for its graphs: a little over three minutes at one in two seconds.
inline constexpr size_t kKeptFigures = 100;

/// The numbers and names of the running session as the screen shows them.
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
    std::deque<Figures> history;  ///< of the readings above; oldest first, at most kKeptFigures
    bool active = false;          ///< a session was handed to this PC
    bool holding = false;         ///< the launcher is gone, the session waits for it
    int64_t hold_until_s = 0;     ///< system clock, end of the wait
    PictureState picture = PictureState::Fine;

    /// Appends the present readings to the history.
    void keep_figures();
};

/// The control port as long as no launcher can connect to it.
struct ClosedPort {
    uint16_t port = 0;
    int error = 0;  ///< errno that tells why it could not be opened; 0: it could

    friend bool operator==(const ClosedPort&, const ClosedPort&) = default;
};

/// What is behind an alert where its cause decides on the remedy.
struct AlertReason {
    bool uinput_absent = false;  ///< Alert::UinputDenied: not a matter of permission
    CaptureTrouble capture = CaptureTrouble::NoPicture;  ///< Alert::CaptureFailed
};

/// Everything that can be painted. Copied whole by `Board::snapshot()`.
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
    std::deque<Event> events;   ///< oldest first, at most 8
    uint64_t events_total = 0;  ///< events ever pushed; tells which of `events` are new
    uint64_t changes = 0;       ///< grows by one with every change
};

/// The one shared model of what the owner sees. Every part of the program reports here; the screen
/// copies it. All fields of `state` are guarded by `mutex`; every change goes through `update` or
/// one of the functions below, which count it and wake the screen.
class Board {
  public:
    /// A consistent copy, for use without the lock.
    [[nodiscard]] Snapshot snapshot() const;

    /// Runs `change(state)` under the lock, then counts the change and wakes the screen. `change`
    /// may call `push_locked`, and nothing else of the board.
    template <typename Change>
    void update(Change&& change) {
        const std::lock_guard lock(mutex);
        change(state);
        touch_locked();
    }

    /// Marks an alert active; the first time also pushes an event. `port` matters for PortBusy
    /// only, whose newest port is always kept.
    void raise(Alert alert, uint16_t port);

    /// Raises Alert::CaptureFailed for this reason; the newest one is kept.
    void raise_capture(CaptureTrouble trouble);

    /// Takes an alert back. Counts as a change only when it was active.
    void clear(Alert alert);
    /// Takes back the alert that this port is busy.
    void clear_port(uint16_t port);

    /// What came of making the input device: `error` is the errno of the failure, 0 takes the alert
    /// back.
    void input_device(int error);

    /// What came of opening the control port: `error` is the errno of the failure. Each counts as
    /// a change only when it is news. The port that is open is not busy either.
    void control_port_closed(uint16_t port, int error);
    void control_port_open(uint16_t port);
    [[nodiscard]] ClosedPort closed_port() const;

    /// Appends an event and drops the oldest beyond 8. The caller holds `mutex`.
    void push_locked(EventKind kind, int64_t value);
    /// Same, taking the lock.
    void push(EventKind kind, int64_t value = 0);

    /// Closes the recorded session, if there is one: pushes SessionEnded when it was streaming (or
    /// `started` says so), SessionNotStarted otherwise. A negative duration is replaced by the time
    /// since the session's state was entered.
    void session_ended(bool started, int64_t duration_s);

    /// Counts a change and wakes the screen. The caller holds `mutex`.
    void touch_locked();

    mutable std::mutex mutex;
    std::condition_variable changed;  ///< notified on every change, waited on with `mutex`
    Snapshot state;                   ///< guarded by `mutex`

    /// Tells the screen to end. A lone atomic, since signal handlers set it; they cannot notify, so
    /// the screen looks at it at least every 100 ms.
    std::atomic<bool> quit{false};
};

/// The process-wide board, created on first use.
Board& board();

}  // namespace ox::tui
