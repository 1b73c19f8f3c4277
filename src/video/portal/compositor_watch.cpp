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

/// The library would write to standard error, where the screen is painted.
void be_quiet() {
    static std::once_flag once;
    std::call_once(once, [] { wl_log_set_handler_client([](const char*, va_list) {}); });
}

/// What a monitor is set to. Compositors repeat themselves: only another value is a change.
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
        Mode told{};
        Mode coming{};
        bool known = false;
    };

    explicit Impl(UniqueFd socket);

    void take_in();
    void add(wl_registry* from, uint32_t name, std::string_view interface, uint32_t version);
    void remove(uint32_t name) { changed = monitors.erase(name) > 0 || changed; }

    static const wl_registry_listener kRegistry;
    static const wl_output_listener kOutput;
    static const wl_callback_listener kListed;

    DisplayPtr display;
    RegistryPtr registry;
    CallbackPtr listed;  ///< comes when all that was there at first is told
    std::map<uint32_t, Monitor> monitors;
    bool complete = false;
    bool changed = false;
    bool over_told = false;
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
        Mode& coming = static_cast<Monitor*>(monitor)->coming;
        coming.x = x;
        coming.y = y;
        coming.transform = transform;
    };
    listener.mode = [](void* monitor, wl_output*, uint32_t flags, int32_t width, int32_t height,
                       int32_t refresh) {
        if ((flags & WL_OUTPUT_MODE_CURRENT) == 0) return;
        Mode& coming = static_cast<Monitor*>(monitor)->coming;
        coming.width = width;
        coming.height = height;
        coming.refresh = refresh;
    };
    listener.done = [](void* self, wl_output*) {
        auto& monitor = *static_cast<Monitor*>(self);
        const bool first = !std::exchange(monitor.known, true);
        if (std::exchange(monitor.told, monitor.coming) != monitor.coming && !first) {
            monitor.watch.changed = true;
        }
    };
    listener.scale = [](void*, wl_output*, int32_t) {};
    return listener;
}();

const wl_callback_listener CompositorWatch::Impl::kListed{
    .done = [](void* self, wl_callback*, uint32_t) { static_cast<Impl*>(self)->complete = true; }};

CompositorWatch::Impl::Impl(UniqueFd socket) : display(wl_display_connect_to_fd(socket.release())) {
    if (!display) return;
    registry.reset(wl_display_get_registry(display.get()));
    wl_registry_add_listener(registry.get(), &kRegistry, this);
    listed.reset(wl_display_sync(display.get()));
    wl_callback_add_listener(listed.get(), &kListed, this);
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

void CompositorWatch::Impl::take_in() {
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
    be_quiet();
    UniqueFd socket = connect_to(display);
    if (socket) impl_ = std::make_unique<Impl>(std::move(socket));
    if (impl_ && !impl_->display) impl_.reset();
}

CompositorWatch::~CompositorWatch() = default;

const char* CompositorWatch::news() {
    if (!impl_ || impl_->over_told) return nullptr;
    impl_->take_in();
    if (wl_display_get_error(impl_->display.get()) != 0) {
        impl_->over_told = true;
        return "the compositor has ended";
    }
    return std::exchange(impl_->changed, false) ? "a monitor has changed" : nullptr;
}

}  // namespace ox
