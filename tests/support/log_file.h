#pragma once

#include <chrono>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/eventually.h"

namespace ox::test {

/// Reader of a text file that another process is writing.
class LogFile {
  public:
    explicit LogFile(std::string path) : path_(std::move(path)) {}

    /// The complete lines so far that contain `with`.
    [[nodiscard]] std::vector<std::string> lines(std::string_view with = "") const {
        std::ifstream in(path_, std::ios::binary);
        std::vector<std::string> result;
        for (std::string line; std::getline(in, line) && !in.eof();) {
            if (line.find(with) != std::string::npos) result.push_back(line);
        }
        return result;
    }
    [[nodiscard]] size_t count(std::string_view text) const { return lines(text).size(); }

    /// Waits until `times` lines contain `text` and returns the last of them; nothing on a timeout.
    [[nodiscard]] std::optional<std::string> wait_for(std::string_view text,
                                                      std::chrono::milliseconds timeout,
                                                      size_t times = 1) const {
        const auto came = [&] { return count(text) >= times; };
        return eventually(came, timeout) ? std::optional(lines(text)[times - 1]) : std::nullopt;
    }

  private:
    std::string path_;
};

}  // namespace ox::test
