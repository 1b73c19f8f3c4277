#pragma once

// Private to this folder: Xlib's macros must not reach other code.
#include <X11/extensions/Xdamage.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <thread>

#include "base/unique_fd.h"
#include "video/capture.h"
#include "video/x11_connection.h"

namespace ox {

/// Changes of an X screen (the DAMAGE extension), on a connection and thread of its own.
class X11DamageWatch {
  public:
    /// Watches the screen behind `connection`. Null when the server cannot report changes.
    static std::unique_ptr<X11DamageWatch> start(std::unique_ptr<XConnection> connection);
    ~X11DamageWatch();
    X11DamageWatch(const X11DamageWatch&) = delete;
    X11DamageWatch& operator=(const X11DamageWatch&) = delete;

    /// When the screen changed; of several changes within 4 ms only the first.
    [[nodiscard]] ChangeTimes& changes() { return changes_; }

    /// Includes an announcement that the thread has not handled yet.
    [[nodiscard]] uint64_t announced() const;

    /// Makes the server, without waiting for it, announce the next change. Called before a grab
    /// over `connection`: what changes after that grab is announced.
    void rearm(const XConnection& connection) const;

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
    std::atomic<bool> busy_{true};  // the thread may have read changes that it has not noted yet
    ChangeTimes changes_;
    std::jthread thread_;
};

}  // namespace ox
