#pragma once

// Private to this folder: Xlib's macros must not reach anybody else.
#include <X11/extensions/Xdamage.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <thread>

#include "base/unique_fd.h"
#include "video/change_times.h"
#include "video/x11_connection.h"

namespace ox {

/// Hears of every change of an X screen's picture (the DAMAGE extension), over a connection and on
/// a thread of its own, so that neither the frame loop nor its connection waits for anything.
class X11DamageWatch {
  public:
    /// Watches the screen behind `connection`. Null when the server cannot tell of changes.
    static std::unique_ptr<X11DamageWatch> start(std::unique_ptr<XConnection> connection);
    ~X11DamageWatch();
    X11DamageWatch(const X11DamageWatch&) = delete;
    X11DamageWatch& operator=(const X11DamageWatch&) = delete;

    /// When the screen changed, of several changes within 4 ms only the first.
    [[nodiscard]] ChangeTimes& changes() { return changes_; }

    /// A number that grows as soon as the server has told that the screen differs from what was
    /// grabbed after a call of `expect_change`, whether or not the thread has got round to it.
    [[nodiscard]] uint64_t announced() const;

    /// Call before a grab over `grabbing`: asks the server, without waiting for it, to tell of the
    /// next change, whatever it has told of already.
    void expect_change(const XConnection& grabbing) const;

  private:
    X11DamageWatch(std::unique_ptr<XConnection> connection, Damage damage, int event_type,
                   UniqueFd wake);
    void run(const std::stop_token& stop);
    bool read_changes();

    std::unique_ptr<XConnection> connection_;  // used and closed by the thread
    Damage damage_;
    int event_type_;
    UniqueFd wake_;
    int socket_;                    // the connection's
    std::atomic<bool> busy_{true};  // the thread may have read what it has not noted yet
    ChangeTimes changes_;
    std::jthread thread_;
};

}  // namespace ox
