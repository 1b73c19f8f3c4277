#pragma once

#include <dbus/dbus.h>

#include "base/c_handle.h"

namespace ox {

using DBusMessagePtr = CHandle<DBusMessage, dbus_message_unref>;

inline void close_and_unref(DBusConnection* connection) {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}
using DBusConnectionPtr = CHandle<DBusConnection, close_and_unref>;

/// An error that a libdbus call may set.
class DBusErrorText {
  public:
    DBusErrorText() { dbus_error_init(&error_); }
    ~DBusErrorText() { dbus_error_free(&error_); }
    DBusErrorText(const DBusErrorText&) = delete;
    DBusErrorText& operator=(const DBusErrorText&) = delete;

    DBusError* fill() { return &error_; }
    /// The message, "?" when no error was set.
    [[nodiscard]] const char* text() const {
        return error_.message != nullptr ? error_.message : "?";
    }

  private:
    DBusError error_{};
};

}  // namespace ox
