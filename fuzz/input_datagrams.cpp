// The input port: sealed packets of any content, and raw bytes, through the real receiver.

#include <arpa/inet.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <thread>

#include "fuzz.h"
#include "input/input_receiver.h"

namespace {

constexpr std::array<uint8_t, 32> kKey{7};

/// A receiver whose device swallows everything, and a socket that reaches it.
struct Rig {
    Rig() {
        receiver.set_key(kKey.data(), kKey.size());
        receiver.set_feedback_callback([](const ox::InputPacket& packet) {
            const ox::RfiRequest request = ox::parse_rfi_request(packet);
            ox::rfi_rejection(request);
            ox::parse_media_feedback(packet);
        });
        uint16_t port = 20'000 + static_cast<uint16_t>(::getpid() % 20'000);
        while (!receiver.start_with_device(port,
                                           ox::UniqueFd(::open("/dev/null", O_WRONLY | O_CLOEXEC))))
            ++port;
        socket = ox::UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        OX_FUZZ_REQUIRE(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                  sizeof address) == 0);
    }

    void send(const uint8_t* bytes, size_t size) {
        const uint64_t before = receiver.received();
        if (::send(socket.get(), bytes, size, 0) < 1) return;
        while (receiver.received() == before)
            std::this_thread::yield();
    }

    ox::InputReceiver receiver;
    ox::UniqueFd socket;
    uint64_t nonce = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Rig rig;
    if (size < sizeof(ox::InputPacket)) {
        rig.send(data, size);
        return 0;
    }
    std::array<uint8_t, ox::kInputDatagramBytes> datagram{};
    ++rig.nonce;
    std::memcpy(datagram.data(), &rig.nonce, sizeof rig.nonce);
    ox::InputPacket packet;
    std::memcpy(&packet, data, sizeof packet);
    packet.version = ox::InputPacket::kVersion;
    packet.seq = static_cast<uint16_t>(rig.nonce);  // never a replay
    crypto_aead_chacha20poly1305_ietf_encrypt(
        datagram.data() + ox::kInputNonceBytes, nullptr, reinterpret_cast<const uint8_t*>(&packet),
        sizeof packet, nullptr, 0, nullptr, datagram.data(), kKey.data());
    rig.send(datagram.data(), datagram.size());
    return 0;
}
