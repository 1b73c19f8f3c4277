#pragma once

#include <cstdint>

#include "base/secret.h"
#include "control/session_keys.h"

namespace ox {

/// The answer to an accepted auth line, with the keys.
Secret make_session_ready(const SessionKeySet& keys, uint32_t granted_caps);

}  // namespace ox
