#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tui/board/board.h"
#include "tui/board/board_texts.h"

namespace ox::tui {

/// Tells the board's story in lines, for a journal: who the agent is, then each event, alert and
/// change of state once. Pure: no clock, no output. Owned by one thread.
class PlainLines {
  public:
    PlainLines(Lang lang, Host host) : lang_(lang), host_(host) {}

    /// What is new in `snapshot` since the call before, oldest first; the first call begins with
    /// the agent's identity. `now_s` (system clock) dates what carries no time of its own. The
    /// lines hold no control characters.
    std::vector<std::string> news(const Snapshot& snapshot, int64_t now_s);

  private:
    // A state of the board. An event that says the same beforehand makes its change no news.
    template <typename State>
    struct Told {
        State last{};
        std::optional<State> by_event{};

        bool is_news(State now) {
            if (now == last) return false;
            last = now;
            const bool told = by_event == now;
            by_event.reset();
            return !told;
        }
    };

    void add(const std::string& clock, const std::string& text);
    void add_identity(const Snapshot& snapshot);
    void add_events(const Snapshot& snapshot);
    void add_alert(Alert alert, const std::string& clock, const Snapshot& snapshot);
    void add_picture(PictureState before, const SessionView& session, const std::string& clock);
    void add_alerts(const Snapshot& snapshot, const std::string& clock);
    void add_link(const Snapshot& snapshot, const std::string& clock);
    void add_closed_port(const ClosedPort& closed, const std::string& clock);
    void add_session(const SessionView& session, const std::string& clock);
    void note_told(EventKind kind);

    Lang lang_;
    Host host_;
    std::vector<std::string> lines_;
    bool introduced_ = false;
    uint64_t events_told_ = 0;
    Told<LinkState> link_;
    Told<SessionState> session_;
    Told<bool> holding_;
    PictureState picture_ = PictureState::Fine;
    std::string stream_;
    ClosedPort closed_port_;
    std::array<bool, kAlertCount> alerts_{};
    uint16_t busy_port_ = 0;
    AlertReason alert_reason_;  ///< as it was told last
};

}  // namespace ox::tui
