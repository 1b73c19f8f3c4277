// A library to preload: one call of one function fails once. OX_FAULT names it ("sendto"),
// OX_FAULT_AT which of its calls (1 is the first), OX_FAULT_ERRNO with what (a number). When it has
// happened, the file OX_FAULT_REPORT exists.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// Whether this call of `name` is the one to fail; errno is set then.
bool fails(const char* name) {
    static const char* const wanted = std::getenv("OX_FAULT");
    if (wanted == nullptr || std::strcmp(wanted, name) != 0) return false;
    static std::atomic<int> calls{0};
    static const int at = std::atoi(std::getenv("OX_FAULT_AT"));
    if (++calls != at) return false;
    next<decltype(::close)>("close")(
        next<decltype(::open)>("open")(std::getenv("OX_FAULT_REPORT"), O_CREAT | O_WRONLY, 0600));
    errno = std::atoi(std::getenv("OX_FAULT_ERRNO"));
    return true;
}

}  // namespace

// Wraps a function whose failure is the value -1: in the variant that the compiler takes when it
// knows the buffer's size, or the only one.
#define OX_WRAP_CHECKED(result, name, checked, parameters, arguments)   \
    result checked parameters {                                         \
        static auto* const real = next<result parameters>(#checked);    \
        return fails(#name) ? static_cast<result>(-1) : real arguments; \
    }
#define OX_WRAP(result, name, parameters, arguments) \
    OX_WRAP_CHECKED(result, name, name, parameters, arguments)

extern "C" {

OX_WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
OX_WRAP(int, listen, (int fd, int backlog), (fd, backlog))
OX_WRAP(int, accept4, (int fd, sockaddr* address, socklen_t* length, int flags),
        (fd, address, length, flags))
OX_WRAP(int, getpeername, (int fd, sockaddr* address, socklen_t* length), (fd, address, length))
OX_WRAP(ssize_t, sendto,
        (int fd, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t length),
        (fd, bytes, size, flags, to, length))
OX_WRAP(ssize_t, send, (int fd, const void* bytes, size_t size, int flags),
        (fd, bytes, size, flags))
OX_WRAP(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags))
OX_WRAP_CHECKED(ssize_t, recv, __recv_chk,
                (int fd, void* bytes, size_t size, size_t room, int flags),
                (fd, bytes, size, room, flags))
OX_WRAP(ssize_t, recvfrom,
        (int fd, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* length),
        (fd, bytes, size, flags, from, length))
OX_WRAP_CHECKED(ssize_t, recvfrom, __recvfrom_chk,
                (int fd, void* bytes, size_t size, size_t room, int flags, sockaddr* from,
                 socklen_t* length),
                (fd, bytes, size, room, flags, from, length))
OX_WRAP(int, poll, (pollfd * entries, nfds_t count, int timeout_ms), (entries, count, timeout_ms))
OX_WRAP_CHECKED(int, poll, __poll_chk,
                (pollfd * entries, nfds_t count, int timeout_ms, size_t room),
                (entries, count, timeout_ms, room))
OX_WRAP(ssize_t, write, (int fd, const void* bytes, size_t size), (fd, bytes, size))

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) {
    static auto* const real =
        next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return fails("pthread_create") ? errno : real(thread, attributes, run, argument);
}

}  // extern "C"
