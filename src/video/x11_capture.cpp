#include "video/x11_capture.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "base/clock.h"
#include "log/log.h"
#include "video/x11_connection.h"
#include "video/x11_damage_watch.h"
#include "video/x11_image.h"
#include "video/x11_pointer.h"

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;

bool plausible(ScreenSize size) {
    return size.width >= 1 && size.width <= X11Capture::kMaxSide && size.height >= 1 &&
           size.height <= X11Capture::kMaxSide;
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
    start_damage_watch();
    open_pointer();
    // Queried: the size that the connection reported may be older than the damage watch.
    if (!set_up(connection_->query_size().value_or(ScreenSize{}))) {
        shutdown();
        return false;
    }
    return true;
}

bool X11Capture::connect() {
    auto opened = XConnection::open(display_name_, authorization_, cancelled_);
    if (auto* connection = std::get_if<std::unique_ptr<XConnection>>(&opened)) {
        connection_ = std::move(*connection);
        return true;
    }
    if (cancelled_ && cancelled_()) return false;
    const char* const name = XDisplayName(display_name_.empty() ? nullptr : display_name_.c_str());
    OX_ERROR("X11Capture: cannot open display '%s' — use --capture synthetic for headless", name);
    OX_WARN("X11Capture: %s", std::get<Diagnosis>(opened).log_text().c_str());
    return false;
}

void X11Capture::start_damage_watch() {
    freshness_ = {};
    // Queried on this connection, too: it re-arms the watch.
    int first_event = 0;
    int first_error = 0;
    if (XDamageQueryExtension(connection_->display(), &first_event, &first_error) != 0) {
        auto opened = XConnection::open(display_name_, authorization_, cancelled_);
        if (auto* connection = std::get_if<std::unique_ptr<XConnection>>(&opened)) {
            damage_ = X11DamageWatch::start(std::move(*connection));
        }
    }
    if (!damage_) OX_DEBUG("X11Capture: the X server does not tell of changes");
}

void X11Capture::open_pointer() {
    pointer_ = X11Pointer::open(*connection_);
    if (!pointer_) OX_INFO("X11Capture: no XFIXES — pictures without the mouse pointer");
}

/// Makes the grabber for a screen of this size. False, after a log line, when none works.
bool X11Capture::set_up(ScreenSize size) {
    grabber_.reset();
    overlay_.reset();
    freshness_.reset();
    row_hashes_.reset();
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
    reader_ = std::make_unique<XImageReader>(grabber_->image());
    lends_ = reader_->is_bgra_picture() && grabber_->lend() != nullptr;
    OX_INFO("X11Capture: %ux%u via %s (depth %d)", width_, height_, way, grabber_->image().depth);
    return true;
}

int X11Capture::capture_frame(CapturedFrame& frame) {
    if (!connection_) return 1;
    process_events();
    if (pointer_) pointer_->request_position();
    erase_pointer();
    const bool refreshed = refresh();
    if (pointer_) pointer_->update();
    if (!refreshed) {
        if (grabber_ && lends_) draw_pointer(lent_memory());
        report_outage();
        return 1;
    }
    outage_since_.reset();
    check_for_black();
    fill_frame(frame);
    frame.timestamp = steady_now_us();
    ++frames_;
    return 0;
}

void X11Capture::process_events() {
    std::optional<ScreenSize> resized;
    connection_->process_events([&](const XEvent& event) {
        if (const auto size = connection_->size_in(event)) resized = size;
        if (pointer_) pointer_->on_event(event);
    });
    if (resized && (!grabber_ || *resized != ScreenSize{width_, height_})) set_up(*resized);
}

/// Brings the grabber's image up to date. False when that fails.
bool X11Capture::refresh() {
    using Need = PictureFreshness::Need;
    if (!grabber_ || connection_->lost()) return false;
    const auto now = SteadyClock::now();
    // Read before the grab: the grab may miss what is announced later.
    const uint64_t announced = damage_ ? damage_->announced() : 0;
    const Need need = damage_ ? freshness_.next(announced, now) : Need::Fetch;
    if (need == Need::Nothing) return true;
    if (!freshness_.trusted() && damage_) {
        OX_DEBUG("X11Capture: the screen changes without the X server telling of it");
        damage_.reset();
    }
    if (need == Need::Check && !row_hashes_) hash_all_rows();
    if (damage_) damage_->rearm(*connection_);
    if (!grab_current_size()) return false;
    freshness_.fetched(announced, now);
    if (need == Need::Check && is_unchanged(now)) return true;
    if (need == Need::Fetch) row_hashes_.reset();
    content_ = next_content();
    return true;
}

