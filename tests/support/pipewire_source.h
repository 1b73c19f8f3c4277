#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "support/screen_pictures.h"

struct pw_proxy;
struct pw_stream;
struct pw_thread_loop;
struct spa_data;
struct spa_pod;

namespace ox::test {

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
    PipewireSource(const PipewireSource&) = delete;
    PipewireSource& operator=(const PipewireSource&) = delete;

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
