#include "transport/debug_drop.h"

#include <sys/random.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>

namespace ox {
namespace {

// Unlike std::random_device this cannot throw. The engine itself turns a zero seed into 1.
uint32_t random_seed() {
    uint32_t seed = 0;
    if (::getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed) return 1;
    return seed;
}

}  // namespace

int parse_drop_percent(const char* text) {
    if (text == nullptr) return 0;
    const char* const end = text + std::strlen(text);
    int percent = 0;
    const auto [stop, error] = std::from_chars(text, end, percent);
    if (error != std::errc{} || stop != end) return 0;
    return percent >= 1 && percent <= 99 ? percent : 0;
}

bool draw_debug_drop() {
    static const auto percent =
        static_cast<uint32_t>(parse_drop_percent(std::getenv("OX_DEBUG_DROP_PCT")));
    if (percent == 0) return false;
    thread_local std::minstd_rand generator(random_seed());
    return percent > generator() % 100;
}

}  // namespace ox
