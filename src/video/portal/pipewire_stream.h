#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "video/portal/latest_picture.h"

namespace ox {

/// A screen share at PipeWire, whose thread stores each picture of one node, upright and as B, G, R
/// and a fourth byte. No other node is ever captured: when this one ends, or another is linked to
/// the stream, it stops for good and the last picture stays.
class PipewireStream {
  public:
    explicit PipewireStream(LatestPicture& pictures);
    ~PipewireStream();
    PipewireStream(const PipewireStream&) = delete;
    PipewireStream& operator=(const PipewireStream&) = delete;

    /// Connects to the daemon at the other end of `remote` and captures `node`. False, after an
    /// error line, on failure. Once per object.
    bool start(UniqueFd remote, uint32_t node);

    /// The daemon or the stream has ended: no more pictures will come.
    [[nodiscard]] bool ended() const;
    [[nodiscard]] bool daemon_lost() const;
    /// The stream is running; not so briefly while another format is negotiated.
    [[nodiscard]] bool streaming() const;
    /// No picture has come for two seconds after a new format was negotiated.
    [[nodiscard]] bool stalled(SteadyClock::time_point now) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ox
