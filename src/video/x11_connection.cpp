#include "video/x11_connection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

#include "base/clock.h"
#include "base/environment.h"
#include "base/thread.h"
#include "desktop/x_server.h"
#include "log/log.h"

namespace ox {
namespace {

// Xlib calls the handler on the thread whose request was refused.
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

/// Sets the authorization for Xlib's next connections; an empty one: what Xlib finds itself.
void set_authorization(const XAuthorization& authorization) {
    if (authorization.name.empty()) {
        XSetAuthorization(nullptr, 0, nullptr, 0);
        return;
    }
    std::string name = authorization.name;  // Xlib copies, but takes no const
    std::string data = authorization.data;
    XSetAuthorization(name.data(), static_cast<int>(name.size()), data.data(),
                      static_cast<int>(data.size()));
}

/// Whether a server accepts connections at `path`, an abstract one when it starts with NUL.
bool listens(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    const bool abstract = path.front() == '\0';
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 0 : 1));
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    // EAGAIN: a server whose queue is full.
    return socket &&
           (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 ||
            errno == EAGAIN || errno == EACCES);
}

/// Whether a server of this PC's display `number` listens. Never blocks.
bool display_listens(int number) {
    const std::string path = "/tmp/.X11-unix/X" + std::to_string(number);
    return listens(path) || listens(std::string(1, '\0') + path);
}

/// Why no connection could be made to `display` (empty for `$DISPLAY`).
Diagnosis diagnose_display(const std::string& display) {
    const std::string name(display.empty() ? environment("DISPLAY") : display);
    if (name.empty()) {
        return {"DISPLAY is not set, and no display of this user was found",
                "log in to the desktop before the next session, or give --display (usually :0)"};
    }
    const auto number = local_display_number(name);
    if (!number) {
        return {"the display is not one of this PC",
                "give --display as :0 or :1, whichever the desktop session has in DISPLAY"};
    }
    if (!display_listens(*number)) {
        return {"no X server runs as " + name,
                "log in to an X11 desktop session, or give the display of a running one with "
                "--display"};
    }
    std::string authority(environment("XAUTHORITY"));
    if (authority.empty()) authority = home_folder() + "/.Xauthority";
    const bool readable = ::access(authority.c_str(), R_OK) == 0;
    return {"the X server refused the connection (authority file " + authority +
                (readable ? " does not hold its key)" : " cannot be read)"),
            "run the agent as the user who is logged in, with that session's XAUTHORITY"};
}

}  // namespace

std::variant<std::unique_ptr<XConnection>, Diagnosis> XConnection::open(
    const std::string& name, const XAuthorization& authorization, Cancelled cancelled) {
    constexpr std::chrono::seconds kHandshakeLimit{3};
    XInitThreads();  // a connection is one thread's, but Xlib's extension lists are shared
    XSetErrorHandler(on_refused_request);
    XSetIOErrorHandler(on_lost_connection);
    const char* const asked = name.empty() ? nullptr : name.c_str();
    const auto deadline = SteadyClock::now() + kHandshakeLimit;
    // Xlib waits for ever for a server that hangs, so a server has to complete a handshake first.
    // The connection of the handshake is held meanwhile: a server may restart with its last client.
    UniqueFd held_connection;
    if (const auto number = local_display_number(XDisplayName(asked)))
        held_connection = connect_x_server(*number, authorization, deadline, cancelled);
    if (!held_connection && cancelled && cancelled()) return diagnose_display(name);
    if (!held_connection && SteadyClock::now() >= deadline) {
        return Diagnosis{std::string("the X server of ") + XDisplayName(asked) + " does not answer",
                         "restart the desktop"};
    }
    set_authorization(authorization);
    Display* display = XOpenDisplay(asked);
    set_authorization({});
    if (display == nullptr) return diagnose_display(name);
    return std::unique_ptr<XConnection>(new XConnection(display, std::move(cancelled)));
}

XConnection::XConnection(Display* display, Cancelled cancelled)
    : display_(display),
      cancelled_(std::move(cancelled)),
      socket_(::fcntl(XConnectionNumber(display), F_DUPFD_CLOEXEC, 0)) {
    XSetIOErrorExitHandler(display_, mark_lost, &lost_);
    XSelectInput(display_, root(), StructureNotifyMask);
    watchdog_ = start_thread(
        [this](const std::stop_token& stop) { run_watchdog(stop); },
        [](const char* why) { OX_WARN("X11Capture: no watch over the X server: %s", why); });
}

XConnection::~XConnection() {
    begin_close();
    XCloseDisplay(display_);
}

void XConnection::run_watchdog(const std::stop_token& stop) const {
    using std::chrono::milliseconds;
    constexpr milliseconds kHangLimit{1000};
    constexpr milliseconds kPollPeriod{100};
    ::pthread_setname_np(::pthread_self(), "ox-x11-watch");
    std::mutex mutex;
    std::condition_variable_any wake;
    std::unique_lock lock(mutex);
    auto last_wanted = SteadyClock::now();
    while (!wake.wait_for(lock, stop, kPollPeriod, [&] { return stop.stop_requested(); })) {
        const auto now = SteadyClock::now();
        if (!closing_ && !(cancelled_ && cancelled_())) last_wanted = now;
        if (now - last_wanted < kHangLimit) continue;
        ::shutdown(socket_.get(), SHUT_RDWR);
        return;
    }
}

Window XConnection::root() const {
    return XDefaultRootWindow(display_);
}

void XConnection::process_events(const std::function<void(const XEvent&)>& sink) {
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
