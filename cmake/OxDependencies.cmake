# Look-up of the system libraries. scripts/setup.sh installs all of them. The versions are those of
# Debian 12; nothing older is tested.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)

# ox_require(<prefix> <what it is called> <module>...): PkgConfig::<prefix>, or a plain message.
function(ox_require prefix name)
  pkg_check_modules(${prefix} IMPORTED_TARGET ${ARGN})
  if(NOT ${prefix}_FOUND)
    string(REPLACE ";" ", " modules "${ARGN}")
    message(FATAL_ERROR "${name} or newer is needed, with its development files (${modules}).\n"
                        "On Debian 12 and later scripts/setup.sh installs them.")
  endif()
endfunction()

ox_require(SODIUM "libsodium 1.0.18" libsodium>=1.0.18)
ox_require(FFMPEG "FFmpeg 5.1" libavcodec>=59.37 libavutil>=57.28 libswscale>=6.7)
ox_require(AVFORMAT "FFmpeg 5.1" libavformat>=59.27)
ox_require(OPUS "Opus 1.3" opus>=1.3)
ox_require(PULSE "PulseAudio 16.1" libpulse>=16.1)
ox_require(X11 "libX11 1.8 with libXdamage 1.1, libXext 1.3 and libXfixes 6.0"
           x11>=1.8 x11-xcb>=1.8 xcb>=1.15 xdamage>=1.1 xext>=1.3 xfixes>=6.0)
ox_require(XAU "libXau 1.0" xau>=1.0)
ox_require(DBUS "D-Bus 1.14" dbus-1>=1.14)
ox_require(PIPEWIRE "PipeWire 0.3.65" libpipewire-0.3>=0.3.65)
ox_require(WAYLAND "libwayland 1.21" wayland-client>=1.21)

# libyuv ships no pkg-config file.
find_path(YUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(YUV_LIBRARY yuv REQUIRED)
add_library(ox_yuv INTERFACE)
target_include_directories(ox_yuv SYSTEM INTERFACE ${YUV_INCLUDE_DIR})
target_link_libraries(ox_yuv INTERFACE ${YUV_LIBRARY})

if(OX_PLAY)
  ox_require(SDL "SDL 2.26" sdl2>=2.26)
  ox_require(PANGO "Pango 1.50" pangocairo>=1.50)
  ox_require(SAMPLERATE "libsamplerate 0.2" samplerate>=0.2)
endif()

if(OX_TESTS)
  find_package(GTest REQUIRED)
  ox_require(VTERM "libvterm 0.1.4" vterm>=0.1.4)
  include(GoogleTest)
endif()
if(OX_BENCH)
  find_package(benchmark REQUIRED)
endif()
