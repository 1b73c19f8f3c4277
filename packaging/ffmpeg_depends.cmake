# Debian's FFmpeg libraries ask for the very point release that a program was built with. A program
# needs no more than the release that brought what it calls: 7.1, not 7.1.5. dpkg-shlibdeps believes
# debian/shlibs.local first.
file(GLOB infos /var/lib/dpkg/info/libav*.shlibs /var/lib/dpkg/info/libsw*.shlibs)
foreach(info ${infos})
  file(READ ${info} lines)
  string(REGEX REPLACE "\\(>= ([0-9]+:[0-9]+\\.[0-9]+)[^)]*\\)" "(>= \\1)" lines "${lines}")
  foreach(component ${CPACK_COMPONENTS_ALL})
    file(APPEND ${CPACK_TEMPORARY_DIRECTORY}/${component}/debian/shlibs.local "${lines}")
  endforeach()
endforeach()
