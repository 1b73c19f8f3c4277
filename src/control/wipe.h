#pragma once

#include <sodium.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ox {

/// Overwrites a secret's bytes and empties it; unlike a plain clear() no compiler drops this.
inline void wipe(std::string& secret) noexcept {
    ::sodium_memzero(secret.data(), secret.size());
    secret.clear();
}
inline void wipe(std::vector<uint8_t>& secret) noexcept {
    ::sodium_memzero(secret.data(), secret.size());
    secret.clear();
}

}  // namespace ox
