#pragma once

#include <cstdint>
#include <string>

#include "control/session_keys.h"

namespace ox {

/// The answer to an accepted auth line. The text carries the keys: the caller wipes it.
std::string make_session_ready(const SessionKeySet& keys, uint32_t granted_caps);

}  // namespace ox
