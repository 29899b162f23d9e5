# Installation beyond the programs themselves (the daemon, notifykey and
# notifymessage install their own binaries): the sample settings, the systemd
# unit, the logrotate snippet, the manual pages and the package's documents,
# the programs stripped with their debugging information kept apart; and the
# Debian packages (cpack -G DEB): notifydaemon and notifydaemon-dbgsym.
#
# The daemon's own paths (settings, pid file, display program) are fixed under
# /usr/sxa whatever the prefix; a different prefix is for staging only.

set(NOTIFY_SYSTEMD_UNIT_DIR "/lib/systemd/system" CACHE PATH
    "Where the systemd unit is installed (absolute; empty: not installed)")
set(NOTIFY_LOGROTATE_DIR "/etc/logrotate.d" CACHE PATH
    "Where the logrotate snippet is installed (absolute; empty: not installed)")
set(NOTIFY_SHARE_DIR "/usr/share" CACHE PATH
    "Where manual pages, copyright, changelog and lintian overrides go (absolute; empty: not installed)")
set(NOTIFY_DEBUG_DIR "/usr/lib/debug" CACHE PATH
    "Where the programs' debugging files go, the programs then stripped (absolute; empty: unstripped)")

set(nd_packaging_dir ${CMAKE_CURRENT_LIST_DIR})
set(nd_version ${PROJECT_VERSION})

install(FILES ${nd_packaging_dir}/config.dat.sample DESTINATION daemon)

