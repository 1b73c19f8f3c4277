#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "transport/encryption.h"
#include "transport/packetizer.h"

namespace ox::selftest {

void check(bool passed, const char* description);

void note(const char* label, const std::string& value);

struct Group {
    const char* heading;
    void (*run)();
};

/// A negative `init_crypto` ends the run before the first group. Returns 0 when all passed, else 1.
int run_groups(int (*init_crypto)(), std::span<const Group> groups);

// The groups. Where the set-up fails, the checks that need it fail too.
void check_media_packets();
void check_session_keys();
void check_input_packets();
void check_video_chain();
void check_audio_parity();
void check_reference_invalidation();
void check_low_delay_audio();

using Bytes = std::vector<uint8_t>;
using Key = std::array<uint8_t, 32>;

/// A key for checks alone; another one for each `seed`.
Key test_key(uint8_t seed);

/// A frame of five packets, the last of them for repair, when it is a keyframe or there is a ratio.
std::vector<OutgoingPacket> packetize_test_frame(bool keyframe, float repair_ratio);

Bytes seal_packet(const Encryption& encryption, const PacketHeader& header,
                  std::span<const uint8_t> plain);
std::optional<Bytes> open_packet(const Key& key, const PacketHeader& header,
                                 std::span<const uint8_t> sealed);

/// The 28 bytes of an input packet in clear.
using InputBytes = std::array<uint8_t, 28>;
/// The datagram in which a launcher sends them: nonce, ciphertext, tag.
Bytes seal_input(const Key& key, const InputBytes& packet);

/// Unsets an environment variable, and restores it at the end.
class ScopedVariable {
  public:
    explicit ScopedVariable(const char* name) : name_(name) {
        if (const char* value = std::getenv(name)) saved_ = value;
        ::unsetenv(name);
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    ~ScopedVariable() { saved_ ? set(saved_->c_str()) : static_cast<void>(::unsetenv(name_)); }

    void set(const char* value) const { ::setenv(name_, value, 1); }

  private:
    const char* name_;
    std::optional<std::string> saved_;
};

}  // namespace ox::selftest
