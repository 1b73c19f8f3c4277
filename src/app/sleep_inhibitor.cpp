#include "app/sleep_inhibitor.h"

#include <chrono>

#include "base/thread.h"
#include "dbus/bus_connection.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr std::chrono::milliseconds kBusLimit{5000};

DBusMessagePtr make_inhibit_call() {
    DBusMessagePtr call(dbus_message_new_method_call("org.freedesktop.login1",
                                                     "/org/freedesktop/login1",
                                                     "org.freedesktop.login1.Manager", "Inhibit"));
    const char* what = "sleep:idle";
    const char* who = "orvex-agent";
    const char* why = "A player is using this PC";
    const char* mode = "block";
    if (!call || dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &what, DBUS_TYPE_STRING,
                                          &who, DBUS_TYPE_STRING, &why, DBUS_TYPE_STRING, &mode,
                                          DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    return call;
}

void warn(const char* reason) {
    OX_WARN("Session: the PC may fall asleep under the player (%s)", reason);
}

std::string refusal(DBusMessage* reply) {
    DBusErrorText error;
    if (reply == nullptr) return "no answer";
    if (dbus_set_error_from_message(error.fill(), reply) != FALSE) return error.text();
    return "no descriptor in the answer";
}

}  // namespace

SleepInhibitor::SleepInhibitor() {
    thread_ = start_thread([this](const std::stop_token& stop) { request_lock(stop); }, warn);
}

SleepInhibitor::~SleepInhibitor() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
    if (lock_) OX_DEBUG("Session: sleep and idle are allowed again");
}

void SleepInhibitor::request_lock(const std::stop_token& stop) {
    BusConnection bus([&stop] { return stop.stop_requested(); });
    std::string error;
    if (bus.open(system_bus_address(), kBusLimit, error)) {
        const DBusMessagePtr call = make_inhibit_call();
        const DBusMessagePtr reply = call ? bus.call(*call, kBusLimit) : nullptr;
        if (reply) lock_ = descriptor_in(*reply);
        if (!lock_) error = refusal(reply.get());
    }
    if (lock_) {
        OX_INFO("Session: the PC stays awake until the session ends");
    } else if (!stop.stop_requested()) {
        warn(error.c_str());
    }
}

}  // namespace ox
