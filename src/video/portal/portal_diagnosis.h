#pragma once

#include "video/diagnosis.h"
#include "video/portal/portal_bus.h"

namespace ox::portal {

/// No connection to the session bus; the error itself is logged already.
Diagnosis diagnose_no_bus();

/// A request that was not granted. Empty when there is nothing to add to the bus's error.
Diagnosis diagnose(const RequestResult& result);

/// No connection to PipeWire; `error` is the portal's, if it gave one.
Diagnosis diagnose_no_pipewire(const std::string& error);

void log_diagnosis(const Diagnosis& diagnosis);

}  // namespace ox::portal
