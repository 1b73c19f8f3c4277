#include "video/portal/share_watch.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ox::portal {
namespace {

using Verdict = ShareWatch::Verdict;
using std::chrono::milliseconds;

// What real desktops were seen to do, and what is in doubt. Events at their milliseconds: 'p'
// paused, 'r' running again, 'c' closed, 'd' a disturbance, 'o' the portal still has the session.
TEST(ShareWatch, AnEndIsTheOwnersUnlessSomethingElseExplainsIt) {
    struct Event {
        int at_ms;
        char what;
    };
    const struct {
        const char* name;
        std::vector<Event> events;
        int seen_ms;
        Verdict verdict;
    } cases[] = {
        {"stop", {{0, 'p'}, {70, 'c'}}, 69, Verdict::Paused},
        {"stop", {{0, 'p'}, {70, 'c'}}, 999, Verdict::Closing},
        {"stop", {{0, 'p'}, {70, 'c'}}, 1000, Verdict::Stopped},
        {"a monitor was turned", {{0, 'd'}, {15, 'c'}, {20, 'p'}}, 15, Verdict::Lost},
        {"a monitor was turned", {{0, 'c'}, {999, 'd'}}, 999, Verdict::Lost},
        {"turned long before the stop", {{0, 'd'}, {1001, 'c'}}, 2001, Verdict::Stopped},
        {"turned too late to be the cause", {{0, 'c'}, {1001, 'd'}}, 1001, Verdict::Stopped},
        {"a new size", {{0, 'd'}, {10, 'p'}, {160, 'r'}}, 5000, Verdict::Runs},
        {"the compositor died", {{0, 'p'}, {5, 'd'}}, 999, Verdict::Paused},
        {"the compositor died", {{0, 'p'}, {5, 'd'}}, 1000, Verdict::Lost},
        {"the session manager died", {{0, 'p'}, {310, 'o'}}, 1000, Verdict::Lost},
        {"closed after the portal was asked",
         {{0, 'p'}, {310, 'o'}, {320, 'c'}},
         1000,
         Verdict::Stopped},
        {"nobody says anything", {{0, 'p'}}, 1000, Verdict::Stopped},
        {"no way back from a close", {{0, 'p'}, {70, 'c'}, {100, 'r'}}, 1000, Verdict::Stopped},
        {"an earlier pause counts no more",
         {{0, 'p'}, {310, 'o'}, {400, 'r'}, {900, 'p'}},
         1900,
         Verdict::Stopped},
    };
    for (const auto& [name, events, seen_ms, verdict] : cases) {
        ShareWatch watch;
        bool runs = true;
        auto next = events.begin();
        for (int ms = 0; ms <= seen_ms; ++ms) {
            const ShareWatch::Time now{std::chrono::hours(1) + milliseconds(ms)};
            for (; next != events.end() && next->at_ms == ms; ++next) {
                if (next->what == 'p' || next->what == 'r') runs = next->what == 'r';
                if (next->what == 'c') watch.closed(now);
                if (next->what == 'd') watch.disturbed(now);
                if (next->what == 'o') {
                    EXPECT_FALSE(watch.wants_to_ask(now)) << "asked already";
                    watch.still_open();
                }
            }
            watch.stream(runs, now);
            watch.wants_to_ask(now);
            const Verdict at_last = watch.verdict(now);
            if (ms < seen_ms) continue;
            EXPECT_EQ(at_last, verdict) << name << " " << seen_ms;
        }
    }
}

}  // namespace
}  // namespace ox::portal
