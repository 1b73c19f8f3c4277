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

/// Runs one whole session on the calling thread: waits for a launcher, streams to it, holds the
/// session through a short outage, tears everything down. Returns the end reason and stores the
/// whole seconds of streaming in `streamed_seconds`. Never throws for an ordinary failure.
std::string run_session(const Options& options, SessionRequest request,
                        std::atomic<unsigned>& streamed_seconds);

/// Reason of a session that ended because its control port could not be had: nobody could have
/// connected, and trying again at once would fail the same way.
bool ended_before_listening(const std::string& reason);

/// TCP port on which a session waits for its launcher.
uint16_t session_control_port(const Options& options);

}  // namespace ox