# The unit names the daemon under the prefix in effect at install time (so
# "cmake --install --prefix" and cpack get it right).
if(NOTIFY_SYSTEMD_UNIT_DIR)
  install(CODE "
    set(NOTIFY_DAEMON_PATH \"\${CMAKE_INSTALL_PREFIX}/daemon/notifydaemon\")
    configure_file(\"${nd_packaging_dir}/notifydaemon.service.in\"
                   \"${CMAKE_BINARY_DIR}/packaging/notifydaemon.service\" @ONLY)
    file(INSTALL \"${CMAKE_BINARY_DIR}/packaging/notifydaemon.service\"
         DESTINATION \"${NOTIFY_SYSTEMD_UNIT_DIR}\"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  ")
endif()
if(NOTIFY_LOGROTATE_DIR)
  install(FILES ${nd_packaging_dir}/notifydaemon.logrotate DESTINATION ${NOTIFY_LOGROTATE_DIR}
          RENAME notifydaemon)
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "${NOTIFY_LOGROTATE_DIR}/notifydaemon\n")
endif()

# Compressed the way Debian wants them: gzip -9n (no file name or time stamp
# inside, so that the package is reproducible), at install time like the unit.
find_program(ND_GZIP gzip REQUIRED)
function(nd_install_gzipped source destination name component)
  set(compressed ${CMAKE_BINARY_DIR}/packaging/gz/${name})
  install(CODE "
    file(MAKE_DIRECTORY \"${CMAKE_BINARY_DIR}/packaging/gz\")
    execute_process(COMMAND \"${ND_GZIP}\" -9nc \"${source}\" OUTPUT_FILE \"${compressed}\"
                    RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR \"gzip ${source}: \${failed}\")
    endif()
    file(INSTALL \"${compressed}\" DESTINATION \"${destination}\"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  " COMPONENT ${component})
endfunction()

# The package's changelog names the version it describes; a release that
# forgets its entry fails here instead of shipping a stale one.
file(STRINGS ${nd_packaging_dir}/changelog nd_changelog_top LIMIT_COUNT 1)
if(NOT nd_changelog_top MATCHES "^notifydaemon \\(${nd_version}\\) ")
  message(FATAL_ERROR "packaging/changelog does not begin with version ${nd_version}")
endif()

if(NOTIFY_SHARE_DIR)
  foreach(page notifydaemon.8 notifykey.1 notifymessage.1 config.dat.5)
    string(REGEX MATCH "[0-9]$" section ${page})
    nd_install_gzipped(${nd_packaging_dir}/man/${page} ${NOTIFY_SHARE_DIR}/man/man${section}
                       ${page}.gz Unspecified)
  endforeach()
  # Each package carries the copyright and the (native) changelog.gz.
  foreach(component Unspecified dbgsym)
    set(package notifydaemon)
    if(component STREQUAL dbgsym)
      set(package notifydaemon-dbgsym)
    endif()
    nd_install_gzipped(${nd_packaging_dir}/changelog ${NOTIFY_SHARE_DIR}/doc/${package}
                       changelog.gz ${component})
    install(FILES ${nd_packaging_dir}/copyright DESTINATION ${NOTIFY_SHARE_DIR}/doc/${package}
            COMPONENT ${component})
  endforeach()
  install(FILES ${nd_packaging_dir}/lintian-overrides
          DESTINATION ${NOTIFY_SHARE_DIR}/lintian/overrides RENAME notifydaemon)
endif()

# Stripped programs, their debugging information under NOTIFY_DEBUG_DIR in
# the dbgsym part. Runs after the programs' own install rules (this file is
# included last). CPack's own dbgsym package is not used: with CMake 3.25 its
# md5sums name the build tree's paths.
if(NOTIFY_DEBUG_DIR)
  find_program(ND_OBJCOPY objcopy REQUIRED)
  foreach(program notifydaemon:daemon notifykey:daemon notifymessage:gui/message)
    string(REPLACE ":" ";" program ${program})
    list(GET program 0 target)
    list(GET program 1 folder)
    set(script "
      set(ND_OBJCOPY \"${ND_OBJCOPY}\")
      set(nd_built \"$<TARGET_FILE:${target}>\")
      set(nd_work \"${CMAKE_BINARY_DIR}/packaging/debug/\${CMAKE_INSTALL_COMPONENT}\")")
    install(CODE "${script}
      set(nd_strip \"\${CMAKE_INSTALL_PREFIX}/${folder}/$<TARGET_FILE_NAME:${target}>\")
      set(nd_debug_dir \"\")
      include(\"${nd_packaging_dir}/DebugSymbols.cmake\")" COMPONENT Unspecified)
    install(CODE "${script}
      set(nd_strip \"\")
      set(nd_debug_dir \"${NOTIFY_DEBUG_DIR}\")
      include(\"${nd_packaging_dir}/DebugSymbols.cmake\")" COMPONENT dbgsym)
  endforeach()
  # cpack makes the prefix folder in every part; the debugging part has
  # nothing there (rmdir leaves a folder that is not empty alone).
  install(CODE "execute_process(COMMAND rmdir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\"
                                ERROR_QUIET)" COMPONENT dbgsym)
endif()

# cpack packages what has been built and never builds the rest itself, so that
# it can run beside other work in a build tree (build first, then package).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME notifydaemon)
set(CPACK_PACKAGE_VERSION ${nd_version})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Notification client daemon for managed Linux desktops")
set(CPACK_PACKAGE_CONTACT "notifydaemon maintainers <notifydaemon@example.org>")
# Absolute destinations (the unit, the snippet) need a DESTDIR-style staging.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr/sxa)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr/sxa)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# One package per part: everything (Unspecified, the parts' default) and the
# debugging files.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)

set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME notifydaemon)
# Lines of at most 80 characters, as the control file wants them.
set(CPACK_DEBIAN_UNSPECIFIED_DESCRIPTION "\
Connects to a central gateway, receives the notifications an administrator\n\
sends and shows them in the logged-in user's X session; the user's\n\
acknowledgement goes back to the gateway.")
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_DEPENDS "procps, wget")
# Not found by the library scan: the SVG logo loader and the fonts that draw
# every script (Arabic, Hebrew, Devanagari, CJK, emoji).
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_RECOMMENDS "logrotate, librsvg2-common, fonts-dejavu-core, \
fonts-noto-core, fonts-noto-cjk, fonts-noto-color-emoji")
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_CONTROL_EXTRA
    ${nd_packaging_dir}/postinst ${nd_packaging_dir}/prerm ${nd_packaging_dir}/postrm)
if(NOTIFY_LOGROTATE_DIR)
  list(APPEND CPACK_DEBIAN_UNSPECIFIED_PACKAGE_CONTROL_EXTRA
       ${CMAKE_BINARY_DIR}/packaging/conffiles)
endif()

set(CPACK_DEBIAN_DBGSYM_PACKAGE_NAME notifydaemon-dbgsym)
set(CPACK_DEBIAN_DBGSYM_DESCRIPTION "\
Debugging information of the daemon, notifykey and notifymessage, found by\n\
debuggers through the programs' build ids.")
set(CPACK_DEBIAN_DBGSYM_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DBGSYM_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DBGSYM_PACKAGE_DEPENDS "notifydaemon (= ${nd_version})")
set(CPACK_DEBIAN_DBGSYM_PACKAGE_RECOMMENDS "")
include(CPack)
