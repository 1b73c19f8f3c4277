#include "support/port_block.h"

#include <random>
#include <stdexcept>

#include "support/sockets.h"

namespace ox::test {
namespace {

constexpr uint16_t kPorts = 6;
constexpr uint16_t kFirst = 20000;
constexpr uint16_t kBlock = 8;
constexpr uint16_t kBlocks = 1500;  // so up to 32000

bool all_free(uint16_t base) {
    for (uint16_t port = base; port < base + kPorts; ++port) {
        if (!bound_socket(SOCK_STREAM, port) || !bound_socket(SOCK_DGRAM, port)) return false;
    }
    return true;
}

}  // namespace

PortBlock::PortBlock() {
    std::random_device random;
    for (int attempt = 0; attempt < 200; ++attempt) {
        base_ = static_cast<uint16_t>(kFirst + kBlock * (random() % kBlocks));
        // The block's next, for nothing else.
        reservation_ = bound_socket(SOCK_STREAM, static_cast<uint16_t>(base_ + kPorts));
        if (reservation_ && all_free(base_)) return;
    }
    throw std::runtime_error("no block of free ports");
}

}  // namespace ox::test
