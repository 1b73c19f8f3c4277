#pragma once

namespace ox {

/// Call once, in the main thread, before drivers load further libraries.
void record_linked_libraries();

/// Returns free heap memory and the unmodified code pages of the linked libraries to the system; a
/// page fault brings them back in about a microsecond. Libraries loaded later (drivers patch their
/// code) and pages written to (overlays patch functions) would lose changes and are left alone.
void trim_memory();

}  // namespace ox
