# Installs the files and describes the Debian packages: keepwatch for a device, keepwatch-dev for authors of modules.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME keepwatch) # of all that is installed below
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Compresses a file and installs it. gzip -n omits the time, so that every build gives the same package.
function(install_gzipped file directory)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${name}.gz
    COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/${file} > ${name}.gz
    DEPENDS ${file} VERBATIM)
  add_custom_target(${name}.packed ALL DEPENDS ${name}.gz)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz DESTINATION ${directory})
endfunction()

install(TARGETS keepwatch zarn5ctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES device/keepwatch.service DESTINATION lib/systemd/user)
install(FILES device/dbus.service.d/keepwatch.conf DESTINATION lib/systemd/user/dbus.service.d)
foreach(page keepwatch zarn5ctl)
  install_gzipped(man/${page}.8 ${CMAKE_INSTALL_MANDIR}/man8)
endforeach()
install_gzipped(man/keepwatch.conf.5 ${CMAKE_INSTALL_MANDIR}/man5)
install_gzipped(packaging/changelog ${CMAKE_INSTALL_DOCDIR})

# Installs a page and adapts its links, because the package has other folders than the source: device/ and demo/
# become examples/, and fleet/ becomes examples/fleet/. Links to what keepwatch-dev contains lead there.
function(install_page page directory)
  string(REPLACE / - name ${page})
  get_filename_component(file ${page} NAME)
  add_custom_command(OUTPUT ${name}/${file}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${name}
    COMMAND sed -E -e "s,\\]\\((\\.\\./)?device/((keepwatch|dbus)\\.service),](../../../lib/systemd/user/\\2,g"
      -e "s,\\]\\((doc/)?modules\\.md,](../keepwatch-dev/modules.md,g"
      -e "s,\\]\\(doc/examples,](../keepwatch-dev/examples,g" -e "s,\\]\\(demo/,](../keepwatch-dev/examples/,g"
      -e "s,\\]\\((\\.\\./)?(device|demo)/,](examples/,g" -e "s,\\]\\((\\.\\./)?fleet/,](examples/fleet/,g"
      -e "s,\\]\\(doc/,](,g" -e "s,\\]\\(\\.\\./doc/,](../../,g"
      ${CMAKE_CURRENT_SOURCE_DIR}/${page} > ${name}/${file}
    DEPENDS ${page} VERBATIM)
  add_custom_target(${name}.linked ALL DEPENDS ${name}/${file})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}/${file} DESTINATION ${directory})
endfunction()

set(examples ${CMAKE_INSTALL_DOCDIR}/examples)
foreach(page README.md doc/operating.md doc/measurements.md doc/porting.md doc/fleet.md)
  install_page(${page} ${CMAKE_INSTALL_DOCDIR})
endforeach()
install(FILES doc/plot.png doc/lnav.png packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY fleet DESTINATION ${examples} USE_SOURCE_PERMISSIONS REGEX fleet/README.md EXCLUDE)
install_page(fleet/README.md ${examples}/fleet)
install(DIRECTORY device/arm device/supervisors DESTINATION ${examples} USE_SOURCE_PERMISSIONS)
install(PROGRAMS device/busybox-init device/backoff DESTINATION ${examples})
install(FILES device/lnav.json DESTINATION ${examples})

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME dev)
set(dev ${CMAKE_INSTALL_DATAROOTDIR}/doc/keepwatch-dev)
install(PROGRAMS tools/zarn5-module-check DESTINATION ${CMAKE_INSTALL_BINDIR})
install_gzipped(man/zarn5-module-check.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_page(doc/modules.md ${dev})
install(FILES doc/module.xml packaging/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION ${dev})
install(DIRECTORY doc/examples DESTINATION ${dev})
install(FILES demo/module.cpp DESTINATION ${dev}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "keepwatch maintainers <keepwatch@keepwatch.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# procps contains pgrep and kill. dbus-daemon alone suffices for the private bus of "zarn5ctl run --bus".
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "procps, default-dbus-session-bus | dbus-session-bus | dbus-daemon")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "dbus-daemon, keepwatch-dev, lnav, runit")
set(CPACK_DEBIAN_KEEPWATCH_DESCRIPTION "module supervisor and log collector for a device
keepwatch starts the programs of an embedded device, waits until they own their
D-Bus names, releases them, and restarts a program that exits. It also collects
all of their log lines in one log.")
set(CPACK_COMPONENTS_ALL keepwatch dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_KEEPWATCH_PACKAGE_NAME keepwatch)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME keepwatch-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "dbus-daemon, python3, python3-dbus, python3-gi, tzdata")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "cmake, dbus-bin, keepwatch, make")
set(CPACK_DEBIAN_DEV_DESCRIPTION "check and examples for modules of keepwatch
zarn5-module-check runs a module on a private bus, and tests whether it does
what keepwatch expects. The package also has the contract of a module, and
examples in C++, C and Python.")
include(CPack)
