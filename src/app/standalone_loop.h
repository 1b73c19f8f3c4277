#pragma once

#include "app/options.h"

namespace ox {

/// Serves one launcher after another until the shutdown flag is set.
void run_standalone(const Options& options);

}  // namespace ox
