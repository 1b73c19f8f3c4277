#pragma once

#include <dbus/dbus.h>

#include <memory>

namespace ox {

struct DBusMessageUnref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
/// One reference to a message.
using DBusMessagePtr = std::unique_ptr<DBusMessage, DBusMessageUnref>;

struct DBusConnectionClose {
    void operator()(DBusConnection* connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
/// A private connection, closed when it goes.
using DBusConnectionPtr = std::unique_ptr<DBusConnection, DBusConnectionClose>;

/// An error that a libdbus call may fill.
class DBusErrorText {
  public:
    DBusErrorText() { dbus_error_init(&error_); }
    ~DBusErrorText() { dbus_error_free(&error_); }
    DBusErrorText(const DBusErrorText&) = delete;
    DBusErrorText& operator=(const DBusErrorText&) = delete;

    DBusError* fill() { return &error_; }
    /// What was filled in, "?" when nothing was.
    [[nodiscard]] const char* text() const {
        return error_.message != nullptr ? error_.message : "?";
    }

  private:
    DBusError error_{};
};

}  // namespace ox
