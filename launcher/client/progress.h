#pragma once

#include <cstdint>

#include "launcher/client/video_workers.h"

namespace ox::launcher {

/// Rates since the previous update, totals since the start.
struct Progress {
    double seconds = 0;  ///< of media
    double fps = 0;      ///< decoded
    double mbit_per_s = 0;
    double loss_pct = 0;
    uint64_t packets_lost = 0;
    uint64_t packets_recovered = 0;
    uint64_t frames_lost = 0;
    double latency_p50_ms = 0;  ///< 0 = unknown
    double rtt_ms = 0;
};

/// Computes rates from successive snapshots. Pure; used by one thread.
class ProgressMeter {
  public:
    Progress update(const ReceiveSnapshot& receive, const DecodeStats& decode, double rtt_ms,
                    uint64_t now_us);

  private:
    uint64_t updated_us_ = 0;
    uint64_t bytes_ = 0;
    uint64_t decoded_ = 0;
    uint64_t expected_ = 0;
    uint64_t lost_ = 0;
};

}  // namespace ox::launcher
