#include "video/portal/pipewire_stream.h"

#include <pipewire/pipewire.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "log/log.h"
#include "video/portal/portal_diagnosis.h"
#include "video/portal/stream_params.h"

namespace ox {
namespace {

/// Owner of a PipeWire object that `Destroy` ends.
template <auto Destroy>
struct Destroyer {
    template <typename T>
    void operator()(T* object) const {
        Destroy(object);
    }
};
using LoopPtr = std::unique_ptr<pw_thread_loop, Destroyer<pw_thread_loop_destroy>>;
using ContextPtr = std::unique_ptr<pw_context, Destroyer<pw_context_destroy>>;
using CorePtr = std::unique_ptr<pw_core, Destroyer<pw_core_disconnect>>;
using StreamPtr = std::unique_ptr<pw_stream, Destroyer<pw_stream_destroy>>;

void init_library() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

}  // namespace

struct PipewireStream::Impl {
    explicit Impl(LatestPicture& to) : pictures(to) {}
    ~Impl() {
        if (loop) pw_thread_loop_stop(loop.get());
        // What taking the stream down does to its state is no news.
        if (stream) spa_hook_remove(&listener);
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool connect_core(UniqueFd remote);
    bool connect_stream(uint32_t node);

    // On the PipeWire thread.
    void state_changed(pw_stream_state state, const char* error);
    void format_changed(const spa_pod* format);
    void process();
    void take(const spa_buffer& buffer);

    static const pw_stream_events kEvents;

    LatestPicture& pictures;
    std::atomic<bool> over{false};

    // Used by the PipeWire thread alone.
    portal::PictureSize size;
    bool streaming = false;

    spa_hook listener{};
    LoopPtr loop;
    ContextPtr context;
    CorePtr core;
    StreamPtr stream;
};

// Nothing that these functions do may throw into PipeWire's own code.
const pw_stream_events PipewireStream::Impl::kEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = [](void* self, pw_stream_state /*old*/, pw_stream_state state,
                              const char* error) {
        static_cast<Impl*>(self)->state_changed(state, error);
    };
    events.param_changed = [](void* self, uint32_t id, const spa_pod* param) {
        if (id == SPA_PARAM_Format && param != nullptr) {
            static_cast<Impl*>(self)->format_changed(param);
        }
    };
    events.process = [](void* self) { static_cast<Impl*>(self)->process(); };
    return events;
}();

bool PipewireStream::Impl::connect_core(UniqueFd remote) {
    init_library();
    loop.reset(pw_thread_loop_new("ox-portal", nullptr));
    if (loop) {
        context.reset(pw_context_new(pw_thread_loop_get_loop(loop.get()), nullptr, 0));
    }
    if (!context) {
        OX_ERROR("PortalCapture: cannot set up PipeWire: %s", std::strerror(errno));
        return false;
    }
    // The descriptor is PipeWire's from here on, also when this fails.
    core.reset(pw_context_connect_fd(context.get(), remote.release(), nullptr, 0));
    if (core) return true;
    const std::string reason = std::strerror(errno);
    OX_ERROR("PortalCapture: cannot connect to PipeWire: %s", reason.c_str());
    portal::explain(portal::diagnose_no_pipewire({}));
    return false;
}

bool PipewireStream::Impl::connect_stream(uint32_t node) {
    stream.reset(pw_stream_new(core.get(), "orvex-capture",
                               pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                                 "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr)));
    if (!stream) {
        OX_ERROR("PortalCapture: pw_stream_connect failed: %d", -errno);
        return false;
    }
    pw_stream_add_listener(stream.get(), &listener, &kEvents, this);
    portal::ParamMemory memory;
    const spa_pod* formats[] = {portal::offered_format(memory)};
    // Without the last flag the session manager would connect the stream to another source, such as
    // a camera, when the screen's goes away.
    constexpr auto kFlags = static_cast<pw_stream_flags>(
        PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_DONT_RECONNECT);
    const int result =
        pw_stream_connect(stream.get(), PW_DIRECTION_INPUT, node, kFlags, formats, 1);
    if (result < 0) OX_ERROR("PortalCapture: pw_stream_connect failed: %d", result);
    return result >= 0;
}

void PipewireStream::Impl::state_changed(pw_stream_state state, const char* error) {
    if (state == PW_STREAM_STATE_STREAMING) {
        OX_INFO("PortalCapture: PipeWire stream is streaming");
        streaming = true;
        return;
    }
    if (state == PW_STREAM_STATE_ERROR) {
        OX_ERROR("PortalCapture: PipeWire stream error: %s", error != nullptr ? error : "?");
    }
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) over = true;
    if (std::exchange(streaming, false)) {
        OX_WARN("PortalCapture: the stream has stopped (%s) — the last picture stays",
                pw_stream_state_as_string(state));
    }
}

void PipewireStream::Impl::format_changed(const spa_pod* format) {
    const auto [width, height] = portal::agreed_size(*format).value_or(portal::PictureSize{});
    if (width == 0) return;
    OX_INFO("PortalCapture: negotiated %ux%u BGRx", width, height);
    if (width != size.width || height != size.height) {
        size = {width, height};
        pictures.set_size(size.width, size.height);
    }
    portal::ParamMemory memory;
    const spa_pod* params[] = {portal::wanted_buffers(memory)};
    pw_stream_update_params(stream.get(), params, 1);
}

/// Of several pictures that wait only the newest is of use.
void PipewireStream::Impl::process() {
    pw_buffer* newest = nullptr;
    while (pw_buffer* next = pw_stream_dequeue_buffer(stream.get())) {
        if (newest != nullptr) pw_stream_queue_buffer(stream.get(), newest);
        newest = next;
    }
    if (newest == nullptr) return;
    take(*newest->buffer);
    pw_stream_queue_buffer(stream.get(), newest);
}

void PipewireStream::Impl::take(const spa_buffer& buffer) {
    if (buffer.n_datas == 0) return;
    const auto picture = portal::picture_in(buffer.datas[0], size);
    if (!picture) return;
    try {
        pictures.on_frame(picture->rows, picture->stride);
    } catch (const std::bad_alloc&) {
        OX_ERROR("PortalCapture: no memory for a picture of %ux%u", size.width, size.height);
    }
}

PipewireStream::PipewireStream(LatestPicture& pictures) : impl_(std::make_unique<Impl>(pictures)) {}

PipewireStream::~PipewireStream() = default;

bool PipewireStream::start(UniqueFd remote, uint32_t node) {
    if (!impl_->connect_core(std::move(remote)) || !impl_->connect_stream(node)) return false;
    if (pw_thread_loop_start(impl_->loop.get()) < 0) {
        OX_ERROR("PortalCapture: pw_thread_loop_start failed");
        return false;
    }
    return true;
}

bool PipewireStream::over() const {
    return impl_->over;
}

}  // namespace ox
