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

/// Runs a session on the calling thread, short outages of the launcher included.
/// `streamed_seconds`: whole seconds. Never throws for an ordinary failure.
SessionEnd run_session(const Options& options, SessionRequest request,
                       std::atomic<unsigned>& streamed_seconds);

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
