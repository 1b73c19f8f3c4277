#include "video/portal/pending_request.h"

namespace ox::portal {
namespace {

constexpr const char* kRequest = "org.freedesktop.portal.Request";
constexpr size_t kMaxEarly = 16;  // a portal sends one

std::string text_or_empty(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

PendingRequest::State PendingRequest::take(DBusMessage& message) {
    const int type = dbus_message_get_type(&message);
    const bool is_reply =
        type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
    if (is_reply && dbus_message_get_reply_serial(&message) == serial_) return take_reply(message);
    if (dbus_message_is_signal(&message, kRequest, "Response") == FALSE) return State::Waiting;
    if (!handle_.empty()) return is_ours(message) ? answer(message) : State::Waiting;
    if (early_.size() == kMaxEarly) early_.pop_front();
    early_.emplace_back(dbus_message_ref(&message));
    return State::Waiting;
}

PendingRequest::State PendingRequest::take_reply(DBusMessage& reply) {
    if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR) {
        DBusErrorText error;
        dbus_set_error_from_message(error.fill(), &reply);
        error_ = text_or_empty(dbus_message_get_error_name(&reply)) + ": " + error.text();
        return State::Refused;
    }
    handle_ = reply_path(reply);
    if (handle_.empty()) return State::Refused;
    portal_ = text_or_empty(dbus_message_get_sender(&reply));
    for (const DBusMessagePtr& signal : early_) {
        if (is_ours(*signal) && answer(*signal) == State::Answered) return State::Answered;
    }
    return State::Waiting;
}

bool PendingRequest::is_ours(DBusMessage& signal) const {
    const std::string path = text_or_empty(dbus_message_get_path(&signal));
    return (path == handle_ || path == expected_path_) &&
           text_or_empty(dbus_message_get_sender(&signal)) == portal_;
}

PendingRequest::State PendingRequest::answer(DBusMessage& signal) {
    auto response = parse_response(signal);
    if (!response) return State::Waiting;
    response_ = *std::move(response);
    return State::Answered;
}

}  // namespace ox::portal
