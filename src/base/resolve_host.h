#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct addrinfo;

namespace ox {

struct AddressListDeleter {
    void operator()(addrinfo* list) const noexcept;
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

struct ResolvedHost {
    AddressList addresses;  ///< for stream sockets, in order of preference; null: none
    int error = 0;          ///< getaddrinfo's
};

/// `family` is AF_UNSPEC or an address family. Returns within 100 ms after `stop` returns true.
ResolvedHost resolve_host(const std::string& host, uint16_t port, int family,
                          const std::function<bool()>& stop);

}  // namespace ox
