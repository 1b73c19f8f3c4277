#include "launcher/client/progress.h"

namespace ox::launcher {

Progress ProgressMeter::update(const ReceiveSnapshot& receive, const DecodeStats& decode,
                               double rtt_ms, uint64_t now_us) {
    const ReceiveStats& stream = receive.stream;
    const AssemblyCounters& assembly = stream.assembly;
    Progress progress{.packets_lost = assembly.packets_lost,
                      .packets_recovered = assembly.packets_recovered,
                      .frames_lost = assembly.frames_lost,
                      .latency_p50_ms = static_cast<double>(decode.latency.percentile_us(50)) / 1e3,
                      .rtt_ms = rtt_ms};
    if (stream.first_media_us != 0 && now_us > stream.first_media_us)
        progress.seconds = static_cast<double>(now_us - stream.first_media_us) / 1e6;
    // Rates count from the first media, not from the wait for it.
    const uint64_t since =
        updated_us_ > stream.first_media_us ? updated_us_ : stream.first_media_us;
    if (since != 0 && now_us > since) {
        const double time = static_cast<double>(now_us - since) / 1e6;
        progress.fps = static_cast<double>(decode.frames_decoded - decoded_) / time;
        progress.mbit_per_s = static_cast<double>(stream.bytes - bytes_) * 8.0 / 1e6 / time;
    }
    if (assembly.packets_expected > expected_)
        progress.loss_pct = 100.0 * static_cast<double>(assembly.packets_lost - lost_) /
                            static_cast<double>(assembly.packets_expected - expected_);
    updated_us_ = now_us;
    bytes_ = stream.bytes;
    decoded_ = decode.frames_decoded;
    expected_ = assembly.packets_expected;
    lost_ = assembly.packets_lost;
    return progress;
}

}  // namespace ox::launcher
