#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "app/options.h"
#include "app/session/end_reason.h"
#include "base/secret.h"

namespace ox {

class KeyLeases;
class SaasConnector;

/// What one session is started with, besides the command line.
struct SessionRequest {
    std::string session_id{};             ///< empty in standalone mode
    SaasConnector* connector = nullptr;   ///< null in standalone mode
    KeyLeases* leases = nullptr;          ///< packet numbers of `key_material`; may be null
    Secret key_material{};                ///< the platform's master key, or empty
    std::string expected_token_sha256{};  ///< hex; empty refuses every launcher
    const std::atomic<bool>* terminate_requested = nullptr;  ///< set when the platform ends it
};

/// Runs one whole session on the calling thread: waits for a launcher, streams to it, holds the
/// session through a short outage, tears everything down. Stores the whole seconds of streaming in
/// `streamed_seconds`. Never throws for an ordinary failure.
SessionEnd run_session(const Options& options, SessionRequest request,
                       std::atomic<unsigned>& streamed_seconds);

/// The ports of a session, as offsets from `port_base`.
enum class SessionPort : uint16_t {
    launcher_video = 0,
    launcher_audio = 1,
    input = 2,
    control = 3,
    video = 4,
    audio = 5,
};
uint16_t session_port(const Options& options, SessionPort port);

}  // namespace ox
