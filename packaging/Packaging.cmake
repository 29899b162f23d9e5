# Installation beyond the programs themselves (the daemon, notifykey and
# notifymessage install their own binaries): the sample settings, the systemd
# unit and the logrotate snippet; and the Debian package (cpack -G DEB).
#
# The daemon's own paths (settings, pid file, display program) are fixed under
# /usr/sxa whatever the prefix; a different prefix is for staging only.

set(NOTIFY_SYSTEMD_UNIT_DIR "/lib/systemd/system" CACHE PATH
    "Where the systemd unit is installed (absolute; empty: not installed)")
set(NOTIFY_LOGROTATE_DIR "/etc/logrotate.d" CACHE PATH
    "Where the logrotate snippet is installed (absolute; empty: not installed)")

set(nd_packaging_dir ${CMAKE_CURRENT_LIST_DIR})

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

# cpack packages what has been built and never builds the rest itself, so that
# it can run beside other work in a build tree (build first, then package).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME notifydaemon)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Notification client daemon for managed Linux desktops")
set(CPACK_PACKAGE_DESCRIPTION "Connects to a central gateway, receives the notifications an \
administrator sends and shows them in the logged-in user's X session; the user's \
acknowledgement goes back to the gateway.")
set(CPACK_PACKAGE_CONTACT "Desktop management <root@localhost>")
# Absolute destinations (the unit, the snippet) need a DESTDIR-style staging.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr/sxa)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr/sxa)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "procps, wget")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-dejavu-core, logrotate")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${nd_packaging_dir}/postinst ${nd_packaging_dir}/prerm ${nd_packaging_dir}/postrm)
if(NOTIFY_LOGROTATE_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
endif()
include(CPack)
