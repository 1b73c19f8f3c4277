#pragma once

#include <cstdint>
#include <string>

#include "launcher/audio_worker.h"
#include "launcher/decode_worker.h"
#include "launcher/exit_status.h"
#include "launcher/input_channel.h"
#include "launcher/options.h"
#include "launcher/receive_worker.h"

namespace ox::launcher {

/// All that a run has measured.
struct Summary {
    ExitStatus status = ExitStatus::Ok;
    std::string error;  ///< one line for the user; empty when all went well
    Codec codec = Codec::H264;
    bool stamps_checked = false;
    bool audio_wanted = false;
    ReceiveSnapshot receive;
    AudioSnapshot audio;
    DecodeStats decode;
    InputCounters input;
    double rtt_ms = 0;

    /// From the first to the last packet of media.
    [[nodiscard]] double seconds() const;
    [[nodiscard]] double mbit_per_s() const;
    /// Decoded pictures per second.
    [[nodiscard]] double fps() const;
    /// Data packets that did not come by themselves, in percent of those sent.
    [[nodiscard]] double loss_pct() const;
    /// Packets of sound that came by themselves, per second from the first to the last of them.
    [[nodiscard]] double audio_packets_per_s() const;
    /// Mean size of one frame of sound; 0 when none came.
    [[nodiscard]] double audio_frame_bytes() const;
};

/// The summary as one JSON object on one line, without a line feed. Latencies are null when the
/// agent's clock is not this machine's; "stamps" is there when they were checked, "audio" when
/// sound was wanted.
std::string to_json(const Summary& summary);

/// The summary for people: several lines, each with its line feed.
std::string to_text(const Summary& summary);

}  // namespace ox::launcher
