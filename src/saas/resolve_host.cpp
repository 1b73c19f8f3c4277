#include "saas/resolve_host.h"

#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

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
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;  ///< guarded by `mutex`, like `result`
    AddressList result;
};

}  // namespace

void AddressListDeleter::operator()(addrinfo* list) const noexcept {
    ::freeaddrinfo(list);
}

AddressList resolve_host(const std::string& host, uint16_t port, const std::atomic<bool>& running) {
    const std::string port_text = std::to_string(port);
    if (AddressList list = look_up(host, port_text, AI_NUMERICHOST)) return list;

    // getaddrinfo cannot be interrupted and takes many seconds when no name server answers, so it
    // runs on a thread that is left to itself when the caller has to go. It owns all it touches.
    const auto pending = std::make_shared<PendingLookUp>();
    try {
        std::thread([pending, host, port_text] {
            AddressList list = look_up(host, port_text, 0);
            const std::lock_guard lock(pending->mutex);
            pending->result = std::move(list);
            pending->done = true;
            pending->finished.notify_one();
        }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    std::unique_lock lock(pending->mutex);
    while (!pending->done && running) {
        pending->finished.wait_for(lock, std::chrono::milliseconds(100));
    }
    return std::move(pending->result);
}

}  // namespace ox
