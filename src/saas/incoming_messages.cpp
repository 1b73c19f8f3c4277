// What the connector does with the messages of the backend.

#include <exception>
#include <utility>
#include <variant>

#include "log/log.h"
#include "saas/log_text.h"
#include "saas/saas_connector.h"

namespace ox {
namespace {

template <typename... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

}  // namespace

void SaasConnector::handle_message(const std::string& text) {
    const auto handler = Overloaded{
        [&](const BackendPing&) {
            backend_pings_ = true;
            send_json(pong_message());
        },
        [&](const TerminateSession& terminate) {
            if (terminate_session_) terminate_session_(terminate.session_id, terminate.reason);
        },
        [&](PrepareSessionParams& params) { prepare(std::move(params), text); },
        [&](const BadMessage& bad) { report(bad, text); },
        [&](const UnknownMessage& unknown) {
            OX_DEBUG("SaasConnector: unhandled message type '%s'", safe(unknown.type).c_str());
        },
    };
    PlatformMessage message = parse_platform_message(text);
    std::visit(handler, message);
}

void SaasConnector::prepare(PrepareSessionParams params, const std::string& text) {
    if (params.session_token_sha256.empty()) {
        OX_WARN(
            "SaasConnector: prepare_session has no session_token_sha256 — TCP auth falls back to "
            "non-empty-token check (downgrade)");
    }
    OX_INFO("SaasConnector: prepare_session id=%s codec=%s res=%s fps=%u bitrate=%ukbps",
            safe(params.session_id).c_str(), safe(params.codec).c_str(),
            safe(params.resolution).c_str(), params.fps, params.bitrate_kbps);
    if (!prepare_session_) return;
    try {
        prepare_session_(std::move(params));
    } catch (const std::exception& error) {
        report({BadMessage::Kind::BadPrepare, error.what()}, text);
    }
}

void SaasConnector::report(const BadMessage& bad, const std::string& text) const {
    switch (bad.kind) {
        case BadMessage::Kind::InvalidJson:
            OX_WARN("SaasConnector: invalid JSON: %.80s", safe(mask_broken_json(text), 80).c_str());
            return;
        case BadMessage::Kind::WrongType:
            OX_WARN("SaasConnector: message ignored: %s", safe(bad.detail).c_str());
            return;
        case BadMessage::Kind::BadPrepare:
            OX_ERROR("SaasConnector: prepare_session error: %s raw=%.200s",
                     safe(bad.detail).c_str(), safe(mask_secrets(text), 200).c_str());
            return;
    }
}

}  // namespace ox
