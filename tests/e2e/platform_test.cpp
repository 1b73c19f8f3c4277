// Sessions that a backend prepares.

#include <gtest/gtest.h>
#include <signal.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <span>

#include "app/keys/lease_table.h"
#include "e2e/player.h"
#include "launcher/client/media_socket.h"
#include "saas/raw_backend.h"
#include "support/pulse_daemon.h"
#include "transport/encryption.h"

namespace ox::test {
namespace {

using nlohmann::json;

constexpr std::array<uint8_t, 32> kMaster{
    0x95, 0x5c, 0x0f, 0xf4, 0x45, 0x48, 0x13, 0x04, 0xe7, 0x54, 0x2f, 0x75, 0xf5, 0x6a, 0xfe, 0xf1,
    0x54, 0xc3, 0x91, 0x34, 0x6f, 0x69, 0x1d, 0xbe, 0x69, 0x57, 0xd9, 0xcd, 0x5f, 0xe9, 0xd3, 0xcd};
constexpr const char* kMasterBase64 = "lVwP9EVIEwTnVC919Wr+8VTDkTRvaR2+aVfZzV/p080=";

using Bytes = std::vector<uint8_t>;

struct PlatformTest : testing::Test {
    void SetUp() override {
        ASSERT_GE(::sodium_init(), 0);
        ::crypto_kdf_derive_from_key(video_key_.data(), 32, 1, "oxvideo1", kMaster.data());
        start_agent();
    }

    void start_agent(const std::vector<std::string>& more = {},
                     std::vector<std::string> environment = {}) {
        std::vector<std::string> arguments{
            "--saas-url",        "ws://127.0.0.1:" + std::to_string(backend_.port()),
            "--token",           "agent-secret",
            "--reconnect-grace", "2"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        environment.push_back("XDG_STATE_HOME=" + state_.path().string());
        peer_.reset();
        agent_.emplace(Agent::Setup{.arguments = arguments, .environment = environment});
        listening_count_ = 0;
        connect();
    }

    /// Takes the agent's next connection; ends the previous one.
    void connect() {
        peer_.reset();
        peer_.emplace(backend_.accept());
        EXPECT_TRUE(peer_->accept_upgrade().ends_with("\r\nagent-token: agent-secret"));
        registration_ = next("register");
    }

    /// The next message of this type; others are skipped.
    json next(const std::string& type) {
        for (auto frame = peer_->read_frame(); !frame.empty(); frame = peer_->read_frame()) {
            const json message = json::parse(frame);
            if (message["type"] == type) return message;
        }
        ADD_FAILURE() << "no " << type;
        return {};
    }

    void prepare(const std::string& id) {
        peer_->send_text(R"({"type":"prepare_session","client_id":"someone","session_id":")" + id +
                         R"(","encryption_key":")" + kMasterBase64 +
                         R"(","session_token_sha256":")" + kTokenSha256 + "\"}");
    }

    void wait_until_listening() {
        EXPECT_TRUE(agent_->wait_for_log("TcpControlServer: listening on", ++listening_count_));
    }
    void connect_player() {
        wait_until_listening();
        player_.emplace(*agent_);
    }

    /// Prepares a session and connects a launcher.
    Player& play(const std::string& id) {
        prepare(id);
        connect_player();
        EXPECT_TRUE(player_->receive_frames(5));
        const json ready = next("session_ready");
        const int base = agent_->port_base();
        EXPECT_EQ(ready,
                  (json{{"ports", {{"audio", base + 1}, {"input", base + 2}, {"video", base}}},
                        {"public_ip", "0.0.0.0"},
                        {"session_id", id},
                        {"type", "session_ready"}}));
        return *player_;
    }

    /// How often the second half of the master key is in the agent's memory. (The allocator
    /// overwrites the beginning of freed memory.)
    [[nodiscard]] size_t copies_of_master_key() {
        const std::string wanted(kMaster.begin() + 16, kMaster.end());
        const std::string process = "/proc/" + std::to_string(agent_->process().pid());
        std::ifstream maps(process + "/maps");
        std::ifstream memory(process + "/mem", std::ios::binary);
        size_t found = 0;
        for (std::string line; std::getline(maps, line);) {
            uint64_t begin = 0, end = 0;
            if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) != 2) continue;
            if (line.find("rw-p") == std::string::npos) continue;
            std::string bytes(end - begin, '\0');
            memory.clear();
            memory.seekg(static_cast<std::streamoff>(begin));
            memory.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            for (size_t at = 0; (at = bytes.find(wanted, at)) != std::string::npos; ++at)
                ++found;
        }
        return found;
    }

    void expect_ended(const std::string& id, const std::string& reason) {
        const json ended = next("session_ended");
        EXPECT_EQ(ended["session_id"], id);
        EXPECT_EQ(ended["reason"], reason);
        EXPECT_TRUE(ended["duration_sec"].is_number_unsigned());
        player_.reset();
    }

    void end_by_client(const std::string& id) {
        player_->say("end_session");
        expect_ended(id, "client_end_session");
    }

    Bytes video_key_ = Bytes(32);  ///< that of the master key
    TempDir state_;
    RawBackend backend_;
    std::optional<Agent> agent_;
    std::optional<RawPeer> peer_;
    std::optional<Player> player_;
    json registration_;
    size_t listening_count_ = 0;
};

