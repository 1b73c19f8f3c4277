#pragma once

#include "app/options.h"

namespace ox {

class DesktopNotice;

/// Serves one launcher after another until the shutdown flag is set.
void run_standalone(const Options& options, DesktopNotice& desktop);

}  // namespace ox
