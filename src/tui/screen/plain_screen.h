#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tui/board/board.h"
#include "tui/board/messages.h"
#include "tui/screen/screen.h"
#include "tui/screen/terminal_output.h"

namespace ox::tui {

/// The board's changes in lines, for a journal, each once. Pure: no clock, no output.
class PlainLines {
  public:
    PlainLines(Lang lang, Host host) : lang_(lang), host_(host) {}

    /// Oldest first. `now_s` (system clock) dates what carries no time. No control characters.
    std::vector<std::string> take_new_lines(const Snapshot& snapshot, int64_t now_s);

  private:
    // A state of the board. When an event has just announced a change, it gets no line of its own.
    template <typename State>
    struct Reported {
        State last{};
        std::optional<State> by_event{};

        bool needs_line(State now) {
            if (now == last) return false;
            last = now;
            const bool announced = by_event == now;
            by_event.reset();
            return !announced;
        }
    };
    struct ReportedAlert {
        std::string title;
        std::string text;  ///< empty: the alert is not active
    };

    void add(const std::string& clock, const std::string& text);
    void add(const std::string& clock, Text text) { add(clock, std::string(text.in(lang_))); }
    void add_identity(const Snapshot& snapshot);
    void add_own_address(const OwnAddress& own, const std::string& now);
    void add_events(const Snapshot& snapshot);
    void add_alert(Alert alert, const std::string& clock, const Snapshot& snapshot);
    void add_picture(PictureState before, const SessionView& session, const std::string& clock);
    void add_alerts(const Snapshot& snapshot, const std::string& clock);
    void add_closed_port(const ClosedPort& closed, const std::string& clock);
    void add_session(const SessionView& session, const std::string& clock);
    void mark_reported(EventKind kind);

    Lang lang_;
    Host host_;
    std::vector<std::string> lines_;
    bool identified_ = false;
    uint64_t events_reported_ = 0;
    Reported<LinkState> link_;
    OwnAddress own_address_;
    Reported<SessionState> session_;
    Reported<bool> holding_;
    PictureState picture_ = PictureState::Fine;
    std::string stream_;
    ClosedPort closed_port_;
    std::array<ReportedAlert, kAlertCount> alerts_;
};

/// Shows the board as scrolling lines of text: for pipes, journals and simple terminals.
class PlainScreen final : public Screen {
  public:
    PlainScreen(int fd, Lang lang, Host host) : lines_(lang, host), output_(fd) {}
    ~PlainScreen() override;

    void paint(const Snapshot& snapshot) override;
    void idle() override { output_.flush(); }

  private:
    PlainLines lines_;
    LineOutput output_;
};

}  // namespace ox::tui
