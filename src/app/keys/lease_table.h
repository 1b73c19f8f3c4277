#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ox {

/// Stands for a master key without giving it away.
using KeyId = std::array<uint8_t, 16>;

/// The id of a 32-byte master key: libsodium's crypto_kdf, subkey 1 with the context "oxlease1", so
/// that it has nothing in common with the session's keys.
KeyId key_id(std::span<const uint8_t> master_key);

/// Up to where the packet numbers of a key may have been used: the first frame number and the first
/// audio sequence number that certainly were not. 0 to 2^32.
struct LeaseEnd {
    uint64_t frames = 0;
    uint64_t audio = 0;
    bool operator==(const LeaseEnd&) const = default;
};

/// Which packet numbers of which keys are spoken for, of the keys that were used last. A plain
/// value; its text is what the file holds.
///
/// The text: "orvex key leases 1", then one line for each key, the one used last at the bottom (id
/// in hex, end of the frame numbers, end of the audio numbers, check sum of the line), then "end".
class LeaseTable {
  public:
    static constexpr size_t kMaxKeys = 64;
    /// Used up; no number there is reaches it.
    static constexpr uint64_t kUsedUp = uint64_t{1} << 32;

    /// Reads a text. `damaged` when anything is not as `text` writes it: what can be read is kept
    /// all the same, and a key with numbers that cannot be trusted is taken for used up.
    static LeaseTable parse(std::string_view text, bool& damaged);
    [[nodiscard]] std::string text() const;

    [[nodiscard]] LeaseEnd end_of(const KeyId& key) const;
    [[nodiscard]] size_t size() const { return entries_.size(); }

    /// Makes `key` the one used last, its numbers up to `end` spoken for; an end never goes back.
    /// Drops the key that was not used for longest when there is one too many.
    void raise(const KeyId& key, const LeaseEnd& end);
    /// Takes over what `other` knows. Of the keys in both the order stays.
    void merge(const LeaseTable& other);

    /// Numbers that nobody else has: from `first` up to `end`, without it.
    struct Claim {
        LeaseEnd first;
        LeaseEnd end;
    };
    /// Claims the next `step` numbers of `key`, fewer when they come to their end. Audio starts at
    /// a multiple of four, with a block of its repair packets.
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
