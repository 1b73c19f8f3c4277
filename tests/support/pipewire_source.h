#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "support/screen_pictures.h"

struct pw_stream;
struct pw_thread_loop;
struct spa_data;
struct spa_pod;

namespace ox::test {

/// A compositor's end of a screen share: a PipeWire node that shows pictures, and follows their
/// size. Destroying it is what a compositor's death is.
class PipewireSource {
  public:
    struct Setup {
        uint32_t padding = 0;  ///< bytes behind each row
        uint32_t layout = 0;   ///< an spa_video_format of four bytes a pixel; 0: BGRx
        bool blanks = false;   ///< a damaged and an empty buffer before each picture
        /// An agreement on a new format stops it until its stream's state changes.
        bool stalls = false;
        uint32_t transform = 0;  ///< that it says of each picture; does nothing to the pixels
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
    [[nodiscard]] bool streaming() const { return streaming_; }

  private:
    void offer_format(bool at_first);
    void format_changed(const spa_pod* param);
    void tick();
    void process();
    void fill(spa_data& block);

    ScreenPictures pictures_;
    Setup setup_;
    CapturedFrame picture_;
    int blanks_to_come_ = 0;
    uint32_t width_ = 0;  ///< as offered
    uint32_t height_ = 0;
    bool agreed_ = false;  ///< on the offered size
    std::atomic<bool> streaming_{false};
    pw_thread_loop* loop_ = nullptr;
    pw_stream* stream_ = nullptr;
    uint32_t node_ = 0;
};

}  // namespace ox::test
