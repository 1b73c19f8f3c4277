#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace ox {

/// The virtual keyboard and pointer (kernel documentation: input/uinput). Every event is one write
/// of one `struct input_event`; without a device nothing happens. One thread at a time.
class UinputDevice {
  public:
    UinputDevice() = default;
    ~UinputDevice() { destroy(); }
    UinputDevice(const UinputDevice&) = delete;
    UinputDevice& operator=(const UinputDevice&) = delete;

    /// Opens /dev/uinput and creates the device. False, after a log line, when there is none or
    /// access is denied; the player's input is then decoded and not injected.
    bool uinput_init();

    /// Takes a descriptor that accepts the same writes in place of a created device.
    void adopt(UniqueFd fd);

    [[nodiscard]] bool is_present() const { return fd_.is_open(); }

    void uinput_event(uint16_t type, uint16_t code, int32_t value);
    void uinput_key(uint16_t code, bool pressed);
    void uinput_rel(uint16_t code, int32_t value);
    /// Ends a group of events that happened at the same time.
    void uinput_sync();

    /// Removes the device. Safe to call twice.
    void destroy();

  private:
    bool create(int fd);

    UniqueFd fd_;
    bool created_ = false;  ///< made by uinput_init, to be destroyed by an ioctl
};

}  // namespace ox
