#include <gtest/gtest.h>

#include "support/environment.h"
#include "video/synthetic_capture.h"
#include "video/x11_capture.h"

namespace ox {
namespace {

TEST(MakeCapture, ChoosesByModeAndSession) {
    enum Kind { Synthetic, X11, Portal };
    const struct {
        const char* mode;
        std::optional<std::string> session;
        std::optional<std::string> wayland;
        Kind kind;
    } cases[] = {
        {"synthetic", "wayland", "wayland-0", Synthetic},
        {"x11", "wayland", "wayland-0", X11},
        {"portal", "x11", std::nullopt, Portal},
        {"auto", "wayland", std::nullopt, Portal},
        {"auto", "x11", "wayland-0", X11},
        {"auto", std::nullopt, "wayland-0", Portal},
        {"auto", std::nullopt, "", X11},
        {"auto", "Wayland", std::nullopt, X11},
    };
    for (const auto& [mode, session, wayland, kind] : cases) {
        const test::Environment type("XDG_SESSION_TYPE", session);
        const test::Environment display("WAYLAND_DISPLAY", wayland);
        const auto capture = make_capture(mode, ":99", 320, 200);
        ASSERT_NE(capture, nullptr);
        const Kind made = dynamic_cast<SyntheticCapture*>(capture.get()) != nullptr ? Synthetic
                          : dynamic_cast<X11Capture*>(capture.get()) != nullptr     ? X11
                                                                                    : Portal;
        EXPECT_EQ(made, kind) << mode << " " << session.value_or("-");
    }
}

}  // namespace
}  // namespace ox
