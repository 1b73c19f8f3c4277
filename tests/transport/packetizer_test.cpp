#include "transport/packetizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/log_capture.h"

namespace ox {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kP = 1162;  // bitstream bytes in a full packet

EncodedFrame make_frame(size_t size, bool keyframe) {
    EncodedFrame frame;
    frame.data.resize(size);
    std::mt19937 random(static_cast<uint32_t>(size));
    for (uint8_t& byte : frame.data)
        byte = static_cast<uint8_t>(random());
    frame.frame_id = 0xfedcba98;
    frame.timestamp = 0x1122334455667788;
    frame.keyframe = keyframe;
    return frame;
}

std::vector<OutgoingPacket> packetize(const EncodedFrame& frame, float ratio, uint32_t stream = 1) {
    Packetizer packetizer;
    packetizer.set_repair_ratio(ratio);
    std::vector<OutgoingPacket> out;
    packetizer.packetize(frame, stream, out);
    return out;
}

Bytes bytes_of(const OutgoingPacket& packet) {
    return {packet.payload.bytes().begin(), packet.payload.bytes().end()};
}

Bytes padded(const OutgoingPacket& packet) {
    Bytes bytes = bytes_of(packet);
    bytes.resize(kP);
    return bytes;
}

TEST(Packetizer, PacketCounts) {
    struct Case {
        size_t size;
        bool keyframe;
        float ratio;
        uint32_t stream;
        size_t data, repair, copies;
    };
    const Case cases[] = {
        {0, true, 0.5F, 1, 0, 0, 0},
        {1, false, 0.5F, 1, 1, 0, 1},  // too small for parity: sent twice
        {kP, true, 0.0F, 1, 1, 0, 1},
        {kP, true, 0.5F, 2, 1, 0, 0},  // audio is never sent twice
        {kP + 1, false, 0.05F, 1, 2, 1, 0},
        {kP + 1, false, 0.0F, 1, 2, 0, 0},
        {8 * kP, false, 0.5F, 1, 8, 1, 0},
        {8 * kP + 1, false, 0.0001F, 1, 9, 2, 0},
        {17 * kP, false, 0.05F, 1, 17, 3, 0},
        {20 * kP, false, 0.0F, 1, 20, 0, 0},
        {20 * kP, true, 0.0F, 1, 20, 3, 0},
        {2040 * kP, true, 0.0F, 1, 2040, 255, 0},
        {2041 * kP, true, 0.0F, 1, 2041, 255, 0},  // the rest stays without parity
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " bytes, keyframe " << c.keyframe);
        const EncodedFrame frame = make_frame(c.size, c.keyframe);
        auto packets = packetize(make_frame(1, false), 0.0F, 2);
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
            EXPECT_EQ(bytes_of(packets[0]), frame.data);
            EXPECT_EQ(bytes_of(packets[1]), frame.data);
        }
    }
}

TEST(Packetizer, FieldsOfAKeyframe) {
    struct Row {
        uint16_t index;
        uint8_t flags, group;
        uint64_t timestamp;
        size_t size;
    };
    const Row rows[] = {
        {0, 0x01, 0x00, 0x1122334455667788, 1162},
        {1, 0x01, 0x00, 0, 1162},
        {2, 0x01, 0x00, 0, 1162},
        {3, 0x09, 0x00, 0, 500},
        {4, 0x03, 0x80, 0, 1162},
    };
    const EncodedFrame frame = make_frame(3986, true);
    // Audio packets carry one flag more and are cut alike.
    for (const uint32_t stream : {kStreamVideo, kStreamAudio}) {
        const auto packets = packetize(frame, 0.1F, stream);
        ASSERT_EQ(packets.size(), std::size(rows));
        Bytes reassembled;
        for (size_t i = 0; i < packets.size(); ++i) {
            const PacketHeader& header = packets[i].header;
            SCOPED_TRACE(i);
            EXPECT_EQ(header.stream, stream);
            EXPECT_EQ(header.frame_id, 0xfedcba98);
            EXPECT_EQ(header.index, rows[i].index);
            EXPECT_EQ(header.count, 4);
            EXPECT_EQ(header.flags, rows[i].flags | (stream == kStreamAudio ? 0x04 : 0));
            EXPECT_EQ(header.group, rows[i].group);
            EXPECT_EQ(header.timestamp, rows[i].timestamp);
            EXPECT_EQ(packets[i].payload.size(), rows[i].size);
            const Bytes bytes = bytes_of(packets[i]);
            if (i < 4) reassembled.insert(reassembled.end(), bytes.begin(), bytes.end());
        }
        EXPECT_EQ(reassembled, frame.data);
    }
}

