#include "support/pipewire_source.h"

#include <fcntl.h>
#include <pipewire/pipewire.h>
#include <spa/param/buffers.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "support/eventually.h"
#include "support/unix_socket.h"

namespace ox::test {
namespace {

constexpr uint32_t kPixelBytes = 4;
constexpr int kBuffers = 4;
constexpr int kPerSecond = 61;
constexpr int kMemFd = 1 << SPA_DATA_MemFd;
constexpr int kDmaBuf = 1 << SPA_DATA_DmaBuf;
constexpr uint32_t kMemory = 1024;  // for one parameter object
using ParamMemory = std::array<uint8_t, kMemory>;

}  // namespace

struct PipewireSource::Impl {
    Impl(ScreenPictures source, Setup how) : pictures(std::move(source)), setup(how) {}
    ~Impl() {
        if (loop != nullptr) pw_thread_loop_stop(loop);
        if (stream != nullptr) pw_stream_destroy(stream);
        if (core != nullptr) pw_core_disconnect(core);
        if (context != nullptr) pw_context_destroy(context);
        if (loop != nullptr) pw_thread_loop_destroy(loop);
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool connect(const std::string& socket);
    [[nodiscard]] uint32_t stride() const { return width * kPixelBytes + setup.padding; }
    [[nodiscard]] uint32_t block_bytes() const { return setup.offset + stride() * height; }
    const spa_pod* format(ParamMemory& memory) const;
    void format_changed(const spa_pod* param);
    void add_memory(spa_data& block) const;
    void tick();
    void process();
    void fill(spa_data& block);

    ScreenPictures pictures;
    Setup setup;
    CapturedFrame picture;
    int blanks_to_come = 0;
    uint32_t width = 0;  // as offered
    uint32_t height = 0;
    uint32_t agreed_width = 0;
    uint32_t agreed_height = 0;
    std::atomic<bool> streaming{false};

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook listener{};
    pw_stream_events events{};
};

bool PipewireSource::Impl::connect(const std::string& socket) {
    if (!pictures(picture)) return false;
    width = picture.width;
    height = picture.height;
    UniqueFd fd = connect_unix(socket);
    loop = pw_thread_loop_new("source", nullptr);
    context = pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0);
    if (!fd || context == nullptr) return false;
    core = pw_context_connect_fd(context, fd.release(), nullptr, 0);
    if (core == nullptr) return false;
    stream = pw_stream_new(core, "test-screen",
                           pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", nullptr));
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = [](void* self, pw_stream_state /*old*/, pw_stream_state state,
                              const char* /*error*/) {
        static_cast<Impl*>(self)->streaming = state == PW_STREAM_STATE_STREAMING;
    };
    events.param_changed = [](void* self, uint32_t id, const spa_pod* param) {
        if (id == SPA_PARAM_Format) static_cast<Impl*>(self)->format_changed(param);
    };
    events.add_buffer = [](void* self, pw_buffer* buffer) {
        static_cast<Impl*>(self)->add_memory(buffer->buffer->datas[0]);
    };
    events.remove_buffer = [](void* /*self*/, pw_buffer* buffer) {
        ::munmap(buffer->buffer->datas[0].data, buffer->buffer->datas[0].maxsize);
        ::close(static_cast<int>(buffer->buffer->datas[0].fd));
    };
    events.process = [](void* self) { static_cast<Impl*>(self)->process(); };
    pw_stream_add_listener(stream, &listener, &events, this);
    ParamMemory memory;
    const spa_pod* params[] = {format(memory)};
    constexpr auto kFlags =
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_ALLOC_BUFFERS);
    if (pw_stream_connect(stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, kFlags, params, 1) < 0) {
        return false;
    }
    pw_loop* inner = pw_thread_loop_get_loop(loop);
    spa_source* timer = pw_loop_add_timer(
        inner, [](void* self, uint64_t /*expirations*/) { static_cast<Impl*>(self)->tick(); },
        this);
    timespec period{.tv_sec = 0, .tv_nsec = 1'000'000'000L / kPerSecond};
    pw_loop_update_timer(inner, timer, &period, &period, false);
    return pw_thread_loop_start(loop) == 0;
}

/// As compositors offer it: one size, no fixed rate.
const spa_pod* PipewireSource::Impl::format(ParamMemory& memory) const {
    const spa_rectangle size{width, height};
    const spa_fraction rate{0, 1};
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), kMemory);
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                        SPA_FORMAT_VIDEO_format,
                        SPA_POD_Id(setup.bgrx ? SPA_VIDEO_FORMAT_BGRx : SPA_VIDEO_FORMAT_RGBx),
                        SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate,
                        SPA_POD_Fraction(&rate), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

void PipewireSource::Impl::format_changed(const spa_pod* param) {
    spa_video_info_raw info{};
    if (param == nullptr || spa_format_video_raw_parse(param, &info) < 0) return;
    agreed_width = info.size.width;
    agreed_height = info.size.height;
    ParamMemory memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), kMemory);
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
    spa_pod_builder_add(&builder, SPA_PARAM_BUFFERS_buffers, SPA_POD_Int(kBuffers),
                        SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
                        SPA_POD_Int(static_cast<int>(block_bytes())), SPA_PARAM_BUFFERS_stride,
                        SPA_POD_Int(static_cast<int>(stride())), SPA_PARAM_BUFFERS_dataType,
                        SPA_POD_CHOICE_FLAGS_Int(kDmaBuf | kMemFd), 0);
    const spa_pod* params[] = {static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object))};
    pw_stream_update_params(stream, params, 1);
}

