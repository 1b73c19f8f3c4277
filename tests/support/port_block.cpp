#include "support/port_block.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

namespace ox::test {
namespace {

constexpr int kPorts = 6;
constexpr int kFirst = 20000;
constexpr int kBlocks = 1500;  // of 8 ports each, so up to 32000

bool is_free(int type, uint16_t port) {
    const UniqueFd probe(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return ::bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The kernel drops an abstract address with its socket, so a killed test leaves nothing behind.
UniqueFd reserve(uint16_t base) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const std::string name = "orvex-test-ports-" + std::to_string(base);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) fd.reset();
    return fd;
}

bool all_free(uint16_t base) {
    for (int i = 0; i < kPorts; ++i) {
        const auto port = static_cast<uint16_t>(base + i);
        if (!is_free(SOCK_STREAM, port) || !is_free(SOCK_DGRAM, port)) return false;
    }
    return true;
}

}  // namespace

PortBlock::PortBlock() {
    std::random_device random;
    for (int attempt = 0; attempt < 200; ++attempt) {
        const auto base = static_cast<uint16_t>(kFirst + 8 * static_cast<int>(random() % kBlocks));
        UniqueFd reservation = reserve(base);
        if (!reservation || !all_free(base)) continue;
        reservation_ = std::move(reservation);
        base_ = base;
        return;
    }
    throw std::runtime_error("no block of free ports");
}

UniqueFd occupy_tcp_port(uint16_t port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;  // old connections of the port may still time out
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 1) != 0) {
        throw std::runtime_error("port " + std::to_string(port) + " is taken");
    }
    return fd;
}

}  // namespace ox::test
