#pragma once

#include <cstdint>
#include <string>

#include "control/tcp_control_server.h"

namespace ox {

enum class EndReason : uint8_t {
    // Requested.
    merchant_panic,
    shutdown,
    client_end_session,
    saas_terminated,
    // Failed before the stream.
    handshake_failed,
    no_udp_dest,
    no_video_key,
    udp_open_failed,
    encoder_failed,
    // Failed at any time.
    capture_failed,
    encode_failed,
    disconnect_timeout,
    reconnect_key_error,
    disconnect,  ///< none of the others
};

/// How a session ended.
struct SessionEnd {
    EndReason reason = EndReason::disconnect;
    HandshakeFailure handshake = HandshakeFailure::none;  ///< outcome of the last handshake
};

/// The reason in the platform's words, e.g. "handshake_failed:AUTH_REJECTED".
std::string to_string(const SessionEnd& end);

}  // namespace ox
