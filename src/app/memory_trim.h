#pragma once

namespace ox {

/// Records which libraries the program links: those that are loaded now. Called once, by the main
/// thread, before drivers load further ones.
void record_linked_libraries();

/// Returns free heap memory and the unmodified code pages of the linked libraries to the system.
/// What is used again is read from the page cache, at about a microsecond for each page fault.
///
/// Modified pages would be lost. So libraries that were loaded later (drivers patch their own code)
/// and pages that were written to (overlays patch functions) are left alone.
void trim_memory();

}  // namespace ox
