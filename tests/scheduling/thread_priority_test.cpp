#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <future>
#include <latch>
#include <thread>
#include <tuple>

#include "scheduling/thread_priority.h"
#include "support/log_capture.h"
#include "support/system_bus.h"

namespace ox {
namespace {

using namespace std::chrono_literals;

/// Takes the calling thread's right to raised priorities, as an ordinary user has none.
void become_ordinary_user() {
    const rlimit nothing{};
    ::setrlimit(RLIMIT_RTPRIO, &nothing);
    ::setrlimit(RLIMIT_NICE, &nothing);
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, 2> sets{};
    ::syscall(SYS_capget, &header, sets.data());
    sets[0].effective &= ~(1U << CAP_SYS_NICE);
    ::syscall(SYS_capset, &header, sets.data());
    ASSERT_FALSE(become_real_time());
    ASSERT_FALSE(raise_thread(own_thread_id()));
}

/// A RealtimeKit that records the requests, and can refuse real-time.
struct FakeRealtimeKit {
    using Request = std::tuple<std::string, pid_t, int>;  ///< method, thread, priority

    std::vector<Request> serve(size_t count, bool grants_real_time = true) {
        std::vector<Request> requests;
        bus.service.read_until(SteadyClock::now() + 10s, [&](DBusMessage& call) {
            if (dbus_message_get_type(&call) != DBUS_MESSAGE_TYPE_METHOD_CALL) return false;
            const std::string method = dbus_message_get_member(&call);
            const bool is_real_time = method == "MakeThreadRealtime";
            DBusMessagePtr reply(dbus_message_new_method_return(&call));
            if (method == "Get") {
                DBusMessageIter arguments, value;
                const dbus_int64_t number = 200'000;
                dbus_message_iter_init_append(reply.get(), &arguments);
                dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "x", &value);
                dbus_message_iter_append_basic(&value, DBUS_TYPE_INT64, &number);
                dbus_message_iter_close_container(&arguments, &value);
            } else {
                dbus_uint64_t thread = 0;
                dbus_int32_t priority = 0;
                dbus_message_get_args(&call, nullptr, DBUS_TYPE_UINT64, &thread,
                                      is_real_time ? DBUS_TYPE_UINT32 : DBUS_TYPE_INT32, &priority,
                                      DBUS_TYPE_INVALID);
                requests.emplace_back(method, static_cast<pid_t>(thread), priority);
                rlimit limits{};
                ::getrlimit(RLIMIT_RTTIME, &limits);
                EXPECT_TRUE(!is_real_time || limits.rlim_max <= 200'000);
            }
            if (is_real_time && !grants_real_time)
                reply.reset(dbus_message_new_error(&call, DBUS_ERROR_ACCESS_DENIED, "Not today"));
            bus.service.post(*reply);
            return requests.size() == count;
        });
        return requests;
    }

    test::SystemBus bus{"org.freedesktop.RealtimeKit1"};
};

/// A library's worker thread.
struct Worker {
    Worker() { running.wait(); }
    ~Worker() { done.count_down(); }

    pid_t id = 0;
    std::latch running{1};
    std::latch done{1};
    std::jthread thread{[this] {
        id = own_thread_id();
        running.count_down();
        done.wait();
    }};
};

int nice_of(pid_t thread) {
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(thread));
}

TEST(ThreadPriority, RealtimeKitIsAskedForWhatTheKernelRefuses) {
    for (const bool grants : {true, false}) {
        FakeRealtimeKit kit;
        const test::LogCapture log;
        auto thread = std::async(std::launch::async, [&] {
            become_ordinary_user();
            const RealTimePriority priority("Test");
            const std::string outcome = grants ? "real-time" : "raised";
            EXPECT_TRUE(test::eventually([&] {
                return log.times("Test: " + outcome + " thread priority by RealtimeKit") == 1;
            }));
            return own_thread_id();
        });
        const auto requests = kit.serve(grants ? 1 : 2, grants);
        const pid_t id = thread.get();
        std::vector<FakeRealtimeKit::Request> expected{{"MakeThreadRealtime", id, 5}};
        if (!grants) expected.emplace_back("MakeThreadHighPriority", id, -11);
        EXPECT_EQ(requests, expected);
    }
}

TEST(ThreadPriority, RaisedPriorityIsNotInheritedAndIsRestored) {
    if (!std::async(std::launch::async, [] { return raise_thread(own_thread_id()); }).get())
        GTEST_SKIP() << "the kernel grants this user no priority";
    std::jthread([] {
        const int ordinary = nice_of(own_thread_id());
        const std::vector<pid_t> before = threads_of_process();
        const Worker worker;
        {
            RaisedThreads raised("Test");
            raised.raise_since(before);
            EXPECT_EQ(nice_of(own_thread_id()), -11);
            EXPECT_EQ(nice_of(worker.id), -11);
            const Worker later;
            EXPECT_EQ(nice_of(later.id), 0);
            const pid_t child = ::fork();
            if (child == 0) ::_exit(nice_of(0));
            int status = -1;
            ::waitpid(child, &status, 0);
            EXPECT_EQ(status, 0);
        }
        EXPECT_EQ(nice_of(own_thread_id()), ordinary);
    }).join();
}

TEST(ThreadPriority, AHangingBusDoesNotDelay) {
    const test::DeafBus bus;
    std::vector<UniqueFd> clients;
    for (const bool queue_is_full : {false, true}) {
        // Fill the listen queue.
        const auto connect_at_once = [](int fd, const sockaddr* at, socklen_t size) {
            ::fcntl(fd, F_SETFL, O_NONBLOCK);
            return ::connect(fd, at, size);
        };
        while (queue_is_full && (clients.empty() || clients.back()))
            clients.push_back(test::unix_socket(bus.path, connect_at_once));
        std::jthread([] {
            become_ordinary_user();
            const auto before = SteadyClock::now();
            {
                const RealTimePriority priority("Test");
                RaisedThreads raised("Test");
                raised.raise_since({});
                EXPECT_LT(SteadyClock::now() - before, 500ms);
            }
            EXPECT_LT(SteadyClock::now() - before, 2s);
        }).join();
    }
}

TEST(ThreadPriority, ARealTimeThreadThatNeverWaitsBecomesOrdinary) {
    if (!std::async(std::launch::async, become_real_time).get())
        GTEST_SKIP() << "the kernel grants this user no real-time priority";
    // State that a parent may have left.
    struct sigaction handler {};
    ::sigaction(SIGXCPU, nullptr, &handler);
    if (handler.sa_handler == SIG_DFL) ::signal(SIGXCPU, SIG_IGN);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGXCPU);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    ASSERT_TRUE(RealTimeLimit::kill_after(200ms));
    // Twice: the first time raises the soft limit.
    for (int i = 0; i < 2; ++i) {
        std::jthread([] {
            const auto is_real_time = [] { return (::sched_getscheduler(0) & SCHED_RR) != 0; };
            const RealTimePriority priority("Test");
            ASSERT_TRUE(is_real_time());
            const auto deadline = SteadyClock::now() + 5s;
            while (is_real_time() && SteadyClock::now() < deadline) {
            }
            EXPECT_FALSE(is_real_time());
        }).join();
    }
}

}  // namespace
}  // namespace ox
