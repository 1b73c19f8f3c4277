#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "support/screen_pictures.h"

namespace ox::test {

/// A compositor's end of a screen share: a PipeWire node that shows pictures, and follows their
/// size. It has them in graphics memory (DMA-BUF) for whoever takes that, and in shared memory for
/// everybody else. Destroying it is what a compositor's death is.
class PipewireSource {
  public:
    struct Setup {
        uint32_t padding = 0;  ///< bytes behind each row
        uint32_t offset = 0;   ///< bytes before the first row
        bool bgrx = true;      ///< false: R, G, B and a fourth byte
        bool blanks = false;   ///< a damaged and an empty buffer before each picture
    };

    /// `pictures` is asked at once, and while somebody watches 61 times a second from another
    /// thread: not 60, so that every phase between the two ends occurs. Throws std::runtime_error
    /// when there is no daemon at `socket`.
    PipewireSource(const std::string& socket, ScreenPictures pictures, Setup setup);
    PipewireSource(const std::string& socket, ScreenPictures pictures)
        : PipewireSource(socket, std::move(pictures), Setup{}) {}
    ~PipewireSource();
    PipewireSource(const PipewireSource&) = delete;
    PipewireSource& operator=(const PipewireSource&) = delete;

    [[nodiscard]] uint32_t node() const { return node_; }
    /// Whether somebody is watching.
    [[nodiscard]] bool streaming() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    uint32_t node_ = 0;
};

}  // namespace ox::test
