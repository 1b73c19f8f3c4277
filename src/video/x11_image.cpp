#include "video/x11_image.h"

#include <X11/extensions/XShm.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>

#include "log/log.h"
#include "video/capture.h"

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;

struct XImageDeleter {
    void operator()(XImage* image) const { XDestroyImage(image); }
};
using XImagePtr = std::unique_ptr<XImage, XImageDeleter>;

/// A System V segment attached to this process and already marked for removal, so that it ends with
/// its last user in any case.
class SharedSegment {
  public:
    static std::shared_ptr<SharedSegment> create(size_t bytes) {
        const int id = ::shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (id < 0) return nullptr;
        void* address = ::shmat(id, nullptr, 0);
        ::shmctl(id, IPC_RMID, nullptr);
        // shmat reports failure by the pointer value -1.
        if (reinterpret_cast<intptr_t>(address) == -1) return nullptr;
        return std::make_shared<SharedSegment>(id, address);
    }

    SharedSegment(int id, void* address) : id_(id), address_(address) {}
    ~SharedSegment() { ::shmdt(address_); }
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;

    [[nodiscard]] int id() const { return id_; }
    [[nodiscard]] void* address() const { return address_; }

  private:
    int id_;
    void* address_;
};

class ShmGrabber final : public XGrabber {
  public:
    explicit ShmGrabber(XConnection& connection) : connection_(connection) {}

    ~ShmGrabber() override {
        if (!attached_ || connection_.lost()) return;
        XShmDetach(connection_.display(), &info_);
        XSync(connection_.display(), False);
    }

    bool open(ScreenSize size) {
        Display* display = connection_.display();
        const int screen = XDefaultScreen(display);
        image_.reset(XShmCreateImage(display, XDefaultVisual(display, screen),
                                     static_cast<unsigned>(XDefaultDepth(display, screen)), ZPixmap,
                                     nullptr, &info_, size.width, size.height));
        if (!image_) return false;
        segment_ = SharedSegment::create(static_cast<size_t>(image_->bytes_per_line) *
                                             static_cast<size_t>(image_->height) +
                                         kReadSlack);
        if (!segment_) return false;
        info_.shmid = segment_->id();
        info_.shmaddr = image_->data = static_cast<char*>(segment_->address());
        info_.readOnly = False;

        const XErrorTrap trap(connection_);
        attached_ = XShmAttach(display, &info_) != 0;
        if (trap.failed()) attached_ = false;
        if (!attached_) OX_ERROR("X11Capture: XShmAttach failed");
        return attached_;
    }

    bool grab() override {
        return XShmGetImage(connection_.display(), connection_.root(), image_.get(), 0, 0,
                            AllPlanes) != 0;
    }
    [[nodiscard]] const XImage& image() const override { return *image_; }
    [[nodiscard]] std::shared_ptr<const uint8_t> lend() const override {
        return {segment_, static_cast<const uint8_t*>(segment_->address())};
    }
    [[nodiscard]] const char* call_name() const override { return "XShmGetImage"; }

  private:
    XConnection& connection_;
    std::shared_ptr<SharedSegment> segment_;
    XShmSegmentInfo info_{};  // the image points at it
    XImagePtr image_;         // frees only itself: the pixels are the segment's
    bool attached_ = false;
};

class PlainGrabber final : public XGrabber {
  public:
    PlainGrabber(XConnection& connection, ScreenSize size) : connection_(connection), size_(size) {}

    bool grab() override {
        XImagePtr fresh(XGetImage(connection_.display(), connection_.root(), 0, 0, size_.width,
                                  size_.height, AllPlanes, ZPixmap));
        if (!fresh) return false;
        image_ = std::move(fresh);
        return true;
    }
    [[nodiscard]] const XImage& image() const override { return *image_; }
    [[nodiscard]] std::shared_ptr<const uint8_t> lend() const override { return nullptr; }
    [[nodiscard]] const char* call_name() const override { return "XGetImage"; }

  private:
    XConnection& connection_;
    ScreenSize size_;
    XImagePtr image_;
};

PixelLayout layout_of(const XImage& image) {
    return {.bits_per_pixel = image.bits_per_pixel,
            .msb_first = image.byte_order == MSBFirst,
            .red_mask = image.red_mask,
            .green_mask = image.green_mask,
            .blue_mask = image.blue_mask};
}

/// With Xlib's own reader, for pixels other than 16- or 32-bit words.
void unpack_with_xlib(const XImage& image, uint32_t y, const PixelUnpacker& unpacker,
                      uint8_t* out) {
    auto& readable = const_cast<XImage&>(image);  // XGetPixel changes nothing
    for (int x = 0; x < image.width; ++x) {
        const uint32_t bgra = unpacker.to_bgra(XGetPixel(&readable, x, static_cast<int>(y)));
        std::memcpy(out + static_cast<size_t>(x) * kPixelBytes, &bgra, kPixelBytes);
    }
}

}  // namespace

std::unique_ptr<XGrabber> make_shm_grabber(XConnection& connection, ScreenSize size) {
    int major = 0;
    int minor = 0;
    Bool pixmaps = False;
    if (XShmQueryExtension(connection.display()) == 0 ||
        XShmQueryVersion(connection.display(), &major, &minor, &pixmaps) == 0) {
        return nullptr;
    }
    auto grabber = std::make_unique<ShmGrabber>(connection);
    if (!grabber->open(size)) return nullptr;
    return grabber;
}

std::unique_ptr<XGrabber> make_plain_grabber(XConnection& connection, ScreenSize size) {
    auto grabber = std::make_unique<PlainGrabber>(connection, size);
    if (!grabber->grab()) return nullptr;
    return grabber;
}

XImageReader::XImageReader(const XImage& image)
    : unpacker_(layout_of(image)),
      direct_bgra_(layout_of(image).is_bgra()),
      is_bgra_picture_(direct_bgra_ && image.bytes_per_line == image.width * 4) {}

const uint8_t* XImageReader::row_of(const XImage& image, uint32_t y) {
    return reinterpret_cast<const uint8_t*>(image.data) +
           size_t{y} * static_cast<size_t>(image.bytes_per_line);
}

size_t XImageReader::row_bytes(const XImage& image) {
    return (static_cast<size_t>(image.width) * static_cast<size_t>(image.bits_per_pixel) + 7) / 8;
}

void XImageReader::read(const XImage& image, uint8_t* out) const {
    const auto width = static_cast<uint32_t>(image.width);
    const auto height = static_cast<uint32_t>(image.height);
    for (uint32_t y = 0; y < height; ++y, out += size_t{width} * kPixelBytes) {
        if (direct_bgra_) {
            copy_bgra_opaque(row_of(image, y), width, out);
        } else if (unpacker_.reads_rows()) {
            unpacker_.unpack_row(row_of(image, y), width, out);
        } else {
            unpack_with_xlib(image, y, unpacker_, out);
        }
    }
}

}  // namespace ox
