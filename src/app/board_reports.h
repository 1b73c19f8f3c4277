#pragma once

#include <cstdint>
#include <string>

#include "saas/saas_connector.h"
#include "tui/board/board.h"
#include "video/video_encoder.h"

// Events of the program, translated for the status board. Any thread may call.

namespace ox {

/// Result of binding a port of the session: 0 or errno.
void report_bound_port(uint16_t port, int error);
/// Result of listening on the control port: 0 or errno.
void report_control_port(uint16_t port, int error);

void report_platform_link(LinkEvent event);
void report_standalone_mode();
/// Where launchers reach this PC; `ip` may be empty.
void report_own_address(const std::string& ip, uint16_t port_base);

// A session, in the order in which it goes through them.

/// A launcher has authenticated, for the first time or again.
void report_launcher(const std::string& session_id, const std::string& address);
void report_encoder_available(bool available);
void report_streaming(const EncoderSettings& settings, const std::string& encoder_name);
void report_encoder_change(const std::string& encoder_name);
void report_picture(tui::PictureState picture);
/// Measured values; `rtt_ms` of 0 or less: the launcher has not reported.
void report_stream_metrics(double mbps, double fps, float rtt_ms, float loss_pct);
void report_launcher_lost(uint32_t grace_s);
void report_launcher_back();

}  // namespace ox
