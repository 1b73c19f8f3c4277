#include "app/platform_loop.h"

#include <atomic>
#include <string>
#include <utility>

#include "app/board_reports.h"
#include "app/build_info.h"
#include "app/host_checks.h"
#include "app/keys/key_leases.h"
#include "app/process_flags.h"
#include "app/session/run_session.h"
#include "app/session_handover.h"
#include "base/clock.h"
#include "log/log.h"
#include "log/log_path.h"
#include "saas/redaction.h"
#include "saas/saas_connector.h"
#include "tui/board/board.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kHandoverWait{2};

std::vector<std::string> supported_codecs() {
    std::vector<std::string> names;
    names.reserve(kVideoCodecs.size());
    for (const VideoCodec codec : kVideoCodecs)
        names.emplace_back(codec_info(codec).option_name);
    return names;
}

SaasConfig connector_config(const Options& options, const PlatformEndpoint& endpoint,
                            const SystemInfo& system_info) {
    const auto number = [](int32_t value) { return std::to_string(static_cast<uint32_t>(value)); };
    return {.backend = endpoint,
            .agent_token = options.token,
            .agent_version = build::version(),
            .system_info = system_info,
            .port_base = static_cast<uint16_t>(options.port_base),
            .max_fps = static_cast<uint32_t>(options.fps),
            .max_resolution = number(options.width) + "x" + number(options.height),
            .supported_codecs = supported_codecs()};
}

void record_rented_session(const std::string& session_id) {
    tui::board().update([&](tui::Snapshot& state) {
        state.session = {};
        state.session.state = tui::SessionState::Preparing;
        state.session.since_s = system_now_s();
        state.session.id = session_id;
        state.session.active = true;
        state.add_event(tui::EventKind::PcRented);
    });
}

void run_prepared(const Options& options, PrepareSessionParams params, SaasConnector& connector,
                  const SessionHandover& handover, KeyLeases& leases) {
    if (params.session_id.empty()) {
        OX_ERROR("SaaS: prepare_session without session_id — ignoring");
        return;
    }
    record_rented_session(params.session_id);
    const std::string id = params.session_id;
    std::atomic<unsigned> streamed_seconds{0};
    SessionRequest request{.session_id = id,
                           .connector = &connector,
                           .leases = &leases,
                           .key_material = std::move(params.encryption_key),
                           .expected_token_sha256 = params.session_token_sha256,
                           .terminate_requested = &handover.terminate_requested()};
    const SessionEnd end = run_session(options, std::move(request), streamed_seconds);
    connector.send_session_ended(id, to_string(end), streamed_seconds);
    tui::board().session_ended(false, streamed_seconds);
    OX_INFO("SaaS: waiting for next prepare_session...");
}

}  // namespace

void run_platform(const Options& options, const PlatformEndpoint& endpoint,
                  const SystemInfo& system_info, DesktopNotice& desktop, IdleWatch& idle) {
    if (options.token.empty()) {
        OX_WARN("No --token given — SaaS will likely reject the registration");
    }
    if (endpoint.tls) {
        OX_INFO("SaaS: wss://%s:%u (OpenSSL TLS)", endpoint.host.c_str(), endpoint.port);
    } else {
        OX_WARN("SaaS: ws://%s:%u — PLAINTEXT WebSocket (no TLS)", endpoint.host.c_str(),
                endpoint.port);
    }

    KeyLeases leases(state_folder());
    SessionHandover handover;
    SaasConnector connector(connector_config(options, endpoint, system_info));
    connector.set_prepare_session_callback(
        [&](PrepareSessionParams&& params) { handover.offer(std::move(params)); });
    connector.set_terminate_session_callback(
        [&](const std::string& session_id, const std::string& reason) {
            OX_WARN("SaaS terminate_session %s (%s)", loggable(session_id).c_str(),
                    loggable(reason).c_str());
            handover.request_terminate(session_id);
        });
    connector.set_link_callback(report_platform_link);
    connector.start();
    OX_INFO("SaaS mode: waiting for prepare_session...");
    while (!shutdown_flag()) {
        idle.check();
        desktop.check_if_due([&] { return shutdown_flag() || handover.is_pending(); });
        auto params = handover.take(kHandoverWait, [] { return shutdown_flag().load(); });
        if (params) run_prepared(options, std::move(*params), connector, handover, leases);
    }
    connector.stop();
    OX_INFO("orvex-agent stopped");
}

}  // namespace ox
