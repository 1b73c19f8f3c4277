#include "support/port_block.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <random>
#include <stdexcept>
#include <string>

namespace ox::test {
namespace {

constexpr int kPorts = 6;
constexpr int kFirst = 20000;
constexpr int kBlock = 8;
constexpr int kBlocks = 1500;  // so up to 32000

/// A socket on `port` of all addresses; none when it is taken.
UniqueFd bound(int type, int port, int reuse = 0) {
    UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(fd.get(), at, sizeof address) != 0) fd.reset();
    return fd;
}

bool all_free(int base) {
    for (int port = base; port < base + kPorts; ++port) {
        if (!bound(SOCK_STREAM, port) || !bound(SOCK_DGRAM, port)) return false;
    }
    return true;
}

}  // namespace

PortBlock::PortBlock() {
    std::random_device random;
    for (int attempt = 0; attempt < 200; ++attempt) {
        const int base = kFirst + kBlock * static_cast<int>(random() % kBlocks);
        reservation_ = bound(SOCK_STREAM, base + kPorts);  // the block's next, for nothing else
        base_ = static_cast<uint16_t>(base);
        if (reservation_ && all_free(base)) return;
    }
    throw std::runtime_error("no block of free ports");
}

UniqueFd occupy_tcp_port(uint16_t port) {
    UniqueFd fd = bound(SOCK_STREAM, port, 1);  // old connections of the port may still time out
    if (!fd || ::listen(fd.get(), 1) != 0) {
        throw std::runtime_error("port " + std::to_string(port) + " is taken");
    }
    return fd;
}

}  // namespace ox::test
