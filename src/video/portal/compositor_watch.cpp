#include "video/portal/compositor_watch.h"

#include <poll.h>
#include <wayland-client.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "base/c_handle.h"
#include "base/environment.h"
#include "base/local_socket.h"

namespace ox {
namespace {

using DisplayPtr = CHandle<wl_display, wl_display_disconnect>;
using RegistryPtr = CHandle<wl_registry, wl_registry_destroy>;
using OutputPtr = CHandle<wl_output, wl_output_destroy>;
using CallbackPtr = CHandle<wl_callback, wl_callback_destroy>;

UniqueFd connect_to(const std::string& display) {
    if (display.empty()) return {};
    return connect_local(display.starts_with('/') ? display : runtime_folder() + "/" + display);
}

/// The library would log to standard error, where the status screen is.
void silence_library_log() {
    static std::once_flag once;
    std::call_once(once, [] { wl_log_set_handler_client([](const char*, va_list) {}); });
}

/// A monitor's settings. Compositors repeat events: only another value is a change.
struct Mode {
    int32_t x = 0;
    int32_t y = 0;
    int32_t transform = 0;
    int32_t width = 0;
    int32_t height = 0;
    int32_t refresh = 0;

    friend bool operator==(const Mode&, const Mode&) = default;
};

}  // namespace

struct CompositorWatch::Impl {
    struct Monitor {
        explicit Monitor(Impl& of) : watch(of) {}

        Impl& watch;
        OutputPtr output;
        Mode current{};
        Mode pending{};
        bool known = false;  ///< `current` is set
    };

    explicit Impl(UniqueFd socket);

    void read_events();
    void add(wl_registry* from, uint32_t name, std::string_view interface, uint32_t version);
    void remove(uint32_t name) { changed = monitors.erase(name) > 0 || changed; }

    static const wl_registry_listener kRegistry;
    static const wl_output_listener kOutput;
    static const wl_callback_listener kInitialSync;

    DisplayPtr display;
    RegistryPtr registry;
    CallbackPtr initial_sync;  ///< done once the existing monitors have been announced
    std::map<uint32_t, Monitor> monitors;
    bool complete = false;
    bool changed = false;
    bool end_reported = false;
};

const wl_registry_listener CompositorWatch::Impl::kRegistry{
    .global =
        [](void* self, wl_registry* from, uint32_t name, const char* interface, uint32_t version) {
            static_cast<Impl*>(self)->add(from, name, interface, version);
        },
    .global_remove = [](void* self, wl_registry* /*from*/,
                        uint32_t name) { static_cast<Impl*>(self)->remove(name); }};

const wl_output_listener CompositorWatch::Impl::kOutput = [] {
    wl_output_listener listener{};
    listener.geometry = [](void* monitor, wl_output*, int32_t x, int32_t y, int32_t, int32_t,
                           int32_t, const char*, const char*, int32_t transform) {
        Mode& pending = static_cast<Monitor*>(monitor)->pending;
        pending.x = x;
        pending.y = y;
        pending.transform = transform;
    };
    listener.mode = [](void* monitor, wl_output*, uint32_t flags, int32_t width, int32_t height,
                       int32_t refresh) {
        if ((flags & WL_OUTPUT_MODE_CURRENT) == 0) return;
        Mode& pending = static_cast<Monitor*>(monitor)->pending;
        pending.width = width;
        pending.height = height;
        pending.refresh = refresh;
    };
    listener.done = [](void* self, wl_output*) {
        auto& monitor = *static_cast<Monitor*>(self);
        const bool first = !std::exchange(monitor.known, true);
        if (std::exchange(monitor.current, monitor.pending) != monitor.pending && !first) {
            monitor.watch.changed = true;
        }
    };
    listener.scale = [](void*, wl_output*, int32_t) {};
    return listener;
}();

const wl_callback_listener CompositorWatch::Impl::kInitialSync{
    .done = [](void* self, wl_callback*, uint32_t) { static_cast<Impl*>(self)->complete = true; }};

CompositorWatch::Impl::Impl(UniqueFd socket) : display(wl_display_connect_to_fd(socket.release())) {
    if (!display) return;
    registry.reset(wl_display_get_registry(display.get()));
    wl_registry_add_listener(registry.get(), &kRegistry, this);
    initial_sync.reset(wl_display_sync(display.get()));
    wl_callback_add_listener(initial_sync.get(), &kInitialSync, this);
    wl_display_flush(display.get());
}

void CompositorWatch::Impl::add(wl_registry* from, uint32_t name, std::string_view interface,
                                uint32_t version) {
    constexpr uint32_t kWithDone = 2;
    if (interface != wl_output_interface.name || version < kWithDone) return;
    const auto [entry, added] = monitors.try_emplace(name, *this);
    if (!added) return;
    entry->second.output.reset(
        static_cast<wl_output*>(wl_registry_bind(from, name, &wl_output_interface, kWithDone)));
    wl_output_add_listener(entry->second.output.get(), &kOutput, &entry->second);
    changed = changed || complete;
}

void CompositorWatch::Impl::read_events() {
    while (wl_display_prepare_read(display.get()) != 0) {
        if (wl_display_dispatch_pending(display.get()) < 0) return;
    }
    wl_display_flush(display.get());
    pollfd entry{.fd = wl_display_get_fd(display.get()), .events = POLLIN, .revents = 0};
    if (::poll(&entry, 1, 0) > 0) {
        wl_display_read_events(display.get());
    } else {
        wl_display_cancel_read(display.get());
    }
    wl_display_dispatch_pending(display.get());
}

CompositorWatch::CompositorWatch(const std::string& display) {
    silence_library_log();
    UniqueFd socket = connect_to(display);
    if (socket) impl_ = std::make_unique<Impl>(std::move(socket));
    if (impl_ && !impl_->display) impl_.reset();
}

CompositorWatch::~CompositorWatch() = default;

CompositorWatch::Event CompositorWatch::take_event() {
    if (!impl_ || impl_->end_reported) return Event::None;
    impl_->read_events();
    if (wl_display_get_error(impl_->display.get()) != 0) {
        impl_->end_reported = true;
        return Event::CompositorEnded;
    }
    return std::exchange(impl_->changed, false) ? Event::MonitorChanged : Event::None;
}

}  // namespace ox
