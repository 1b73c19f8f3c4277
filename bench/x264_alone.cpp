// The lower bound of the pipeline comparison: x264 with the agent's settings, paced, on prepared
// pictures of the painter's scene in its own format. Nothing is captured, converted or sent.
//
//   x264_alone DISPLAY FPS KBPS WARM-UP-S WINDOW-S

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "base/clock.h"
#include "base/sleep.h"
#include "cpu_time.h"
#include "launcher/client/timing_stats.h"
#include "log/log.h"
#include "video/libav.h"
#include "video/picture_converter.h"
#include "video/x11_capture.h"
#include "x264_encoder.h"

namespace {

constexpr size_t kPictures = 60;

class Pacer {
  public:
    explicit Pacer(int fps) : interval_(std::chrono::nanoseconds(1'000'000'000 / fps)) {}
    void wait() {
        next_ += interval_;
        ox::sleep_until_steady(next_);
    }

  private:
    std::chrono::nanoseconds interval_;
    ox::SteadyClock::time_point next_ = ox::SteadyClock::now();
};

std::vector<ox::AvFramePtr> record(ox::X11Capture& capture, int fps) {
    std::vector<ox::AvFramePtr> pictures;
    ox::PictureConverter converter(AV_PIX_FMT_YUV420P, capture.width(), capture.height());
    ox::CapturedFrame frame;
    Pacer pacer(fps);
    while (pictures.size() < kPictures) {
        ox::AvFramePtr picture(av_frame_alloc());
        picture->format = AV_PIX_FMT_YUV420P;
        picture->width = static_cast<int>(capture.width());
        picture->height = static_cast<int>(capture.height());
        pacer.wait();
        if (av_frame_get_buffer(picture.get(), 32) < 0 || capture.capture_frame(frame) != 0 ||
            converter.convert(frame.pixels(), frame.width, frame.height, *picture) !=
                ox::PictureConverter::Result::Converted) {
            return {};
        }
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s DISPLAY FPS KBPS WARM-UP-S WINDOW-S\n", argv[0]);
        return 2;
    }
    const int fps = std::atoi(argv[2]);
    const int kbps = std::atoi(argv[3]);
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::WARN);
    av_log_set_level(AV_LOG_ERROR);
    ox::X11Capture capture(argv[1]);
    if (fps < 1 || kbps < 1 || !capture.init()) return 1;
    const auto pictures = record(capture, fps);
    const auto encoder = ox::bench::open_x264(static_cast<int>(capture.width()),
                                              static_cast<int>(capture.height()), fps, kbps);
    capture.shutdown();
    if (pictures.empty() || !encoder) {
        std::fprintf(stderr, "%s: cannot capture or cannot encode\n", argv[0]);
        return 1;
    }
    const ox::AvPacketPtr packet(av_packet_alloc());
    const auto warm_up = static_cast<int64_t>(std::atof(argv[4]) * fps);
    const auto window = static_cast<int64_t>(std::atof(argv[5]) * fps);
    double begin_ms = 0;
    size_t bytes = 0;
    ox::launcher::LatencyHistogram encoding;
    Pacer pacer(fps);
    for (int64_t n = 0; n < warm_up + window; ++n) {
        if (n == warm_up) {
            begin_ms = ox::bench::cpu_ms();
            bytes = 0;
        }
        // To and fro, so that no jump costs a scene change.
        const size_t phase = static_cast<size_t>(n) % (2 * kPictures - 2);
        AVFrame* picture = pictures[phase < kPictures ? phase : 2 * kPictures - 2 - phase].get();
        picture->pts = n;
        pacer.wait();
        const uint64_t sent = ox::steady_now_us();
        if (avcodec_send_frame(encoder.get(), picture) < 0 ||
            avcodec_receive_packet(encoder.get(), packet.get()) < 0) {
            std::fprintf(stderr, "%s: the encoder failed or held a picture back\n", argv[0]);
            return 1;
        }
        if (n >= warm_up) encoding.add(ox::steady_now_us() - sent);
        bytes += static_cast<size_t>(packet->size);
        av_packet_unref(packet.get());
    }
    const double mbps = static_cast<double>(bytes) * 8 * fps / 1e6 / static_cast<double>(window);
    std::printf("frames=%lld cpu_ms=%.3f encode_p50_ms=%.1f mbps=%.1f\n",
                static_cast<long long>(window),
                (ox::bench::cpu_ms() - begin_ms) / static_cast<double>(window),
                static_cast<double>(encoding.percentile_us(50)) / 1000, mbps);
    return 0;
}