TEST_F(PlatformTest, SessionAfterSessionThroughEveryWayToEnd) {
    EXPECT_EQ(registration_["port_base"], agent_->port_base());
    EXPECT_EQ(registration_["max_resolution"], "1920x1080");
    EXPECT_EQ(registration_["max_fps"], 60);
    EXPECT_EQ(registration_["supported_codecs"], (json{"h264", "hevc"}));

    EXPECT_EQ(play("s1").keys().video_key, video_key_);
    // A sanitizer maps too much memory to search.
    const bool search = kSlowdown == 1;
    EXPECT_TRUE(!search || copies_of_master_key() > 0) << "the search itself";
    // A reconnect during a session repeats its state.
    connect();
    EXPECT_EQ(next("session_ready")["session_id"], "s1");
    ASSERT_TRUE(player_->receive_frames(3));
    end_by_client("s1");
    EXPECT_TRUE(!search || copies_of_master_key() == 0) << "the key outlives its session";

    play("s2");
    peer_->send_text(R"({"type":"terminate_session","session_id":"s2","reason":"over"})");
    expect_ended("s2", "saas_terminated");

    // Dropped, back with the same keys and continued frame numbers, dropped for good.
    play("s3");
    const uint32_t last = player_->frames().back().frame_id;
    player_.reset();
    ASSERT_TRUE(agent_->wait_for_log("holding the session for up to 2s"));
    connect_player();
    ASSERT_TRUE(player_->receive_frames(3));
    EXPECT_EQ(player_->keys().video_key, video_key_);
    EXPECT_GT(player_->frames().front().frame_id, last);
    player_.reset();
    expect_ended("s3", "disconnect_timeout");
    ++listening_count_;

    play("s4");
    agent_->process().signal(SIGTERM);
    expect_ended("s4", "shutdown");
    EXPECT_EQ(agent_->process().wait(kPatience), 0);
    EXPECT_TRUE(agent_->wait_for_log("orvex-agent stopped"));
    EXPECT_EQ(agent_->log().count("agent-secret"), 0U);
    EXPECT_EQ(agent_->log().count(kMasterBase64), 0U);
}

TEST_F(PlatformTest, OnlyTheNewestPreparedSessionFollowsAndItsWaitCanBeEnded) {
    play("s1");
    prepare("s2");
    prepare("s3");
    ASSERT_TRUE(agent_->wait_for_log("prepare_session id=s3"));
    // Terminating the current session does not end the one that waits.
    peer_->send_text(R"({"type":"terminate_session","session_id":"s1"})");
    expect_ended("s1", "saas_terminated");
    connect_player();
    EXPECT_EQ(next("session_ready")["session_id"], "s3");
    end_by_client("s3");
    prepare("s4");
    wait_until_listening();
    peer_->send_text(R"({"type":"terminate_session","session_id":"s4"})");
    expect_ended("s4", "handshake_failed:SESSION_ABORTED");
    prepare("s5");
    wait_until_listening();
    agent_->process().signal(SIGTERM);
    expect_ended("s5", "handshake_failed:SESSION_ABORTED");
    EXPECT_EQ(agent_->process().wait(kPatience), 0);
}

TEST_F(PlatformTest, AKeyThatComesAgainSealsNothingTwiceUnderOneNonce) {
    PulseDaemon pulse;
    std::map<Bytes, Bytes> by_nonce;
    size_t sounds = 0;
    const auto add = [&](std::span<const uint8_t> datagram) {
        PacketHeader header;
        ASSERT_GE(datagram.size(), sizeof header);
        std::memcpy(&header, datagram.data(), sizeof header);
        Bytes nonce(12);
        Encryption::build_nonce(header, nonce.data());
        const Bytes bytes(datagram.begin(), datagram.end());
        EXPECT_EQ(by_nonce.try_emplace(nonce, bytes).first->second, bytes);
        sounds += header.stream == kStreamAudio ? 1 : 0;
    };
    const auto collect = [&](const std::string& id) {
        launcher::MediaSocket sound;
        std::string error;
        ASSERT_TRUE(sound.open(static_cast<uint16_t>(agent_->port_base() + 1), error)) << error;
        play(id).on_datagram = add;
        const size_t wanted = sounds + 60;
        ASSERT_TRUE(player_->receive_until([&] {
            sound.receive({}, add);
            return player_->frames().size() > 40 && sounds > wanted;
        }));
    };
    agent_->expect_prompt_stop();
    const auto start = [&] { start_agent({"--audio", "--audio-parity"}, pulse.environment()); };
    start();
    collect("s1");
    end_by_client("s1");
    collect("s2");
    agent_->process().signal(SIGKILL);
    ASSERT_TRUE(agent_->process().wait(kPatience));
    player_.reset();
    start();
    collect("s3");
    EXPECT_TRUE(agent_->wait_for_log(
        "Session: this key was used before — frame numbers go on at 144000, audio at 240000"));
    end_by_client("s3");
}

TEST_F(PlatformTest, AKeyWithoutNumbersEndsTheSession) {
    LeaseTable table;
    table.raise(key_id(kMaster), {.frames = LeaseTable::kUsedUp - 30, .audio = 0});
    std::filesystem::create_directories(state_.path() / "orvex");
    std::ofstream(state_.path() / "orvex/key-leases") << table.text();
    play("s1");
    EXPECT_EQ(player_->frames().front().frame_id, UINT32_MAX - 29);
    EXPECT_TRUE(player_->receive_until([&] { return player_->frames().size() == 30; }));
    EXPECT_EQ(player_->frames().back().frame_id, UINT32_MAX);
    expect_ended("s1", "no_video_key");
    prepare("s2");
    connect_player();
    expect_ended("s2", "no_video_key");
    EXPECT_EQ(agent_->log().count("[ERROR] Session: all frame numbers of this key are used up"),
              2U);
}

}  // namespace
}  // namespace ox::test
