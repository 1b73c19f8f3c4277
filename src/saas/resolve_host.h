#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct addrinfo;

namespace ox {

struct AddressListDeleter {
    void operator()(addrinfo* list) const noexcept;
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

/// Stream-socket addresses of `host`, in order of preference; null when there are none. Returns
/// within 100 ms after `running` is cleared.
AddressList resolve_host(const std::string& host, uint16_t port, const std::atomic<bool>& running);

}  // namespace ox
