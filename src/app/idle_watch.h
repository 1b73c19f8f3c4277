#pragma once

#include <string>
#include <utility>

#include "app/options.h"

namespace ox {

/// Takes back, between sessions, what the screen says of faults that the owner has mended
/// meanwhile, and says what is new: access to the input device, a control port that could not be
/// opened. A session judges both anew. Used by the main thread.
class IdleWatch {
  public:
    /// `uinput` is for tests.
    explicit IdleWatch(const Options& options, std::string uinput = "/dev/uinput")
        : options_(options), uinput_(std::move(uinput)) {}

    /// Takes some microseconds.
    void look();

  private:
    const Options& options_;
    std::string uinput_;
    int uinput_error_ = 0;  ///< of the last look
};

}  // namespace ox
