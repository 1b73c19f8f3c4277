#include "app/sleep_inhibitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <future>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/system_bus.h"

namespace ox {
namespace {

using namespace std::chrono_literals;

/// A logind for one lock. Returns the requested kind, and a pipe's end that is closed with the
/// lock.
std::pair<std::string, UniqueFd> serve_one_lock(BusConnection& bus) {
    std::string requested;
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd lock(ends[1]);
    bus.read_until(SteadyClock::now() + 10s, [&](DBusMessage& call) {
        std::array<const char*, 4> words{};  // what, who, why, mode
        if (dbus_message_is_method_call(&call, "org.freedesktop.login1.Manager", "Inhibit") ==
                FALSE ||
            dbus_message_get_args(&call, nullptr, DBUS_TYPE_STRING, &words[0], DBUS_TYPE_STRING,
                                  &words[1], DBUS_TYPE_STRING, &words[2], DBUS_TYPE_STRING,
                                  &words[3], DBUS_TYPE_INVALID) == FALSE) {
            return false;
        }
        requested = std::string(words[0]) + " " + words[1] + " " + words[3];
        const DBusMessagePtr reply(dbus_message_new_method_return(&call));
        dbus_message_append_args(reply.get(), DBUS_TYPE_UNIX_FD, &ends[1], DBUS_TYPE_INVALID);
        bus.post(*reply);
        return true;
    });
    return {requested, UniqueFd(ends[0])};
}

bool is_held(const UniqueFd& watched) {
    pollfd entry{.fd = watched.get(), .events = POLLIN, .revents = 0};
    return ::poll(&entry, 1, 0) == 0;
}

TEST(SleepInhibitor, HoldsTheLockWhileItExists) {
    test::SystemBus bus("org.freedesktop.login1");
    auto served = std::async(std::launch::async, [&] { return serve_one_lock(bus.service); });
    const test::LogCapture log;
    std::optional<SleepInhibitor> inhibitor(std::in_place);
    const auto [requested, watched] = served.get();
    EXPECT_EQ(requested, "sleep:idle orvex-agent block");
    EXPECT_TRUE(test::eventually([&] {
        return log.count("INFO", "Session: the PC stays awake until the session ends") == 1;
    })) << log.text();
    EXPECT_TRUE(is_held(watched));
    inhibitor.reset();
    // The bus may close its own copy a little later.
    EXPECT_TRUE(test::eventually([&] { return !is_held(watched); }));
}

TEST(SleepInhibitor, ADeadBusDoesNotDelayTheDestructor) {
    const test::DeafBus bus;
    const auto before = SteadyClock::now();
    { const SleepInhibitor inhibitor; }
    EXPECT_LT(SteadyClock::now() - before, 1s);
}

}  // namespace
}  // namespace ox
