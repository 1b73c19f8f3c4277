#include "app/panic_listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "app/process_flags.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "support/unix_socket.h"

namespace ox {
namespace {

// What words do is shown by the whole agent.
TEST(PanicListener, ReplacesASocketThatACrashLeftAndLeavesTheNextAgentsOwn) {
    const test::TempDir dir;
    const test::Environment runtime("XDG_RUNTIME_DIR", dir.path().string());
    std::ofstream(panic_socket_path()) << "left by a crash";
    panic_flag() = false;
    {
        const std::jthread listener = start_panic_listener();
        EXPECT_TRUE(test::eventually([&] {
            const UniqueFd client = test::connect_unix(panic_socket_path());
            return client && ::write(client.get(), "stop", 4) == 4;
        }));
        EXPECT_TRUE(test::eventually([&] { return panic_flag() != 0; }));
        ::unlink(panic_socket_path().c_str());
        std::ofstream(panic_socket_path()) << "the next agent's";
    }
    panic_flag() = false;
    EXPECT_EQ(::access(panic_socket_path().c_str(), F_OK), 0);
}

}  // namespace
}  // namespace ox
