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

std::string hex(const Bytes& bytes) {
    std::string text(2 * bytes.size() + 1, '\0');
    ::sodium_bin2hex(text.data(), text.size(), bytes.data(), bytes.size());
    text.pop_back();
    return text;
}

Bytes counting(size_t size) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

// Keyed BLAKE2b of no input, 32 bytes long, with the subkey id (8 bytes, little-endian) as salt and
// the context as personalisation, both padded with zeros; made with Python's hashlib.blake2b for
// the master key 00 01 .. 1f.
TEST(SessionKeys, DerivedFromAMasterKey) {
    const test::LogCapture log;
    SessionKeySet keys;
    keys.video_key = counting(40);  // left by something else
    keys.audio_key = counting(3);
    for (int again = 0; again < 2; ++again) {
        keys.generate(counting(32));
        EXPECT_EQ(hex(keys.video_key),
                  "b09916556635ca25ea0a6f21d74743e288ae64c2e70052eb90b47fcdf60d97e8");
        EXPECT_EQ(hex(keys.audio_key),
                  "32dc3f7dbc57c6889b265418b80d1f1915d656a14381d52b8f82f1a2917542b2");
        EXPECT_EQ(hex(keys.input_key),
                  "4e804dc5cabada93669156020666f363d6d50ae551c9beb16934692374319547");
    }
    EXPECT_EQ(
        log.count("INFO",
                  "TcpControlServer: derived 3x 32-byte session keys from SaaS master (HKDF)"),
        2);
}

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

// RFC 4648 section 10.
TEST(SessionKeys, Base64) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xfb\xff\xbf", "+/+/"}};
    for (const auto& [bytes, text] : rows) {
        EXPECT_EQ(to_base64(Bytes(bytes.begin(), bytes.end())), text);
    }
}

}  // namespace
}  // namespace ox
