#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ox {

/// The token with which the screen can be shared without a dialog: its bytes alone, mode 0600.
class RestoreTokenFile {
  public:
    static constexpr size_t kMaxRead = 255;  ///< bytes of the file that are read

    explicit RestoreTokenFile(std::string path);

    /// "orvex/portal_restore_token" in an absolute `XDG_CONFIG_HOME`, else in "~/.config".
    static RestoreTokenFile of_user();

    [[nodiscard]] const std::string& path() const { return path_; }

    /// Nothing without a readable file, or when it is empty or not UTF-8, which D-Bus cannot carry.
    [[nodiscard]] std::optional<std::string> read() const;

    /// Atomic; the folder gets mode 0700. False, with the old file untouched, on failure.
    [[nodiscard]] bool write(std::string_view token) const;

    void remove() const;

  private:
    std::string path_;
};

}  // namespace ox
