#pragma once

#include <cstdint>
#include <string>

#include "tui/board/board.h"
#include "video/video_encoder.h"

namespace ox {

/// What a session tells the status board, in the order in which a session goes through it. The
/// calls take the board's lock; the frame loop makes them at most every two seconds.
namespace session_board {

/// A launcher has authenticated; the session is being set up.
void launcher_authenticated(const std::string& session_id, const std::string& launcher);
/// The stream runs.
void streaming(const EncoderSettings& settings, const std::string& encoder_label);
/// Another encoder has taken over.
void encoder(const std::string& encoder_label);
/// The launcher is gone and is waited for.
void holding(uint32_t grace_s);
/// The launcher came back.
void resumed();
/// How it is with the picture.
void picture(tui::PictureState picture);
/// Measured figures; `rtt_ms` of 0 or less: the launcher has not reported.
void figures(double mbps, double fps, float rtt_ms, float loss_pct);

}  // namespace session_board

}  // namespace ox
