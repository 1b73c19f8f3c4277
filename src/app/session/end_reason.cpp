#include "app/session/end_reason.h"

namespace ox {
namespace {

const char* name_of(HandshakeFailure failure) {
    switch (failure) {
        case HandshakeFailure::rejected:
            return "AUTH_REJECTED";
        case HandshakeFailure::timed_out:
            return "HANDSHAKE_TIMEOUT";
        case HandshakeFailure::aborted:
            return "SESSION_ABORTED";
        case HandshakeFailure::none:
        case HandshakeFailure::cannot_listen:
        case HandshakeFailure::cannot_accept:
        case HandshakeFailure::cannot_answer:
            break;
    }
    return "AUTH_FAIL";
}

const char* name_of(EndReason reason) {
    switch (reason) {
        case EndReason::merchant_panic:
            return "merchant_panic";
        case EndReason::shutdown:
            return "shutdown";
        case EndReason::client_end_session:
            return "client_end_session";
        case EndReason::saas_terminated:
            return "saas_terminated";
        case EndReason::handshake_failed:
            return "handshake_failed";
        case EndReason::no_udp_dest:
            return "no_udp_dest";
        case EndReason::no_video_key:
            return "no_video_key";
        case EndReason::udp_open_failed:
            return "udp_open_failed";
        case EndReason::encoder_failed:
            return "encoder_failed";
        case EndReason::capture_failed:
            return "capture_failed";
        case EndReason::encode_failed:
            return "encode_failed";
        case EndReason::disconnect_timeout:
            return "disconnect_timeout";
        case EndReason::reconnect_key_error:
            return "reconnect_key_error";
        case EndReason::disconnect:
            break;
    }
    return "disconnect";
}

}  // namespace

std::string to_string(const SessionEnd& end) {
    std::string text = name_of(end.reason);
    if (end.reason == EndReason::handshake_failed) text.append(":").append(name_of(end.handshake));
    return text;
}

}  // namespace ox
