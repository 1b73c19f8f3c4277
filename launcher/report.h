#pragma once

#include <cstdint>
#include <string>

#include "launcher/client/audio_worker.h"
#include "launcher/client/input_channel.h"
#include "launcher/client/progress.h"
#include "launcher/client/video_workers.h"
#include "launcher/options.h"
#include "launcher/session_outputs.h"

namespace ox::launcher {

enum class ExitStatus : uint8_t {
    Ok = 0,
    Failed = 1,       ///< a local failure: port taken, file not writable
    Usage = 2,        ///< the command line
    Refused = 3,      ///< nothing accepts connections at the address
    Rejected = 4,     ///< the agent closed the connection after the auth line
    TimedOut = 5,     ///< no answer to the auth line, no media, or media that stopped
    Undecodable = 6,  ///< media arrived, but no picture could be decoded
    AgentEnded = 7,   ///< the agent closed the session before this side did
};

/// One lower-case word for `status`, as it stands in the summary.
const char* exit_status_name(ExitStatus status);

struct Summary {
    ExitStatus status = ExitStatus::Ok;
    std::string error;  ///< one line for the user; empty when all went well
    Codec codec = Codec::H264;
    bool stamps_checked = false;
    bool audio_wanted = false;
    ReceiveSnapshot receive;
    AudioSnapshot audio;
    DecodeStats decode;
    SessionOutputs::Results outputs;
    InputCounters input;
    double rtt_ms = 0;

    /// From the first to the last packet of media.
    [[nodiscard]] double seconds() const;
    [[nodiscard]] double mbit_per_s() const;
    /// Of decoded pictures.
    [[nodiscard]] double fps() const;
    /// Data packets that were lost, rebuilt ones included, in percent of those sent.
    [[nodiscard]] double loss_pct() const;
    /// Received data packets of sound per second, from the first to the last.
    [[nodiscard]] double audio_packets_per_s() const;
    /// Mean; 0 without sound.
    [[nodiscard]] double audio_frame_bytes() const;
};

/// One JSON object on one line, without a line feed. Latencies are null when the agent's clock is
/// not this machine's; "stamps" is present when they were checked, "audio" when sound was wanted.
std::string to_json(const Summary& summary);

/// For people: several lines, each with its line feed.
std::string to_text(const Summary& summary);

/// One line without a line feed.
std::string to_text(const Progress& progress);

}  // namespace ox::launcher
