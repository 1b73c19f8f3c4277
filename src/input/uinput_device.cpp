#include "input/uinput_device.h"

#include <fcntl.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "log/log.h"

namespace ox {
namespace {

/// Highest key or button code that is announced.
constexpr int kLastKeyCode = 766;

}  // namespace

bool UinputDevice::uinput_init() {
    destroy();
    UniqueFd fd(::open("/dev/uinput", O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    error_ = fd ? 0 : errno;
    if (!fd) {
        OX_WARN(
            "InputReceiver: cannot open /dev/uinput (%s) — input injection disabled, running "
            "headless. Fix: 'sudo modprobe uinput' then grant access, e.g. udev rule "
            "KERNEL==\"uinput\", MODE=\"0660\", GROUP=\"input\" + add user to group 'input' (or "
            "'chmod 666 /dev/uinput' for dev).",
            std::strerror(error_));
        return false;
    }
    if (!create(fd.get())) return false;
    fd_ = std::move(fd);
    created_ = true;
    OX_INFO("InputReceiver: /dev/uinput virtual keyboard+pointer created");
    return true;
}

bool UinputDevice::create(int fd) {
    for (const int type : {EV_KEY, EV_REL, EV_SYN}) {
        if (::ioctl(fd, UI_SET_EVBIT, type) < 0) {
            error_ = errno;
            OX_ERROR("InputReceiver: UI_SET_EVBIT failed: %s", std::strerror(error_));
            return false;
        }
    }
    for (int code = 0; code <= kLastKeyCode; ++code)
        ::ioctl(fd, UI_SET_KEYBIT, code);
    for (const int code : {REL_X, REL_Y, REL_WHEEL, REL_HWHEEL})
        ::ioctl(fd, UI_SET_RELBIT, code);

    uinput_setup setup{};
    setup.id = {.bustype = BUS_USB, .vendor = 0x1234, .product = 0x5678, .version = 1};
    std::strncpy(setup.name, "Orvex Agent", sizeof setup.name - 1);
    if (::ioctl(fd, UI_DEV_SETUP, &setup) < 0 || ::ioctl(fd, UI_DEV_CREATE) < 0) {
        error_ = errno;
        OX_ERROR("InputReceiver: uinput device create failed: %s", std::strerror(error_));
        return false;
    }
    return true;
}

void UinputDevice::adopt(UniqueFd fd) {
    destroy();
    fd_ = std::move(fd);
}

void UinputDevice::uinput_event(uint16_t type, uint16_t code, int32_t value) {
    if (!fd_) return;
    input_event event{};
    event.type = type;
    event.code = code;
    event.value = value;
    if (::write(fd_.get(), &event, sizeof event) < 0 && errno == EINTR) {
        // Any other failure loses this event only.
        if (::write(fd_.get(), &event, sizeof event) < 0) return;
    }
}

void UinputDevice::uinput_key(uint16_t code, bool pressed) {
    uinput_event(EV_KEY, code, pressed ? 1 : 0);
}

void UinputDevice::uinput_rel(uint16_t code, int32_t value) {
    uinput_event(EV_REL, code, value);
}

void UinputDevice::uinput_sync() {
    uinput_event(EV_SYN, SYN_REPORT, 0);
}

void UinputDevice::destroy() {
    if (fd_ && created_) ::ioctl(fd_.get(), UI_DEV_DESTROY);
    created_ = false;
    fd_.reset();
}

int uinput_access_error(const char* path) {
    return ::access(path, W_OK) == 0 ? 0 : errno;
}

}  // namespace ox
