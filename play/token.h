#pragma once

#include <string>

#include "play/options.h"

namespace ox::play {

/// The session token: of the command line, the token file or ORVEX_TOKEN, else asked for on the
/// terminal. Empty, with a text for the user in `error`, when there is none.
std::string find_token(const Options& options, std::string& error);

}  // namespace ox::play
