// Cost of each step from the screen to the access unit.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/sleep.h"
#include "log/log.h"
#include "support/xvfb.h"
#include "video/libav.h"
#include "video/picture_converter.h"
#include "video/pixel_unpacker.h"
#include "video/synthetic_capture.h"
#include "video/video_encoder.h"
#include "video/x11_capture.h"
#include "x264_encoder.h"

namespace ox {
namespace {

constexpr uint32_t kFps = 60;

uint32_t width_for(uint32_t height) {
    return height * 16 / 9;
}

// --- pictures -------------------------------------------------------------------------------

/// Pictures of a textured scene that moves by a few pixels each, to be shown to and fro.
class Scene {
  public:
    static constexpr size_t kPictures = 8;

    Scene(uint32_t width, uint32_t height) : width_(width), height_(height) {
        const uint32_t wide = width + 8 * kPictures;
        const std::vector<uint32_t> texture = draw_texture(wide, height);
        for (size_t n = 0; n < kPictures; ++n) {
            pictures_.emplace_back(size_t{width} * height * 4);
            for (uint32_t y = 0; y < height; ++y) {
                std::memcpy(pictures_.back().data() + size_t{y} * width * 4,
                            texture.data() + size_t{y} * wide + 6 * n, size_t{width} * 4);
            }
        }
    }
    /// The picture of step `n`.
    [[nodiscard]] const uint8_t* at(size_t n) const { return pictures_[index(n)].data(); }
    [[nodiscard]] static size_t index(size_t n) {
        const size_t t = n % (2 * kPictures - 2);
        return t < kPictures ? t : 2 * kPictures - 2 - t;
    }
    [[nodiscard]] uint32_t width() const { return width_; }
    [[nodiscard]] uint32_t height() const { return height_; }

