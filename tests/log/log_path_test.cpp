#include "log/log_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/environment.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

namespace fs = std::filesystem;
using test::Environment;

TEST(LogPath, RotatedNamesKeepTheExtensionOfTheFileOnly) {
    struct Case {
        const char* path;
        int n;
        const char* expected;
    };
    const Case cases[] = {
        {"agent.log", 1, "agent.1.log"},
        {"/srv/my.logs/agent", 2, "/srv/my.logs/agent.2"},
        {"a.b.log", 12, "a.b.12.log"},
        {"/logs/.hidden", 1, "/logs/.1.hidden"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(rotated_log_name(c.path, c.n), c.expected) << c.path;
}

TEST(LogPath, GivenFileWinsAndElseTheProgramsFolder) {
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
    const Environment given("OX_LOG_FILE", "relative/file");
    EXPECT_EQ(default_log_path(), "relative/file");
    const Environment empty("OX_LOG_FILE", "");
    EXPECT_EQ(default_log_path(), folder / "agent.log");
}

TEST(LogPath, StateFolderFollowsTheEnvironmentAndIsPrivate) {
    const test::TempDir dir;
    const std::string base = dir.path().string();
    struct Case {
        std::optional<std::string> state;
        std::optional<std::string> home;
        std::string folder;
    };
    const Case cases[] = {
        {base + "/state", base + "/unused", base + "/state"},
        {"relative", base, base + "/.local/state"},
        {std::nullopt, base, base + "/.local/state"},
        {std::nullopt, std::nullopt, "/tmp"},
    };
    for (const Case& c : cases) {
        const Environment state("XDG_STATE_HOME", c.state);
        const Environment home("HOME", c.home);
        const fs::path expected = c.folder + "/orvex/agent.log";
        EXPECT_EQ(state_log_path(), expected);
        EXPECT_TRUE(fs::is_directory(expected.parent_path()));
    }
    for (const char* made : {"/state", "/state/orvex", "/.local", "/.local/state/orvex"}) {
        struct stat info {};
        ASSERT_EQ(::stat((base + made).c_str(), &info), 0) << made;
        EXPECT_EQ(info.st_mode & 0777U, 0700U) << made;
    }
    EXPECT_FALSE(fs::exists(base + "/unused"));
}

}  // namespace
}  // namespace ox
