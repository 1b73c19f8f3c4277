#include "app/sleep_inhibitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <future>

#include "support/environment.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/system_bus.h"
#include "support/temp_dir.h"
#include "support/unix_socket.h"

namespace ox {
namespace {

using namespace std::chrono_literals;

/// logind as far as it matters here: gives out one lock. Returns what was asked for, and the end
/// that sees the lock go.
std::pair<std::string, UniqueFd> serve_one_lock(BusConnection& bus) {
    std::string asked;
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    UniqueFd watched(ends[0]);
    const UniqueFd lock(ends[1]);
    bus.read_until(SteadyClock::now() + 10s, [&](DBusMessage& call) {
        if (dbus_message_is_method_call(&call, "org.freedesktop.login1.Manager", "Inhibit") ==
            FALSE) {
            return false;
        }
        const char* what = "";
        const char* who = "";
        const char* why = "";
        const char* mode = "";
        dbus_message_get_args(&call, nullptr, DBUS_TYPE_STRING, &what, DBUS_TYPE_STRING, &who,
                              DBUS_TYPE_STRING, &why, DBUS_TYPE_STRING, &mode, DBUS_TYPE_INVALID);
        asked = std::string(what) + " " + who + " " + mode;
        const DBusMessagePtr reply(dbus_message_new_method_return(&call));
        const int fd = lock.get();
        dbus_message_append_args(reply.get(), DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
        bus.post(*reply);
        return true;
    });
    return {asked, std::move(watched)};
}

bool is_held(const UniqueFd& watched) {
    pollfd entry{.fd = watched.get(), .events = POLLIN, .revents = 0};
    return ::poll(&entry, 1, 0) == 0;
}

TEST(SleepInhibitor, HoldsTheLockForAsLongAsItLives) {
    test::SystemBus bus("org.freedesktop.login1");
    auto served = std::async(std::launch::async, [&] { return serve_one_lock(bus.service); });
    const test::LogCapture log;
    std::optional<SleepInhibitor> inhibitor(std::in_place);
    const auto [asked, watched] = served.get();
    EXPECT_EQ(asked, "sleep:idle orvex-agent block");
    EXPECT_TRUE(test::eventually([&] {
        return log.count("INFO", "Session: the PC stays awake until the session ends") == 1;
    })) << log.text();
    EXPECT_TRUE(is_held(watched));
    inhibitor.reset();
    EXPECT_FALSE(is_held(watched));
}

TEST(SleepInhibitor, ADeafBusCostsNoTime) {
    const test::TempDir dir;
    const std::string path = dir.file("deaf");
    const UniqueFd listener = test::listen_unix(path);
    ASSERT_TRUE(listener);
    const test::Environment deaf("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + path);
    const auto before = SteadyClock::now();
    { const SleepInhibitor inhibitor; }
    EXPECT_LT(SteadyClock::now() - before, 1s);
}

}  // namespace
}  // namespace ox
