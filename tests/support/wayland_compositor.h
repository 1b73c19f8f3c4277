#pragma once

#include <atomic>
#include <string>
#include <thread>

struct wl_display;
struct wl_resource;

namespace ox::test {

/// A Wayland compositor with one monitor, which can be turned, and nothing else. Destroying it is a
/// compositor's death.
class WaylandCompositor {
  public:
    /// Listens at `socket`; throws std::runtime_error when it cannot.
    explicit WaylandCompositor(const std::string& socket);
    ~WaylandCompositor();
    WaylandCompositor(const WaylandCompositor&) = delete;
    WaylandCompositor& operator=(const WaylandCompositor&) = delete;

    /// Turns the monitor and tells the latest that has bound it and is there still; tells the same
    /// once before.
    void turn_monitor() { turn_ = true; }
    /// How many have bound the monitor.
    [[nodiscard]] int watchers() const { return watchers_; }

  private:
    void run();
    void tell() const;

    wl_display* display_;
    wl_resource* monitor_ = nullptr;  ///< of the latest that has bound it
    int transform_ = 0;
    std::atomic<int> watchers_{0};
    std::atomic<bool> turn_{false};
    std::atomic<bool> end_{false};
    std::thread thread_;
};

}  // namespace ox::test
