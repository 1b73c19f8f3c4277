#pragma once

#include <string>
#include <string_view>

namespace ox {

/// What a JSON library's error message may tell the log. Its quotes of the input are cut off: a
/// half-written auth line would show the token.
std::string without_input(std::string_view error_message);

}  // namespace ox
