#include "control/token_check.h"

#include <sodium.h>

#include <array>

#include "base/secret.h"

namespace ox {
namespace {

// Of the "C" locale, whatever the process has chosen.
char to_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool token_matches(std::string_view token, const std::string& expected_sha256_hex) {
    constexpr size_t kHexLength = size_t{2} * crypto_hash_sha256_BYTES;
    Secret digest(crypto_hash_sha256_BYTES);
    std::array<char, kHexLength + 1> hex{};
    ::crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(token.data()),
                         token.size());
    ::sodium_bin2hex(hex.data(), hex.size(), digest.data(), digest.size());

    std::string expected = expected_sha256_hex;
    for (char& c : expected)
        c = to_lower(c);
    return expected.size() == kHexLength &&
           ::sodium_memcmp(expected.data(), hex.data(), kHexLength) == 0;
}

}  // namespace ox
