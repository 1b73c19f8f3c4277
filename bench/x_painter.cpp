// Paints a game-like moving picture on an X display, with the current time as a strip of blocks
// along its top, until it is killed: the common input of the pipeline comparison.
//
//   x_painter DISPLAY [FPS [STRIPS-PER-SECOND]]
//
// With 0 strips a second the time is part of each picture, painted once with it, as a game's would
// be.

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <vector>

#include "base/clock.h"
#include "base/sleep.h"
#include "time_strip.h"

namespace {

using ox::bench::kStripBlock;
using ox::bench::kStripWidth;

constexpr unsigned kMargin = 768;  // how far the camera travels over the world, each way
constexpr int kSprites = 14;
constexpr unsigned kSpriteSize = 96;

struct DisplayCloser {
    void operator()(Display* display) const { XCloseDisplay(display); }
};

uint32_t hash(uint32_t x, uint32_t y, uint32_t seed) {
    uint32_t h = x * 0x9E3779B1U ^ y * 0x85EBCA77U ^ seed * 0xC2B2AE3DU;
    h ^= h >> 15;
    h *= 0x2C1B3C6DU;
    h ^= h >> 12;
    return h;
}

// Smooth noise of one lattice size, 0 to 1.
float noise(uint32_t x, uint32_t y, uint32_t cell, uint32_t seed) {
    const auto corner = [&](uint32_t cx, uint32_t cy) {
        return static_cast<float>(hash(cx, cy, seed) & 0xFFFF) / 65535.0F;
    };
    const uint32_t cx = x / cell;
    const uint32_t cy = y / cell;
    const float fx = static_cast<float>(x % cell) / static_cast<float>(cell);
    const float fy = static_cast<float>(y % cell) / static_cast<float>(cell);
    const float top = std::lerp(corner(cx, cy), corner(cx + 1, cy), fx);
    const float bottom = std::lerp(corner(cx, cy + 1), corner(cx + 1, cy + 1), fx);
    return std::lerp(top, bottom, fy);
}

// Landscape: broad colour areas, finer texture, some hard edges.
uint32_t world_pixel(uint32_t x, uint32_t y) {
    const float land = noise(x, y, 256, 1);
    const float texture = 0.6F * noise(x, y, 32, 2) + 0.4F * noise(x, y, 6, 3);
    const bool wall = noise(x, y, 128, 4) > 0.66F;
    const float light = wall ? 0.35F + 0.4F * texture : 0.5F + 0.5F * texture;
    const auto channel = [&](float base) {
        return static_cast<uint32_t>(std::clamp(base * light, 0.0F, 1.0F) * 255.0F);
    };
    const uint32_t red = channel(wall ? 0.55F : 0.35F + 0.4F * land);
    const uint32_t green = channel(wall ? 0.5F : 0.75F - 0.3F * land);
    const uint32_t blue = channel(wall ? 0.5F : 0.25F + 0.3F * land);
    return red << 16 | green << 8 | blue;
}

class Painter {
  public:
    explicit Painter(Display* display) : display_(display) {
        const int screen = DefaultScreen(display_);
        width_ = static_cast<unsigned>(DisplayWidth(display_, screen));
        height_ = static_cast<unsigned>(DisplayHeight(display_, screen));
        const auto depth = static_cast<unsigned>(DefaultDepth(display_, screen));
        const Window root = RootWindow(display_, screen);
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        window_ = XCreateWindow(display_, root, 0, 0, width_, height_, 0, CopyFromParent,
                                InputOutput, CopyFromParent, CWOverrideRedirect, &attributes);
        context_ = XCreateGC(display_, window_, 0, nullptr);
        XSetGraphicsExposures(display_, context_, False);
        XSetForeground(display_, context_, WhitePixel(display_, screen));
        XSetBackground(display_, context_, BlackPixel(display_, screen));
        world_ = XCreatePixmap(display_, root, width_ + kMargin, height_ + kMargin, depth);
        back_ = XCreatePixmap(display_, root, width_, height_, depth);
        upload_world(depth);
        XMapRaised(display_, window_);
        XSync(display_, False);
    }

    void paint_strip() { put_strip(window_); }

    // Composed off screen and shown in one request, so that captures see whole pictures. With the
    // time in it, or below the strip.
    void paint_scene(double seconds, bool with_time) {
        compose_scene(seconds);
        if (with_time) put_strip(back_);
        const unsigned top = with_time ? 0 : kStripBlock;
        XCopyArea(display_, back_, window_, context_, 0, static_cast<int>(top), width_,
                  height_ - top, 0, static_cast<int>(top));
        XFlush(display_);
    }