/// `block.type` comes in as the types that the other end takes.
void PipewireSource::Impl::add_memory(spa_data& block) const {
    block.type = (block.type & kDmaBuf) != 0 ? SPA_DATA_DmaBuf : SPA_DATA_MemFd;
    block.flags = SPA_DATA_FLAG_READWRITE;
    block.maxsize = block_bytes();
    block.mapoffset = 0;
    const int fd = ::memfd_create("picture", MFD_CLOEXEC);
    if (::ftruncate(fd, block.maxsize) != 0) throw std::runtime_error("no shared memory");
    block.fd = fd;
    block.data = ::mmap(nullptr, block.maxsize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

void PipewireSource::Impl::tick() {
    if (!streaming) return;
    if (blanks_to_come == 0) {
        if (!pictures(picture)) return;
        if (setup.blanks) blanks_to_come = 3;
    }
    if (picture.width != width || picture.height != height) {
        width = picture.width;
        height = picture.height;
        ParamMemory memory;
        const spa_pod* params[] = {format(memory)};
        pw_stream_update_params(stream, params, 1);
        return;
    }
    pw_stream_trigger_process(stream);
}

void PipewireSource::Impl::process() {
    if (agreed_width != width || agreed_height != height || picture.empty()) return;
    pw_buffer* buffer = pw_stream_dequeue_buffer(stream);
    if (buffer == nullptr) return;
    fill(buffer->buffer->datas[0]);
    pw_stream_queue_buffer(stream, buffer);
}

void PipewireSource::Impl::fill(spa_data& block) {
    spa_chunk& chunk = *block.chunk;
    chunk.offset = setup.offset;
    chunk.stride = static_cast<int32_t>(stride());
    chunk.size = stride() * height;
    chunk.flags = SPA_CHUNK_FLAG_NONE;
    if (block.maxsize < block_bytes()) return;     // of the size before
    std::memset(block.data, 0x5A, block.maxsize);  // nothing of this may ever be seen
    if (blanks_to_come > 0 && --blanks_to_come > 0) {
        blanks_to_come == 2 ? chunk.size = 0 : chunk.flags = SPA_CHUNK_FLAG_CORRUPTED;
        return;
    }
    if (block.type != SPA_DATA_MemFd) return;  // cannot be read by mapping it
    auto* rows = static_cast<uint8_t*>(block.data) + setup.offset;
    const size_t row_bytes = size_t{width} * kPixelBytes;
    for (uint32_t y = 0; y < height; ++y) {
        std::memcpy(rows + size_t{y} * stride(), picture.pixels() + y * row_bytes, row_bytes);
    }
}

PipewireSource::PipewireSource(const std::string& socket, ScreenPictures pictures, Setup setup)
    : impl_(std::make_unique<Impl>(std::move(pictures), setup)) {
    pw_init(nullptr, nullptr);
    if (!impl_->connect(socket)) throw std::runtime_error("no PipeWire daemon at " + socket);
    const bool known = eventually(
        [this] {
            pw_thread_loop_lock(impl_->loop);
            node_ = pw_stream_get_node_id(impl_->stream);
            pw_thread_loop_unlock(impl_->loop);
            return node_ != SPA_ID_INVALID;
        },
        std::chrono::seconds(30));
    if (!known) throw std::runtime_error("the daemon does not make a node");
}

PipewireSource::~PipewireSource() = default;

bool PipewireSource::streaming() const {
    return impl_->streaming;
}

}  // namespace ox::test
