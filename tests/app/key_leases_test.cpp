// Packet numbers of keys that are used again: the table, its file, and failures of the file.

#include "app/keys/key_leases.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/keys/lease_file.h"
#include "app/keys/lease_table.h"
#include "base/unique_fd.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

using test::read_file;

constexpr uint64_t kUsedUp = LeaseTable::kUsedUp;
constexpr std::chrono::seconds kLong{20};
const auto kNever = [] { return false; };

std::vector<uint8_t> master(uint8_t n) {
    return std::vector<uint8_t>(32, n);
}

TEST(PacketNumbers, AreGivenOutOnceAndDoNotWrap) {
    constexpr uint64_t kEnd = PacketNumbers::kEnd;
    PacketNumbers numbers(kEnd - 6, kEnd - 4);
    numbers.add(0, kEnd - 3);         // all but one are known
    numbers.add(kEnd - 2, kEnd + 9);  // skips one
    EXPECT_EQ(numbers.left(), 5U);
    for (const uint32_t before_end : {6, 5, 4, 2, 1})
        EXPECT_EQ(numbers.take(), 0U - before_end);
    numbers.add(0, kEnd);
    EXPECT_EQ(numbers.take(), std::nullopt);
}

TEST(LeaseTable, KeepsTheLastUsedKeysAndNeverDecreases) {
    LeaseTable table;
    for (uint8_t n = 0; n < 70; ++n)
        table.raise(key_id(master(n)), {.frames = 1000U + n, .audio = 8});
    table.raise(key_id(master(6)), {.frames = 7, .audio = 12});  // the oldest one left
    table.raise(key_id(master(70)), {.frames = 1, .audio = 0});
    EXPECT_EQ(table.end_of(key_id(master(6))), (LeaseEnd{1006, 12}));
    EXPECT_EQ(table.end_of(key_id(master(7))), LeaseEnd{});
    EXPECT_EQ(table.size(), LeaseTable::kMaxKeys);

    LeaseTable other;
    other.raise(key_id(master(6)), {.frames = 5000, .audio = 0});
    table.merge(other);
    EXPECT_EQ(table.end_of(key_id(master(6))), (LeaseEnd{5000, 12}));

    // Audio begins with a block; claims stop at the last number.
    const KeyId key = key_id(master(99));
    table.raise(key, {.frames = kUsedUp - 10, .audio = 5});
    const LeaseTable::Claim last = table.claim(key, {.frames = 100, .audio = 40});
    EXPECT_EQ(last.first, (LeaseEnd{kUsedUp - 10, 8}));
    EXPECT_EQ(last.end, (LeaseEnd{kUsedUp, 48}));
    EXPECT_EQ(table.claim(key, {.frames = 100, .audio = 0}).first.frames, kUsedUp);
}

TEST(LeaseTable, NoDamageDecreasesAKeysNumbers) {
    LeaseTable table;
    const LeaseEnd ends[] = {{72000, 120000}, {kUsedUp, 4}, {9, 0}};
    for (uint8_t n = 0; n < 3; ++n)
        table.raise(key_id(master(n)), ends[n]);
    const std::string text = table.text();
    bool damaged = true;
    EXPECT_EQ(LeaseTable::parse(text, damaged).text(), text);
    EXPECT_FALSE(damaged);

    const auto examine = [&](const std::string& broken, int keys_lost) {
        const LeaseTable got = LeaseTable::parse(broken, damaged);
        EXPECT_TRUE(damaged) << broken;
        int lost = 0;
        for (uint8_t n = 0; n < 3; ++n) {
            const LeaseEnd end = got.end_of(key_id(master(n)));
            lost += end == LeaseEnd{} ? 1 : 0;
            EXPECT_TRUE(end == LeaseEnd{} || end == ends[n] || end == (LeaseEnd{kUsedUp, kUsedUp}));
        }
        EXPECT_LE(lost, keys_lost) << broken;
    };
    for (size_t i = 0; i < text.size(); ++i) {
        if (i + 1 < text.size()) examine(text.substr(0, i), 3);
        for (const char other : {'0', '9', ' ', '\n', '\0'}) {
            std::string broken = text;
            if (broken[i] == other) continue;
            broken[i] = other;
            examine(broken, 1);
        }
    }
    examine(text + "x", 0);
}

struct KeyLeasesTest : testing::Test {
    /// The first numbers of a session that ends at once.
    static LeaseEnd first_numbers(KeyLeases& leases, uint8_t key) {
        const auto numbers = leases.lease(master(key));
        leases.await(*numbers, kLong, kNever);
        return {numbers->video.peek().value_or(0), numbers->audio.peek().value_or(0)};
    }

    test::TempDir folder_;
    std::string file_ = folder_.file("key-leases");
    test::LogCapture log_;
};

