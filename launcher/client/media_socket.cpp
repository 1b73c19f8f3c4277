#include "launcher/client/media_socket.h"

#include <arpa/inet.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

namespace ox::launcher {

namespace {

constexpr int kReceiveBufferBytes = 8 * 1024 * 1024;
constexpr std::array<uint8_t, 4> kProbe = {'O', 'X', 'P', '1'};

}  // namespace

MediaSocket::MediaSocket() {
    for (size_t i = 0; i < kBatch; ++i) {
        slots_[i] = {.iov_base = bytes_[i].data(), .iov_len = kSlotBytes};
        messages_[i].msg_hdr.msg_iov = &slots_[i];
        messages_[i].msg_hdr.msg_iovlen = 1;
    }
}

bool MediaSocket::open(uint16_t port, std::string& error, const std::string& local_ip) {
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    const bool is_address =
        local_ip.empty() || ::inet_pton(AF_INET, local_ip.c_str(), &local.sin_addr) == 1;
    if (!is_address) errno = EINVAL;
    if (!socket_ || !is_address ||
        ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        error = "cannot receive on UDP port " + std::to_string(port) + ": " + std::strerror(errno);
        socket_.reset();
        return false;
    }
    // For a keyframe's burst. Exceeding the system's limit takes a privilege.
    const int size = kReceiveBufferBytes;
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    const int on = 1;
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    return true;
}

void MediaSocket::enable_arrival_times() {
    const int on = 1;
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

uint64_t MediaSocket::waited_us() const {
    timespec now{};
    if (arrival_ns_ == 0 || ::clock_gettime(CLOCK_REALTIME, &now) != 0) return 0;
    const int64_t waited = int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec - arrival_ns_;
    // More than a second: the real-time clock was set.
    return waited > 0 && waited < 1'000'000'000 ? static_cast<uint64_t>(waited) / 1000 : 0;
}

uint16_t MediaSocket::port() const {
    sockaddr_in local{};
    socklen_t size = sizeof local;
    if (::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&local), &size) != 0) return 0;
    return ntohs(local.sin_port);
}

bool MediaSocket::set_agent(const std::string& ip, uint16_t port) {
    agent_.sin_family = AF_INET;
    agent_.sin_port = htons(port);
    return ::inet_pton(AF_INET, ip.c_str(), &agent_.sin_addr) == 1;
}

void MediaSocket::send_probe() {
    ::sendto(socket_.get(), kProbe.data(), kProbe.size(), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&agent_), sizeof agent_);
}

bool MediaSocket::receive(std::chrono::milliseconds timeout, const Sink& sink) {
    pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(timeout.count()));
    if (ready <= 0) return ready == 0 || errno == EINTR;
    for (;;) {
        for (size_t i = 0; i < kBatch; ++i) {
            messages_[i].msg_hdr.msg_control = control_[i].data();
            messages_[i].msg_hdr.msg_controllen = control_[i].size();
        }
        const int got = ::recvmmsg(socket_.get(), messages_.data(), kBatch, 0, nullptr);
        if (got < 0) return errno == EAGAIN || errno == EINTR || errno == ECONNREFUSED;
        for (size_t i = 0; i < static_cast<size_t>(got); ++i) {
            read_control(messages_[i].msg_hdr);
            sink({bytes_[i].data(), messages_[i].msg_len});
        }
        if (static_cast<size_t>(got) < kBatch) return true;
    }
}

void MediaSocket::read_control(msghdr& message) {
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
         item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level != SOL_SOCKET) continue;
        if (item->cmsg_type == SO_RXQ_OVFL) {
            uint32_t drops = 0;
            std::memcpy(&drops, CMSG_DATA(item), sizeof drops);
            kernel_drops_ = drops;
        } else if (item->cmsg_type == SCM_TIMESTAMPNS) {
            timespec time{};
            std::memcpy(&time, CMSG_DATA(item), sizeof time);
            arrival_ns_ = int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
        }
    }
}

}  // namespace ox::launcher