  private:
    static std::vector<uint32_t> draw_texture(uint32_t width, uint32_t height) {
        std::minstd_rand random(1);
        std::vector<uint32_t> texture(size_t{width} * height);
        for (uint32_t y = 0; y < height; ++y) {
            for (uint32_t x = 0; x < width; ++x) {
                const double shade = 128 + 70 * std::sin(x * 0.031) * std::cos(y * 0.023) +
                                     30 * std::sin((x + 2 * y) * 0.21);
                const auto grain = static_cast<double>(random() % 16);
                const auto level = static_cast<uint32_t>(shade + grain) & 0xFFU;
                texture[size_t{y} * width + x] =
                    0xFF000000U | level << 16 | (255 - level) << 8 | (x + y) % 256;
            }
        }
        return texture;
    }
    uint32_t width_;
    uint32_t height_;
    std::vector<std::vector<uint8_t>> pictures_;
};

AvFramePtr make_picture(AVPixelFormat format, uint32_t width, uint32_t height) {
    AvFramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = static_cast<int>(width);
    frame->height = static_cast<int>(height);
    av_frame_get_buffer(frame.get(), 32);
    return frame;
}

/// Peak signal-to-noise ratio of luma against BT.601 computed in floating point.
double luma_psnr_db(const AVFrame& frame, const uint8_t* bgra) {
    double squares = 0;
    for (int y = 0; y < frame.height; ++y) {
        for (int x = 0; x < frame.width; ++x, bgra += 4) {
            const double luma =
                16 + (24.966 * bgra[0] + 128.553 * bgra[1] + 65.481 * bgra[2]) / 255;
            const double error = frame.data[0][y * frame.linesize[0] + x] - luma;
            squares += error * error;
        }
    }
    return 10 * std::log10(255.0 * 255.0 * frame.width * frame.height / squares);
}

// --- capture --------------------------------------------------------------------------------

void synthetic_draw(benchmark::State& state) {
    const auto height = static_cast<uint32_t>(state.range(0));
    SyntheticCapture capture(width_for(height), height);
    capture.init();
    CapturedFrame frame;
    for (auto _ : state) {
        capture.capture_frame(frame);
        benchmark::DoNotOptimize(frame.data.data());
    }
}
BENCHMARK(synthetic_draw)->Arg(720)->Arg(1080)->Unit(benchmark::kMicrosecond);

enum class Grab { Lent, Copied, Unshared };

void x11_grab(benchmark::State& state, int depth, Grab grab) {
    const auto height = static_cast<uint32_t>(state.range(0));
    const uint32_t width = width_for(height);
    test::Xvfb::Setup setup;
    setup.screen =
        std::to_string(width) + "x" + std::to_string(height) + "x" + std::to_string(depth);
    if (grab == Grab::Unshared) setup.arguments = {"-extension", "MIT-SHM"};
    const auto server = test::Xvfb::start(setup);
    if (!server) return state.SkipWithError("Xvfb does not start");
    test::XPainter(server->display()).fill(0, 0, width, height, 0x335577);
    X11Capture capture(server->display());
    CapturedFrame frame;
    std::vector<uint8_t> copy(size_t{width} * height * 4);
    if (!capture.init()) return state.SkipWithError("no capture");
    for (auto _ : state) {
        if (capture.capture_frame(frame) != 0) return state.SkipWithError("no picture");
        if (grab == Grab::Copied) {
            copy_bgra_opaque(frame.pixels(), size_t{width} * height, copy.data());
        }
        benchmark::DoNotOptimize(frame.pixels());
        benchmark::ClobberMemory();
    }
}
BENCHMARK_CAPTURE(x11_grab, shm_lent, 24, Grab::Lent)->Arg(720)->Arg(1080);
BENCHMARK_CAPTURE(x11_grab, shm_copied, 24, Grab::Copied)->Arg(720)->Arg(1080);
BENCHMARK_CAPTURE(x11_grab, shm_16bit, 16, Grab::Lent)->Arg(1080);
BENCHMARK_CAPTURE(x11_grab, get_image, 24, Grab::Unshared)->Arg(1080);

// --- conversion -----------------------------------------------------------------------------

void convert(benchmark::State& state, AVPixelFormat format, uint32_t source_height) {
    const auto height = static_cast<uint32_t>(state.range(0));
    const uint32_t from = source_height == 0 ? height : source_height;
    const Scene scene(width_for(from), from);
    PictureConverter converter(format, width_for(height), height);
    const AvFramePtr out = make_picture(format, width_for(height), height);
    const auto run = [&](size_t n) {
        converter.convert(scene.at(n), scene.width(), scene.height(), *out);
    };
    run(0);
    size_t n = 0;
    for (auto _ : state)
        run(n++);
    if (from == height) {
        run(0);
        state.counters["luma_psnr_db"] = luma_psnr_db(*out, scene.at(0));
    }
}
BENCHMARK_CAPTURE(convert, to_i420, AV_PIX_FMT_YUV420P, 0)->Arg(720)->Arg(1080);
BENCHMARK_CAPTURE(convert, to_nv12, AV_PIX_FMT_NV12, 0)->Arg(1080);
BENCHMARK_CAPTURE(convert, scaled_from_1440, AV_PIX_FMT_YUV420P, 1440)->Arg(1080);

/// What a scaler at equal sizes would cost, and do to the picture.
void convert_by_scaler(benchmark::State& state) {
    const auto height = static_cast<uint32_t>(state.range(0));
    const Scene scene(width_for(height), height);
    const AvFramePtr out = make_picture(AV_PIX_FMT_YUV420P, scene.width(), height);
    const SwsContextPtr scaler(sws_getContext(out->width, out->height, AV_PIX_FMT_BGRA, out->width,
                                              out->height, AV_PIX_FMT_YUV420P, SWS_FAST_BILINEAR,
                                              nullptr, nullptr, nullptr));
    const auto run = [&](size_t n) {
        const uint8_t* const planes[] = {scene.at(n)};
        const int strides[] = {out->width * 4};
        sws_scale(scaler.get(), planes, strides, 0, out->height, out->data, out->linesize);
    };
    size_t n = 0;
    for (auto _ : state)
        run(n++);
    run(0);
    state.counters["luma_psnr_db"] = luma_psnr_db(*out, scene.at(0));
}
BENCHMARK(convert_by_scaler)->Arg(720)->Arg(1080);

// --- encoding -------------------------------------------------------------------------------

constexpr uint32_t kbps_for(uint32_t height) {
    return height == 720 ? 8000 : 15000;
}

/// Calls `encode(n)` as fast as it goes or, as in a session, 60 times a second.
template <typename Encode>
void run_encoder(benchmark::State& state, const Encode& encode) {
    const bool paced = state.range(1) != 0;
    constexpr std::chrono::nanoseconds kInterval{1'000'000'000 / kFps};
    auto due = SteadyClock::now();
    size_t n = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        if (paced) sleep_until_steady(due += kInterval);
        bytes += encode(n++);
    }
    state.counters["Mbit/s"] =
        static_cast<double>(bytes) * 8 * kFps / 1e6 / static_cast<double>(state.iterations());
}

void encode_bgra(benchmark::State& state, VideoCodec codec) {
    const auto height = static_cast<uint32_t>(state.range(0));
    const Scene scene(width_for(height), height);
    VideoEncoder encoder;
    encoder.init({.codec = codec,
                  .backend = EncoderBackend::Software,
                  .width = scene.width(),
                  .height = height,
                  .fps = kFps,
                  .bitrate_kbps = kbps_for(height)});
    EncodedFrame out;
    run_encoder(state, [&](size_t n) {
        encoder.encode_bgra(scene.at(n), scene.width(), height, 0, out);
        return out.data.size();
    });
}

/// libx264 with the agent's settings and pictures converted beforehand: the lower bound of any
/// program around it.
void x264_alone(benchmark::State& state) {
    const auto height = static_cast<uint32_t>(state.range(0));
    const Scene scene(width_for(height), height);
    std::vector<AvFramePtr> pictures;
    PictureConverter converter(AV_PIX_FMT_YUV420P, scene.width(), height);
    for (size_t n = 0; n < Scene::kPictures; ++n) {
        pictures.push_back(make_picture(AV_PIX_FMT_YUV420P, scene.width(), height));
        converter.convert(scene.at(n), scene.width(), height, *pictures.back());
    }
    const AvCodecContextPtr context =
        bench::open_x264(static_cast<int>(scene.width()), static_cast<int>(height),
                         static_cast<int>(kFps), static_cast<int>(kbps_for(height)));
    if (!context) return state.SkipWithError("libx264 does not open");
    const AvPacketPtr packet(av_packet_alloc());
    run_encoder(state, [&](size_t n) {
        AVFrame* picture = pictures[Scene::index(n)].get();
        picture->pts = static_cast<int64_t>(n);
        avcodec_send_frame(context.get(), picture);
        avcodec_receive_packet(context.get(), packet.get());
        const auto size = static_cast<size_t>(packet->size);
        av_packet_unref(packet.get());
        return size;
    });
}

// Arguments: height, paced. The CPU column is that of all threads.
void encode_arguments(benchmark::internal::Benchmark* bench) {
    bench->Args({720, 0})->Args({1080, 0})->Args({720, 1})->Args({1080, 1});
    bench->MeasureProcessCPUTime()->UseRealTime()->Iterations(300)->Unit(benchmark::kMillisecond);
}
BENCHMARK(x264_alone)->Apply(encode_arguments);
BENCHMARK_CAPTURE(encode_bgra, h264, VideoCodec::H264)->Apply(encode_arguments);
BENCHMARK_CAPTURE(encode_bgra, hevc, VideoCodec::Hevc)
    ->Args({1080, 0})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Iterations(60)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::ERROR);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
