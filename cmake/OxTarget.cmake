# Standard, warnings and sanitizers for every target of the project.

add_library(ox_build_settings INTERFACE)
target_compile_options(ox_build_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual)
target_compile_options(ox_build_settings INTERFACE -Werror=switch)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(ox_build_settings INTERFACE -Wthread-safety)  # see base/mutex.h
endif()
# False positives: overlapping copies in concatenations of a literal and a string (GCC bug 105651),
# comparisons of impossible length in vectors (105329).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(ox_build_settings INTERFACE -Wno-restrict)
  endif()
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15)
    target_compile_options(ox_build_settings INTERFACE -Wno-stringop-overread)
  endif()
endif()
if(OX_SANITIZE)
  target_compile_options(ox_build_settings INTERFACE
    -fsanitize=${OX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(ox_build_settings INTERFACE -fsanitize=${OX_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(ox_build_settings INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  target_link_options(ox_build_settings INTERFACE -Wl,-z,relro,-z,now)
endif()

include(CheckPIESupported)
check_pie_supported()

# ox_library(<name> SOURCES ... [PUBLIC libs...] [PRIVATE libs...])
#
# A static library of the current folder, whose headers are included as "<folder below src>/<file>.h".
# Each library has an include folder with that folder alone: including a header of a library that is
# not linked does not compile. The link lists are the project's architecture.
function(ox_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  ox_include_folder(${name})
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE} ox_build_settings)
endfunction()

# ox_include_folder(<library>): an include folder that contains the current source folder alone.
function(ox_include_folder library)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  string(REGEX REPLACE "^src/" "" folder ${folder})
  set(link ${PROJECT_BINARY_DIR}/include/${library}/${folder})
  cmake_path(GET link PARENT_PATH parent)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${link} SYMBOLIC)
  target_include_directories(${library} PUBLIC ${PROJECT_BINARY_DIR}/include/${library})
endfunction()

# ox_test(<name> SOURCES ... LIBS ... [LABELS ...] [TIMEOUT seconds])
#
# One GoogleTest executable; every TEST in it becomes a ctest case.
function(ox_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(OX_SANITIZE)
    # Optimising the sanitizers' checks would take four times as long as compiling.
    target_compile_options(${name} PRIVATE -O0)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/sanitizer_suppressions.cpp)
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest_main GTest::gmock
                                        ox_build_settings)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
