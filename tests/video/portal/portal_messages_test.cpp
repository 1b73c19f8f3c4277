#include "video/portal/portal_messages.h"

#include <gtest/gtest.h>

#include "video/portal/pending_request.h"

namespace ox::portal {
namespace {

constexpr uint32_t kSerial = 7;
constexpr const char* kHandle = "/org/freedesktop/portal/desktop/request/1_5/oxreq_1";
constexpr const char* kPortal = ":1.2";

DBusMessagePtr reply(const char* handle, uint32_t serial = kSerial) {
    DBusMessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    dbus_message_set_reply_serial(message.get(), serial);
    dbus_message_set_sender(message.get(), kPortal);
    if (handle != nullptr) {
        dbus_message_append_args(message.get(), DBUS_TYPE_OBJECT_PATH, &handle, DBUS_TYPE_INVALID);
    }
    return message;
}

using Results = std::vector<std::pair<const char*, std::variant<const char*, dbus_uint32_t>>>;

DBusMessagePtr response(uint32_t code, const Results& results, const char* path = kHandle,
                        const char* sender = kPortal) {
    DBusMessagePtr message(
        dbus_message_new_signal(path, "org.freedesktop.portal.Request", "Response"));
    dbus_message_set_sender(message.get(), sender);
    DBusMessageIter arguments, array, entry, value;
    dbus_message_iter_init_append(message.get(), &arguments);
    dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, &code);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "{sv}", &array);
    for (const auto& [key, result] : results) {
        const bool text = std::holds_alternative<const char*>(result);
        dbus_message_iter_open_container(&array, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
        dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
        dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, text ? "s" : "u", &value);
        std::visit(
            [&](const auto& basic) {
                dbus_message_iter_append_basic(&value, text ? DBUS_TYPE_STRING : DBUS_TYPE_UINT32,
                                               &basic);
            },
            result);
        dbus_message_iter_close_container(&entry, &value);
        dbus_message_iter_close_container(&array, &entry);
    }
    dbus_message_iter_close_container(&arguments, &array);
    return message;
}
DBusMessagePtr response(uint32_t code, const char* path = kHandle, const char* sender = kPortal) {
    return response(code, Results{}, path, sender);
}

TEST(PendingRequest, OnlyThePortalsResponseForThisRequestCountsInWhateverOrder) {
    using State = PendingRequest::State;
    struct Case {
        const char* name;
        std::vector<DBusMessagePtr> messages;
        State last;  // all before it leave the request waiting
        uint32_t code = 0;
    };
    const std::string other = std::string(kHandle) + "2";
    std::vector<Case> cases;
    const auto add = [&](const char* name, State last, uint32_t code, auto... messages) {
        Case& added = cases.emplace_back(Case{name, {}, last, code});
        (added.messages.push_back(std::move(messages)), ...);
    };
    add("reply first", State::Answered, 1U, reply(kHandle), response(1));
    add("Response first", State::Answered, 1U, response(1), reply(kHandle));
    add("another request's", State::Answered, 3U, response(1, other.c_str()), reply(kHandle),
        response(2, other.c_str()), response(3));
    add("another sender's", State::Answered, 3U, response(1, kHandle, ":1.9"), reply(kHandle),
        response(2, kHandle, ":1.9"), response(3));
    add("another call's reply", State::Waiting, 0U, reply(kHandle, kSerial + 1), response(1));
    add("no handle", State::Refused, 0U, response(1), reply(nullptr));
    Case& flood = cases.emplace_back(Case{"many before the reply", {}, State::Answered, 1});
    for (int i = 0; i < 100; ++i)
        flood.messages.push_back(response(2, other.c_str()));
    flood.messages.push_back(response(1));
    flood.messages.push_back(reply(kHandle));
    for (auto& [name, messages, last, code] : cases) {
        SCOPED_TRACE(name);
        PendingRequest request(kSerial);
        for (size_t i = 0; i + 1 < messages.size(); ++i)
            EXPECT_EQ(request.take(*messages[i]), State::Waiting) << i;
        EXPECT_EQ(request.take(*messages.back()), last);
        EXPECT_EQ(request.response().code, code);
    }
}

TEST(PortalMessages, AResponseIsReadWhateverTypesItsResultsHave) {
    DBusMessagePtr wrong(
        dbus_message_new_signal(kHandle, "org.freedesktop.portal.Request", "Response"));
    EXPECT_FALSE(parse_response(*wrong));
    const dbus_uint32_t code = 0;
    dbus_message_append_args(wrong.get(), DBUS_TYPE_UINT32, &code, DBUS_TYPE_INVALID);
    EXPECT_FALSE(parse_response(*wrong));
    auto read = parse_response(*response(0, {{"session_handle", "/a/b"},
                                             {"something_new", dbus_uint32_t{1}},
                                             {"restore_token", "ключ"}}));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->session_handle, "/a/b");
    EXPECT_EQ(read->restore_token, "ключ");
    EXPECT_FALSE(read->node);
    read = parse_response(*response(0, {{"session_handle", dbus_uint32_t{5}},
                                        {"restore_token", dbus_uint32_t{5}},
                                        {"streams", dbus_uint32_t{5}}}));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->session_handle, "");
    EXPECT_EQ(read->restore_token, "");
    EXPECT_FALSE(read->node);
}

TEST(PortalMessages, WhatTheBusWouldNotCarryMakesNoCall) {
    EXPECT_NE(make_call("Start", "/session", "", {{"handle_token", next_token("oxreq_")}}),
              nullptr);
    EXPECT_EQ(make_call("Start", "not a path", "", {}), nullptr);
    EXPECT_EQ(make_call("SelectSources", "/session", {{"restore_token", std::string("\xFF")}}),
              nullptr);
    EXPECT_EQ(make_close("", "org.freedesktop.portal.Request"), nullptr);
    EXPECT_NE(next_token("oxreq_"), next_token("oxreq_"));
}

}  // namespace
}  // namespace ox::portal
