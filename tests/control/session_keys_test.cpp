#include "control/session_keys.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <numeric>
#include <set>
#include <string_view>

#include "support/log_capture.h"

namespace ox {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes counting(size_t size) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

// What is derived from a master key is pinned by the wire vectors.
TEST(SessionKeys, RandomWithoutAMasterKeyOfTheRightLength) {
    ASSERT_GE(::sodium_init(), 0);
    for (const size_t length : {0, 31, 33}) {
        const test::LogCapture log;
        SessionKeySet one;
        SessionKeySet other;
        one.generate(counting(length));
        other.generate(counting(length));
        const std::set<Bytes> keys{one.video_key,   one.audio_key,   one.input_key,
                                   other.video_key, other.audio_key, other.input_key};
        EXPECT_EQ(keys.size(), 6u) << "all different";
        EXPECT_EQ(keys.begin()->size(), 32u);
        EXPECT_EQ(log.count("DEBUG", "TcpControlServer: generated 3x 32-byte random session keys"),
                  2);
        EXPECT_EQ(log.text().find("WARN"), std::string::npos);
    }
}

}  // namespace
}  // namespace ox
