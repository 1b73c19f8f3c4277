#include "base/resolve_host.h"

#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/thread.h"

namespace ox {
namespace {

ResolvedHost look_up(const std::string& host, const std::string& port, int family, int flags) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
    return {AddressList(error == 0 ? list : nullptr), error};
}

struct PendingLookUp {
    Mutex mutex;
    std::condition_variable finished;
    bool done OX_GUARDED_BY(mutex) = false;
    ResolvedHost result OX_GUARDED_BY(mutex);
};

}  // namespace

void AddressListDeleter::operator()(addrinfo* list) const noexcept {
    ::freeaddrinfo(list);
}

ResolvedHost resolve_host(const std::string& host, uint16_t port, int family,
                          const std::function<bool()>& stop) {
    const std::string port_text = std::to_string(port);
    if (auto numeric = look_up(host, port_text, family, AI_NUMERICHOST); numeric.addresses)
        return numeric;

    // getaddrinfo cannot be interrupted and may take many seconds, so it runs on a thread that is
    // detached and owns what it uses.
    const auto pending = std::make_shared<PendingLookUp>();
    std::jthread thread = start_thread(
        [pending, host, port_text, family] {
            ResolvedHost result = look_up(host, port_text, family, 0);
            const MutexLock lock(pending->mutex);
            pending->result = std::move(result);
            pending->done = true;
            pending->finished.notify_one();
        },
        [](const char* /*reason*/) {});
    if (!thread.joinable()) return {nullptr, EAI_AGAIN};
    thread.detach();
    MutexLock lock(pending->mutex);
    while (!pending->done && !stop())
        lock.wait_until(pending->finished, SteadyClock::now() + std::chrono::milliseconds(100));
    if (!pending->done) return {nullptr, EAI_AGAIN};
    return std::move(pending->result);
}

}  // namespace ox
