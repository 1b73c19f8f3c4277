#include "video/x11_damage_watch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/thread.h"
#include "log/log.h"

namespace ox {
namespace {

using std::chrono::milliseconds;

/// The server announces one change, then none until it is re-armed: at the latest after this time,
/// which bounds the events of a screen that is drawn in many pieces.
constexpr milliseconds kRearmDelay{4};

/// The time of a change whose event was read at `now`, perhaps late. The server's clock has a
/// resolution of milliseconds; where it is not this PC's clock, `now` counts.
SteadyClock::time_point time_of(Time server_ms, SteadyClock::time_point now) {
    constexpr milliseconds kResolution{2};
    constexpr milliseconds kMaxAge{100};
    const auto since_boot = std::chrono::floor<milliseconds>(now.time_since_epoch());
    const milliseconds age(static_cast<int32_t>(static_cast<uint32_t>(since_boot.count()) -
                                                static_cast<uint32_t>(server_ms)));
    if (age < milliseconds(0) || age > kMaxAge) return now;
    return std::min(now, SteadyClock::time_point(since_boot - age + kResolution));
}

}  // namespace

std::unique_ptr<X11DamageWatch> X11DamageWatch::start(std::unique_ptr<XConnection> connection) {
    Display* display = connection->display();
    int first_event = 0;
    int first_error = 0;
    UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake || XDamageQueryExtension(display, &first_event, &first_error) == 0) return nullptr;
    const XErrorTrap trap(*connection);
    const Damage damage = XDamageCreate(display, connection->root(), XDamageReportNonEmpty);
    if (trap.failed()) return nullptr;
    std::unique_ptr<X11DamageWatch> watch(new X11DamageWatch(
        std::move(connection), damage, first_event + XDamageNotify, std::move(wake)));
    watch->thread_ =
        start_thread([self = watch.get()](const std::stop_token& stop) { self->run(stop); },
                     [](const char* why) {
                         OX_DEBUG("X11Capture: no thread for the watch over changes: %s", why);
                     });
    return watch->thread_.joinable() ? std::move(watch) : nullptr;
}

X11DamageWatch::X11DamageWatch(std::unique_ptr<XConnection> connection, Damage damage,
                               int event_type, UniqueFd wake)
    : connection_(std::move(connection)),
      damage_(damage),
      event_type_(event_type),
      wake_(std::move(wake)),
      socket_(XConnectionNumber(connection_->display())) {}

X11DamageWatch::~X11DamageWatch() {
    if (!thread_.joinable()) return;
    connection_->begin_close();
    thread_.request_stop();
    ::eventfd_write(wake_.get(), 1);
    thread_.join();
}

uint64_t X11DamageWatch::announced() const {
    pollfd entry{.fd = socket_, .events = POLLIN, .revents = 0};
    const bool unhandled = ::poll(&entry, 1, 0) != 0 || busy_;
    return changes_.count() + (unhandled ? 1 : 0);
}

void X11DamageWatch::rearm(const XConnection& connection) const {
    XDamageSubtract(connection.display(), damage_, None, None);
}

void X11DamageWatch::run(const std::stop_token& stop) {
    ::pthread_setname_np(::pthread_self(), "ox-x11-damage");
    Display* display = connection_->display();
    std::array<pollfd, 2> sources{
        {{.fd = XConnectionNumber(display), .events = POLLIN, .revents = 0},
         {.fd = wake_.get(), .events = POLLIN, .revents = 0}}};
    constexpr auto kNever = SteadyClock::time_point::max();
    auto rearm_at = kNever;
    // Never waits for the server: it reads what has arrived, and writes one small request for each
    // event.
    while (!stop.stop_requested()) {
        if (read_changes()) rearm_at = std::min(rearm_at, SteadyClock::now() + kRearmDelay);
        if (connection_->lost()) {
            rearm_at = kNever;
            sources[0].fd = -1;
        }
        int wait_ms = -1;
        if (rearm_at != kNever) {
            const auto left = std::chrono::ceil<milliseconds>(rearm_at - SteadyClock::now());
            wait_ms = static_cast<int>(std::max(left, milliseconds(0)).count());
        }
        if (wait_ms == 0) {
            rearm_at = kNever;
            rearm(*connection_);
            XFlush(display);
            continue;
        }
        busy_ = false;
        ::poll(sources.data(), sources.size(), wait_ms);
        busy_ = true;
    }
    // Here: Xlib keeps a lost connection locked for the thread that found it lost.
    connection_.reset();
}

bool X11DamageWatch::read_changes() {
    bool changed = false;
    connection_->process_events([&](const XEvent& event) {
        if (event.type != event_type_) return;
        XDamageNotifyEvent damage{};
        std::memcpy(&damage, &event, sizeof(damage));
        changes_.note(time_of(damage.timestamp, SteadyClock::now()));
        changed = true;
    });
    return changed;
}

}  // namespace ox
