#include <cstddef>

#include "app/selftest/groups.h"
#include "app/selftest/launcher_side.h"
#include "input/input_datagram.h"

namespace ox::selftest {
namespace {

// Bytes 0 version, 1 kind, 2-3 sequence number, 12-13 and 14-15 data, 16 buttons.
constexpr InputBytes kMotion{1, 0, 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0xD4, 0xFE, 0xC2, 0x01, 5};
// Right control: virtual key 0x11, scan code 29, extended.
constexpr InputBytes kKeyDown{1, 3, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0x11, 0, 29, 0x02};

bool is_motion(const InputPacket& p) {
    return p.version == 1 && p.kind == 0 && p.seq == 0x1234 && p.data0 == -300 && p.data1 == 450 &&
           p.buttons == 5;
}

bool is_key_down(const InputPacket& p) {
    return p.version == 1 && p.kind == 3 && p.seq == 0xFFFF && p.data0 == 0x11 &&
           p.scan_code() == 29 && p.extended_key() && p.buttons == 0;
}

}  // namespace

void check_input_packets() {
    const Key key = test_key(3);
    const Bytes motion = seal_input_as_launcher(key, kMotion);
    const Bytes key_down = seal_input_as_launcher(key, kKeyDown);
    constexpr size_t kNonce = 12;
    check(motion.size() == kNonce + 28 + 16 && motion.size() == kInputDatagramBytes,
          "input encrypts to 28+16B");

    InputPacket opened_motion;
    InputPacket opened_key;
    check(open_input_datagram(key.data(), motion, opened_motion) &&
              open_input_datagram(key.data(), key_down, opened_key),
          "input decrypts");
    check(is_motion(opened_motion) && is_key_down(opened_key), "decoded fields survive roundtrip");
    check(sizeof(InputPacket) == 28 && alignof(InputPacket) == 1, "InputPacket is 28 bytes packed");
}

}  // namespace ox::selftest
