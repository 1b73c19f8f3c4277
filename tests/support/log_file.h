#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ox::test {

/// Reader of a text file that another process is writing.
class LogFile {
  public:
    explicit LogFile(std::string path) : path_(std::move(path)) {}

    /// The whole lines so far (a line still being written is left out) that contain `with`.
    [[nodiscard]] std::vector<std::string> lines(std::string_view with = "") const;
    [[nodiscard]] size_t count(std::string_view text) const { return lines(text).size(); }

    /// Waits until at least `times` lines contain `text`; gives the `times`-th of them, or nothing
    /// when `timeout` passes.
    [[nodiscard]] std::optional<std::string> wait_for(std::string_view text,
                                                      std::chrono::milliseconds timeout,
                                                      size_t times = 1) const;

  private:
    std::string path_;
};

}  // namespace ox::test
