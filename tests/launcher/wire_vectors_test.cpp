// Checks the code against the vectors of docs/wire-protocol.md, read from that file.

#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "audio/audioparity.h"
#include "control/auth_line.h"
#include "control/control_message.h"
#include "control/session_keys.h"
#include "input/input_packet.h"
#include "launcher/client/control_messages.h"
#include "launcher/client/feedback_packets.h"
#include "launcher/client/input_channel.h"
#include "launcher/client/media_packets.h"
#include "launcher/input_script.h"
#include "launcher/sealed_datagrams.h"
#include "support/vector_document.h"
#include "transport/probe.h"

namespace ox::launcher {
namespace {

using Bytes = std::vector<uint8_t>;

using Document = test::VectorDocument;

Bytes sha256(const Bytes& bytes) {
    Bytes digest(crypto_hash_sha256_BYTES);
    crypto_hash_sha256(digest.data(), bytes.data(), bytes.size());
    return digest;
}

Bytes nonce_of(const PacketHeader& header) {
    Bytes nonce(12);
    Encryption::build_nonce(header, nonce.data());
    return nonce;
}

void check_keys_and_lines(Document& doc) {
    SessionKeySet keys;
    keys.generate(doc.hex("master-key"));
    EXPECT_EQ(make_session_ready(keys, 0).text(), doc.line("session-ready"));
    for (const auto& [name, key] : {std::pair{"video-key", &SessionKeySet::video_key},
                                    {"audio-key", &SessionKeySet::audio_key},
                                    {"input-key", &SessionKeySet::input_key}})
        EXPECT_EQ(keys.*key, doc.hex(name));

    std::string token_hash = doc.line("token-sha256");
    std::erase(token_hash, ' ');
    const auto auth = nlohmann::json::parse(doc.line("auth"));
    EXPECT_TRUE(token_matches(auth["token"].get<std::string>(), token_hash));
    const auto own = nlohmann::json::parse(make_auth_line({.token = auth["token"],
                                                           .codec = Codec::H264,
                                                           .width = 1920,
                                                           .height = 1080,
                                                           .fps = 60,
                                                           .bitrate_kbps = 15000,
                                                           .udp_ip = ""}));
    EXPECT_EQ(own, auth);

    EXPECT_EQ(std::get<Ping>(parse_control_line(doc.line("ping"))).ts, 12345);
    EXPECT_EQ(make_pong(12345), doc.line("pong"));
    EXPECT_EQ(kRequestIdrLine, doc.line("request-idr"));
    EXPECT_EQ(kEndSessionLine, doc.line("end-session"));
    const auto message = [&doc](const char* name) {
        return std::get<ControlMessage>(parse_control_line(doc.line(name)));
    };
    EXPECT_TRUE(std::holds_alternative<RequestIdr>(message("request-idr")));
    EXPECT_TRUE(std::holds_alternative<EndSession>(message("end-session")));
    EXPECT_EQ(std::get<SettingsChange>(message("set-settings")).bitrate, 8000);
    EXPECT_EQ(nlohmann::json::parse(make_stats_line({4.5, 0.25, 59.5, 1.5})),
              nlohmann::json::parse(doc.line("stats")));
    const auto stats = std::get<ClientStats>(message("stats"));
    EXPECT_EQ((std::array{stats.rtt_ms, stats.packet_loss_pct, stats.decoded_fps, stats.jitter_ms}),
              (std::array{4.5F, 0.25F, 59.5F, 1.5F}));
}

void check_probes(Document& doc) {
    const in_addr here{.s_addr = 1};
    const in_addr elsewhere{.s_addr = 2};
    EXPECT_EQ(classify_probe(doc.hex("probe"), {}, here, elsewhere), ProbeKind::HolePunch);
    EXPECT_EQ(classify_probe(doc.hex("probe-legacy"), {}, here, here), ProbeKind::Legacy);
    EXPECT_EQ(classify_probe(doc.hex("probe-legacy"), {}, here, elsewhere), ProbeKind::Invalid);
}

void check_small_frame(Document& doc) {
    const Bytes key = doc.hex("video-key");
    EncodedFrame frame;
    frame.data = {0, 0, 0, 1, 0x41, 0x9a, 2, 0x1c, 0x7f};
    frame.frame_id = 0x01020304;
    frame.timestamp = 0x1122334455;
    const Bytes expected = doc.hex("small-datagram");
    EXPECT_EQ(test::sealed_datagrams(frame, key.data()), (std::vector<Bytes>{expected, expected}));
    PacketHeader header;
    std::memcpy(&header, expected.data(), kHeaderBytes);
    EXPECT_EQ(nonce_of(header), doc.hex("small-nonce"));
}

void check_keyframe(Document& doc) {
    const Bytes key = doc.hex("video-key");
    EncodedFrame frame;
    for (size_t i = 0; i < 2424; ++i)
        frame.data.push_back(static_cast<uint8_t>(7 * i + 3));
    frame.frame_id = 7;
    frame.timestamp = 5'000'000;
    frame.keyframe = true;
    const std::vector<Bytes> datagrams = test::sealed_datagrams(frame, key.data());
    ASSERT_EQ(datagrams.size(), 4U);
    for (size_t i = 0; i < 4; ++i) {
        const std::string n = std::to_string(i);
        EXPECT_EQ(Bytes(datagrams[i].begin(), datagrams[i].begin() + 22),
                  doc.hex("key-header-" + n));
        EXPECT_EQ(Bytes(datagrams[i].end() - 16, datagrams[i].end()), doc.hex("key-tag-" + n));
        EXPECT_EQ(sha256(datagrams[i]), doc.hex("key-sha256-" + n));
    }
    PacketOpener opener{std::span(key).first<32>()};
    const auto parity = opener.open(datagrams[3]);
    ASSERT_TRUE(parity);
    const auto around_end = parity->payload.subspan(96, 16);
    EXPECT_EQ(Bytes(around_end.begin(), around_end.end()), doc.hex("key-parity-end"));
    // Altered or truncated datagrams are rejected.
    for (size_t i = 0; i < datagrams[3].size(); ++i) {
        Bytes altered = datagrams[3];
        EXPECT_FALSE(opener.open(std::span(altered).first(i))) << i;
        altered[i] ^= 1;
        EXPECT_FALSE(opener.open(altered)) << i;
    }
}

void check_large_group_number(Document& doc) {
    EncodedFrame frame;
    frame.data.assign(1700 * kVideoPayloadBytes, 1);
    frame.frame_id = 8;
    Packetizer packetizer;
    packetizer.set_repair_ratio(0.1F);
    std::vector<OutgoingPacket> packets;
    packetizer.packetize(frame, kStreamVideo, packets);
    Bytes header(kHeaderBytes);
    std::memcpy(header.data(), &packets.at(1700 + 200).header, kHeaderBytes);
    EXPECT_EQ(header, doc.hex("repair-200-header"));
}

using Block = std::vector<Bytes>;

// An agent's repair shards of a block.
Block repair_shards(const Block& frames) {
    ParityBlock block;
    for (uint32_t i = 0; i < 4; ++i)
        block.add(i, frames[i], 0);
    ParityBlock::Shards shards;
    EXPECT_EQ(block.encode(shards), audioparity::Guard::kOk);
    Block result;
    for (size_t i = 0; i < 2; ++i)
        result.emplace_back(shards.bytes[i].data(), shards.bytes[i].data() + shards.lengths[i]);
    return result;
}

void check_sound(Document& doc) {
    // A block of unit frames gives the factors.
    for (size_t i = 0; i < 4; ++i) {
        Block units(4, Bytes{0});
        units[i] = {1};
        const Block shards = repair_shards(units);
        EXPECT_EQ(shards[0].back(), doc.hex("repair-factors-0")[i]);
        EXPECT_EQ(shards[1].back(), doc.hex("repair-factors-1")[i]);
    }
    const Bytes key = doc.hex("audio-key");
    const Block frames{{0x11, 0x22, 0x33, 0x44, 0x55},
                       {0xaa, 0xbb, 0xcc},
                       {1, 2, 3, 4},
                       {0xf0, 0xe1, 0xd2, 0xc3, 0xb4}};
    const Block shards = repair_shards(frames);
    EXPECT_EQ(shards[0], doc.hex("sound-repair-0"));
    EXPECT_EQ(shards[1], doc.hex("sound-repair-1"));
    const PacketHeader data{
        .stream = 2, .frame_id = 257, .count = 1, .flags = 0x0C, .timestamp = 5'005'000};
    const PacketHeader repair{.stream = 2,
                              .frame_id = 256,
                              .index = 1,
                              .count = 4,
                              .flags = 0x24,
                              .timestamp = 5'015'000};
    EXPECT_EQ(test::sealed_datagram(data, frames[1], key.data()), doc.hex("sound-datagram"));
    EXPECT_EQ(test::sealed_datagram(repair, shards[1], key.data()),
              doc.hex("sound-repair-datagram"));
    EXPECT_EQ(nonce_of(repair), doc.hex("sound-repair-nonce"));
}

void check_input(Document& doc) {
    const Bytes key = doc.hex("input-key");
    std::vector<InputStep> steps;
    std::string error;
    constexpr const char* kScript =
        "press left; move -3 5; release left; down right_ctrl; wheel -2";
    ASSERT_TRUE(parse_input_script(kScript, steps, error)) << error;
    const InputPacket lost = make_lost_frames_request(
        {.last_delivered = 100, .first_missing = 101, .last_missing = 103, .attempt = 1});
    const InputPacket media = make_media_feedback(
        {.loss_pct = 1.25, .rtt_ms = 18, .decoded_fps = 59.9, .keyframe_wanted = true});
    const std::tuple<InputPacket, uint32_t, std::string, bool, bool> cases[] = {
        {steps.at(1).packet, 0, "input-move", true, true},
        {steps.at(3).packet, 65535, "input-key", true, true},
        {steps.at(4).packet, 65536, "input-wheel", true, false},
        {make_keyframe_request(), 1, "feedback-keyframe", false, true},
        {lost, 2, "feedback-lost", true, true},
        {media, 3, "feedback-media", false, true}};
    for (const auto& [packet, count, name, sealed, plain] : cases) {
        InputSealer sealer{
            std::span(key).first<32>(), {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7}, count};
        const auto datagram = sealer.seal(packet).value();
        if (sealed) {
            EXPECT_TRUE(std::ranges::equal(datagram, doc.hex(name + "-datagram"))) << name;
        }
        Bytes opened(sizeof(InputPacket));
        EXPECT_EQ(crypto_aead_chacha20poly1305_ietf_decrypt(
                      opened.data(), nullptr, nullptr, datagram.data() + 12, datagram.size() - 12,
                      nullptr, 0, datagram.data(), key.data()),
                  0);
        if (plain) {
            EXPECT_EQ(opened, doc.hex(name + "-packet")) << name;
        }
    }
    EXPECT_EQ(rfi_rejection(parse_rfi_request(lost)), "");
    const MediaFeedback read = parse_media_feedback(media);
    EXPECT_EQ((std::array{read.loss_pct, read.rtt_ms, read.decoded_fps}),
              (std::array{1.25F, 18.0F, 59.9F}));
    EXPECT_TRUE(read.keyframe_wanted);
}

TEST(WireVectors, CodeAndDocumentAgree) {
    Document doc(OX_WIRE_DOCUMENT);
    check_keys_and_lines(doc);
    check_probes(doc);
    check_small_frame(doc);
    check_keyframe(doc);
    check_large_group_number(doc);
    check_sound(doc);
    check_input(doc);
    doc.expect_all_used();
}

}  // namespace
}  // namespace ox::launcher
