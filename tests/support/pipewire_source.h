#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "video/synthetic_capture.h"

struct pw_proxy;
struct pw_stream;
struct pw_thread_loop;
struct spa_data;
struct spa_pod;

namespace ox::test {

/// The next picture of a simulated screen; false when nothing has changed.
using ScreenPictures = std::function<bool(CapturedFrame&)>;

/// The moving test picture.
inline ScreenPictures moving_pictures(uint32_t width, uint32_t height) {
    auto pictures = std::make_shared<SyntheticCapture>(width, height);
    pictures->init();
    return [pictures](CapturedFrame& frame) { return pictures->capture_frame(frame) == 0; };
}

/// Compares pictures byte by byte with the synthetic ones, in order.
class SyntheticReference {
  public:
    SyntheticReference(uint32_t width, uint32_t height) : next_(moving_pictures(width, height)) {
        next_(expected_);
    }

    /// Whether `frame` is the present reference picture or a later one (of the next thousand).
    bool matches(const CapturedFrame& frame) {
        if (frame.width != expected_.width || frame.height != expected_.height) return false;
        for (int step = 0; step < 1000; ++step, next_(expected_)) {
            if (!std::equal(expected_.data.begin(), expected_.data.end(), frame.pixels())) continue;
            pictures_ += step > 0 ? 1 : 0;
            return true;
        }
        return false;
    }
    [[nodiscard]] int pictures() const { return pictures_; }

  private:
    ScreenPictures next_;
    CapturedFrame expected_;
    int pictures_ = 0;
};

/// A compositor's end of a screen share: a PipeWire node that sends pictures and follows their
/// size. Destroying it simulates the compositor's end.
class PipewireSource {
  public:
    struct Setup {
        uint32_t padding = 0;    ///< bytes behind each row
        uint32_t layout = 0;     ///< an spa_video_format of four bytes a pixel; 0: BGRx
        bool blanks = false;     ///< a corrupted and an empty buffer before each picture
        bool stalls = false;     ///< a new format stops it until its stream's state changes
        uint32_t transform = 0;  ///< announced with each picture; the pixels stay as they are
    };

    /// `pictures` is called at once, then from another thread while there is a consumer: 61 times a
    /// second, not 60, so that every phase between the two ends occurs. Throws std::runtime_error
    /// when there is no daemon at `socket`.
    PipewireSource(const std::string& socket, ScreenPictures pictures, Setup setup);
    PipewireSource(const std::string& socket, ScreenPictures pictures)
        : PipewireSource(socket, std::move(pictures), Setup{}) {}
    ~PipewireSource();

    [[nodiscard]] uint32_t node() const { return node_; }
    /// Whether there is a consumer.
    [[nodiscard]] bool streaming() const { return streaming_; }
    /// Asks the daemon for a link to the node of this name, as a user's patch bay does.
    void link_to(const char* consumer);

  private:
    void offer_format(bool at_first);
    void format_changed(const spa_pod* param);
    void tick();
    void process();
    void fill(spa_data& block);

    ScreenPictures pictures_;
    Setup setup_;
    CapturedFrame picture_;
    int pending_blanks_ = 0;
    uint32_t width_ = 0;  ///< of the offered format
    uint32_t height_ = 0;
    bool negotiated_ = false;  ///< the offered format
    std::atomic<bool> streaming_{false};
    pw_thread_loop* loop_ = nullptr;
    pw_stream* stream_ = nullptr;
    uint32_t node_ = 0;
    std::vector<pw_proxy*> links_;
};

}  // namespace ox::test
