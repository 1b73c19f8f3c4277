#include "control/session_keys.h"

#include <sodium.h>

#include <numeric>

#include "app/selftest/groups.h"
#include "app/selftest/launcher_side.h"

namespace ox::selftest {
namespace {

/// What a launcher that holds the master key computes.
bool is_subkey(const Secret& key, uint64_t id, const char* context,
               const std::vector<uint8_t>& master) {
    Secret expected(crypto_kdf_KEYBYTES);
    ::crypto_kdf_derive_from_key(expected.data(), expected.size(), id, context, master.data());
    return key == expected;
}

}  // namespace

void check_session_keys() {
    std::vector<uint8_t> master(crypto_kdf_KEYBYTES);
    std::iota(master.begin(), master.end(), uint8_t{0});
    SessionKeySet keys;
    keys.generate(master);
    SessionKeySet again;
    again.generate(master);

    check(keys.video_key == again.video_key && is_subkey(keys.video_key, 1, "oxvideo1", master),
          "same inputs → same subkey");
    check(keys.video_key != keys.audio_key && keys.audio_key != keys.input_key &&
              keys.video_key != keys.input_key &&
              is_subkey(keys.audio_key, 2, "oxaudio1", master) &&
              is_subkey(keys.input_key, 3, "oxinput1", master),
          "distinct subkey_ids → distinct keys");

    std::string hex(2 * keys.video_key.size() + 1, '\0');
    ::sodium_bin2hex(hex.data(), hex.size(), keys.video_key.data(), keys.video_key.size());
    hex.pop_back();  // the terminating zero
    note("video subkey (master=0..31)", hex);
    wipe(hex);
}

}  // namespace ox::selftest
