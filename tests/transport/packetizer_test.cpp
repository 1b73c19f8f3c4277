#include "transport/packetizer.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

constexpr size_t kP = 1162;  // bitstream bytes in a full packet

// What the packets hold is pinned by the wire vectors, and their parity by the launcher's tests.
TEST(Packetizer, PacketCounts) {
    const struct {
        size_t size;
        bool keyframe;
        float ratio;
        uint32_t stream;
        size_t packets;
    } cases[] = {
        {0, true, 0.5F, 1, 0},
        {1, false, 0.5F, 1, 2},  // too small for parity: sent twice
        {kP, true, 0.5F, 2, 1},  // audio is never sent twice
        {kP + 1, false, 0.0001F, 1, 2 + 1},
        {8 * kP, false, 0.5F, 1, 8 + 1},
        {8 * kP + 1, false, 0.5F, 1, 9 + 2},
        {20 * kP, false, 0.0F, 1, 20},
        {2041 * kP, true, 0.0F, 1, 2041 + 255},  // the rest stays without parity
    };
    for (const auto& [size, keyframe, ratio, stream, count] : cases) {
        EncodedFrame frame;
        frame.data.resize(size);
        frame.keyframe = keyframe;
        std::vector<OutgoingPacket> packets(1);  // was there before, and stays
        Packetizer packetizer;
        packetizer.set_repair_ratio(ratio);
        packetizer.packetize(frame, stream, packets);
        EXPECT_EQ(packets.size(), 1 + count) << size << " bytes, keyframe " << keyframe;
    }
}

}  // namespace
}  // namespace ox
