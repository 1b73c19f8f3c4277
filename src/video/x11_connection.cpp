#include "video/x11_connection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/clock.h"
#include "desktop/x_server.h"
#include "log/log.h"

namespace ox {
namespace {

// Xlib calls the handler on the thread whose request the reply was read for.
uint64_t& refused_requests() {
    thread_local uint64_t count = 0;
    return count;
}

int on_refused_request(Display* /*display*/, XErrorEvent* error) {
    ++refused_requests();
    OX_DEBUG("X11Capture: the X server refused request %d.%d with error %d", error->request_code,
             error->minor_code, error->error_code);
    return 0;
}

int on_lost_connection(Display* /*display*/) {
    return 0;
}

void mark_lost(Display* /*display*/, void* lost) {
    *static_cast<bool*>(lost) = true;
}

/// Makes Xlib say this of the program to the servers that it connects to; nothing: what it finds.
void authorize(const XAuthorization& authorization) {
    if (authorization.name.empty()) {
        XSetAuthorization(nullptr, 0, nullptr, 0);
        return;
    }
    std::string name = authorization.name;  // Xlib copies, but takes it for its own
    std::string data = authorization.data;
    XSetAuthorization(name.data(), static_cast<int>(name.size()), data.data(),
                      static_cast<int>(data.size()));
}

}  // namespace

std::unique_ptr<XConnection> XConnection::open(const std::string& name,
                                               const XAuthorization& authorization,
                                               Cancelled cancelled, bool& hangs) {
    constexpr std::chrono::seconds kHandshakeLimit{3};
    XInitThreads();  // each connection is one thread's, but Xlib's lists of extensions are
                     // everyone's
    XSetErrorHandler(on_refused_request);
    XSetIOErrorHandler(on_lost_connection);
    const char* const asked = name.empty() ? nullptr : name.c_str();
    const auto deadline = SteadyClock::now() + kHandshakeLimit;
    // Xlib would wait for ever for a server that hangs. A connection that was let in stays for as
    // long as Xlib makes its own: with its last client a server may start anew.
    UniqueFd held_connection;
    if (const auto number = local_display_number(XDisplayName(asked)))
        held_connection = connect_x_server(*number, authorization, deadline, cancelled);
    if (!held_connection && cancelled && cancelled()) return nullptr;
    hangs = !held_connection && SteadyClock::now() >= deadline;
    if (hangs) return nullptr;
    authorize(authorization);
    Display* display = XOpenDisplay(asked);
    authorize({});
    if (display == nullptr) return nullptr;
    return std::unique_ptr<XConnection>(new XConnection(display, std::move(cancelled)));
}

XConnection::XConnection(Display* display, Cancelled cancelled)
    : display_(display),
      cancelled_(std::move(cancelled)),
      socket_(::fcntl(XConnectionNumber(display), F_DUPFD_CLOEXEC, 0)) {
    XSetIOErrorExitHandler(display_, mark_lost, &lost_);
    XSelectInput(display_, root(), StructureNotifyMask);
    try {
        watchdog_ = std::jthread([this](const std::stop_token& stop) { watch(stop); });
    } catch (const std::system_error& error) {
        OX_WARN("X11Capture: no watch over the X server: %s", error.what());
    }
}

XConnection::~XConnection() {
    begin_close();
    XCloseDisplay(display_);
}

void XConnection::watch(const std::stop_token& stop) const {
    using std::chrono::milliseconds;
    constexpr milliseconds kPatience{1000};
    constexpr milliseconds kSlice{100};
    ::pthread_setname_np(::pthread_self(), "ox-x11-watch");
    std::mutex mutex;
    std::condition_variable_any wake;
    std::unique_lock lock(mutex);
    auto last_wanted = SteadyClock::now();
    while (!wake.wait_for(lock, stop, kSlice, [&] { return stop.stop_requested(); })) {
        const auto now = SteadyClock::now();
        if (!closing_ && !(cancelled_ && cancelled_())) last_wanted = now;
        if (now - last_wanted < kPatience) continue;
        ::shutdown(socket_.get(), SHUT_RDWR);
        return;
    }
}

Window XConnection::root() const {
    return XDefaultRootWindow(display_);
}

void XConnection::take_events(const std::function<void(const XEvent&)>& sink) {
    while (!lost_ && XEventsQueued(display_, QueuedAfterReading) > 0) {
        XEvent event;
        XNextEvent(display_, &event);
        sink(event);
    }
}

std::optional<ScreenSize> XConnection::size_in(const XEvent& event) const {
    if (event.type != ConfigureNotify || event.xconfigure.window != root()) return std::nullopt;
    return ScreenSize{static_cast<uint32_t>(event.xconfigure.width),
                      static_cast<uint32_t>(event.xconfigure.height)};
}

std::optional<ScreenSize> XConnection::query_size() {
    Window root_of_root = 0;
    int x = 0;
    int y = 0;
    unsigned int width = 0;
    unsigned int height = 0;
    unsigned int border = 0;
    unsigned int depth = 0;
    if (lost_ || XGetGeometry(display_, root(), &root_of_root, &x, &y, &width, &height, &border,
                              &depth) == 0) {
        return std::nullopt;
    }
    return ScreenSize{width, height};
}

XErrorTrap::XErrorTrap(const XConnection& connection)
    : connection_(connection), errors_before_(refused_requests()) {}

bool XErrorTrap::failed() const {
    XSync(connection_.display(), False);
    return connection_.lost() || refused_requests() != errors_before_;
}

}  // namespace ox
