#pragma once

#include "app/options.h"
#include "saas/saas_config.h"

namespace ox {

class DesktopNotice;
class IdleWatch;

/// Runs the sessions that the platform's backend prepares, until the shutdown flag is set.
void run_platform(const Options& options, const PlatformEndpoint& endpoint,
                  const SystemInfo& system_info, DesktopNotice& desktop, IdleWatch& idle);

}  // namespace ox
