#pragma once

#include <memory>
#include <string>

namespace ox {

/// A client of the Wayland compositor that shows nothing: it hears when a monitor changes, comes or
/// goes, and when the compositor ends. Used by one thread; nothing waits. Without a compositor that
/// answers there is never any news.
class CompositorWatch {
  public:
    /// `display` is what WAYLAND_DISPLAY holds; empty: none.
    explicit CompositorWatch(const std::string& display);
    ~CompositorWatch();
    CompositorWatch(const CompositorWatch&) = delete;
    CompositorWatch& operator=(const CompositorWatch&) = delete;

    /// What has happened since the last look (or the construction), in words for the log: null for
    /// nothing.
    const char* news();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;  ///< null without a compositor
};

}  // namespace ox
