#pragma once

#include <gtest/gtest.h>

#include <string>

#include "dbus/bus_connection.h"
#include "support/child_process.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

namespace ox::test {

/// A private system bus, on which the test is the service `name`.
class SystemBus {
  public:
    explicit SystemBus(const char* name) {
        std::string error;
        const auto open = [&] { return service.open(address_, std::chrono::seconds(5), error); };
        EXPECT_TRUE(eventually(open)) << error;
        const DBusMessagePtr call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                               DBUS_INTERFACE_DBUS, "RequestName"));
        const dbus_uint32_t flags = 0;
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_UINT32, &flags,
                                 DBUS_TYPE_INVALID);
        EXPECT_NE(service.call(*call, std::chrono::seconds(5)), nullptr);
    }

  private:
    TempDir dir_;
    std::string address_ = "unix:path=" + dir_.file("bus");
    ChildProcess daemon_{
        {.argv = {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address_},
         .environment = {}}};
    Environment variable_{"DBUS_SYSTEM_BUS_ADDRESS", address_};

  public:
    BusConnection service{{}};  ///< the service's end
};

/// A system bus that accepts connections and never answers.
class DeafBus {
    TempDir dir_;

  public:
    const std::string path = dir_.file("deaf");

  private:
    UniqueFd listener_ = listen_unix(path);
    Environment variable_{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + path};
};

}  // namespace ox::test
