#include "app/panic_listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>

#include "app/process_flags.h"
#include "base/clock.h"
#include "base/unique_fd.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "support/unix_socket.h"

namespace ox {
namespace {

using std::chrono::seconds;

/// A runtime directory of the test's own, and the flag as it was before.
class PanicListener : public testing::Test {
  protected:
    PanicListener() { panic_flag() = false; }
    ~PanicListener() override { panic_flag() = false; }

    [[nodiscard]] static UniqueFd connect() {
        UniqueFd client;
        test::eventually([&] {
            client = test::connect_unix(panic_socket_path());
            return static_cast<bool>(client);
        });
        return client;
    }

    /// Sends `text` and waits until the agent has closed the connection.
    static void say(const std::string& text) {
        const UniqueFd client = connect();
        ASSERT_EQ(::write(client.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
        char byte = 0;
        EXPECT_LE(::read(client.get(), &byte, 1), 0);
    }

    test::TempDir dir_;
    test::Environment runtime_{"XDG_RUNTIME_DIR", dir_.path().string()};
};

TEST_F(PanicListener, TheWordMustStandInTheFirst63Bytes) {
    std::ofstream(panic_socket_path()) << "left by a crash";
    const std::jthread listener = start_panic_listener();
    say("STOP");
    say(std::string(70, 'x') + "stop");
    say(std::string(60, 'x') + "stop");  // cut after "sto"
    EXPECT_FALSE(panic_flag());
    say("please stop now");
    EXPECT_TRUE(panic_flag());
}

TEST_F(PanicListener, TheSocketOfAnAgentStartedLaterStays) {
    {
        const std::jthread listener = start_panic_listener();
        const UniqueFd client = connect();
        ::unlink(panic_socket_path().c_str());
        std::ofstream(panic_socket_path()) << "the next agent's";
    }
    EXPECT_EQ(::access(panic_socket_path().c_str(), F_OK), 0);
}

TEST_F(PanicListener, ASilentClientBlocksNeitherOthersForGoodNorTheEnd) {
    std::jthread listener = start_panic_listener();
    const UniqueFd silent = connect();
    say("stop");
    EXPECT_TRUE(panic_flag());
    const UniqueFd another = connect();
    const auto before = SteadyClock::now();
    listener = {};
    EXPECT_LT(SteadyClock::now() - before, seconds(2));
}

}  // namespace
}  // namespace ox
