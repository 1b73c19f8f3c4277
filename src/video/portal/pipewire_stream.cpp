#include "video/portal/pipewire_stream.h"

#include <pipewire/pipewire.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "base/c_handle.h"
#include "base/clock.h"
#include "log/log.h"
#include "video/portal/portal_diagnosis.h"
#include "video/portal/stream_format.h"

namespace ox {
namespace {

using LoopPtr = CHandle<pw_thread_loop, pw_thread_loop_destroy>;
using ContextPtr = CHandle<pw_context, pw_context_destroy>;
using CorePtr = CHandle<pw_core, pw_core_disconnect>;
using StreamPtr = CHandle<pw_stream, pw_stream_destroy>;

struct RegistryDeleter {
    void operator()(pw_registry* registry) const {
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
    }
};
using RegistryPtr = std::unique_ptr<pw_registry, RegistryDeleter>;

// Macros with casts and statement expressions of their own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic"
void listen_to(pw_core& core, spa_hook& hook, const pw_core_events& events, void* data) {
    pw_core_add_listener(&core, &hook, &events, data);
}
void listen_to(pw_registry& registry, spa_hook& hook, const pw_registry_events& events,
               void* data) {
    pw_registry_add_listener(&registry, &hook, &events, data);
}
pw_registry* registry_of(pw_core& core) {
    return pw_core_get_registry(&core, PW_VERSION_REGISTRY, 0);
}
#pragma GCC diagnostic pop

void init_library() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

/// The node at one end of a link; PW_ID_ANY if the link does not say.
uint32_t node_of(const spa_dict& link, const char* end) {
    uint32_t node = PW_ID_ANY;
    return spa_atou32(spa_dict_lookup(&link, end), &node, 10) ? node : PW_ID_ANY;
}

}  // namespace

struct PipewireStream::Impl {
    explicit Impl(LatestPicture& destination) : pictures(destination) {}
    ~Impl() {
        if (!loop) return;
        // Removed while their thread runs: without it PipeWire calls the callbacks on its data
        // thread.
        pw_thread_loop_lock(loop.get());
        if (stream) spa_hook_remove(&listener);
        if (registry) spa_hook_remove(&registry_listener);
        if (core) spa_hook_remove(&core_listener);
        pw_thread_loop_unlock(loop.get());
        pw_thread_loop_stop(loop.get());
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool connect_core(UniqueFd remote);
    bool watch_links();
    bool connect_stream(uint32_t node);

    // On the PipeWire thread.
    void link_made(const spa_dict& link);
    void state_changed(pw_stream_state state, const char* error);
    void format_changed(const spa_pod* format);
    void process();
    [[nodiscard]] std::optional<portal::MappedPicture> picture_of(const spa_buffer& buffer) const;
    void store(const portal::MappedPicture& picture, uint32_t transform);

    static const pw_stream_events kEvents;
    static const pw_core_events kCoreEvents;
    static const pw_registry_events kRegistryEvents;

    LatestPicture& pictures;
    std::atomic<bool> ended{false};
    std::atomic<bool> daemon_lost{false};
    std::atomic<bool> streaming{false};
    std::atomic<uint64_t> new_format_us{0};  ///< steady clock; 0: none since the last picture

    // For the PipeWire thread only.
    portal::PictureFormat format;
    bool had_picture = false;
    bool foreign = false;  ///< linked to another node

    uint32_t screen_node = PW_ID_ANY;  ///< set before the thread starts
    spa_hook listener{};
    spa_hook core_listener{};
    spa_hook registry_listener{};
    LoopPtr loop;
    ContextPtr context;
    CorePtr core;
    RegistryPtr registry;
    StreamPtr stream;
};

// These functions must not throw into PipeWire's code.
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

const pw_core_events PipewireStream::Impl::kCoreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = [](void* self, uint32_t id, int /*seq*/, int result, const char* /*message*/) {
        if (id != PW_ID_CORE || result != -EPIPE) return;
        static_cast<Impl*>(self)->daemon_lost = true;
        static_cast<Impl*>(self)->ended = true;
    };
    return events;
}();

const pw_registry_events PipewireStream::Impl::kRegistryEvents = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global = [](void* self, uint32_t /*id*/, uint32_t /*permissions*/, const char* type,
                       uint32_t /*version*/, const spa_dict* props) {
        if (props != nullptr && spa_streq(type, PW_TYPE_INTERFACE_Link)) {
            static_cast<Impl*>(self)->link_made(*props);
        }
    };
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
    // Takes the descriptor, also on failure.
    core.reset(pw_context_connect_fd(context.get(), remote.release(), nullptr, 0));
    if (core) {
        listen_to(*core, core_listener, kCoreEvents, this);
        return true;
    }
    const std::string reason = std::strerror(errno);
    OX_ERROR("PortalCapture: cannot connect to PipeWire: %s", reason.c_str());
    portal::log_diagnosis(portal::diagnose_no_pipewire({}));
    return false;
}

/// The daemon announces a link before the format that its ends agree on. A remote without
/// permission to see links has it for the screen alone, and is linked to nothing else.
bool PipewireStream::Impl::watch_links() {
    registry.reset(registry_of(*core));
    if (!registry) {
        OX_ERROR("PortalCapture: no PipeWire registry: %s", std::strerror(errno));
        return false;
    }
    listen_to(*registry, registry_listener, kRegistryEvents, this);
    return true;
}

