// Input from a Wayland desktop: the portal's messages, PipeWire's formats and buffers, and the file
// with the portal's token. The first byte selects one of them.

#include <dbus/dbus.h>
#include <fcntl.h>
#include <spa/buffer/buffer.h>
#include <spa/pod/pod.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <span>

#include "base/unique_fd.h"
#include "fuzz.h"
#include "video/portal/portal_bus.h"
#include "video/portal/portal_messages.h"
#include "video/portal/restore_token.h"
#include "video/portal/stream_format.h"

namespace {

namespace portal = ox::portal;
using Bytes = std::span<const uint8_t>;

constexpr uint32_t kSerial = 3;
constexpr const char* kRequest = "/org/freedesktop/portal/desktop/request/1_5/oxreq_1";

/// Removes the first message from `bytes`; null when there is none that a bus would deliver.
ox::DBusMessagePtr take_message(Bytes& bytes) {
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    const int needed = dbus_message_demarshal_bytes_needed(text, static_cast<int>(bytes.size()));
    if (needed <= 0 || static_cast<size_t>(needed) > bytes.size()) return nullptr;
    bytes = bytes.subspan(static_cast<size_t>(needed));
    return ox::DBusMessagePtr(dbus_message_demarshal(text, needed, nullptr));
}

/// The bytes of a Response signal up to its body.
std::string response_header() {
    const ox::DBusMessagePtr signal(
        dbus_message_new_signal(kRequest, "org.freedesktop.portal.Request", "Response"));
    dbus_message_set_serial(signal.get(), 7);
    DBusMessageIter arguments;
    DBusMessageIter results;
    const dbus_uint32_t code = 0;
    dbus_message_iter_init_append(signal.get(), &arguments);
    dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, &code);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "{sv}", &results);
    dbus_message_iter_close_container(&arguments, &results);
    char* bytes = nullptr;
    int length = 0;
    OX_FUZZ_REQUIRE(dbus_message_marshal(signal.get(), &bytes, &length) != FALSE);
    constexpr size_t kEmptyBody = 8;  // the code and the length of the dictionary
    std::string header(bytes, static_cast<size_t>(length) - kEmptyBody);
    dbus_free(bytes);
    return header;
}

/// Uses a response's texts as the next calls of a session do.
void use_response(const portal::Response& response) {
    const auto start = portal::make_call("Start", response.session_handle, "", {});
    const bool is_path = dbus_validate_path(response.session_handle.c_str(), nullptr) != FALSE;
    OX_FUZZ_REQUIRE((start != nullptr) == is_path);
    OX_FUZZ_REQUIRE((portal::make_close(response.session_handle, "a.b") != nullptr) == is_path);
    OX_FUZZ_REQUIRE(
        portal::make_call("SelectSources", {{"restore_token", response.restore_token}}) != nullptr);
}

void messages(Bytes bytes) {
    portal::PendingRequest pending(kSerial, kRequest);
    while (const auto message = take_message(bytes)) {
        portal::is_session_closed(*message, kRequest);
        portal::is_service_gone(*message);
        const auto state = pending.handle_message(*message);
        if (state == portal::PendingRequest::State::Waiting) continue;
        if (state == portal::PendingRequest::State::Answered) use_response(pending.response());
        break;
    }
    portal::make_close(pending.handle(), "a.b");
}

void response_body(Bytes body) {
    static const std::string header = response_header();
    std::string bytes = header;
    const auto length = static_cast<uint32_t>(body.size());
    constexpr size_t kLengthAt = 4;  // in the header of every message, in the sender's byte order
    std::memcpy(bytes.data() + kLengthAt, &length, sizeof length);
    bytes.append(reinterpret_cast<const char*>(body.data()), body.size());
    Bytes whole(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    const auto signal = take_message(whole);
    if (!signal) return;
    const auto response = portal::parse_response(*signal);
    OX_FUZZ_REQUIRE(response.has_value());
    use_response(*response);
}

void format(Bytes bytes) {
    spa_pod header{};
    if (bytes.size() < sizeof header) return;
    std::memcpy(&header, bytes.data(), sizeof header);
    // PipeWire never passes an object larger than its message.
    if (header.size > bytes.size() - sizeof header) return;
    const size_t size = sizeof header + header.size;
    const auto pod = std::make_unique_for_overwrite<uint8_t[]>(size);
    std::memcpy(pod.get(), bytes.data(), size);
    const auto parsed = portal::parse_format(*reinterpret_cast<const spa_pod*>(pod.get()));
    if (parsed) OX_FUZZ_REQUIRE(parsed->size.width - 1 < 16384 && parsed->size.height - 1 < 16384);
}

void buffer(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    spa_chunk chunk{};
    chunk.offset = input.ConsumeIntegral<uint32_t>();
    chunk.size = input.ConsumeIntegral<uint32_t>();
    chunk.stride = input.ConsumeIntegral<int32_t>();
    chunk.flags = input.ConsumeIntegral<int32_t>();
    const portal::PictureSize picture{.width = input.ConsumeIntegralInRange(0U, 16384U),
                                      .height = input.ConsumeIntegralInRange(0U, 16384U)};
    spa_data block{};
    uint8_t memory = 0;  // never read
    block.data = input.ConsumeBool() ? &memory : nullptr;
    block.maxsize = input.ConsumeIntegral<uint32_t>();
    block.chunk = &chunk;
    const auto found = portal::picture_in(block, picture);
    if (!found) return;
    // In whole numbers of any size: the last row ends within the block.
    __extension__ using Wide = unsigned __int128;
    const Wide offset = static_cast<Wide>(reinterpret_cast<uintptr_t>(found->rows)) -
                        reinterpret_cast<uintptr_t>(&memory);
    OX_FUZZ_REQUIRE(found->stride >= size_t{picture.width} * 4);
    OX_FUZZ_REQUIRE(offset + Wide{found->stride} * (picture.height - 1) + Wide{picture.width} * 4 <=
                    block.maxsize);
}

void token_file(Bytes bytes) {
    static const ox::UniqueFd file(::memfd_create("portal_restore_token", MFD_CLOEXEC));
    static const ox::RestoreTokenFile token_file("/proc/self/fd/" + std::to_string(file.get()));
    const auto size = static_cast<ssize_t>(bytes.size());
    OX_FUZZ_REQUIRE(::ftruncate(file.get(), 0) == 0 &&
                    ::pwrite(file.get(), bytes.data(), bytes.size(), 0) == size);
    const auto token = token_file.read();
    if (!token) return;
    OX_FUZZ_REQUIRE(!token->empty() && token->size() <= ox::RestoreTokenFile::kMaxRead);
    OX_FUZZ_REQUIRE(portal::make_call("SelectSources", {{"restore_token", *token}}) != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const Bytes bytes(data + 1, size - 1);
    switch (data[0] % 5) {
        case 0:
            messages(bytes);
            break;
        case 1:
            response_body(bytes);
            break;
        case 2:
            format(bytes);
            break;
        case 3:
            buffer(bytes.data(), bytes.size());
            break;
        default:
            token_file(bytes);
            break;
    }
    return 0;
}
