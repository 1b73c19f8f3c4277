#include "video/portal/share_watch.h"

#include <gtest/gtest.h>

#include <map>

namespace ox::portal {
namespace {

using Verdict = ShareWatch::Verdict;
using std::chrono::milliseconds;

// Sequences observed on real desktops, and ambiguous ones. Events by millisecond: 'p' paused, 'r'
// running again, 'c' closed, 'd' a disturbance, 'o' the portal confirms the session.
TEST(ShareWatch, AnEndIsTheOwnersUnlessSomethingElseExplainsIt) {
    const struct {
        const char* name;
        std::map<int, char> events;
        int seen_ms;
        Verdict verdict;
    } cases[] = {
        {"stop", {{0, 'p'}, {70, 'c'}}, 69, Verdict::Paused},
        {"stop", {{0, 'p'}, {70, 'c'}}, 999, Verdict::Closing},
        {"a monitor was turned", {{0, 'd'}, {15, 'c'}, {20, 'p'}}, 15, Verdict::Lost},
        {"a monitor was turned", {{0, 'c'}, {999, 'd'}}, 999, Verdict::Lost},
        {"turned long before the stop", {{0, 'd'}, {1001, 'c'}}, 2001, Verdict::Stopped},
        {"turned too late to be the cause", {{0, 'c'}, {1001, 'd'}}, 1001, Verdict::Stopped},
        {"a new size", {{0, 'd'}, {10, 'p'}, {160, 'r'}}, 5000, Verdict::Runs},
        {"the compositor died", {{0, 'p'}, {5, 'd'}}, 999, Verdict::Paused},
        {"the compositor died", {{0, 'p'}, {5, 'd'}}, 1000, Verdict::Lost},
        {"the portal has it still", {{0, 'p'}, {310, 'o'}}, 1000, Verdict::Lost},
        {"closed when asked", {{0, 'p'}, {310, 'o'}, {320, 'c'}}, 1000, Verdict::Stopped},
        {"nobody says anything", {{0, 'p'}}, 1000, Verdict::Stopped},
        {"no way back from a close", {{0, 'p'}, {70, 'c'}, {100, 'r'}}, 1000, Verdict::Stopped},
        {"paused before", {{0, 'p'}, {310, 'o'}, {400, 'r'}, {900, 'p'}}, 1900, Verdict::Stopped},
    };
    for (const auto& [name, events, seen_ms, verdict] : cases) {
        ShareWatch watch;
        bool runs = true;
        for (int ms = 0; ms <= seen_ms; ++ms) {
            const ShareWatch::Time now{std::chrono::hours(1) + milliseconds(ms)};
            const auto what = events.contains(ms) ? events.at(ms) : ' ';
            if (what == 'p' || what == 'r') runs = what == 'r';
            if (what == 'c') watch.session_closed(now);
            if (what == 'd') watch.disturbance(now);
            if (what == 'o') {
                EXPECT_FALSE(watch.should_query_session(now)) << "queried already";
                watch.session_confirmed();
            }
            watch.stream_state(runs, now);
            watch.should_query_session(now);
            const Verdict at_last = watch.verdict(now);
            if (ms < seen_ms) continue;
            EXPECT_EQ(at_last, verdict) << name << " " << seen_ms;
        }
    }
}

}  // namespace
}  // namespace ox::portal