TEST_F(KeyLeasesTest, EverySessionOfAKeyContinuesAlsoInAnotherProcess) {
    std::optional<KeyLeases> leases(folder_.path().string());
    EXPECT_EQ(first_numbers(*leases, 1), LeaseEnd{});
    EXPECT_EQ(first_numbers(*leases, 2), LeaseEnd{});
    EXPECT_EQ(first_numbers(*leases, 1), (LeaseEnd{72'000, 120'000}));
    leases.emplace(folder_.path().string());
    const auto numbers = leases->lease(master(1));
    leases->await(*numbers, kLong, kNever);
    EXPECT_EQ(numbers->video.peek(), 144'000U);
    // A lease is extended when half of it is used; sound, which used none, is not.
    for (int i = 0; i < 36'000; ++i)
        numbers->video.take();
    KeyLeases another(folder_.path().string());
    EXPECT_EQ(first_numbers(another, 1).frames, 216'000U) << "not extended yet";
    ASSERT_TRUE(test::eventually([&] { return numbers->video.left() > 36'000; }, kLong));
    // Without the numbers of the other agent.
    EXPECT_EQ(numbers->video.end(), 360'000U);
    EXPECT_EQ(numbers->audio.end(), 360'000U);
    for (int i = 0; i < 36'000; ++i)
        EXPECT_LT(numbers->video.take(), 216'000U);
    EXPECT_EQ(numbers->video.take(), 288'000U);

    EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms{0600});
    EXPECT_EQ(read_file(file_).find(std::string(16, '0')), std::string::npos) << "the key itself";
    EXPECT_EQ(log_.times("WARN"), 0) << log_.text();
}

TEST_F(KeyLeasesTest, ConcurrentAgentsGetDifferentNumbers) {
    constexpr int kEach = 40;
    std::set<uint64_t> firsts;
    std::mutex mutex;
    const auto agent = [&] {
        const LeaseFile file(folder_.path().string());
        for (int recorded = 0; recorded < kEach;) {
            const auto outcome = file.update([&](LeaseTable& table) {
                const auto claim = table.claim(key_id(master(1)), {.frames = 10});
                const std::lock_guard lock(mutex);
                firsts.insert(claim.first.frames);
            });
            // On a busy disk the others may hold the lock for too long.
            if (outcome.recorded()) ++recorded;
        }
    };
    { const std::jthread agents[]{std::jthread(agent), std::jthread(agent), std::jthread(agent)}; }
    EXPECT_EQ(firsts.size(), 3U * kEach);
    EXPECT_EQ(*firsts.rbegin(), 10U * (3 * kEach - 1));
}

TEST_F(KeyLeasesTest, WithoutAFileWarnsOnceAndKeepsNumbersApartWithinTheProcess) {
    const std::string cannot = "KeyLeases: cannot record used packet numbers in ";
    std::ofstream(folder_.file("file")) << "in the way";
    std::ofstream(folder_.file("elsewhere")) << "precious";
    for (const char* name : {"link", "pipe"})
        std::filesystem::create_directory(folder_.file(name));
    std::filesystem::create_symlink(folder_.file("elsewhere"), folder_.file("link/key-leases"));
    ASSERT_EQ(::mkfifo(folder_.file("pipe/key-leases").c_str(), 0600), 0);
    int warnings = 0;
    for (const char* place : {"file/below", "nowhere", "link", "pipe"}) {
        KeyLeases leases(folder_.file(place));
        EXPECT_EQ(first_numbers(leases, 1), LeaseEnd{});
        EXPECT_EQ(first_numbers(leases, 1), (LeaseEnd{72'000, 120'000}));
        EXPECT_EQ(log_.times(cannot), ++warnings) << log_.text();
    }
    EXPECT_EQ(read_file(folder_.file("elsewhere")), "precious");
}

TEST_F(KeyLeasesTest, SavesADamagedFileAndUsesWhatIsReadable) {
    for (const uint8_t key : {uint8_t{1}, uint8_t{2}}) {
        KeyLeases leases(folder_.path().string());
        first_numbers(leases, key);
    }
    const std::string whole = read_file(file_);
    const std::string torn = whole.substr(0, whole.size() - 12);  // in the last key's check sum
    std::ofstream(file_) << torn;
    ::chmod(file_.c_str(), 0400);
    KeyLeases leases(folder_.path().string());
    EXPECT_EQ(first_numbers(leases, 1).frames, 72'000U);
    EXPECT_EQ(log_.times("key-leases was damaged, 2 key(s) of it could be read"), 1) << log_.text();
    EXPECT_EQ(read_file(file_ + ".damaged"), torn);
    // Invalid numbers count as used up.
    const auto numbers = leases.lease(master(2));
    leases.await(*numbers, kLong, kNever);
    EXPECT_FALSE(numbers->video.peek() || numbers->audio.peek());
    EXPECT_EQ(log_.times("WARN"), 1) << log_.text();
}

TEST_F(KeyLeasesTest, ASlowRecordBlocksNobodyAndIsCaughtUp) {
    const UniqueFd lock(::open(folder_.file("key-leases.lock").c_str(), O_CREAT | O_RDWR, 0600));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    {
        KeyLeases leases(folder_.path().string());
        const auto numbers = leases.lease(master(1));
        leases.await(*numbers, std::chrono::milliseconds(10), kNever);
        EXPECT_EQ(numbers->video.peek(), 0U);
        EXPECT_EQ(log_.times("WARN"), 1) << log_.text();
        // The session uses up a lease while the record is still blocked.
        for (int i = 0; i < 70'000; ++i)
            numbers->video.take();
        leases.top_up(*numbers);
        EXPECT_EQ(numbers->video.left(), 74'000U);
        ASSERT_EQ(::flock(lock.get(), LOCK_UN), 0);
        ASSERT_TRUE(test::eventually([&] { return !read_file(file_).empty(); }));
    }
    KeyLeases next(folder_.path().string());
    EXPECT_EQ(first_numbers(next, 1), (LeaseEnd{144'000, 120'000}));
}

}  // namespace
}  // namespace ox
