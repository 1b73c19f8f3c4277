#include <unistd.h>

#include <fstream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "control/control_server_fixture.h"
#include "support/eventually.h"

namespace ox::test {
namespace {

class ControlLoopTest : public ControlServerTest {
  protected:
    /// What the callbacks are told from now on, each followed by a bar.
    void record_everything() {
        const auto record = [this](const std::string& event) {
            const std::lock_guard lock(mutex_);
            events_ += event + "|";
        };
        server_.message_callback = record;
        server_.settings_callback = [record](const SettingsChange& change) {
            record(testing::PrintToString(
                std::vector{change.bitrate, change.fps, change.width, change.height}));
        };
        server_.stats_callback = [record](const ClientStats& stats) {
            record("stats " + std::to_string(static_cast<int>(stats.rtt_ms)));
        };
    }
    std::string take_events() {
        const std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

    std::mutex mutex_;
    std::string events_;  ///< guarded by `mutex_`
};

std::string line_of_length(size_t length, const std::string& type) {
    std::string line = "{\"type\":\"" + type + "\"}";
    return line + std::string(length - line.size(), ' ') + "\n";
}

TEST_F(ControlLoopTest, HandlesEachLineOnceAndInOrderHoweverItIsCut) {
    const std::string bytes = R"({"type":"request_idr"}
{"type":"set_settings","bitrate":900,"height":1e300,"width":-1099511627776}

{"type":"stats","rtt_ms":12}
{}
"ping"
no json
{"type":7}
{"type":"ping","ts":"soon"}
{"type":"anything else","ts":"no ping, so of any type"}
)" + std::string(8192, '[') + "\n" +
                              line_of_length(8192, "just short enough") +
                              line_of_length(8193, "too long") +
                              line_of_length(20'000, "far too long") +
                              R"({"type":"end_session"}
{"type":"ping","ts":-9223372036854775808}
{"type":"ping","ts":18446744073709551615}
{"type":"ping","ts":-1e19}
{"type":"ping"}
)";
    TcpClient launcher = connected_launcher();
    launcher.read_line(kPatience);
    record_everything();
    server_.start_async_read();
    int round = 0;
    for (const size_t cut : {bytes.size(), size_t{7}, size_t{2500}}) {
        ++round;
        for (size_t at = 0; at < bytes.size(); at += cut) {
            launcher.send(std::string_view(bytes).substr(at, cut));
        }
        for (const char* ts : {"-9223372036854775808", "-1", "-9223372036854775808", "0"}) {
            EXPECT_EQ(launcher.read_line(kPatience).value_or("nothing"),
                      R"({"ts":)" + std::string(ts) + R"(,"type":"pong"})");
        }
        EXPECT_EQ(take_events(),
                  "request_idr|{ 900, 0, -2147483648, 2147483647 }|stats 12|anything else|just "
                  "short enough|end_session|")
            << cut;
        for (const char* told : {"oversized control message (8193 bytes) — ignoring",
                                 "oversized control message (20000 bytes) — ignoring",
                                 "malformed message: 'ts' must be a number, but is string",
                                 "malformed message: an object is expected, not a string"}) {
            EXPECT_EQ(log_.times(told), round) << told;
        }
    }
}

TEST_F(ControlLoopTest, WhatCameBeforeAResetStillCounts) {
    TcpClient launcher = connected_launcher();
    launcher.send("{\"type\":\"end_session\"}\n");
    launcher.close(true);
    record_everything();
    server_.start_async_read();
    ASSERT_TRUE(eventually([&] { return !server_.is_connected(); }));
    EXPECT_EQ(take_events(), "end_session|");
}

// More than the socket's buffers hold, so that lines leave in parts.
TEST_F(ControlLoopTest, LinesOfSeveralWritersStayWhole) {
    const auto text_of = [](size_t writer) {
        return std::string(20'000 + 10'000 * writer, static_cast<char>('a' + writer));
    };
    constexpr size_t kWriters = 3;
    constexpr size_t kLines = 200;
    TcpClient launcher = connected_launcher();
    launcher.read_line(kPatience);
    server_.start_async_read();
    std::vector<std::jthread> writers;
    for (size_t i = 0; i < kWriters; ++i) {
        writers.emplace_back([this, text = text_of(i)] {
            for (size_t n = 0; n < kLines; ++n)
                EXPECT_TRUE(server_.send_line(text) && server_.is_connected());
        });
    }
    for (size_t n = 0; n < kLines; ++n)
        launcher.send("{\"type\":\"ping\"}\n");
    std::map<std::string, size_t> seen;
    for (size_t n = 0; n < (kWriters + 1) * kLines; ++n)
        ++seen[launcher.read_line(kPatience).value_or("nothing")];
    EXPECT_EQ(seen.size(), kWriters + 1);
    EXPECT_EQ(seen[R"({"ts":0,"type":"pong"})"], kLines);
    for (size_t i = 0; i < kWriters; ++i)
        EXPECT_EQ(seen[text_of(i)], kLines);
}

TEST_F(ControlLoopTest, CloseWakesAWriterWhoseLauncherDoesNotRead) {
    TcpClient launcher = connected_launcher();
    server_.start_async_read();
    std::atomic<pid_t> writing{0};
    std::jthread writer([&] {
        writing = ::gettid();
        while (server_.send_line(std::string(100'000, 'x'))) {
        }
    });
    // Asleep it is only where it waits for room, inside its send.
    EXPECT_TRUE(eventually([&] {
        std::ifstream stat("/proc/self/task/" + std::to_string(writing) + "/stat");
        std::string state;
        return writing != 0 && std::getline(stat, state) && state.find(") S ") != state.npos;
    }));
    const auto asked = std::chrono::steady_clock::now();
    server_.close();
    writer.join();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
}

}  // namespace
}  // namespace ox::test
