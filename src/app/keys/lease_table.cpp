#include "app/keys/lease_table.h"

#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace ox {
namespace {

constexpr std::string_view kHeader = "orvex key leases 1";
constexpr std::string_view kFooter = "end";
constexpr LeaseEnd kAllUsedUp{.frames = LeaseTable::kUsedUp, .audio = LeaseTable::kUsedUp};

template <size_t N>
std::string to_hex(const std::array<uint8_t, N>& bytes) {
    std::string hex(2 * N + 1, '\0');
    ::sodium_bin2hex(hex.data(), hex.size(), bytes.data(), N);
    hex.pop_back();  // the terminating zero
    return hex;
}

// Against damage, not against forgery.
std::string check_sum(std::string_view line) {
    constexpr std::array<uint8_t, crypto_shorthash_KEYBYTES> kKey{};
    std::array<uint8_t, crypto_shorthash_BYTES> sum{};
    ::crypto_shorthash(sum.data(), reinterpret_cast<const uint8_t*>(line.data()), line.size(),
                       kKey.data());
    return to_hex(sum);
}

/// Removes the text up to `separator`, or all of it, from `rest`.
std::string_view cut(std::string_view& rest, char separator) {
    const size_t end = std::min(rest.find(separator), rest.size());
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return part;
}

std::optional<KeyId> read_id(std::string_view hex) {
    KeyId id{};
    size_t size = 0;
    if (hex.size() != 2 * id.size() ||
        ::sodium_hex2bin(id.data(), id.size(), hex.data(), hex.size(), nullptr, &size, nullptr) !=
            0 ||
        size != id.size()) {
        return std::nullopt;
    }
    return id;
}

std::optional<uint64_t> read_number(std::string_view digits) {
    uint64_t number = 0;
    const char* end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number > LeaseTable::kUsedUp) {
        return std::nullopt;
    }
    return number;
}

/// The numbers behind the id in a line, if they are valid.
std::optional<LeaseEnd> read_numbers(std::string_view line, std::string_view rest) {
    const auto frames = read_number(cut(rest, ' '));
    const auto audio = read_number(cut(rest, ' '));
    const size_t checked = line.rfind(' ');
    if (!frames || !audio || rest != check_sum(line.substr(0, checked))) return std::nullopt;
    return LeaseEnd{.frames = *frames, .audio = *audio};
}

}  // namespace

KeyId key_id(std::span<const uint8_t> master_key) {
    KeyId id{};
    if (master_key.size() == crypto_kdf_KEYBYTES) {
        ::crypto_kdf_derive_from_key(id.data(), id.size(), 1, "oxlease1", master_key.data());
    }
    return id;
}

LeaseTable LeaseTable::parse(std::string_view text, bool& damaged) {
    LeaseTable table;
    damaged = cut(text, '\n') != kHeader;
    bool complete = false;
    while (!text.empty() && !complete) {
        const std::string_view line = cut(text, '\n');
        complete = line == kFooter;
        if (complete) break;
        std::string_view rest = line;
        const auto id = read_id(cut(rest, ' '));
        const auto end = id ? read_numbers(line, rest) : std::nullopt;
        if (id) table.raise(*id, end.value_or(kAllUsedUp));
        if (!end) damaged = true;
    }
    if (!complete || !text.empty()) damaged = true;
    return table;
}

std::string LeaseTable::text() const {
    std::string all(kHeader);
    all += '\n';
    for (const Entry& entry : entries_) {
        const std::string line = to_hex(entry.key) + ' ' + std::to_string(entry.end.frames) + ' ' +
                                 std::to_string(entry.end.audio);
        all.append(line).append(1, ' ').append(check_sum(line)).append(1, '\n');
    }
    return all.append(kFooter).append(1, '\n');
}

std::vector<LeaseTable::Entry>::iterator LeaseTable::find(const KeyId& key) {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&key](const Entry& entry) { return entry.key == key; });
}

LeaseEnd LeaseTable::end_of(const KeyId& key) const {
    for (const Entry& entry : entries_) {
        if (entry.key == key) return entry.end;
    }
    return {};
}

void LeaseTable::raise(const KeyId& key, const LeaseEnd& end) {
    Entry entry{.key = key, .end = end};
    if (const auto known = find(key); known != entries_.end()) {
        entry.end = {.frames = std::max(end.frames, known->end.frames),
                     .audio = std::max(end.audio, known->end.audio)};
        entries_.erase(known);
    }
    entries_.push_back(entry);
    if (entries_.size() > kMaxKeys) entries_.erase(entries_.begin());
}

void LeaseTable::merge(const LeaseTable& other) {
    for (const Entry& entry : other.entries_) {
        const auto known = find(entry.key);
        if (known == entries_.end()) {
            raise(entry.key, entry.end);
        } else {
            known->end = {.frames = std::max(known->end.frames, entry.end.frames),
                          .audio = std::max(known->end.audio, entry.end.audio)};
        }
    }
}

LeaseTable::Claim LeaseTable::claim(const KeyId& key, const LeaseEnd& step) {
    constexpr uint64_t kBlock = 4;
    Claim claim{.first = end_of(key), .end = {}};
    claim.first.audio = (claim.first.audio + kBlock - 1) / kBlock * kBlock;
    claim.end = {.frames = std::min(claim.first.frames + step.frames, kUsedUp),
                 .audio = std::min(claim.first.audio + step.audio, kUsedUp)};
    raise(key, claim.end);
    return claim;
}

}  // namespace ox
