#pragma once

#include <string>
#include <string_view>

namespace ox {

/// `text` from outside as it may be logged: nothing that does not show, so that a launcher can
/// neither forge log lines nor drive the terminal. The log bounds the length of its lines itself.
std::string printable(std::string_view text);

/// What a JSON library's error message may tell the log. Its quotes of the input are cut off: a
/// half-written auth line would show the token.
std::string without_input(std::string_view error_message);

}  // namespace ox
