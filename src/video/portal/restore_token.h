#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ox {

/// The file that keeps the portal's restore token between sessions: the token's bytes and nothing
/// else, readable by its owner only. Whoever holds the token can share the screen without a dialog.
class RestoreTokenFile {
  public:
    static constexpr size_t kMaxRead = 255;  ///< bytes of the file that are looked at

    explicit RestoreTokenFile(std::string path);

    /// "orvex/portal_restore_token" below `XDG_CONFIG_HOME` when that is absolute, else below
    /// "~/.config", the home folder being `HOME` or, without it, the one of the user database.
    static RestoreTokenFile of_user();

    [[nodiscard]] const std::string& path() const { return path_; }

    /// The token, or nothing when there is no readable file or its text cannot be sent (empty, or
    /// not UTF-8, which is all that D-Bus carries).
    [[nodiscard]] std::optional<std::string> read() const;

    /// Replaces the file as a whole, with mode 0600, and creates its folder with mode 0700. False
    /// when that does not work; the old file is untouched then.
    [[nodiscard]] bool write(std::string_view token) const;

    void remove() const;

  private:
    std::string path_;
};

}  // namespace ox