TEST(Packetizer, ParityBringsBackAnyOnePacketOfEachGroup) {
    std::mt19937 random(4711);
    std::vector<size_t> sizes{2 * kP, 9 * kP, 17 * kP - 1, 1088 * kP + 5};
    for (int i = 0; i < 20; ++i)
        sizes.push_back(kP + 1 + random() % 60000);
    for (const size_t size : sizes) {
        SCOPED_TRACE(testing::Message() << size << " bytes");
        const auto packets = packetize(make_frame(size, false), 0.05F);
        const size_t count = packets[0].header.count;
        for (size_t repair = count; repair < packets.size(); ++repair) {
            const PacketHeader& header = packets[repair].header;
            const size_t group = header.index - size_t{header.count};
            EXPECT_EQ(header.group, 0x80 | (group % 128));
            const size_t first = group * 8;
            const size_t lost = first + random() % std::min<size_t>(8, count - first);
            Bytes rebuilt = bytes_of(packets[repair]);
            ASSERT_EQ(rebuilt.size(), kP);
            for (size_t i = first; i < std::min(first + 8, count); ++i) {
                const Bytes other = padded(packets[i]);
                for (size_t b = 0; i != lost && b < kP; ++b)
                    rebuilt[b] ^= other[b];
            }
            ASSERT_EQ(rebuilt, padded(packets[lost])) << "packet " << lost;
        }
        EXPECT_EQ(packets.size() - count, (count + 7) / 8);
    }
}

TEST(Packetizer, LargestFrame) {
    constexpr size_t kLargest = 76'151'670;  // 65535 full packets
    EncodedFrame frame;
    frame.keyframe = true;
    frame.frame_id = 9;
    frame.data.resize(kLargest - kP);
    frame.data.back() = 0x5a;
    // One packet below the limit there is a number left for a single repair packet.
    auto packets = packetize(frame, 0.5F);
    ASSERT_EQ(packets.size(), 65535U);
    EXPECT_EQ(packets.back().header.index, 65534);
    EXPECT_EQ(packets.back().header.flags, 0x03);

    frame.data.resize(kLargest);
    frame.data.back() = 0xa5;
    packets.clear();
    Packetizer().packetize(frame, 1, packets);
    ASSERT_EQ(packets.size(), 65535U);
    EXPECT_EQ(packets.back().header.index, 65534);
    EXPECT_EQ(packets.back().header.count, 65535);
    EXPECT_EQ(packets.back().header.flags, 0x09);
    EXPECT_EQ(packets.back().payload.bytes().back(), 0xa5);

    const test::LogCapture log;
    frame.data.push_back(0);
    Packetizer().packetize(frame, 1, packets);
    EXPECT_EQ(packets.size(), 65535U);
    EXPECT_EQ(
        log.count("ERROR",
                  "Packetizer: frame 9 too large (76151671 bytes -> 65536 packets) — dropped"),
        1);
}

TEST(Packetizer, RepairRatioIsClampedAndRounded) {
    const std::pair<float, float> cases[] = {{-1.0F, 0.0F}, {0.05F, 0.05F},
                                             {0.9F, 0.5F},  {0.12346F, 0.1235F},
                                             {1e30F, 0.5F}, {std::nanf(""), 0}};
    Packetizer packetizer;
    EXPECT_EQ(packetizer.repair_ratio(), 0.0F);
    for (const auto& [set, read] : cases) {
        packetizer.set_repair_ratio(0.3F);
        packetizer.set_repair_ratio(set);
        EXPECT_EQ(packetizer.repair_ratio(), read) << set;
    }
}

}  // namespace
}  // namespace ox
