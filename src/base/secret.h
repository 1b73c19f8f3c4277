#pragma once

#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace ox {

/// Unlike a plain clear(), the compiler cannot optimise this away.
inline void wipe(std::string& text) noexcept {
    ::sodium_memzero(text.data(), text.size());
    text.clear();
}

/// A key, a token, a line with keys in it. Move-only, with an explicit copy; released memory is
/// always overwritten.
class Secret {
  public:
    Secret() noexcept = default;
    explicit Secret(size_t size) { resize(size); }
    explicit Secret(std::span<const uint8_t> bytes) { append(bytes); }
    explicit Secret(std::string_view text) { append(text); }
    Secret(Secret&& other) noexcept
        : bytes_(std::move(other.bytes_)),
          size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    Secret& operator=(Secret&& other) noexcept {
        if (this == &other) return *this;
        clear();
        bytes_ = std::move(other.bytes_);
        size_ = std::exchange(other.size_, 0);
        capacity_ = std::exchange(other.capacity_, 0);
        return *this;
    }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { clear(); }

    [[nodiscard]] Secret copy() const { return Secret(std::span<const uint8_t>(*this)); }

    void clear() noexcept {
        if (bytes_) ::sodium_memzero(bytes_.get(), capacity_);
        bytes_.reset();
        size_ = capacity_ = 0;
    }
    void reserve(size_t capacity) {
        if (capacity <= capacity_) return;
        auto larger = std::make_unique<uint8_t[]>(capacity);
        std::copy_n(bytes_.get(), size_, larger.get());
        const size_t size = size_;
        clear();
        bytes_ = std::move(larger);
        size_ = size;
        capacity_ = capacity;
    }
    /// Truncates, or appends zero bytes.
    void resize(size_t size) {
        reserve(size);
        // Bytes beyond the size are always zero.
        if (size < size_) ::sodium_memzero(bytes_.get() + size, size_ - size);
        size_ = size;
    }
    void append(std::span<const uint8_t> bytes) {
        if (size_ + bytes.size() > capacity_) reserve(std::max(size_ + bytes.size(), 2 * size_));
        std::copy(bytes.begin(), bytes.end(), bytes_.get() + size_);
        size_ += bytes.size();
    }
    void append(std::string_view text) {
        append({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    }

    [[nodiscard]] uint8_t* data() noexcept { return bytes_.get(); }
    [[nodiscard]] const uint8_t* data() const noexcept { return bytes_.get(); }
    [[nodiscard]] size_t size() const noexcept { return size_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
    [[nodiscard]] uint8_t* begin() noexcept { return data(); }
    [[nodiscard]] uint8_t* end() noexcept { return data() + size_; }
    [[nodiscard]] const uint8_t* begin() const noexcept { return data(); }
    [[nodiscard]] const uint8_t* end() const noexcept { return data() + size_; }
    [[nodiscard]] std::string_view text() const noexcept {
        return {reinterpret_cast<const char*>(data()), size_};
    }

    /// In constant time for equal sizes.
    [[nodiscard]] friend bool operator==(const Secret& a, std::span<const uint8_t> b) noexcept {
        return a.size() == b.size() &&
               (a.empty() || ::sodium_memcmp(a.data(), b.data(), b.size()) == 0);
    }
    [[nodiscard]] friend bool operator==(const Secret& a, const Secret& b) noexcept {
        return a == std::span<const uint8_t>(b);
    }

  private:
    std::unique_ptr<uint8_t[]> bytes_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

/// A secret of fixed length that cannot be moved, overwritten on destruction.
template <size_t N>
class SecretArray {
  public:
    SecretArray() noexcept = default;
    explicit SecretArray(std::span<const uint8_t, N> bytes) noexcept { assign(bytes); }
    SecretArray(const SecretArray&) = delete;
    SecretArray& operator=(const SecretArray&) = delete;
    ~SecretArray() { ::sodium_memzero(bytes_.data(), N); }

    void assign(std::span<const uint8_t, N> bytes) noexcept {
        std::copy(bytes.begin(), bytes.end(), bytes_.begin());
    }
    [[nodiscard]] const uint8_t* data() const noexcept { return bytes_.data(); }
    [[nodiscard]] static constexpr size_t size() noexcept { return N; }

  private:
    std::array<uint8_t, N> bytes_{};
};

}  // namespace ox
