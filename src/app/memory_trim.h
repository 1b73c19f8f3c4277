#pragma once

namespace ox {

/// Notes which libraries the program itself links: those that are loaded now, when it has only just
/// started. Drivers and what they bring come later. Called once, by the main thread.
void note_linked_libraries();

/// Gives back what only the past needed: free heap, and the code and tables of the some hundred
/// libraries behind the media framework that nothing but their loading has touched. What is used
/// again comes back by page faults from the page cache, some hundred of about a microsecond.
///
/// Leaves alone what might have been changed in memory and would come back unchanged: libraries
/// that came later (drivers patch their own code), and pages that somebody has written to in the
/// others (overlays patch the functions that they watch).
void trim_memory();

}  // namespace ox
