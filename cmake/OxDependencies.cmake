# Look-up of the system libraries. scripts/setup.sh installs all of them.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)

pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavcodec libavutil libswscale)
pkg_check_modules(AVFORMAT REQUIRED IMPORTED_TARGET libavformat)
pkg_check_modules(OPUS REQUIRED IMPORTED_TARGET opus)
pkg_check_modules(PULSE REQUIRED IMPORTED_TARGET libpulse)
pkg_check_modules(X11 REQUIRED IMPORTED_TARGET x11 xext)
pkg_check_modules(XAU REQUIRED IMPORTED_TARGET xau)
pkg_check_modules(DBUS REQUIRED IMPORTED_TARGET dbus-1)
pkg_check_modules(PIPEWIRE REQUIRED IMPORTED_TARGET libpipewire-0.3)

# libyuv ships no pkg-config file.
find_path(YUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(YUV_LIBRARY yuv REQUIRED)
add_library(ox_yuv INTERFACE)
target_include_directories(ox_yuv SYSTEM INTERFACE ${YUV_INCLUDE_DIR})
target_link_libraries(ox_yuv INTERFACE ${YUV_LIBRARY})

if(OX_TESTS)
  find_package(GTest REQUIRED)
  pkg_check_modules(VTERM REQUIRED IMPORTED_TARGET vterm)
  include(GoogleTest)
endif()
if(OX_BENCH)
  find_package(benchmark REQUIRED)
endif()
