#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace ox {

/// The virtual keyboard and pointer (kernel documentation: input/uinput). Every event is one write
/// of one `struct input_event`; without a device it is a no-op. One thread at a time.
class UinputDevice {
  public:
    UinputDevice() = default;
    ~UinputDevice() { destroy(); }
    UinputDevice(const UinputDevice&) = delete;
    UinputDevice& operator=(const UinputDevice&) = delete;

    /// Opens /dev/uinput and creates the device. False after a log line.
    bool uinput_init();

    /// Writes events to `fd` in place of a created device.
    void adopt(UniqueFd fd);

    [[nodiscard]] bool is_present() const { return fd_.is_open(); }
    /// errno of the last `uinput_init`; 0 on success.
    [[nodiscard]] int error() const { return error_; }

    void uinput_event(uint16_t type, uint16_t code, int32_t value);
    void uinput_key(uint16_t code, bool pressed);
    void uinput_rel(uint16_t code, int32_t value);
    /// Ends a group of events that happened at the same time.
    void uinput_sync();

    void destroy();

  private:
    bool create(int fd);

    UniqueFd fd_;
    int error_ = 0;
    bool created_ = false;  ///< by uinput_init; needs UI_DEV_DESTROY
};

/// 0, or the errno (ENOENT: no kernel module) that keeps this user from creating the device.
int uinput_access_error(const char* path = "/dev/uinput");

}  // namespace ox
