// The parts of the portal's capture that need no desktop.

#include <gtest/gtest.h>
#include <spa/buffer/buffer.h>
#include <spa/param/buffers.h>
#include <spa/pod/iter.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <vector>

#include "support/environment.h"
#include "support/temp_dir.h"
#include "video/portal/restore_token.h"
#include "video/portal/share_watch.h"
#include "video/portal/stream_format.h"

namespace ox::portal {
namespace {

namespace fs = std::filesystem;

TEST(RestoreToken, IsReplacedAtomicallyAndReadableByItsOwnerOnly) {
    constexpr auto kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;
    const test::TempDir dir;
    const RestoreTokenFile file(dir.file("config/orvex/portal_restore_token"));
    EXPECT_EQ(file.read(), std::nullopt);
    ASSERT_TRUE(file.write("a much longer first token"));
    EXPECT_EQ(fs::status(file.path()).permissions(), kOwnerOnly);
    EXPECT_EQ(fs::status(dir.file("config/orvex")).permissions(), fs::perms::owner_all);
    EXPECT_EQ(file.read(), "a much longer first token");

    // A link to the old file keeps the old token, whole.
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

TEST(RestoreToken, OnlyTextThatCanBeSentIsAToken) {
    const test::TempDir dir;
    const RestoreTokenFile file(dir.file("token"));
    for (const auto& [content, token] :
         {std::pair{std::string(300, 'x'), std::optional(std::string(255, 'x'))},
          {std::string(254, 'x') + "é", std::nullopt},  // cut within a character
          {"\xFF\xFE", std::nullopt},
          {"ключ", "ключ"}}) {
        std::ofstream(file.path()) << content;
        EXPECT_EQ(file.read(), token) << content;
    }
    const RestoreTokenFile pipe(dir.file("pipe"));
    ASSERT_EQ(::mkfifo(pipe.path().c_str(), 0600), 0);
    EXPECT_EQ(pipe.read(), std::nullopt) << "and does not wait for a writer";
}

TEST(RestoreToken, IsInTheUsersConfigurationFolder) {
    const test::Environment home("HOME", "/home/anna");
    for (const auto& [config, path] :
         {std::pair{"/cfg", "/cfg/orvex/"}, {"relative", "/home/anna/.config/orvex/"}}) {
        const test::Environment variable("XDG_CONFIG_HOME", config);
        EXPECT_EQ(RestoreTokenFile::of_user().path(), std::string(path) + "portal_restore_token");
    }
}

// Sequences observed on real desktops, and ambiguous ones. Events by millisecond: 'p' paused, 'r'
// running again, 'c' closed, 'd' a disturbance, 'o' the portal confirms the session.
TEST(ShareWatch, AnEndIsTheOwnersUnlessSomethingElseExplainsIt) {
    using Verdict = ShareWatch::Verdict;
    const std::tuple<const char*, std::map<int, char>, int, Verdict> cases[] = {
        {"stop", {{0, 'p'}, {70, 'c'}}, 69, Verdict::Paused},
        {"stop", {{0, 'p'}, {70, 'c'}}, 999, Verdict::Closing},
        {"a monitor was turned", {{0, 'd'}, {15, 'c'}, {20, 'p'}}, 15, Verdict::Lost},
        {"a monitor was turned", {{0, 'c'}, {999, 'd'}}, 999, Verdict::Lost},
        {"turned long before the stop", {{0, 'd'}, {1001, 'c'}}, 2001, Verdict::Stopped},
        {"turned too late to be the cause", {{0, 'c'}, {1001, 'd'}}, 1001, Verdict::Stopped},
        {"a new size", {{0, 'd'}, {10, 'p'}, {160, 'r'}}, 5000, Verdict::Runs},
        {"the compositor died", {{0, 'p'}, {5, 'd'}}, 999, Verdict::Paused},
        {"the compositor died", {{0, 'p'}, {5, 'd'}}, 1000, Verdict::Lost},
        {"the portal still has it", {{0, 'p'}, {310, 'o'}}, 1000, Verdict::Lost},
        {"closed when asked", {{0, 'p'}, {310, 'o'}, {320, 'c'}}, 1000, Verdict::Stopped},
        {"no information", {{0, 'p'}}, 1000, Verdict::Stopped},
        {"no way back from a close", {{0, 'p'}, {70, 'c'}, {100, 'r'}}, 1000, Verdict::Stopped},
        {"paused before", {{0, 'p'}, {310, 'o'}, {400, 'r'}, {900, 'p'}}, 1900, Verdict::Stopped},
    };
    for (const auto& [name, events, seen_ms, verdict] : cases) {
        ShareWatch watch;
        bool runs = true;
        for (int ms = 0; ms <= seen_ms; ++ms) {
            const ShareWatch::Time now{std::chrono::hours(1) + std::chrono::milliseconds(ms)};
            const auto what = events.contains(ms) ? events.at(ms) : ' ';
            if (what == 'p' || what == 'r') runs = what == 'r';
            if (what == 'c') watch.session_closed(now);
            if (what == 'd') watch.disturbance(now);
            if (what == 'o') {
                EXPECT_FALSE(watch.should_query_session(now)) << "queried already";
                watch.session_confirmed();
            }
            watch.stream_state(runs, now);
            watch.should_query_session(now);
            const Verdict at_last = watch.verdict(now);
            if (ms < seen_ms) continue;
            EXPECT_EQ(at_last, verdict) << name << " " << seen_ms;
        }
    }
}

TEST(StreamFormat, APictureHasToBeWholeInTheMappedMemory) {
    constexpr PictureSize kSize{10, 4};  // rows of 40 bytes
    constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
    std::vector<uint8_t> memory(200);
    const std::tuple<uint32_t, uint32_t, uint32_t, int32_t, int32_t, std::optional<size_t>>
        cases[] = {
            {160, 0, 160, 40, 0, 40},
            {160, 0, 160, 0, 0, 40},   // no stride: rows without padding
            {172, 0, 172, 44, 0, 44},  // the last row has no padding
            {200, 28, 172, 44, 0, 44},
            {171, 0, 172, 44, 0, {}},
            {200, 0, 160, 39, 0, {}},  // rows that overlap
            {200, 0, 160, kMin, 0, {}},
            {160, 0, 0, 40, 0, {}},
            {160, 0, 160, 40, SPA_CHUNK_FLAG_CORRUPTED, {}},
        };
    for (const auto& [maxsize, offset, size, stride, flags, taken_stride] : cases) {
        spa_chunk chunk{.offset = offset, .size = size, .stride = stride, .flags = flags};
        spa_data block{};
        block.maxsize = maxsize;
        block.data = memory.data();
        block.chunk = &chunk;
        const auto picture = picture_in(block, kSize);
        EXPECT_EQ(picture ? std::optional(picture->stride) : std::nullopt, taken_stride)
            << maxsize << " " << offset << " " << size << " " << stride;
        EXPECT_EQ(picture ? picture->rows : nullptr,
                  taken_stride ? memory.data() + offset : nullptr);
        block.data = nullptr;
        EXPECT_FALSE(picture_in(block, kSize));
        EXPECT_FALSE(picture_in(block, {}));
    }
}

// A compositor with pictures in graphics memory copies them for clients that request other memory.
TEST(StreamFormat, GraphicsMemoryWhichCannotBeMappedIsNotRequested) {
    ParamMemory memory;
    const spa_pod_prop* types =
        spa_pod_find_prop(buffer_params(memory), nullptr, SPA_PARAM_BUFFERS_dataType);
    ASSERT_NE(types, nullptr);
    const auto* flags = static_cast<const int*>(SPA_POD_CHOICE_VALUES(&types->value));
    EXPECT_EQ(*flags & 1 << SPA_DATA_DmaBuf, 0);
}

}  // namespace
}  // namespace ox::portal
