#include "video/x11_capture.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/clock.h"
#include "desktop/x_server.h"
#include "log/log.h"
#include "video/x11_diagnosis.h"
#include "video/x11_grabber.h"

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;

bool plausible(ScreenSize size) {
    return size.width >= 1 && size.width <= X11Capture::kMaxSide && size.height >= 1 &&
           size.height <= X11Capture::kMaxSide;
}

PixelLayout layout_of(const XImage& image) {
    return {.bits_per_pixel = image.bits_per_pixel,
            .msb_first = image.byte_order == MSBFirst,
            .red_mask = image.red_mask,
            .green_mask = image.green_mask,
            .blue_mask = image.blue_mask};
}

const uint8_t* row_of(const XImage& image, uint32_t y) {
    return reinterpret_cast<const uint8_t*>(image.data) +
           size_t{y} * static_cast<size_t>(image.bytes_per_line);
}

/// Through Xlib's own reader, for pixels that do not fill whole 16- or 32-bit words.
void unpack_slowly(const XImage& image, uint32_t y, const PixelUnpacker& unpacker, uint8_t* out) {
    auto& readable = const_cast<XImage&>(image);  // XGetPixel changes nothing
    for (int x = 0; x < image.width; ++x) {
        const uint32_t bgra = unpacker.to_bgra(XGetPixel(&readable, x, static_cast<int>(y)));
        std::memcpy(out + static_cast<size_t>(x) * kPixelBytes, &bgra, kPixelBytes);
    }
}

}  // namespace

X11Capture::X11Capture(std::string display, XAuthorization authorization,
                       std::function<bool()> cancelled)
    : display_name_(std::move(display)),
      authorization_(std::move(authorization)),
      cancelled_(std::move(cancelled)) {}

X11Capture::~X11Capture() {
    shutdown();
}

bool X11Capture::init() {
    shutdown();
    frames_ = 0;
    const char* session_type = std::getenv("XDG_SESSION_TYPE");
    if (session_type != nullptr && std::string_view(session_type) == "wayland") {
        OX_WARN(
            "X11Capture: XDG_SESSION_TYPE=wayland — X11 capture reads the XWayland root and "
            "normally yields a black frame. The stream will be black; use an X11 session or a "
            "PipeWire capture backend.");
    }
    if (!connect()) return false;
    // Asked for anew: the size that the connection came with may be older than the watch for
    // changes.
    if (!set_up(connection_->query_size().value_or(ScreenSize{}))) {
        shutdown();
        return false;
    }
    return true;
}

bool X11Capture::connect() {
    constexpr std::chrono::seconds kHandshakeLimit{3};
    const char* const name = XDisplayName(display_name_.empty() ? nullptr : display_name_.c_str());
    const auto deadline = SteadyClock::now() + kHandshakeLimit;
    // Xlib would wait for ever for a server that hangs. A connection that was let in stays for as
    // long as Xlib makes its own: with its last client a server may start anew.
    UniqueFd foothold;
    if (const auto number = local_display_number(name))
        foothold = enter_x_server(*number, authorization_, deadline, cancelled_);
    if (!foothold && cancelled_ && cancelled_()) return false;
    const bool hangs = !foothold && SteadyClock::now() >= deadline;
    if (!hangs) connection_ = XConnection::open(display_name_, authorization_, cancelled_);
    if (connection_) return true;
    OX_ERROR("X11Capture: cannot open display '%s' — use --capture synthetic for headless", name);
    if (hangs) {
        OX_WARN("X11Capture: the X server of %s does not answer — restart the desktop", name);
    } else {
        const auto [cause, remedy] = diagnose(read_display_facts(display_name_));
        OX_WARN("X11Capture: %s — %s", cause.c_str(), remedy.c_str());
    }
    return false;
}

