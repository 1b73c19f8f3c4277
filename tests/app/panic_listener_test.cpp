#include "app/panic_listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "app/process_flags.h"
#include "base/clock.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "support/unix_socket.h"

namespace ox {
namespace {

// What words do is shown by the whole agent.
TEST(PanicListener, ReplacesWhatACrashLeftBearsASilentClientAndLeavesTheNextAgentsSocket) {
    const test::TempDir dir;
    const test::Environment runtime("XDG_RUNTIME_DIR", dir.path().string());
    std::ofstream(panic_socket_path()) << "left by a crash";
    panic_flag() = false;
    std::jthread listener = start_panic_listener();
    UniqueFd silent;  // who says nothing is in the way of neither the others nor the end
    EXPECT_TRUE(test::eventually([&] {
        silent = test::connect_unix(panic_socket_path());
        return static_cast<bool>(silent);
    }));
    const UniqueFd client = test::connect_unix(panic_socket_path());
    EXPECT_EQ(::write(client.get(), "stop", 4), 4);
    EXPECT_TRUE(test::eventually([] { return panic_flag().load(); }));
    const UniqueFd another = test::connect_unix(panic_socket_path());
    ::unlink(panic_socket_path().c_str());
    std::ofstream(panic_socket_path()) << "the next agent's";
    const auto before = SteadyClock::now();
    listener = {};
    EXPECT_LT(SteadyClock::now() - before, std::chrono::seconds(2));
    panic_flag() = false;
    EXPECT_EQ(::access(panic_socket_path().c_str(), F_OK), 0);
}

}  // namespace
}  // namespace ox