bool PipewireStream::Impl::connect_stream(uint32_t node) {
    // Session managers otherwise link another source, such as a camera, when the screen does not
    // exist (dont-fallback), has ended (DONT_RECONNECT) or the user's settings say so (dont-move).
    constexpr const char* kAlways = "true";
    screen_node = node;
    stream.reset(pw_stream_new(
        core.get(), "orvex-capture",
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                          PW_KEY_MEDIA_ROLE, "Screen", "node.dont-fallback", kAlways,
                          "node.dont-move", kAlways, nullptr)));
    if (!stream) {
        OX_ERROR("PortalCapture: pw_stream_connect failed: %d", -errno);
        return false;
    }
    pw_stream_add_listener(stream.get(), &listener, &kEvents, this);
    portal::OfferedFormats formats;
    portal::offer_formats(formats);
    constexpr auto kFlags = static_cast<pw_stream_flags>(
        PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_DONT_RECONNECT);
    const int result =
        pw_stream_connect(stream.get(), PW_DIRECTION_INPUT, node, kFlags, formats.params.data(),
                          static_cast<uint32_t>(formats.params.size()));
    if (result < 0) OX_ERROR("PortalCapture: pw_stream_connect failed: %d", result);
    return result >= 0;
}

/// Whatever made the link: pictures of another node are never shown.
void PipewireStream::Impl::link_made(const spa_dict& link) {
    if (foreign || node_of(link, PW_KEY_LINK_INPUT_NODE) != pw_stream_get_node_id(stream.get())) {
        return;
    }
    const uint32_t source = node_of(link, PW_KEY_LINK_OUTPUT_NODE);
    if (source == screen_node) return;
    OX_ERROR("PortalCapture: PipeWire linked node %u instead of the screen (node %u) — refused",
             source, screen_node);
    foreign = true;
    pw_stream_disconnect(stream.get());
}

void PipewireStream::Impl::state_changed(pw_stream_state state, const char* error) {
    streaming = state == PW_STREAM_STATE_STREAMING;
    if (streaming) OX_INFO("PortalCapture: PipeWire stream is streaming");
    if (state == PW_STREAM_STATE_ERROR) {
        OX_ERROR("PortalCapture: PipeWire stream error: %s", error != nullptr ? error : "?");
    }
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) ended = true;
}

void PipewireStream::Impl::format_changed(const spa_pod* param) {
    const auto negotiated = portal::parse_format(*param);
    if (!negotiated) return;
    OX_INFO("PortalCapture: negotiated %ux%u %s", negotiated->size.width, negotiated->size.height,
            negotiated->name);
    format = *negotiated;
    portal::ParamMemory buffers;
    portal::ParamMemory transform;
    const spa_pod* params[] = {portal::buffer_params(buffers), portal::transform_params(transform)};
    pw_stream_update_params(stream.get(), params, 2);
    if (!had_picture) return;
    // Restarted: a compositor may stop for the new format until the stream's state changes.
    new_format_us = steady_now_us();
    pw_stream_set_active(stream.get(), false);
    pw_stream_set_active(stream.get(), true);
}

/// Stores the newest picture. Buffers may come without one, and then no other follows while the
/// desktop is still.
void PipewireStream::Impl::process() {
    if (foreign) return;
    pw_buffer* newest = nullptr;
    std::optional<portal::MappedPicture> picture;
    while (pw_buffer* next = pw_stream_dequeue_buffer(stream.get())) {
        if (const auto found = picture_of(*next->buffer)) {
            picture = found;
            std::swap(newest, next);
        }
        if (next != nullptr) pw_stream_queue_buffer(stream.get(), next);
    }
    if (newest == nullptr) return;
    store(*picture, portal::transform_of(*newest->buffer));
    pw_stream_queue_buffer(stream.get(), newest);
}

std::optional<portal::MappedPicture> PipewireStream::Impl::picture_of(
    const spa_buffer& buffer) const {
    if (buffer.n_datas == 0) return std::nullopt;
    return portal::picture_in(buffer.datas[0], format.size);
}

void PipewireStream::Impl::store(const portal::MappedPicture& picture, uint32_t transform) {
    const auto [width, height] = portal::upright_size(format.size, transform);
    try {
        pictures.store(width, height,
                       [&](uint8_t* to) { portal::copy_upright(picture, format, transform, to); });
        had_picture = true;
        new_format_us = 0;
    } catch (const std::bad_alloc&) {
        OX_ERROR("PortalCapture: no memory for a picture of %ux%u", width, height);
    }
}

PipewireStream::PipewireStream(LatestPicture& pictures) : impl_(std::make_unique<Impl>(pictures)) {}

PipewireStream::~PipewireStream() = default;

bool PipewireStream::start(UniqueFd remote, uint32_t node) {
    if (!impl_->connect_core(std::move(remote)) || !impl_->watch_links() ||
        !impl_->connect_stream(node)) {
        return false;
    }
    if (pw_thread_loop_start(impl_->loop.get()) < 0) {
        OX_ERROR("PortalCapture: pw_thread_loop_start failed");
        return false;
    }
    return true;
}

bool PipewireStream::ended() const {
    return impl_->ended;
}

bool PipewireStream::daemon_lost() const {
    return impl_->daemon_lost;
}

bool PipewireStream::streaming() const {
    return impl_->streaming;
}

bool PipewireStream::stalled(SteadyClock::time_point now) const {
    constexpr std::chrono::seconds kLimit{2};
    const std::chrono::microseconds since{impl_->new_format_us.load()};
    return since.count() != 0 && now.time_since_epoch() - since > kLimit;
}

}  // namespace ox
