// Faults of libraries that the sanitizers see, to be linked into what uses those libraries. Without
// a sanitizer nobody calls these functions.

#include <poll.h>

extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
    // x265 3.5: buffers of FrameFilter::init outlive x265_encoder_close. A program that does
    // nothing but open and close the encoder shows it too.
    return "leak:libx265.so\n";
}

extern "C" const char* __tsan_default_suppressions() {
    // Xlib (and libXext) unlocks the display before it calls the handlers for a lost connection,
    // and once more on its way out when they return. x265 hands a new encoder's first picture to
    // its worker threads in a way that the sanitizer cannot see in a library built without it; a
    // program that opens and closes the encoder some hundred times shows it too. libdbus locks its
    // own tables in either order, which a program with one thread that opens a private connection,
    // sends one message and closes shows too.
    return "mutex:libX11.so\nmutex:libXext.so\nrace:libx265.so\ndeadlock:libdbus-1.so\n";
}

#ifdef __SANITIZE_THREAD__
namespace {

// The sanitizer's runtime of GCC 12 makes a thread's table of postponed signals in the thread's
// first blocking call, and forgets a signal that arrives meanwhile. SIGTERM goes to the main
// thread: it gets its table before anybody can send one.
[[gnu::constructor]] void make_signal_table() {
    ::poll(nullptr, 0, 0);
}

}  // namespace
#endif
