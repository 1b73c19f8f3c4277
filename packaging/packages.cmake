# CPack's settings: one package for each component.
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR ${OX_PACKAGE})
set(CPACK_PACKAGE_VENDOR "orvex-agent maintainers")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_COMPONENTS_ALL agent)
set(agent_summary "host side of a cloud-gaming rental platform")
set(agent_description
  "Runs on a gaming PC, streams its screen (H.264/HEVC) and sound (Opus) to
the player's launcher over encrypted UDP and injects the player's keyboard
and mouse. Holds the agent, a reference launcher that checks a PC from
outside, and a start script with a service for the desktop session.")
if(TARGET orvex-play)
  list(APPEND CPACK_COMPONENTS_ALL play)
  set(play_summary "play on another PC that runs orvex-agent")
  set(play_description
    "Opens a window with the picture of a PC that runs orvex-agent, plays its
sound, and sends it the keyboard and the mouse of this one. The stream is
encrypted, and each picture is shown as soon as it is decoded.")
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER
  "orvex-agent maintainers <maintainers@orvex-agent.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(OX_PACKAGE STREQUAL "DEB")
  set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/ffmpeg_depends.cmake)
endif()
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS
  "ca-certificates, iproute2, pulseaudio-utils, rtkit, xdg-desktop-portal")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst;${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PLAY_PACKAGE_RECOMMENDS "fonts-dejavu-core")

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE LicenseRef-proprietary)
set(CPACK_RPM_PACKAGE_GROUP Applications/Internet)
set(CPACK_RPM_PACKAGE_URL https://orvex-agent.example)
# The agent's service and udev's rule lie where their readers look, and nowhere else.
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
# The libraries by what the programs are linked with, as rpmbuild finds it. The library that encodes
# in software is not among them: Fedora's own FFmpeg does without, and serves cards that encode.
set(CPACK_RPM_PACKAGE_AUTOREQ ON)
set(CPACK_RPM_AGENT_PACKAGE_REQUIRES "systemd-udev")
set(CPACK_RPM_AGENT_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/post_install.sh)
set(CPACK_RPM_AGENT_PRE_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/pre_uninstall.sh)
set(CPACK_RPM_AGENT_POST_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/post_uninstall.sh)
# Goes into the head of each package's description; CPack knows no "Recommends". Links by build id
# would be folders that other packages share.
set(CPACK_RPM_SPEC_MORE_DEFINE [[%define _build_id_links none
%if "%{name}" == "orvex-agent"
Recommends: ca-certificates iproute pulseaudio-utils rtkit xdg-desktop-portal
%else
Recommends: dejavu-sans-fonts hicolor-icon-theme
%endif]])
# CPack would let a package own every folder on the way to its files.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /usr/lib/modules-load.d /usr/lib/systemd /usr/lib/systemd/user /usr/lib/udev
  /usr/lib/udev/rules.d /usr/share/applications /usr/share/bash-completion
  /usr/share/bash-completion/completions /usr/share/fish /usr/share/fish/vendor_completions.d
  /usr/share/icons /usr/share/icons/hicolor /usr/share/man /usr/share/man/man1 /usr/share/metainfo
  /usr/share/zsh /usr/share/zsh/site-functions)
foreach(size 16x16 24x24 32x32 48x48 64x64 128x128 256x256 scalable)
  list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/share/icons/hicolor/${size} /usr/share/icons/hicolor/${size}/apps)
endforeach()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME orvex-${component})
  set(CPACK_DEBIAN_${COMPONENT}_DESCRIPTION "${${component}_summary}\n${${component}_description}")
  set(CPACK_RPM_${COMPONENT}_PACKAGE_NAME orvex-${component})
  set(CPACK_RPM_${COMPONENT}_PACKAGE_SUMMARY ${${component}_summary})
  set(CPACK_RPM_${COMPONENT}_PACKAGE_DESCRIPTION ${${component}_description})
endforeach()
include(CPack)
