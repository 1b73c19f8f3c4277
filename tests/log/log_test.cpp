#include "log/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

#include "log/log_path.h"
#include "support/environment.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using ::testing::EndsWith;
using ::testing::MatchesRegex;

constexpr int64_t kLimit = 10 * 1024 * 1024;

// Each test logs to files of its own, the console off.
struct Log : ::testing::Test {
    void SetUp() override { open(path_); }
    void TearDown() override {
        close();
        log_sinks().console = true;
        log_level() = static_cast<int32_t>(LogLevel::INFO);
    }

    static void open(const std::string& path) {
        close();
        log_sinks().console = false;
        log_sinks().path = path;
        log_sinks().file = std::fopen(path.c_str(), "ae");
        ASSERT_NE(log_sinks().file, nullptr);
        std::fseek(log_sinks().file, 0, SEEK_END);
        log_sinks().bytes = std::ftell(log_sinks().file);
    }
    static void close() {
        if (log_sinks().file != nullptr) std::fclose(log_sinks().file);
        log_sinks().file = nullptr;
        log_sinks().stderr_redirected = false;
    }
    [[nodiscard]] std::string text(int generation = 0) const {
        return read_file(generation == 0 ? path_ : rotated_log_name(path_, generation));
    }

    const test::TempDir dir_;
    const std::string path_ = dir_.file("agent.log");
};

TEST_F(Log, LineHasAPrefixAndIsTruncatedButAlwaysTerminated) {
    OX_WARN("Component: %d%%", 42);
    EXPECT_THAT(
        text(),
        MatchesRegex("\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}\\] "
                     "\\[WARN \\] Component: 42%\n"));
    for (const size_t length : {size_t{0}, size_t{2047}, size_t{100'000}}) {
        OX_ERROR("%s", std::string(length, 'x').c_str());
        EXPECT_THAT(text(), EndsWith("] [ERROR] " +
                                     std::string(std::min<size_t>(length, 2047), 'x') + "\n"));
    }
}

TEST_F(Log, FileIsRotatedBeyondTheLimitAndFourGenerationsAreKept) {
    for (int64_t beyond = 0; beyond <= 1; ++beyond) {
        close();
        std::ofstream(path_).close();
        fs::resize_file(path_, static_cast<uintmax_t>(kLimit + beyond));
        open(path_);
        OX_INFO("first");
        EXPECT_EQ(fs::exists(rotated_log_name(path_, 1)), beyond == 1);
        EXPECT_EQ(log_sinks().bytes, static_cast<int64_t>(fs::file_size(path_)));
    }
    for (int generation = 0; generation <= 5; ++generation) {
        log_sinks().bytes = kLimit + 1;
        OX_INFO("generation %d", generation);
    }
    for (int slot = 0; slot <= 3; ++slot)
        EXPECT_THAT(text(slot), EndsWith("generation " + std::to_string(5 - slot) + "\n"));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 4);
}

TEST_F(Log, RedirectedStderrFollowsTheRotation) {
    const test::RedirectedFd redirected(STDERR_FILENO, ::fileno(log_sinks().file));
    log_sinks().stderr_redirected = true;
    log_sinks().bytes = kLimit + 1;
    OX_INFO("fresh file");
    ASSERT_EQ(::write(STDERR_FILENO, "chatter\n", 8), 8);
    EXPECT_THAT(text(), EndsWith("fresh file\nchatter\n"));
    EXPECT_EQ(text(1), "");
}

TEST_F(Log, LinesLostToAFullDiskCountButADeviceIsNotRotated) {
    fs::create_symlink("/dev/full", dir_.file("full.log"));
    open(dir_.file("full.log"));
    const int64_t before = log_sinks().bytes;
    OX_INFO("lost");
    EXPECT_GT(log_sinks().bytes, before);
    log_sinks().bytes = kLimit + 1;
    OX_INFO("lost too");
    EXPECT_TRUE(fs::is_symlink(dir_.file("full.log"))) << "a device is not rotated away";
}

TEST(LogPath, StateFolderFollowsTheEnvironmentAndIsPrivate) {
    const test::TempDir dir;
    const std::string base = dir.path().string();
    const std::tuple<std::optional<std::string>, std::optional<std::string>, std::string> cases[] =
        {{base + "/state", base + "/unused", base + "/state"},
         {"relative", base, base + "/.local/state"},
         {std::nullopt, base, base + "/.local/state"},
         {std::nullopt, std::nullopt, "/tmp"}};
    for (const auto& [state_home, home_folder, folder] : cases) {
        const test::Environment state("XDG_STATE_HOME", state_home);
        const test::Environment home("HOME", home_folder);
        EXPECT_EQ(state_log_path(), folder + "/orvex/agent.log");
        EXPECT_TRUE(fs::is_directory(folder + "/orvex"));
    }
    for (const char* made : {"/state", "/state/orvex", "/.local", "/.local/state/orvex"})
        EXPECT_EQ(fs::status(base + made).permissions(), fs::perms::owner_all) << made;
    EXPECT_FALSE(fs::exists(base + "/unused"));
}

}  // namespace
}  // namespace ox
