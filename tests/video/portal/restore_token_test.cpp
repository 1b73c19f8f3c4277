#include "video/portal/restore_token.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/environment.h"
#include "support/temp_dir.h"

namespace ox::test {
namespace {

namespace fs = std::filesystem;

constexpr auto kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;

TEST(RestoreToken, IsReplacedAsAWholeAndReadableByItsOwnerOnly) {
    const TempDir dir;
    const RestoreTokenFile file(dir.file("config/orvex/portal_restore_token"));
    EXPECT_EQ(file.read(), std::nullopt);
    ASSERT_TRUE(file.write("a much longer first token"));
    EXPECT_EQ(fs::status(file.path()).permissions(), kOwnerOnly);
    EXPECT_EQ(fs::status(dir.file("config/orvex")).permissions(), fs::perms::owner_all);
    EXPECT_EQ(file.read(), "a much longer first token");

    // Whoever has the old file open or linked keeps the old one, whole.
    fs::create_hard_link(file.path(), dir.file("old"));
    fs::permissions(file.path(), fs::perms::all);
    ASSERT_TRUE(file.write("second\n"));
    EXPECT_EQ(file.read(), "second\n");
    EXPECT_EQ(fs::status(file.path()).permissions(), kOwnerOnly);
    EXPECT_EQ(RestoreTokenFile(dir.file("old")).read(), "a much longer first token");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path() / "config/orvex"), {}), 1)
        << "something was left behind";
    file.remove();
    EXPECT_EQ(file.read(), std::nullopt);
}

TEST(RestoreToken, OnlyWhatCanBeSentIsAToken) {
    const TempDir dir;
    const RestoreTokenFile file(dir.file("token"));
    for (const auto& [content, token] :
         {std::pair{std::string(300, 'x'), std::optional(std::string(255, 'x'))},
          {std::string(254, 'x') + "é", std::nullopt},  // cut in the middle of a letter
          {"\xFF\xFE", std::nullopt},
          {"ключ", "ключ"}}) {
        std::ofstream(file.path()) << content;
        EXPECT_EQ(file.read(), token) << content;
    }
    const RestoreTokenFile pipe(dir.file("pipe"));
    ASSERT_EQ(::mkfifo(pipe.path().c_str(), 0600), 0);
    EXPECT_EQ(pipe.read(), std::nullopt) << "and does not wait for a writer";
}

TEST(RestoreToken, LiesInTheUsersConfigurationFolder) {
    const Environment home("HOME", "/home/anna");
    for (const auto& [config, path] :
         {std::pair{"/cfg", "/cfg/orvex/"}, {"relative", "/home/anna/.config/orvex/"}}) {
        const Environment variable("XDG_CONFIG_HOME", config);
        EXPECT_EQ(RestoreTokenFile::of_user().path(), std::string(path) + "portal_restore_token");
    }
}

}  // namespace
}  // namespace ox::test
