#pragma once

#include "app/options.h"

namespace ox {

class DesktopNotice;
class IdleWatch;

/// Serves one launcher after another until the shutdown flag is set.
void run_standalone(const Options& options, DesktopNotice& desktop, IdleWatch& idle);

}  // namespace ox
