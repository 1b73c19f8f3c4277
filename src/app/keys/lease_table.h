#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ox {

/// Identifies a master key without revealing it.
using KeyId = std::array<uint8_t, 16>;

/// The id of a 32-byte master key: subkey 1 of libsodium's crypto_kdf with the context "oxlease1",
/// which is independent of the session's keys.
KeyId key_id(std::span<const uint8_t> master_key);

/// The first frame number and audio sequence number that are certainly unused, 0 to 2^32.
struct LeaseEnd {
    uint64_t frames = 0;
    uint64_t audio = 0;
    bool operator==(const LeaseEnd&) const = default;
};

/// The leases of the keys used last. As text: "orvex key leases 1", then for each key, the last
/// used one last, a line (id in hex, ends of the frame and audio numbers, check sum), then "end".
class LeaseTable {
  public:
    static constexpr size_t kMaxKeys = 64;
    static constexpr uint64_t kUsedUp = uint64_t{1} << 32;

    /// Sets `damaged` when anything is not as `text` writes it. What can be read is still used; a
    /// key with invalid numbers counts as used up.
    static LeaseTable parse(std::string_view text, bool& damaged);
    [[nodiscard]] std::string text() const;

    [[nodiscard]] LeaseEnd end_of(const KeyId& key) const;
    [[nodiscard]] size_t size() const { return entries_.size(); }

    /// Makes `key` the last used one; beyond `kMaxKeys` the least recently used is dropped.
    void raise(const KeyId& key, const LeaseEnd& end);
    /// Adds the leases of `other`. The order of the keys in both stays.
    void merge(const LeaseTable& other);

    /// Numbers from `first` to `end`, excluding it.
    struct Claim {
        LeaseEnd first;
        LeaseEnd end;
    };
    /// Leases the next `step` numbers of `key`, or what is left of them. Audio starts at a multiple
    /// of four, a block of its repair packets.
    Claim claim(const KeyId& key, const LeaseEnd& step);

  private:
    struct Entry {
        KeyId key{};
        LeaseEnd end;
    };
    [[nodiscard]] std::vector<Entry>::iterator find(const KeyId& key);

    std::vector<Entry> entries_;  ///< the one used last at the end
};

}  // namespace ox
