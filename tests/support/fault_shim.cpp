// A library to preload that makes one call fail. OX_FAULT is the function ("sendto"), OX_FAULT_ON a
// kind of descriptor ("tcp", "udp", "unix", "other") or a thread's name (empty: any call),
// OX_FAULT_AT the number of the call among these (1 is the first), OX_FAULT_ERRNO the error (a
// number). The file OX_FAULT_REPORT exists after the failure. The file OX_UINPUT stands in for
// /dev/uinput.

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/uinput.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

const char* kind_of_socket(int domain, int type) {
    if (domain == AF_UNIX) return "unix";
    return (type & SOCK_DGRAM) != 0 ? "udp" : "tcp";
}

const char* kind_of(int fd) {
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof domain;
    if (::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0) return "other";
    ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size);
    return kind_of_socket(domain, type);
}
const char* kind_of(const pollfd* entries) {
    return kind_of(entries->fd);
}

/// True when this call of `name` on a descriptor of `kind` must fail; sets errno.
bool fails(const char* name, const char* kind) {
    static const char* const wanted = std::getenv("OX_FAULT");
    if (wanted == nullptr || std::strcmp(wanted, name) != 0) return false;
    static const std::string on = std::getenv("OX_FAULT_ON");
    char thread[16] = "";
    ::pthread_getname_np(::pthread_self(), thread, sizeof thread);
    if (!on.empty() && on != kind && on != thread) return false;
    static std::atomic<int> calls{0};
    static const int at = std::atoi(std::getenv("OX_FAULT_AT"));
    if (++calls != at) return false;
    next<decltype(::close)>("close")(
        next<decltype(::open)>("open")(std::getenv("OX_FAULT_REPORT"), O_CREAT | O_WRONLY, 0600));
    errno = std::atoi(std::getenv("OX_FAULT_ERRNO"));
    return true;
}

}  // namespace

// Wraps a function that returns -1 on failure; `checked` is its fortified variant, if any.
#define OX_WRAP_CHECKED(result, name, checked, kind, parameters, arguments)   \
    result checked parameters {                                               \
        static auto* const real = next<result parameters>(#checked);          \
        return fails(#name, kind) ? static_cast<result>(-1) : real arguments; \
    }
#define OX_WRAP(result, name, kind, parameters, arguments) \
    OX_WRAP_CHECKED(result, name, name, kind, parameters, arguments)

extern "C" {

int open(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const auto mode = va_arg(more, mode_t);
    va_end(more);
    const char* device = std::strcmp(path, "/dev/uinput") == 0 ? std::getenv("OX_UINPUT") : nullptr;
    return next<decltype(::open)>("open")(device ? device : path, flags, mode);
}
int ioctl(int fd, unsigned long request, ...) {
    va_list more;
    va_start(more, request);
    auto* argument = va_arg(more, void*);
    va_end(more);
    const bool taken =
        std::getenv("OX_UINPUT") != nullptr && _IOC_TYPE(request) == UINPUT_IOCTL_BASE;
    return taken ? 0 : next<decltype(::ioctl)>("ioctl")(fd, request, argument);
}

OX_WRAP(int, socket, kind_of_socket(domain, type), (int domain, int type, int protocol),
        (domain, type, protocol))
OX_WRAP(int, listen, kind_of(fd), (int fd, int backlog), (fd, backlog))
OX_WRAP(int, accept4, kind_of(fd), (int fd, sockaddr* address, socklen_t* length, int flags),
        (fd, address, length, flags))
OX_WRAP(int, getpeername, kind_of(fd), (int fd, sockaddr* address, socklen_t* length),
        (fd, address, length))
OX_WRAP(ssize_t, sendto, kind_of(fd),
        (int fd, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t length),
        (fd, bytes, size, flags, to, length))
OX_WRAP(ssize_t, recv, kind_of(fd), (int fd, void* bytes, size_t size, int flags),
        (fd, bytes, size, flags))
OX_WRAP_CHECKED(ssize_t, recv, __recv_chk, kind_of(fd),
                (int fd, void* bytes, size_t size, size_t room, int flags),
                (fd, bytes, size, room, flags))
OX_WRAP(ssize_t, recvfrom, kind_of(fd),
        (int fd, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* length),
        (fd, bytes, size, flags, from, length))
OX_WRAP_CHECKED(ssize_t, recvfrom, __recvfrom_chk, kind_of(fd),
                (int fd, void* bytes, size_t size, size_t room, int flags, sockaddr* from,
                 socklen_t* length),
                (fd, bytes, size, room, flags, from, length))
OX_WRAP(int, poll, kind_of(entries), (pollfd * entries, nfds_t count, int timeout_ms),
        (entries, count, timeout_ms))
OX_WRAP_CHECKED(int, poll, __poll_chk, kind_of(entries),
                (pollfd * entries, nfds_t count, int timeout_ms, size_t room),
                (entries, count, timeout_ms, room))

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) {
    static auto* const real =
        next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return fails("pthread_create", "") ? errno : real(thread, attributes, run, argument);
}

}  // extern "C"
