# What `cmake --install` puts in place for orvex-play.
install(TARGETS orvex-play RUNTIME COMPONENT play)
ox_install_compressed(orvex-play play orvex-play.1 ${CMAKE_INSTALL_MANDIR}/man1)
ox_install_completions(orvex-play play)
install(FILES orvex-play.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT play)

set(play_docs ${CMAKE_INSTALL_DATAROOTDIR}/doc/orvex-play)
install(FILES debian/copyright DESTINATION ${play_docs} COMPONENT play)
if(OX_PACKAGE STREQUAL "DEB")
  ox_install_compressed(orvex-play play debian/changelog ${play_docs})
endif()

# The sizes are drawn from the same picture, for desktops that take no SVG.
set(icons ${CMAKE_INSTALL_DATADIR}/icons/hicolor)
install(FILES orvex-play.svg DESTINATION ${icons}/scalable/apps COMPONENT play)
find_program(RSVG_CONVERT rsvg-convert)
if(RSVG_CONVERT)
  foreach(size 16 24 32 48 64 128 256)
    set(icon ${CMAKE_CURRENT_BINARY_DIR}/icons/${size}/orvex-play.png)
    add_custom_command(OUTPUT ${icon} DEPENDS orvex-play.svg VERBATIM
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/icons/${size}
      COMMAND ${RSVG_CONVERT} --width ${size} --height ${size} --output ${icon}
              ${CMAKE_CURRENT_SOURCE_DIR}/orvex-play.svg)
    list(APPEND play_icons ${icon})
    install(FILES ${icon} DESTINATION ${icons}/${size}x${size}/apps COMPONENT play)
  endforeach()
  add_custom_target(play-icons DEPENDS ${play_icons})
  add_dependencies(orvex-play play-icons)
else()
  message(STATUS "No rsvg-convert: orvex-play is installed with its SVG icon alone")
endif()