  private:
    void put_strip(Drawable target) {
        auto bitmap = ox::bench::draw_strip(ox::steady_now_us());
        XImage image{};
        image.width = static_cast<int>(kStripWidth);
        image.height = static_cast<int>(kStripBlock);
        image.format = XYBitmap;
        image.data = reinterpret_cast<char*>(bitmap.data());
        image.byte_order = LSBFirst;
        image.bitmap_unit = 8;
        image.bitmap_bit_order = LSBFirst;
        image.bitmap_pad = 8;
        image.depth = 1;
        image.bytes_per_line = static_cast<int>(kStripWidth / 8);
        image.bits_per_pixel = 1;
        XInitImage(&image);
        XPutImage(display_, target, context_, &image, 0, 0, 0, 0, kStripWidth, kStripBlock);
        XFlush(display_);
    }

    void compose_scene(double seconds) {
        const auto travel = [&](double speed, double phase, double range) {
            return static_cast<int>((0.5 + 0.5 * std::sin(speed * seconds + phase)) * range);
        };
        XCopyArea(display_, world_, back_, context_, travel(0.9, 0.0, kMargin),
                  travel(0.7, 1.0, kMargin), width_, height_, 0, 0);
        for (int i = 0; i < kSprites; ++i) {
            const double phase = 0.9 * i;
            XCopyArea(display_, world_, back_, context_, 130 * i, 60 * i, kSpriteSize, kSpriteSize,
                      travel(1.3 + 0.1 * i, phase, width_ - kSpriteSize),
                      travel(1.1 + 0.07 * i, 2 * phase, height_ - kSpriteSize));
        }
    }

    void upload_world(unsigned depth) {
        constexpr unsigned kBand = 64;
        const unsigned world_width = width_ + kMargin;
        const unsigned world_height = height_ + kMargin;
        std::vector<uint32_t> pixels(size_t{world_width} * kBand);
        for (unsigned top = 0; top < world_height; top += kBand) {
            const unsigned rows = std::min(kBand, world_height - top);
            for (unsigned y = 0; y < rows; ++y) {
                for (unsigned x = 0; x < world_width; ++x) {
                    pixels[size_t{y} * world_width + x] = world_pixel(x, top + y);
                }
            }
            XImage* image = XCreateImage(display_, DefaultVisual(display_, DefaultScreen(display_)),
                                         depth, ZPixmap, 0, reinterpret_cast<char*>(pixels.data()),
                                         world_width, rows, 32, 0);
            XPutImage(display_, world_, context_, image, 0, 0, 0, static_cast<int>(top),
                      world_width, rows);
            image->data = nullptr;  // the vector's
            XDestroyImage(image);
        }
    }

    Display* display_;
    unsigned width_ = 0;
    unsigned height_ = 0;
    Window window_ = 0;
    GC context_ = nullptr;
    Pixmap world_ = 0;
    Pixmap back_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DISPLAY [FPS [STRIPS-PER-SECOND]]   FPS 0: a still scene\n",
                     argv[0]);
        return 2;
    }
    const double fps = argc > 2 ? std::atof(argv[2]) : 60.0;
    const double strips = argc > 3 ? std::atof(argv[3]) : 400.0;
    const bool time_in_picture = strips == 0.0;
    if (!(fps >= 0.0) || !(time_in_picture ? fps > 0.0 : strips >= std::max(fps, 1.0))) {
        std::fprintf(stderr, "%s: rates must be 0 <= FPS <= STRIPS-PER-SECOND, or 0 < FPS and 0\n",
                     argv[0]);
        return 2;
    }
    const std::unique_ptr<Display, DisplayCloser> display(XOpenDisplay(argv[1]));
    if (!display || DefaultDepth(display.get(), DefaultScreen(display.get())) != 24) {
        std::fprintf(stderr, "%s: cannot open '%s' with depth 24\n", argv[0], argv[1]);
        return 1;
    }
    ox::use_minimal_timer_slack();
    Painter painter(display.get());
    std::puts("painting");
    std::fflush(stdout);

    using Seconds = std::chrono::duration<double>;
    const auto start = ox::SteadyClock::now();
    const auto after = [&](double seconds) {
        return start + std::chrono::duration_cast<ox::SteadyClock::duration>(Seconds(seconds));
    };
    if (time_in_picture) {
        for (uint64_t picture = 1;; ++picture) {
            const double seconds = static_cast<double>(picture) / fps;
            ox::sleep_until_steady(after(seconds));
            painter.paint_scene(seconds, true);
        }
    }
    auto tick = start;
    double next_scene = 0.0;
    for (;;) {
        const double now = Seconds(ox::SteadyClock::now() - start).count();
        if (now >= next_scene) {
            painter.paint_scene(now, false);
            next_scene = fps > 0.0 ? std::max(next_scene + 1.0 / fps, now)
                                   : std::numeric_limits<double>::infinity();
        }
        painter.paint_strip();
        tick = std::max(
            tick + std::chrono::duration_cast<ox::SteadyClock::duration>(Seconds(1.0 / strips)),
            ox::SteadyClock::now());
        ox::sleep_until_steady(tick);
    }
}
