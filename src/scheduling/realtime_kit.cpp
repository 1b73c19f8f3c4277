#include "scheduling/realtime_kit.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "scheduling/kernel_scheduling.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kLimit{5};
constexpr const char* kService = "org.freedesktop.RealtimeKit1";
constexpr const char* kPath = "/org/freedesktop/RealtimeKit1";

DBusMessagePtr make_call(const char* interface, const char* method) {
    return DBusMessagePtr(dbus_message_new_method_call(kService, kPath, interface, method));
}

/// The integer in a reply of org.freedesktop.DBus.Properties.Get.
std::optional<int64_t> integer_in(DBusMessage& reply) {
    DBusMessageIter arguments;
    DBusMessageIter value;
    if (dbus_message_iter_init(&reply, &arguments) == FALSE ||
        dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_VARIANT) {
        return std::nullopt;
    }
    dbus_message_iter_recurse(&arguments, &value);
    if (dbus_message_iter_get_arg_type(&value) == DBUS_TYPE_INT32) {
        dbus_int32_t number = 0;
        dbus_message_iter_get_basic(&value, &number);
        return number;
    }
    if (dbus_message_iter_get_arg_type(&value) == DBUS_TYPE_INT64) {
        dbus_int64_t number = 0;
        dbus_message_iter_get_basic(&value, &number);
        return number;
    }
    return std::nullopt;
}

}  // namespace

RealtimeKit::RealtimeKit(BusConnection::Cancelled cancelled)
    : deadline_(SteadyClock::now() + kLimit), bus_(std::move(cancelled)) {}

std::chrono::milliseconds RealtimeKit::time_left() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - SteadyClock::now());
    return std::max(left, std::chrono::milliseconds::zero());
}

bool RealtimeKit::connect() {
    return bus_.is_open() || bus_.open(system_bus_address(), time_left(), error_);
}

DBusMessagePtr RealtimeKit::call(DBusMessage& message) {
    DBusMessagePtr reply = bus_.call(message, time_left());
    DBusErrorText error;
    if (!reply) {
        error_ = "RealtimeKit does not answer";
    } else if (dbus_set_error_from_message(error.fill(), reply.get()) != FALSE) {
        error_ = error.text();
        reply.reset();
    }
    return reply;
}

std::optional<int64_t> RealtimeKit::property(const char* name) {
    const DBusMessagePtr get = make_call(DBUS_INTERFACE_PROPERTIES, "Get");
    if (!get || dbus_message_append_args(get.get(), DBUS_TYPE_STRING, &kService, DBUS_TYPE_STRING,
                                         &name, DBUS_TYPE_INVALID) == FALSE) {
        return std::nullopt;
    }
    const DBusMessagePtr reply = call(*get);
    if (!reply) return std::nullopt;
    const std::optional<int64_t> value = integer_in(*reply);
    if (!value) error_ = std::string("RealtimeKit has no ") + name;
    return value;
}

bool RealtimeKit::request(const char* method, pid_t thread, int argument_type,
                          const void* argument) {
    const DBusMessagePtr message = make_call(kService, method);
    const auto id = static_cast<dbus_uint64_t>(thread);
    return message &&
           dbus_message_append_args(message.get(), DBUS_TYPE_UINT64, &id, argument_type, argument,
                                    DBUS_TYPE_INVALID) != FALSE &&
           call(*message) != nullptr;
}

bool RealtimeKit::make_real_time(pid_t thread, int priority) {
    if (!connect()) return false;
    const auto max_priority = property("MaxRealtimePriority");
    const auto longest_us = property("RTTimeUSecMax");
    if (!max_priority || !longest_us) return false;
    if (!RealTimeLimit::kill_after(std::chrono::microseconds(*longest_us))) {
        error_ = "RLIMIT_RTTIME cannot be set";
        return false;
    }
    const auto granted = static_cast<dbus_uint32_t>(
        std::clamp<int64_t>(priority, 1, std::max<int64_t>(*max_priority, 1)));
    return request("MakeThreadRealtime", thread, DBUS_TYPE_UINT32, &granted);
}

bool RealtimeKit::raise(pid_t thread, int nice) {
    if (!connect()) return false;
    const dbus_int32_t value = nice;
    return request("MakeThreadHighPriority", thread, DBUS_TYPE_INT32, &value);
}

}  // namespace ox
