#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "app/options.h"
#include "base/secret.h"

namespace ox {

class KeyLeases;
class SaasConnector;

/// What one session is started with, besides the command line.
struct SessionRequest {
    std::string session_id{};             ///< empty in standalone mode
    SaasConnector* connector = nullptr;   ///< null in standalone mode
    KeyLeases* leases = nullptr;          ///< who numbers the packets of `key_material`; or null
    Secret key_material{};                ///< the platform's master key, or empty
    std::string expected_token_sha256{};  ///< hex; empty refuses every launcher
    const std::atomic<bool>* terminate_requested = nullptr;  ///< set when the platform ends it
};

/// How a session ended.
struct SessionEnd {
    std::string reason{};
    /// Its control port could not be had: nobody could have connected, and trying again at once
    /// would fail the same way.
    bool could_not_listen = false;
};

/// Runs one whole session on the calling thread: waits for a launcher, streams to it, holds the
/// session through a short outage, tears everything down. Stores the whole seconds of streaming in
/// `streamed_seconds`. Never throws for an ordinary failure.
SessionEnd run_session(const Options& options, SessionRequest request,
                       std::atomic<unsigned>& streamed_seconds);

/// TCP port on which a session waits for its launcher.
uint16_t session_control_port(const Options& options);

}  // namespace ox
