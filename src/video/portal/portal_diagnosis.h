#pragma once

#include "video/diagnosis.h"
#include "video/portal/portal_bus.h"

// What is behind the portal's failures and what helps, for the log.
namespace ox::portal {

/// No connection to the session bus, whose own words are logged already.
Diagnosis diagnose_no_bus();

/// A request that was not granted. Empty when there is nothing to add to what the bus said.
Diagnosis diagnose(const RequestResult& result);

/// No connection to PipeWire, `error` being the portal's words if it said any.
Diagnosis diagnose_no_pipewire(const std::string& error);

/// Logs a diagnosis that is not empty, as a warning.
void explain(const Diagnosis& diagnosis);

}  // namespace ox::portal
