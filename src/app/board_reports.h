#pragma once

#include <cstdint>

#include "saas/saas_connector.h"

// What the parts of the program report, as the status board shows it. Any thread may call.

namespace ox {

/// What came of binding a port of the session: `error` is 0 or the errno of the failure.
void report_bound_port(uint16_t port, int error);

/// What came of listening on the control port; the same.
void report_control_port(uint16_t port, int error);

void report_platform_link(LinkEvent event);

}  // namespace ox
