#include "desktop/desktop.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "desktop/x_server.h"
#include "support/environment.h"
#include "support/temp_dir.h"
#include "support/xvfb.h"

// After the others: defines words as macros.
#include <X11/Xlib.h>

namespace ox {
namespace {

const XAuthorization kOpen{};
const XAuthorization kCookie{"MIT-MAGIC-COOKIE-1", "biscuit"};

using Names = std::vector<std::string>;
using Servers = std::map<int, std::map<std::string, XAuthorization>>;  ///< by authority file

/// A machine with these desktops.
struct Machine final : DesktopSources {
    Machine(const Names& names, const Names& displays, const Servers& servers)
        : manager(names), wayland(displays), x(servers) {}
    Names manager, wayland;
    Servers x;

    Names manager_environment() override { return manager; }
    std::vector<int> x_displays() override {
        std::vector<int> numbers;
        for (const auto& [number, keys] : x)
            numbers.push_back(number);
        return numbers;
    }
    std::optional<XAccess> connect_x(int x_display, const std::string& file) override {
        if (!x.contains(x_display) || !x[x_display].contains(file)) return std::nullopt;
        return XAccess{.authorization = x[x_display][file]};
    }
    Names wayland_displays() override { return wayland; }
    bool wayland_answers(const std::string& display) override {
        return std::find(wayland.begin(), wayland.end(), display) != wayland.end();
    }
};

TEST(FindDesktop, PicksWhatExistsAndIgnoresLeftOvers) {
    const Names x_session{"LANG=C", "DISPLAY=:0", "XAUTHORITY=/auth"};
    const Names wayland_session{"DISPLAY=:0", "WAYLAND_DISPLAY=wayland-0",
                                "XDG_SESSION_TYPE=wayland"};
    const Names x_after_wayland{"DISPLAY=:0", "XDG_SESSION_TYPE=x11", "WAYLAND_DISPLAY=wayland-0"};
    const Names remote{"XDISPLAY=:0", "DISPLAY=remote:0"};
    const Servers open{{0, {{"", kOpen}}}};
    const Servers several{{0, {}}, {1, {{"", kOpen}}}, {2, {{"", kOpen}}}};
    const struct {
        const char* name;
        Desktop known;
        Names manager, wayland;
        Servers x;
        const char* found;
        XAuthorization key = kOpen;
    } cases[] = {
        {"nothing", {}, x_session, {}, {}, "X11 "},
        {"X session", {}, x_session, {}, {{0, {{"/auth", kCookie}}}}, "X11 :0", kCookie},
        {"a greeter's server", {}, x_session, {}, {{0, {{"/greeter", kOpen}}}}, "X11 "},
        {"Wayland session", {}, wayland_session, {"wayland-0"}, {}, "Wayland wayland-0"},
        // A stale session type does not decide between what exists.
        {"X after Wayland", {}, wayland_session, {}, open, "X11 :0"},
        {"Wayland after X", {}, x_after_wayland, {"wayland-0"}, {}, "Wayland wayland-0"},
        {"all left over", {}, wayland_session, {}, {{3, {{"", kCookie}}}}, "X11 :3", kCookie},
        {"no manager", {}, {}, {"wayland-1"}, open, "Wayland wayland-1"},
        {"the first that admits us", {}, remote, {}, several, "X11 :1"},
        // What is configured decides.
        {"session type given", {.session_type = "x11"}, {}, {"wayland-1"}, open, "X11 :0"},
        {"a remote login", {.session_type = "tty"}, {}, {"wayland-1"}, {}, "Wayland wayland-1"},
        {"display given", {.display = ":9"}, wayland_session, {"wayland-0"}, open, "X11 :9"},
    };
    for (const auto& [name, known, manager, wayland, x, found, key] : cases) {
        SCOPED_TRACE(name);
        Machine machine(manager, wayland, x);
        const Desktop desktop = find_desktop(known, machine);
        EXPECT_EQ(describe(desktop), found);
        EXPECT_EQ(desktop.x_access.authorization, key);
    }
}

TEST(XCookies, AreThoseOfTheDisplayWhateverTheHostName) {
    constexpr uint16_t kLocal = 256;
    constexpr uint16_t kWild = 65535;
    constexpr uint16_t kInternet = 0;
    const std::string scheme = "MIT-MAGIC-COOKIE-1";
    const std::string file =
        test::x_authority_entry(kInternet, "\x7f", "7", scheme, "remote") +
        test::x_authority_entry(kLocal, "old-name", "7", scheme, std::string("ol\0d", 4)) +
        test::x_authority_entry(kLocal, "name", "8", scheme, "other display") +
        test::x_authority_entry(kLocal, "name", "7", "XDM-AUTHORIZATION-1", "other scheme") +
        test::x_authority_entry(kWild, "", "", scheme, "any");
    const test::TempDir dir;
    const std::string path = dir.write("Xauthority", file);
    EXPECT_EQ(x_cookies(path, 7),
              (std::vector<XAuthorization>{{scheme, std::string("ol\0d", 4)}, {scheme, "any"}}));
    dir.write("Xauthority", file.substr(0, file.size() - 1));
    EXPECT_EQ(x_cookies(path, 7).size(), 1U);
    EXPECT_TRUE(x_cookies(dir.path().string(), 7).empty());
    EXPECT_TRUE(x_cookies(dir.file("nothing"), 7).empty());
}

constexpr const char* kUser = "nobody";
constexpr uid_t kUserId = 65534;

/// Whether the user `kUser` accepts the server of this display as its own.
bool is_admitted(int display, const XAuthorization& authorization) {
    const pid_t child = ::fork();
    if (child == 0) {
        const bool is_user = ::setresuid(kUserId, kUserId, kUserId) == 0;
        const auto deadline = SteadyClock::now() + std::chrono::seconds(10);
        ::_exit(is_user && connect_own_x_server(display, authorization, deadline, {}) ? 1 : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status) != 0;
}

TEST(OwnXServer, OfRootIsOneWhoseCookieTheUserHas) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start a server of root";
    const test::TempDir dir;
    const XAuthorization cookie{"MIT-MAGIC-COOKIE-1", std::string(16, '7')};
    const XAuthorization stale{cookie.name, std::string(16, '8')};
    const std::string authority =
        dir.write("authority", test::x_authority_entry(65535, "", "", cookie.name, cookie.data));
    const auto server = test::Xvfb::start({.arguments = {"-auth", authority}});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    const test::Environment as_its_user("XAUTHORITY", authority);
    const std::unique_ptr<Display, decltype(&XCloseDisplay)> owner(
        XOpenDisplay(server->display().c_str()), XCloseDisplay);
    ASSERT_NE(owner, nullptr);
    const int display = local_display_number(server->display()).value();
    const auto admit = [&](std::string user) {
        std::string type = "localuser";
        XServerInterpretedAddress address{static_cast<int>(type.size()),
                                          static_cast<int>(user.size()), type.data(), user.data()};
        XHostAddress host{FamilyServerInterpreted, 0, reinterpret_cast<char*>(&address)};
        XAddHost(owner.get(), &host);
        XSync(owner.get(), False);
    };

    EXPECT_TRUE(is_admitted(display, cookie));
    EXPECT_FALSE(is_admitted(display, stale));
    EXPECT_FALSE(is_admitted(display, kOpen));
    // Every local user is admitted: that proves nothing.
    XDisableAccessControl(owner.get());
    admit("daemon");
    EXPECT_FALSE(is_admitted(display, kOpen));
    EXPECT_FALSE(is_admitted(display, stale));
    // Many distributions admit the user by name, too.
    admit(kUser);
    EXPECT_TRUE(is_admitted(display, cookie));
    XEnableAccessControl(owner.get());
    XSync(owner.get(), False);
    EXPECT_TRUE(is_admitted(display, cookie));
    EXPECT_FALSE(is_admitted(display, kOpen));
}

}  // namespace
}  // namespace ox