/// Makes the grabber for a screen of this size. False, after a log line, when none works.
bool X11Capture::set_up(ScreenSize size) {
    grabber_.reset();
    if (!plausible(size)) {
        OX_ERROR("X11Capture: implausible geometry %ux%u", size.width, size.height);
        return false;
    }
    const char* way = "MIT-SHM";
    grabber_ = make_shm_grabber(*connection_, size);
    if (!grabber_) {
        OX_WARN("X11Capture: MIT-SHM unavailable — falling back to XGetImage");
        way = "XGetImage";
        grabber_ = make_plain_grabber(*connection_, size);
    }
    if (!grabber_) {
        OX_ERROR("X11Capture: XGetImage probe failed");
        return false;
    }
    width_ = size.width;
    height_ = size.height;
    const PixelLayout layout = layout_of(grabber_->image());
    direct_bgra_ = layout.is_bgra();
    unpacker_ = PixelUnpacker(layout);
    OX_INFO("X11Capture: %ux%u via %s (depth %d)", width_, height_, way, grabber_->image().depth);
    return true;
}

int X11Capture::capture_frame(CapturedFrame& frame) {
    if (!connection_) return 1;
    const auto resized = connection_->take_size_change();
    if (resized && (!grabber_ || *resized != ScreenSize{width_, height_})) set_up(*resized);
    if (!grab_current_size()) {
        report_outage();
        return 1;
    }
    outage_reported_ = false;
    watch_for_black();
    fill(frame);
    frame.timestamp = steady_now_us();
    ++frames_;
    return 0;
}

/// Grabs; when the screen has just shrunk, so that the server refuses, once more in the new size.
bool X11Capture::grab_current_size() {
    if (!grabber_ || connection_->lost()) return false;
    if (grabber_->grab()) return true;
    const auto size = connection_->query_size();
    return size && *size != ScreenSize{width_, height_} && set_up(*size) && grabber_->grab();
}

/// One line per outage: the session asks again with every frame.
void X11Capture::report_outage() {
    if (std::exchange(outage_reported_, true)) return;
    if (grabber_) OX_ERROR("X11Capture: %s failed", grabber_->call_name());
    if (connection_->lost()) OX_ERROR("X11Capture: the X server is gone");
}

void X11Capture::watch_for_black() {
    const XImage& image = grabber_->image();
    const size_t row_bytes = (size_t{width_} * static_cast<size_t>(image.bits_per_pixel) + 7) / 8;
    if (!black_frames_.observe(row_of(image, 0), static_cast<size_t>(image.bytes_per_line),
                               row_bytes, height_)) {
        return;
    }
    OX_WARN(
        "X11Capture: 120 all-black frames — the X11 root has no pixels. On a Wayland session this "
        "is expected: X11 capture cannot see the desktop. Use an X11 session or a PipeWire capture "
        "backend; --capture synthetic is test-only.");
}

void X11Capture::fill(CapturedFrame& frame) const {
    const XImage& image = grabber_->image();
    const size_t row_bytes = size_t{width_} * kPixelBytes;
    frame.width = width_;
    frame.height = height_;
    frame.lent.reset();
    if (direct_bgra_ && static_cast<size_t>(image.bytes_per_line) == row_bytes) {
        frame.lent = grabber_->lend();
        if (frame.lent) {
            frame.data = {};
            return;
        }
    }
    resize_with_slack(frame.data, row_bytes * height_);
    for (uint32_t y = 0; y < height_; ++y) {
        uint8_t* out = frame.data.data() + y * row_bytes;
        if (direct_bgra_) {
            copy_bgra_opaque(row_of(image, y), width_, out);
        } else if (unpacker_.reads_rows()) {
            unpacker_.unpack_row(row_of(image, y), width_, out);
        } else {
            unpack_slowly(image, y, unpacker_, out);
        }
    }
}

void X11Capture::shutdown() {
    if (connection_) connection_->begin_close();
    grabber_.reset();
    if (!connection_) return;
    connection_.reset();
    OX_DEBUG("X11Capture: closed (%llu frames)", static_cast<unsigned long long>(frames_));
}

}  // namespace ox
