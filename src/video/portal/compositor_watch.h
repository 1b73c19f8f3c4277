#pragma once

#include <memory>
#include <string>

namespace ox {

/// A client of the Wayland compositor that shows nothing, but is notified when a monitor is
/// changed, added or removed, and when the compositor ends. Used by one thread; never waits.
/// Without a compositor there are no events.
class CompositorWatch {
  public:
    enum class Event { None, MonitorChanged, CompositorEnded };

    /// `display` is the value of WAYLAND_DISPLAY; empty: none.
    explicit CompositorWatch(const std::string& display);
    ~CompositorWatch();
    CompositorWatch(const CompositorWatch&) = delete;
    CompositorWatch& operator=(const CompositorWatch&) = delete;

    /// What happened since the last call or the construction.
    Event take_event();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;  ///< null without a compositor
};

}  // namespace ox
