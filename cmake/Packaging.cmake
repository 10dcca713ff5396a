# Installation and packages: the Debian package on Linux, Skeldrin.app in Skeldrin.dmg on macOS.
# Everything takes its version from project(); nothing here writes one.
if(NOT TARGET skeldrin)
  return()
endif()

set(SKELDRIN_APP_ID app.skeldrin.Skeldrin)
set(SKELDRIN_HOMEPAGE "https://skeldrin.app/")
set(SKELDRIN_MAINTAINER "Skeldrin developers <hello@skeldrin.app>")
set(SKELDRIN_SUMMARY "Keep watch over your Claude Code sessions")
# Lines under 80 characters, as Debian's package tools show them.
string(CONCAT SKELDRIN_DESCRIPTION
  "Skeldrin tells you at a glance which of your Claude Code sessions are\n"
  "running, which wait for an approval or an answer, and which are done, in\n"
  "terminals, editors and the desktop app alike. It lives in the system tray\n"
  "and in a small floating widget; pointing at a session shows what it is\n"
  "doing, and clicking it brings forward the terminal tab or editor where it\n"
  "runs. Claude Code reports to it through skeldrin-hook, which\n"
  "`skeldrin connect` adds to Claude Code's settings.")
set(_packaging ${PROJECT_SOURCE_DIR}/packaging)

set(CPACK_PACKAGE_NAME Skeldrin)
set(CPACK_PACKAGE_VENDOR "Skeldrin")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${SKELDRIN_SUMMARY})
set(CPACK_PACKAGE_DESCRIPTION ${SKELDRIN_DESCRIPTION})
set(CPACK_PACKAGE_HOMEPAGE_URL ${SKELDRIN_HOMEPAGE})
set(CPACK_PACKAGE_CONTACT ${SKELDRIN_MAINTAINER})
set(CPACK_STRIP_FILES ON)
include(GNUInstallDirs)

if(APPLE AND SKELDRIN_MACOS_BUNDLE)
  # Skeldrin.app/Contents/MacOS/{Skeldrin, skeldrin-hook}: `skeldrin connect` finds the hook beside the app.
  set_source_files_properties(${_packaging}/macos/Skeldrin.icns TARGET_DIRECTORY skeldrin
    PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
  target_sources(skeldrin PRIVATE ${_packaging}/macos/Skeldrin.icns)
  # The tray's artwork, when it ships as files beside the sources rather than compiled in.
  file(GLOB _status_icons ${PROJECT_SOURCE_DIR}/Skeldrin/resources/StatusIcon*.png)
  if(_status_icons)
    set_source_files_properties(${_status_icons} TARGET_DIRECTORY skeldrin
      PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
    target_sources(skeldrin PRIVATE ${_status_icons})
  endif()
  set_target_properties(skeldrin PROPERTIES
    OUTPUT_NAME Skeldrin
    MACOSX_BUNDLE TRUE
    MACOSX_BUNDLE_INFO_PLIST ${_packaging}/macos/Info.plist.in
    MACOSX_BUNDLE_BUNDLE_NAME Skeldrin
    MACOSX_BUNDLE_GUI_IDENTIFIER ${SKELDRIN_APP_ID}
    MACOSX_BUNDLE_ICON_FILE Skeldrin.icns
    MACOSX_BUNDLE_SHORT_VERSION_STRING ${PROJECT_VERSION}
    MACOSX_BUNDLE_BUNDLE_VERSION ${PROJECT_VERSION}
    MACOSX_BUNDLE_COPYRIGHT "© The Skeldrin developers")
  set_target_properties(skeldrin-hook PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/Skeldrin.app/Contents/MacOS)

  install(TARGETS skeldrin BUNDLE DESTINATION .)
  install(TARGETS skeldrin-hook RUNTIME DESTINATION Skeldrin.app/Contents/MacOS)
  # Qt's frameworks and plugins into the bundle (macdeployqt underneath).
  if(Qt6_VERSION VERSION_LESS 6.5)
    message(FATAL_ERROR "The macOS bundle needs Qt 6.5 or later for its deployment script")
  endif()
  qt_generate_deploy_app_script(TARGET skeldrin OUTPUT_SCRIPT _deploy NO_UNSUPPORTED_PLATFORM_ERROR)
  install(SCRIPT ${_deploy})

  set(CPACK_GENERATOR DragNDrop)
  set(CPACK_PACKAGE_FILE_NAME Skeldrin)
  set(CPACK_DMG_VOLUME_NAME Skeldrin)
  set(CPACK_DMG_FORMAT UDZO)
  # The Applications link to drag the app onto.
  set(CPACK_DMG_DISABLE_APPLICATIONS_SYMLINK OFF)
  set(CPACK_SKELDRIN_SOURCE_DIR ${PROJECT_SOURCE_DIR}) # CPack passes on only CPACK_ variables
  set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/SignBundle.cmake)
else()
  install(TARGETS skeldrin skeldrin-hook RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

if(UNIX AND NOT APPLE)
  install(FILES ${_packaging}/linux/${SKELDRIN_APP_ID}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
  install(FILES ${_packaging}/linux/${SKELDRIN_APP_ID}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
  install(FILES ${_packaging}/linux/icons/${SKELDRIN_APP_ID}.svg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
  foreach(size 16 22 24 32 48 64 128 256 512)
    install(FILES ${_packaging}/linux/icons/${size}x${size}/${SKELDRIN_APP_ID}.png
      DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
  endforeach()

  # Debian wants manual pages, a copyright file and a changelog; pages and changelog compressed.
  set(_staged ${CMAKE_BINARY_DIR}/packaging)
  string(TIMESTAMP _changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  configure_file(${_packaging}/linux/changelog.in ${_staged}/changelog @ONLY)
  configure_file(${_packaging}/linux/man/skeldrin.1 ${_staged}/skeldrin.1 COPYONLY)
  configure_file(${_packaging}/linux/man/skeldrin-hook.1 ${_staged}/skeldrin-hook.1 COPYONLY)
  execute_process(COMMAND gzip -9nf changelog skeldrin.1 skeldrin-hook.1 WORKING_DIRECTORY ${_staged}
    COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${_staged}/changelog.gz ${_packaging}/linux/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/skeldrin)
  install(FILES ${_staged}/skeldrin.1.gz ${_staged}/skeldrin-hook.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${_packaging}/linux/lintian-overrides
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME skeldrin)

  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_PACKAGE_NAME skeldrin)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${SKELDRIN_MAINTAINER})
  set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${SKELDRIN_HOMEPAGE})
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
endif()

include(CPack)
