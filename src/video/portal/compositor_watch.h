#pragma once

#include <memory>
#include <string>

namespace ox {

/// Learns from the Wayland compositor that a monitor is changed, added or removed, or the
/// compositor ends. Without one there are no events. One thread; never waits.
class CompositorWatch {
  public:
    enum class Event { None, MonitorChanged, CompositorEnded };

    /// `display` is the value of WAYLAND_DISPLAY; empty: none.
    explicit CompositorWatch(const std::string& display);
    ~CompositorWatch();
    CompositorWatch(const CompositorWatch&) = delete;
    CompositorWatch& operator=(const CompositorWatch&) = delete;

    Event take_event();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;  ///< null without a compositor
};

}  // namespace ox
