// Holds the code against the vectors of docs/wire-protocol.md, which are read from that file.

#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "control/control_message.h"
#include "control/session_keys.h"
#include "control/session_ready.h"
#include "control/token_check.h"
#include "launcher/control_messages.h"
#include "launcher/frame_assembler.h"
#include "launcher/packet_opener.h"
#include "launcher/sealed_datagrams.h"
#include "transport/probe.h"

namespace ox::launcher {
namespace {

using Bytes = std::vector<uint8_t>;

// The fenced blocks of the document that have a name, and which of them were asked for.
class Document {
  public:
    Document() {
        std::ifstream file(OX_WIRE_DOCUMENT);
        std::string line;
        std::string name;
        while (std::getline(file, line)) {
            if (line.starts_with("```hex "))
                name = line.substr(7);
            else if (line.starts_with("```json "))
                name = line.substr(8);
            else if (line == "```")
                name.clear();
            else if (!name.empty())
                blocks_[name] += line + " ";
        }
    }

    Bytes hex(const std::string& name) {
        std::istringstream words(text(name));
        Bytes bytes;
        for (std::string word; words >> word;)
            bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
        return bytes;
    }
    std::string line(const std::string& name) {
        std::string line = text(name);
        line.pop_back();
        return line;
    }
    std::set<std::string> unused() const {
        std::set<std::string> names;
        for (const auto& [name, text] : blocks_)
            if (!used_.contains(name)) names.insert(name);
        return names;
    }

  private:
    const std::string& text(const std::string& name) {
        used_.insert(name);
        return blocks_.at(name);
    }
    std::map<std::string, std::string> blocks_;
    std::set<std::string> used_;
};

Bytes sha256(const Bytes& bytes) {
    Bytes digest(crypto_hash_sha256_BYTES);
    crypto_hash_sha256(digest.data(), bytes.data(), bytes.size());
    return digest;
}

void check_keys_and_lines(Document& doc) {
    SessionKeySet keys;
    keys.generate(doc.hex("master-key"));
    EXPECT_EQ(keys.video_key, doc.hex("video-key"));
    EXPECT_EQ(keys.audio_key, doc.hex("audio-key"));
    EXPECT_EQ(keys.input_key, doc.hex("input-key"));
    EXPECT_EQ(make_session_ready(keys, 0), doc.line("session-ready"));
    SessionKeySet received;
    std::string error;
    EXPECT_TRUE(parse_session_ready(doc.line("session-ready"), received, error)) << error;
    EXPECT_EQ(received.video_key, keys.video_key);
    EXPECT_EQ(received.audio_key, keys.audio_key);
    EXPECT_EQ(received.input_key, keys.input_key);

    std::ostringstream token_hash;
    for (const uint8_t byte : doc.hex("token-sha256"))
        token_hash << "0123456789abcdef"[byte >> 4] << "0123456789abcdef"[byte & 15];
    const auto auth = nlohmann::json::parse(doc.line("auth"));
    EXPECT_TRUE(token_matches(auth["token"], token_hash.str()));
    const auto own = nlohmann::json::parse(make_auth_line({.token = auth["token"],
                                                           .codec = 0,
                                                           .width = 1920,
                                                           .height = 1080,
                                                           .fps = 60,
                                                           .bitrate_kbps = 15000,
                                                           .udp_ip = ""}));
    EXPECT_EQ(own, auth);

    EXPECT_EQ(std::get<PingMessage>(parse_control_line(doc.line("ping"))).ts, 12345);
    EXPECT_EQ(make_pong(12345), doc.line("pong"));
    EXPECT_EQ(parse_pong(doc.line("pong")), 12345);
    EXPECT_EQ(kRequestIdrLine, doc.line("request-idr"));
    EXPECT_EQ(kEndSessionLine, doc.line("end-session"));
    for (const char* name : {"request-idr", "end-session"})
        EXPECT_TRUE(std::holds_alternative<NamedMessage>(parse_control_line(doc.line(name))));
    EXPECT_EQ(nlohmann::json::parse(make_set_bitrate_line(8000)),
              nlohmann::json::parse(doc.line("set-settings")));
    EXPECT_EQ(std::get<SettingsChange>(parse_control_line(doc.line("set-settings"))).bitrate, 8000);
    EXPECT_EQ(nlohmann::json::parse(make_stats_line({4.5, 0.25, 59.5, 1.5})),
              nlohmann::json::parse(doc.line("stats")));
    const auto stats = std::get<ClientStats>(parse_control_line(doc.line("stats")));
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
    const Bytes payload{0, 0, 0, 1, 0x41, 0x9a, 2, 0x1c, 0x7f};
    const Bytes key = doc.hex("video-key");
    EncodedFrame frame;
    frame.data = payload;
    frame.frame_id = 0x01020304;
    frame.timestamp = 0x1122334455;
    const Bytes expected = doc.hex("small-datagram");
    EXPECT_EQ(test::sealed_datagrams(frame, key.data()), (std::vector<Bytes>{expected, expected}));

    PacketOpener opener{std::span(key).first<32>()};
    const auto packet = opener.open(expected);
    ASSERT_TRUE(packet);
    EXPECT_EQ(Bytes(packet->payload.begin(), packet->payload.end()), payload);
    EXPECT_EQ(packet->header.timestamp, frame.timestamp);
    Bytes nonce(12);
    Encryption::build_nonce(packet->header, nonce.data());
    EXPECT_EQ(nonce, doc.hex("small-nonce"));
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
    for (const size_t lost : {0U, 1U, 2U}) {
        FrameAssembler assembler;
        for (size_t i = 0; i < 4; ++i) {
            if (i == lost) continue;
            const auto packet = opener.open(datagrams[i]);
            ASSERT_TRUE(packet);
            assembler.push(packet->header, packet->payload, 1);
        }
        const auto rebuilt = assembler.pop();
        ASSERT_TRUE(rebuilt) << "without packet " << lost;
        EXPECT_EQ(rebuilt->data, frame.data) << "without packet " << lost;
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

TEST(WireVectors, CodeAndDocumentAgree) {
    Document doc;
    check_keys_and_lines(doc);
    check_probes(doc);
    check_small_frame(doc);
    check_keyframe(doc);
    check_large_group_number(doc);
    EXPECT_TRUE(doc.unused().empty()) << "vectors without a check: " << *doc.unused().begin();
}

}  // namespace
}  // namespace ox::launcher
