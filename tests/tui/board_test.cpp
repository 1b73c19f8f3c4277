#include "tui/board.h"

#include <gtest/gtest.h>

#include "base/clock.h"

namespace ox::tui {
namespace {

TEST(Board, SessionEndTellsHowItWent) {
    struct Case {
        SessionState state;
        bool started;
        int64_t duration_s;
        std::optional<EventKind> expected;
        int64_t value;
    };
    const Case cases[] = {
        {SessionState::None, true, 5, std::nullopt, 0},
        {SessionState::Preparing, false, -1, EventKind::SessionNotStarted, 0},
        {SessionState::Preparing, true, 5, EventKind::SessionEnded, 5},
        {SessionState::Streaming, false, 0, EventKind::SessionEnded, 0},
        {SessionState::Streaming, false, -1, EventKind::SessionEnded, 90},
    };
    for (const Case& c : cases) {
        Board board;
        board.update([&](Snapshot& state) {
            state.session.state = c.state;
            state.session.since_s = system_now_s() - 90;
            state.session.id = "id";
            state.session.launcher = "10.0.0.5";
            state.session.holding = true;
        });
        board.session_ended(c.started, c.duration_s);
        const Snapshot state = board.snapshot();
        ASSERT_EQ(state.events.size(), c.expected ? 1U : 0U);
        if (c.expected) {
            EXPECT_EQ(state.events[0].kind, *c.expected);
            EXPECT_NEAR(static_cast<double>(state.events[0].value), static_cast<double>(c.value),
                        2);
        }
        EXPECT_EQ(state.session.state, SessionState::None);
        EXPECT_EQ(state.session.id + state.session.launcher, "");
        EXPECT_FALSE(state.session.holding);
    }
}

}  // namespace
}  // namespace ox::tui
