#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace ox {

/// The messages that tell how sessions ended, kept to be told again after every reconnect. Holds
/// the newest `kMaxEntries`: a later one pushes out the one that was stored longest ago. Not
/// thread-safe.
class TerminalCache {
  public:
    static constexpr size_t kMaxEntries = 256;

    struct Entry {
        std::string text;
        uint64_t age = 0;  ///< running number of the `store` that wrote it
    };

    /// Stores `text`, in place of an entry with the same key.
    void store(const std::string& key, std::string text);

    /// In ascending order of the keys.
    [[nodiscard]] const std::map<std::string, Entry>& entries() const noexcept { return entries_; }

  private:
    std::map<std::string, Entry> entries_;
    uint64_t stored_ = 0;
};

}  // namespace ox
