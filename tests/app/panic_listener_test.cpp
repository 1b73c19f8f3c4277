#include "app/panic_listener.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>

#include "app/process_flags.h"
#include "base/clock.h"
#include "base/unique_fd.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

using std::chrono::seconds;

/// A runtime directory of the test's own, and the flag as it was before.
class PanicListener : public testing::Test {
  protected:
    PanicListener() { panic_flag() = false; }
    ~PanicListener() override { panic_flag() = false; }

    [[nodiscard]] UniqueFd connect() const {
        UniqueFd client;
        test::eventually([&] {
            client.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const std::string path = panic_socket_path();
            std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
            return ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address),
                             sizeof address) == 0;
        });
        return client;
    }

    /// Sends `text` and waits until the agent has closed the connection.
    void say(const std::string& text) const {
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

TEST_F(PanicListener, OnlyTheOwnerMayUseItAndItGoesWithTheAgent) {
    {
        const std::jthread listener = start_panic_listener();
        const UniqueFd client = connect();
        struct stat info {};
        ASSERT_EQ(::stat(panic_socket_path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777U, 0600U);
    }
    EXPECT_NE(::access(panic_socket_path().c_str(), F_OK), 0);
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

TEST_F(PanicListener, PathWithoutARuntimeDirectory) {
    const test::Environment none("XDG_RUNTIME_DIR", std::nullopt);
    EXPECT_EQ(panic_socket_path(),
              "/tmp/orvex-agent-" + std::to_string(::getuid()) + "-panic.sock");
}

}  // namespace
}  // namespace ox
