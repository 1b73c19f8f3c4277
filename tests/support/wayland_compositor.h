#pragma once

#include <atomic>
#include <string>
#include <thread>

struct wl_display;
struct wl_resource;

namespace ox::test {

/// A Wayland compositor with one monitor, which can be rotated. Destroying it simulates the
/// compositor's end.
class WaylandCompositor {
  public:
    /// Listens at `socket`; throws std::runtime_error when it cannot.
    explicit WaylandCompositor(const std::string& socket);
    ~WaylandCompositor();

    /// Rotates the monitor and notifies the last client that bound it; repeats the old settings
    /// before.
    void turn_monitor() { turn_ = true; }
    /// How many clients have bound the monitor.
    [[nodiscard]] int watchers() const { return watchers_; }

  private:
    void run();
    void send_settings() const;

    wl_display* display_;
    wl_resource* monitor_ = nullptr;  ///< the last client's
    int transform_ = 0;
    std::atomic<int> watchers_{0};
    std::atomic<bool> turn_{false};
    std::atomic<bool> end_{false};
    std::thread thread_;
};

}  // namespace ox::test