/// Whether the picture fetched for a check equals the one before, in the rows whose turn it is: a
/// game shows whole pictures, and any other change is found by the fourth check.
bool X11Capture::is_unchanged(SteadyClock::time_point now) {
    if (!row_hashes_) return false;  // the screen has changed its size
    const size_t turn = checks_++ % kRowSets;
    const uint64_t hash = hash_of_rows(turn);
    if (std::exchange(row_hashes_->at(turn), hash) == hash) return true;
    row_hashes_.reset();
    freshness_.found_change(now);
    return false;
}

void X11Capture::hash_all_rows() {
    row_hashes_.emplace();
    for (size_t set = 0; set < kRowSets; ++set)
        row_hashes_->at(set) = hash_of_rows(set);
}

uint64_t X11Capture::hash_of_rows(size_t set) const {
    const XImage& image = grabber_->image();
    const auto stride = static_cast<size_t>(image.bytes_per_line);
    const size_t rows = (height_ + kRowSets - 1 - set) / kRowSets;
    return hash_picture(XImageReader::row_of(image, 0) + set * stride, kRowSets * stride,
                        XImageReader::row_bytes(image), static_cast<uint32_t>(rows));
}

/// Grabs; if the server refuses because the screen has just shrunk, once more in the new size.
bool X11Capture::grab_current_size() {
    if (!grabber_ || connection_->lost()) return false;
    if (grabber_->grab()) return true;
    const auto size = connection_->query_size();
    return size && *size != ScreenSize{width_, height_} && set_up(*size) && grabber_->grab();
}

/// One line per outage: the session tries again with every frame.
void X11Capture::report_outage() {
    if (outage_since_) return;
    outage_since_ = SteadyClock::now();
    if (grabber_) OX_ERROR("X11Capture: %s failed", grabber_->call_name());
    if (connection_->lost()) OX_ERROR("X11Capture: the X server is gone");
}

CaptureState X11Capture::state() {
    constexpr std::chrono::seconds kOutageLimit{2};
    const bool out = outage_since_ && SteadyClock::now() - *outage_since_ >= kOutageLimit;
    return !connection_ || connection_->lost() || out ? CaptureState::Gone : CaptureState::Live;
}

void X11Capture::check_for_black() {
    const XImage& image = grabber_->image();
    if (!black_frames_.observe(XImageReader::row_of(image, 0),
                               static_cast<size_t>(image.bytes_per_line),
                               XImageReader::row_bytes(image), height_)) {
        return;
    }
    OX_WARN(
        "X11Capture: 120 all-black frames — the X11 root has no pixels. On a Wayland session this "
        "is expected: X11 capture cannot see the desktop. Use an X11 session or a PipeWire capture "
        "backend; --capture synthetic is test-only.");
}

PictureView X11Capture::lent_memory() const {
    return {reinterpret_cast<uint8_t*>(grabber_->image().data), width_, height_};
}

void X11Capture::erase_pointer() {
    if (grabber_ && lends_) overlay_.restore(lent_memory());
}

void X11Capture::draw_pointer(PictureView picture) {
    if (pointer_ && pointer_->visible()) {
        overlay_.draw(picture, pointer_->image(), pointer_->x(), pointer_->y());
    }
}

void X11Capture::fill_frame(CapturedFrame& frame) {
    const uint64_t pointer = pointer_ && pointer_->visible() ? pointer_->version() : 0;
    if (std::exchange(drawn_pointer_, pointer) != pointer) content_ = next_content();
    const size_t bytes = size_t{width_} * height_ * kPixelBytes;
    if (lends_) {
        draw_pointer(lent_memory());
        frame.lent = grabber_->lend();
        frame.data = {};
    } else if (frame.lent || frame.content != content_ || frame.data.size() != bytes) {
        frame.lent.reset();
        resize_with_slack(frame.data, bytes);
        reader_->read(grabber_->image(), frame.data.data());
        draw_pointer({frame.data.data(), width_, height_});
    }
    frame.width = width_;
    frame.height = height_;
    frame.content = content_;
}

ChangeTimes* X11Capture::changes() {
    return damage_ ? &damage_->changes() : nullptr;
}

void X11Capture::shutdown() {
    if (connection_) connection_->begin_close();
    damage_.reset();
    grabber_.reset();
    pointer_.reset();
    if (!connection_) return;
    connection_.reset();
    OX_DEBUG("X11Capture: closed (%llu frames)", static_cast<unsigned long long>(frames_));
}

}  // namespace ox
