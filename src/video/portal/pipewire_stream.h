#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "video/portal/latest_picture.h"

namespace ox {

/// The PipeWire end of a screen share: a thread of PipeWire's own that puts each picture of one
/// node into a `LatestPicture`. The thread runs from a successful `start` to the destruction. The
/// node is the only one that is ever captured: when it goes away, the stream stops for good and
/// the last picture stays. Pictures are copied upright, as B, G, R and a fourth byte.
class PipewireStream {
  public:
    /// `pictures` outlives the stream.
    explicit PipewireStream(LatestPicture& pictures);
    ~PipewireStream();
    PipewireStream(const PipewireStream&) = delete;
    PipewireStream& operator=(const PipewireStream&) = delete;

    /// Connects to the daemon at the other end of `remote` and asks for the pictures of `node`.
    /// False, after an error line, when that does not work. Once per object.
    bool start(UniqueFd remote, uint32_t node);

    /// The daemon has gone or has taken the stream away: no picture will come any more.
    [[nodiscard]] bool over() const;
    /// The daemon has gone.
    [[nodiscard]] bool daemon_gone() const;
    /// Pictures come, or would. Not so for a moment while another format is agreed on.
    [[nodiscard]] bool streaming() const;
    /// A new format was agreed on, and no picture has come in it for two seconds.
    [[nodiscard]] bool stalled(SteadyClock::time_point now) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ox
