#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "control/control_server_fixture.h"

namespace ox::test {
namespace {

class ControlLoopTest : public ControlServerTest {
  protected:
    void record(const std::string& event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    std::vector<std::string> events(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kPatience, [&] { return events_.size() >= count; });
        return std::exchange(events_, {});
    }

    void record_everything() {
        server_.message_callback = [this](const std::string& type) { record(type); };
        server_.settings_callback = [this](const SettingsChange& change) {
            record("settings " + std::to_string(change.bitrate) + " " + std::to_string(change.fps));
        };
        server_.stats_callback = [this](const ClientStats& stats) {
            record("stats " + std::to_string(static_cast<int>(stats.rtt_ms)));
        };
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;  ///< guarded by `mutex_`
};

std::string line_of_length(size_t length, const std::string& type) {
    std::string line = "{\"type\":\"" + type + "\"}";
    return line + std::string(length - line.size(), ' ') + "\n";
}

TEST_F(ControlLoopTest, HandlesEachLineOnceAndInOrderHoweverItIsCut) {
    const std::string bytes =
        "{\"type\":\"request_idr\"}\n{\"type\":\"set_settings\",\"bitrate\":900}\n\n"
        "{\"type\":\"stats\",\"rtt_ms\":12}\n{}\nno json\n{\"type\":7}\n" +
        std::string(8192, '[') + "\n" + line_of_length(8192, "just short enough") +
        line_of_length(8193, "too long") + line_of_length(20'000, "far too long") +
        "{\"type\":\"ping\",\"ts\":12345}\n{\"type\":\"ping\"}\n{\"type\":\"end_session\"}\n";
    const std::vector<std::string> expected = {"request_idr", "settings 900 0", "stats 12",
                                               "just short enough", "end_session"};
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
        EXPECT_EQ(events(expected.size()), expected) << cut;
        EXPECT_EQ(launcher.read_line(kPatience), R"({"ts":12345,"type":"pong"})");
        EXPECT_EQ(launcher.read_line(kPatience), R"({"ts":0,"type":"pong"})");
        for (const char* size : {"8193", "20000"}) {
            EXPECT_EQ(
                log_.count("WARN", std::string("TcpControlServer: oversized control message (") +
                                       size + " bytes) — ignoring"),
                round);
        }
    }
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
    std::array<size_t, kWriters> seen{};
    size_t pongs = 0;
    for (size_t n = 0; n < (kWriters + 1) * kLines; ++n) {
        const auto line = launcher.read_line(kPatience);
        ASSERT_TRUE(line && !line->empty());
        if (*line == R"({"ts":0,"type":"pong"})") {
            ++pongs;
            continue;
        }
        const auto writer = static_cast<size_t>(line->front() - 'a');
        ASSERT_LT(writer, kWriters);
        ASSERT_TRUE(*line == text_of(writer)) << line->size() << " bytes";
        ++seen[writer];
    }
    EXPECT_EQ(pongs, kLines);
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](size_t n) { return n == kLines; }));
}

TEST_F(ControlLoopTest, CloseWakesAWriterWhoseLauncherDoesNotRead) {
    TcpClient launcher = connected_launcher();
    server_.start_async_read();
    std::atomic<int> lines{0};
    std::jthread writer([&] {
        while (server_.send_line(std::string(100'000, 'x')))
            ++lines;
    });
    // No line for a while: the writer waits for room inside its send.
    for (int before = -1; before != lines || lines == 0;) {
        before = lines;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const auto asked = std::chrono::steady_clock::now();
    server_.close();
    writer.join();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
}

}  // namespace
}  // namespace ox::test
