#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ox {

/// The file with the portal's restore token: the token's bytes alone, readable by its owner only.
/// With the token the screen can be shared without a dialog.
class RestoreTokenFile {
  public:
    static constexpr size_t kMaxRead = 255;  ///< bytes of the file that are read

    explicit RestoreTokenFile(std::string path);

    /// "orvex/portal_restore_token" in `XDG_CONFIG_HOME` when that is absolute, else in
    /// "~/.config".
    static RestoreTokenFile of_user();

    [[nodiscard]] const std::string& path() const { return path_; }

    /// The token; nothing when there is no readable file, or when it is empty or not UTF-8, which
    /// D-Bus cannot carry.
    [[nodiscard]] std::optional<std::string> read() const;

    /// Replaces the file atomically, with mode 0600, and creates its folder with mode 0700. False,
    /// with the old file untouched, on failure.
    [[nodiscard]] bool write(std::string_view token) const;

    void remove() const;

  private:
    std::string path_;
};

}  // namespace ox
