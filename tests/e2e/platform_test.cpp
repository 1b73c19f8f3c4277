// The road of rented sessions: a backend, the agent, a launcher.

#include <gtest/gtest.h>
#include <signal.h>
#include <sodium.h>

#include <nlohmann/json.hpp>

#include "e2e/player.h"
#include "saas/raw_backend.h"

namespace ox::test {
namespace {

using nlohmann::json;

constexpr std::array<uint8_t, 32> kMaster{0, 1, 2, 3, 4, 5, 6, 7, 8};
constexpr const char* kMasterBase64 = "AAECAwQFBgcIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";

class PlatformTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GE(::sodium_init(), 0);
        ::crypto_kdf_derive_from_key(video_key_.data(), 32, 1, "oxvideo1", kMaster.data());
        agent_.emplace(Agent::Setup{
            .arguments = {"--saas-url", "ws://127.0.0.1:" + std::to_string(backend_.port()),
                          "--token", "agent-secret", "--reconnect-grace", "2"}});
        connect();
    }

    /// Takes the agent's next connection; ends the previous one.
    void connect() {
        peer_.reset();
        peer_.emplace(backend_.accept());
        const std::string request = peer_->accept_upgrade();
        EXPECT_NE(request.find("GET /agent/connect HTTP/1.1\r\n"), std::string::npos);
        EXPECT_TRUE(request.ends_with("\r\nagent-token: agent-secret"));
        registration_ = next("register");
    }

    /// The next message of this type; what else comes is passed over.
    json next(const std::string& type) {
        while (const auto frame = peer_->read_frame()) {
            const json message = json::parse(*frame);
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

    /// Prepares a session and brings a launcher into it.
    Player& play(const std::string& id) {
        prepare(id);
        EXPECT_TRUE(
            agent_->wait_for_log("TcpControlServer: listening on port", ++listening_count_));
        player_.emplace(*agent_);
        EXPECT_TRUE(player_->receive_frames(5));
        const json ready = next("session_ready");
        EXPECT_EQ(ready["session_id"], id);
        const int base = agent_->port_base();
        EXPECT_EQ(ready["ports"],
                  (json{{"audio", base + 1}, {"input", base + 2}, {"video", base}}));
        return *player_;
    }

    void expect_ended(const std::string& id, const std::string& reason) {
        const json ended = next("session_ended");
        EXPECT_EQ(ended["session_id"], id);
        EXPECT_EQ(ended["reason"], reason);
        EXPECT_TRUE(ended["duration_sec"].is_number_unsigned());
        player_.reset();
    }

    std::vector<uint8_t> video_key_ = std::vector<uint8_t>(32);  ///< that of the master key
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
    // A link that flaps during a session loses nothing that matters.
    connect();
    EXPECT_EQ(next("session_ready")["session_id"], "s1");
    ASSERT_TRUE(player_->receive_frames(3));
    player_->say("end_session");
    expect_ended("s1", "client_end_session");

    play("s2");
    peer_->send_text(R"({"type":"terminate_session","session_id":"s2","reason":"over"})");
    expect_ended("s2", "saas_terminated");

    // Dropped, back under the same keys with frame numbers that run on, dropped for good.
    play("s3");
    const uint32_t last = player_->frames().back().frame_id;
    player_.reset();
    ASSERT_TRUE(agent_->wait_for_log("holding the session for up to 2s"));
    ASSERT_TRUE(agent_->wait_for_log("TcpControlServer: listening on port", ++listening_count_));
    player_.emplace(*agent_);
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
    // To end the session before is not to end the one that waits for its place.
    peer_->send_text(R"({"type":"terminate_session","session_id":"s1"})");
    expect_ended("s1", "saas_terminated");
    ASSERT_TRUE(agent_->wait_for_log("TcpControlServer: listening on port", 2));
    player_.emplace(*agent_);
    EXPECT_EQ(next("session_ready")["session_id"], "s3");
    player_->say("end_session");
    expect_ended("s3", "client_end_session");
    prepare("s4");
    ASSERT_TRUE(agent_->wait_for_log("TcpControlServer: listening on port", 3));
    peer_->send_text(R"({"type":"terminate_session","session_id":"s4"})");
    expect_ended("s4", "handshake_failed:SESSION_ABORTED");
    prepare("s5");
    ASSERT_TRUE(agent_->wait_for_log("TcpControlServer: listening on port", 4));
    agent_->process().signal(SIGTERM);
    expect_ended("s5", "handshake_failed:SESSION_ABORTED");
    EXPECT_EQ(agent_->process().wait(kPatience), 0);
}

}  // namespace
}  // namespace ox::test
