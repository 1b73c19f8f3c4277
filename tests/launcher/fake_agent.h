#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control/control_message.h"
#include "transport/packet_header.h"

namespace ox::test {

/// An agent for one launcher, made of the real control server, packetizer and sender around stamped
/// test pictures at 60 per second. Waits for its launcher from construction on; misbehaves as told.
class FakeAgent {
  public:
    struct Script {
        std::string token = "right";
        std::function<bool(const PacketHeader&)> lose{};  ///< true: this packet gets lost
        bool send_media = true;
        bool garbage = false;    ///< send no H.264
        bool wrong_key = false;  ///< seal with a key that the launcher does not have
        uint32_t end_after = 0;  ///< close the session after so many frames; 0 = never
    };

    /// What the launcher said, once it has gone.
    struct Heard {
        bool authenticated = false;
        int64_t width = 0;
        std::vector<std::string> messages;  ///< types without payload, in order
        std::vector<ClientStats> stats;
        SettingsChange settings;
    };

    FakeAgent(uint16_t port_base, Script script);
    /// Waits for the end of the session, which the launcher or the script brings about.
    Heard wait();
    ~FakeAgent();
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

  private:
    void run();

    const uint16_t port_base_;
    const Script script_;
    std::atomic<bool> give_up_{false};
    std::mutex mutex_;
    Heard heard_;  ///< guarded by mutex_
    std::jthread thread_;
};

}  // namespace ox::test
