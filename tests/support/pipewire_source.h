#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "video/capture.h"

namespace ox::test {

/// A compositor's end of a screen share: a PipeWire node that shows the pictures of a capture
/// backend, and follows their size. Destroying it is what a compositor's death is.
class PipewireSource {
  public:
    enum class Memory {
        Shared,         ///< a file in memory, for whoever asks
        Graphics,       ///< a DMA-BUF
        GraphicsFirst,  ///< a DMA-BUF for whoever takes one, shared for others
    };
    struct Setup {
        int fps = 60;
        uint32_t padding = 0;  ///< bytes behind each row
        uint32_t offset = 0;   ///< bytes before the first row
        bool bgrx = true;      ///< false: R, G, B and a fourth byte
        bool blanks = false;   ///< a damaged and an empty buffer before each picture
        Memory memory = Memory::Shared;
    };

    /// `pictures` is initialised; its `capture_frame` is called `fps` times a second from another
    /// thread while somebody watches, and says 1 when nothing has changed. Throws
    /// std::runtime_error when there is no daemon at `socket`.
    PipewireSource(const std::string& socket, std::unique_ptr<ICapture> pictures, Setup setup);
    PipewireSource(const std::string& socket, std::unique_ptr<ICapture> pictures)
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
