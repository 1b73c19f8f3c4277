#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace ox {

/// Cuts a byte stream into lines with bounded memory: at most `longest` bytes of an unfinished line
/// are kept, of a longer one only its length. Bytes go in through `feed` cut in any way.
class LineSplitter {
  public:
    struct Line {
        std::string_view text;  ///< without line feed; empty when the line was too long
        size_t length = 0;      ///< bytes that were sent, also of a line too long
    };

    explicit LineSplitter(size_t longest);

    /// Calls `on_line` for each line that `bytes` complete, in order. Its text is valid during the
    /// call only.
    void feed(std::string_view bytes, const std::function<void(const Line&)>& on_line);

  private:
    void keep(std::string_view part);

    size_t longest_;
    std::string kept_;   ///< start of the unfinished line; empty once it is too long
    size_t length_ = 0;  ///< length of the unfinished line so far
};

}  // namespace ox
