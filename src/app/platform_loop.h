#pragma once

#include "app/options.h"
#include "saas/platform_url.h"
#include "saas/system_info.h"

namespace ox {

class DesktopNotice;
class IdleWatch;

/// Stays attached to the platform's backend and runs one session for every one it prepares, until
/// the shutdown flag is set.
void run_platform(const Options& options, const PlatformEndpoint& endpoint,
                  const SystemInfo& system_info, DesktopNotice& desktop, IdleWatch& idle);

}  // namespace ox
