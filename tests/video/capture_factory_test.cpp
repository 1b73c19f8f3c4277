#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "video/synthetic_capture.h"
#include "video/x11_capture.h"

namespace ox {
namespace {

class Environment {
  public:
    Environment(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            had_ = true;
            old_ = old;
        }
        set(value);
    }
    ~Environment() { set(had_ ? old_.c_str() : nullptr); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

  private:
    void set(const char* value) const {
        value != nullptr ? ::setenv(name_, value, 1) : ::unsetenv(name_);
    }
    const char* name_;
    bool had_ = false;
    std::string old_;
};

TEST(MakeCapture, ChoosesByModeAndSession) {
    enum Kind { Synthetic, X11, Portal };
    const struct {
        const char* mode;
        const char* session;
        const char* wayland;
        Kind kind;
    } cases[] = {
        {"synthetic", "wayland", "wayland-0", Synthetic},
        {"x11", "wayland", "wayland-0", X11},
        {"portal", "x11", nullptr, Portal},
        {"auto", "wayland", nullptr, Portal},
        {"auto", "x11", "wayland-0", X11},
        {"auto", "tty", "wayland-0", Portal},
        {"auto", nullptr, "wayland-0", Portal},
        {"auto", nullptr, "", X11},
        {"auto", nullptr, nullptr, X11},
        {"auto", "Wayland", nullptr, X11},
    };
    for (const auto& [mode, session, wayland, kind] : cases) {
        const Environment type("XDG_SESSION_TYPE", session);
        const Environment display("WAYLAND_DISPLAY", wayland);
        const auto capture = make_capture(mode, ":99", 320, 200);
        ASSERT_NE(capture, nullptr);
        const Kind made = dynamic_cast<SyntheticCapture*>(capture.get()) != nullptr ? Synthetic
                          : dynamic_cast<X11Capture*>(capture.get()) != nullptr     ? X11
                                                                                    : Portal;
        EXPECT_EQ(made, kind) << mode << " " << (session ? session : "-");
        EXPECT_EQ(capture->width(), kind == Synthetic ? 320U : 0U);
    }
}

}  // namespace
}  // namespace ox
