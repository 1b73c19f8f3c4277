#include "transport/packetizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
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
        size_t data, repair, copies;
    } cases[] = {
        {0, true, 0.5F, 1, 0, 0, 0},
        {1, false, 0.5F, 1, 1, 0, 1},  // too small for parity: sent twice
        {kP, true, 0.5F, 2, 1, 0, 0},  // audio is never sent twice
        {kP + 1, false, 0.05F, 1, 2, 1, 0},
        {8 * kP, false, 0.5F, 1, 8, 1, 0},
        {8 * kP + 1, false, 0.0001F, 1, 9, 2, 0},
        {17 * kP, false, 0.05F, 1, 17, 3, 0},
        {20 * kP, true, 0.0F, 1, 20, 3, 0},
        {2041 * kP, true, 0.0F, 1, 2041, 255, 0},  // the rest stays without parity
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " bytes, keyframe " << c.keyframe);
        EncodedFrame frame;
        frame.data.resize(c.size);
        std::iota(frame.data.begin(), frame.data.end(), uint8_t{1});
        frame.keyframe = c.keyframe;
        std::vector<OutgoingPacket> packets(1);
        Packetizer packetizer;
        packetizer.set_repair_ratio(c.ratio);
        packetizer.packetize(frame, c.stream, packets);
        packets.erase(packets.begin());  // was there before, and stays
        ASSERT_EQ(packets.size(), c.data + c.repair + c.copies);
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(packets[i].header.count, c.data);
            const bool repair = i >= c.data && c.repair > 0;
            EXPECT_EQ((packets[i].header.flags & packet_flags::FEC_PACKET) != 0, repair);
        }
        if (c.copies == 1) {
            EXPECT_EQ(std::memcmp(&packets[0].header, &packets[1].header, kHeaderBytes), 0);
            for (const OutgoingPacket& packet : packets)
                EXPECT_TRUE(std::ranges::equal(packet.payload.bytes(), frame.data));
        }
    }
}

}  // namespace
}  // namespace ox
