# What is installed where, and the Debian package.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The time stamp inside would make every build a different package: -n leaves it out.
function(install_gzipped file directory)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${name}.gz
    COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/${file} > ${name}.gz
    DEPENDS ${file} VERBATIM)
  add_custom_target(${name}.packed ALL DEPENDS ${name}.gz)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz DESTINATION ${directory})
endfunction()

install(TARGETS keepwatch zarn5-check RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS tools/zarn5-alive tools/zarn5-bus tools/zarn5-calls tools/zarn5-module-check tools/zarn5-oldlog tools/zarn5-plot tools/zarn5-state
  DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/keepwatch.service DESTINATION lib/systemd/user)
install(FILES packaging/dbus.service.d/keepwatch.conf DESTINATION lib/systemd/user/dbus.service.d)
foreach(page keepwatch zarn5-alive zarn5-bus zarn5-check zarn5-module-check zarn5-oldlog zarn5-plot zarn5-state)
  install_gzipped(packaging/${page}.8 ${CMAKE_INSTALL_MANDIR}/man8)
endforeach()
install_gzipped(packaging/keepwatch.conf.5 ${CMAKE_INSTALL_MANDIR}/man5)
install_gzipped(packaging/changelog ${CMAKE_INSTALL_DOCDIR})
install(FILES README.md doc/operating.md doc/modules.md doc/porting.md doc/module.xml packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY doc/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY packaging/rsyslog DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  USE_SOURCE_PERMISSIONS PATTERN "trial" EXCLUDE)
install(DIRECTORY packaging/clickhouse DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  USE_SOURCE_PERMISSIONS PATTERN "trial" EXCLUDE)
install(DIRECTORY packaging/prometheus DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  USE_SOURCE_PERMISSIONS PATTERN "trial*" EXCLUDE)
install(PROGRAMS packaging/busybox-init tools/backoff DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY packaging/supervisors DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  USE_SOURCE_PERMISSIONS PATTERN "trial*" EXCLUDE)
install(FILES packaging/lintian-overrides DESTINATION share/lintian/overrides RENAME keepwatch)
install(FILES tools/lnav.json DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "keepwatch maintainers <keepwatch@keepwatch.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# pgrep and kill; and a session bus, be it one started by hand with dbus-run-session.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "procps, default-dbus-session-bus | dbus-session-bus | dbus-daemon")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "dbus-daemon, gnuplot-nox, lnav, python3-dbus, python3-gi, runit, tzdata")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "module supervisor and log collector for a device
keepwatch starts the programs of an embedded device, waits for their D-Bus
services, tells them to run, and relaunches whatever ends. It is also the one
place where all their log lines end.")
include(CPack)
