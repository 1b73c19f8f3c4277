// Suppressions for library faults that the sanitizers find; unused without a sanitizer.

#include <poll.h>

extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
    // x265 3.5: buffers of FrameFilter::init outlive x265_encoder_close; opening and closing the
    // encoder reproduces it. SDL 2.26 never calls dbus_shutdown: SDL_Init and SDL_Quit reproduce
    // it. It keeps its hints until SDL_Quit, and an object of libpulse whose server dies.
    return "leak:libx265.so\nleak:libdbus-1.so\nleak:libSDL2\nleak:libpulse.so\n"
           "leak:libfontconfig\nleak:libX11.so\n";
}

extern "C" const char* __tsan_default_suppressions() {
    // Xlib (and libXext) unlocks the display before it calls the handlers for a lost connection,
    // and again when they return. x265 passes a new encoder's first picture to its worker threads
    // without synchronisation that the sanitizer sees; opening and closing the encoder some hundred
    // times reproduces it. libdbus locks its tables in either order; a single thread with one
    // private connection reproduces it. libavcodec's slice threads synchronise by atomics that the
    // sanitizer cannot see either, and so do libpulse's threads and the one that Pango starts to
    // initialise Fontconfig. The dynamic loader's own lock is none to the sanitizer.
    return "mutex:libX11.so\nmutex:libXext.so\nrace:libx265.so\nrace:libavcodec.so\n"
           "deadlock:libdbus-1.so\nrace:libpulsecommon\nrace:libpulse.so\n"
           "race:libfontconfig\nrace:libpango\nrace:g_str_has_suffix\n"
           "race:_dl_close_worker\n";
}

#ifdef __SANITIZE_THREAD__
namespace {

// GCC 12's runtime allocates a thread's table of deferred signals in the thread's first blocking
// call and loses a signal that arrives meanwhile. So the main thread, which gets SIGTERM, makes
// such a call at the start.
[[gnu::constructor]] void make_signal_table() {
    ::poll(nullptr, 0, 0);
}

}  // namespace
#endif
