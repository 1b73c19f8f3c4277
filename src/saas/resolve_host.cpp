#include "saas/resolve_host.h"

#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/thread.h"

namespace ox {
namespace {

AddressList look_up(const std::string& host, const std::string& port, int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0) return nullptr;
    return AddressList(list);
}

struct PendingLookUp {
    Mutex mutex;
    std::condition_variable finished;
    bool done OX_GUARDED_BY(mutex) = false;
    AddressList result OX_GUARDED_BY(mutex);
};

}  // namespace

void AddressListDeleter::operator()(addrinfo* list) const noexcept {
    ::freeaddrinfo(list);
}

AddressList resolve_host(const std::string& host, uint16_t port, const std::atomic<bool>& running) {
    const std::string port_text = std::to_string(port);
    if (AddressList list = look_up(host, port_text, AI_NUMERICHOST)) return list;

    // getaddrinfo cannot be interrupted and may take many seconds, so it runs on a thread that is
    // detached and owns what it uses.
    const auto pending = std::make_shared<PendingLookUp>();
    std::jthread thread = start_thread(
        [pending, host, port_text] {
            AddressList list = look_up(host, port_text, 0);
            const MutexLock lock(pending->mutex);
            pending->result = std::move(list);
            pending->done = true;
            pending->finished.notify_one();
        },
        [](const char* /*reason*/) {});
    if (!thread.joinable()) return nullptr;
    thread.detach();
    MutexLock lock(pending->mutex);
    while (!pending->done && running)
        lock.wait_until(pending->finished, SteadyClock::now() + std::chrono::milliseconds(100));
    return std::move(pending->result);
}

}  // namespace ox
