# Debian packages made by CPack from the install components (tools/make-packages.sh drives it):
#   libkelo1         runtime   the library, /usr/lib/libkelo.so.1
#   libkelo-dev      dev       headers, libkelo.so, the CMake package Kelo and kelo.pc
#   kelo-cloud       cloud     the local cloud simulator
#   qml-module-kelo  qml       the QML module Kelo, only when the target keloqml exists
#   kelo-terminal    terminal  the touch-screen terminal as a kiosk service (systemd unit, its
#                              settings in /etc/default), only when kelo-terminal is built
# Runtime dependencies come from dpkg-shlibdeps; the packages' own relations are written here.
# Included last from the top-level CMakeLists.txt, so that every target already exists.
option(KELO_PACKAGING "Configure the Debian packages (CPack DEB); set by tools/make-packages.sh" OFF)
if(NOT KELO_PACKAGING)
    return()
endif()
# The packages carry the Qt 5 build, the one Debian 12 devices run. The Qt 6 build installs with
# its own names (libkelo-qt6.so.1, KeloQt6) through cmake --install.
if(NOT KELO_QT_MAJOR STREQUAL "5")
    message(FATAL_ERROR "The Debian packages are made from the Qt 5 build (KELO_QT_MAJOR=5)")
endif()

set(KELO_DEB_REVISION 1 CACHE STRING "Debian revision of the packages (the n in 1.0.0-n)")
set(KELO_DEB_MAINTAINER "libkelo developers <dev@kelo.example>" CACHE STRING "Maintainer field")
set(_kelo_deb_version "${PROJECT_VERSION}-${KELO_DEB_REVISION}")

if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(_kelo_deb_arch armhf)
else()
    execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE _kelo_deb_arch
        OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()

set(_kelo_components runtime dev)
if(TARGET kelo-cloud)
    list(APPEND _kelo_components cloud)
endif()
if(TARGET keloqml)
    list(APPEND _kelo_components qml)
    if(TARGET kelo-terminal)
        list(APPEND _kelo_components terminal)
    endif()
endif()

set(_kelo_deb_name_runtime libkelo1)
set(_kelo_deb_name_dev libkelo-dev)
set(_kelo_deb_name_cloud kelo-cloud)
set(_kelo_deb_name_qml qml-module-kelo)
set(_kelo_deb_name_terminal kelo-terminal)

# Each package's /usr/share/doc/<package>: the copyright file and the Debian changelog (generated
# from cmake/deb/changelog.in, compressed as Debian wants it: gzip -9n, no name, no time stamp).
set(_kelo_deb_dir "${CMAKE_BINARY_DIR}/deb")
# string(TIMESTAMP) honours SOURCE_DATE_EPOCH: make-packages.sh sets it to the commit's time.
string(TIMESTAMP _kelo_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
find_program(KELO_GZIP gzip REQUIRED)
foreach(component IN LISTS _kelo_components)
    set(KELO_DEB_PACKAGE ${_kelo_deb_name_${component}})
    set(KELO_DEB_VERSION ${_kelo_deb_version})
    set(KELO_DEB_DATE "${_kelo_deb_date}")
    configure_file(cmake/deb/changelog.in "${_kelo_deb_dir}/${component}/changelog.Debian" @ONLY)
    execute_process(COMMAND "${KELO_GZIP}" -9nf "${_kelo_deb_dir}/${component}/changelog.Debian"
        COMMAND_ERROR_IS_FATAL ANY)
    install(FILES cmake/deb/copyright "${_kelo_deb_dir}/${component}/changelog.Debian.gz"
        DESTINATION share/doc/${KELO_DEB_PACKAGE} COMPONENT ${component})
    if(EXISTS "${CMAKE_CURRENT_SOURCE_DIR}/cmake/deb/${KELO_DEB_PACKAGE}.lintian-overrides")
        install(FILES "cmake/deb/${KELO_DEB_PACKAGE}.lintian-overrides"
            DESTINATION share/lintian/overrides RENAME ${KELO_DEB_PACKAGE} COMPONENT ${component})
    endif()
endforeach()

if(TARGET kelo-cloud)
    configure_file(cmake/deb/kelo-cloud.1 "${_kelo_deb_dir}/kelo-cloud.1" COPYONLY)
    execute_process(COMMAND "${KELO_GZIP}" -9nf "${_kelo_deb_dir}/kelo-cloud.1" COMMAND_ERROR_IS_FATAL ANY)
    install(FILES "${_kelo_deb_dir}/kelo-cloud.1.gz" DESTINATION share/man/man1 COMPONENT cloud)
endif()

if(TARGET keloqml)
    # The module's own install rules carry no component: the package gets its files from these
    # (the same destination). /usr/lib is on the loader's path, so the plugin needs no RUNPATH.
    set_target_properties(keloqml PROPERTIES INSTALL_RPATH "")
    install(TARGETS keloqml LIBRARY DESTINATION "${KELO_QML_INSTALL_DIR}/Kelo" COMPONENT qml)
    install(FILES qml/qmldir DESTINATION "${KELO_QML_INSTALL_DIR}/Kelo" COMPONENT qml)
endif()

if("terminal" IN_LIST _kelo_components)
    # The kiosk: the binary, its man page, the systemd unit (where Debian 12's own units are) and
    # its settings, a conffile. The maintainer scripts create the system user the unit runs as and
    # tell systemd about the unit without enabling it (docs/packaging.md says why).
    install(TARGETS kelo-terminal RUNTIME DESTINATION bin COMPONENT terminal)
    configure_file(cmake/deb/kelo-terminal.1 "${_kelo_deb_dir}/kelo-terminal.1" COPYONLY)
    execute_process(COMMAND "${KELO_GZIP}" -9nf "${_kelo_deb_dir}/kelo-terminal.1" COMMAND_ERROR_IS_FATAL ANY)
    install(FILES "${_kelo_deb_dir}/kelo-terminal.1.gz" DESTINATION share/man/man1 COMPONENT terminal)
    install(FILES cmake/deb/kelo-terminal.service DESTINATION /lib/systemd/system COMPONENT terminal)
    install(FILES cmake/deb/kelo-terminal.default DESTINATION /etc/default RENAME kelo-terminal
        COMPONENT terminal)
    file(WRITE "${_kelo_deb_dir}/terminal-control/conffiles" "/etc/default/kelo-terminal\n")
    foreach(script postinst prerm postrm)
        configure_file(cmake/deb/kelo-terminal.${script} "${_kelo_deb_dir}/terminal-control/${script}"
            COPYONLY)
    endforeach()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libkelo)
set(CPACK_PACKAGE_VENDOR "libkelo developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Empty: each package's description below starts with its own synopsis line.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${_kelo_components})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KELO_DEB_REVISION})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${_kelo_deb_arch})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KELO_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(_kelo_exact "(= ${_kelo_deb_version})")
# Extended descriptions: lines of at most 80 characters (lintian).
set(_kelo_deb_about "libkelo lets a restaurant point-of-sale application (a Qt 5 program) log
staff in and out, fetch the menu with a local picture cache, work with
tables and orders, request payments and show e-wallet invoices, talking to
the Kelo cloud over HTTPS and a secure WebSocket.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelo1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# ldconfig runs through dpkg's trigger, as Debian wants it. The names postinst and postrm (files
# that do not exist) stop CPack from writing scripts that call ldconfig themselves.
file(WRITE "${_kelo_deb_dir}/runtime-control/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${_kelo_deb_dir}/runtime-control/triggers"
    "${_kelo_deb_dir}/no-maintainer-scripts/postinst" "${_kelo_deb_dir}/no-maintainer-scripts/postrm")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "point-of-sale client SDK for the Kelo cloud - runtime library
${_kelo_deb_about}
.
This package holds the shared library libkelo.so.1.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkelo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libkelo1 ${_kelo_exact}, qtbase5-dev (>= 5.15), libqt5websockets5-dev (>= 5.15)")
set(CPACK_DEBIAN_DEV_DESCRIPTION "point-of-sale client SDK for the Kelo cloud - development files
${_kelo_deb_about}
.
This package holds the headers (include/kelo), the CMake package Kelo
(find_package(Kelo), target Kelo::kelo) and the pkg-config file kelo.pc.")

set(CPACK_DEBIAN_CLOUD_PACKAGE_NAME kelo-cloud)
set(CPACK_DEBIAN_CLOUD_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_CLOUD_DESCRIPTION "local simulator of the Kelo cloud for libkelo hosts
kelo-cloud plays one merchant of the Kelo cloud on a local port (HTTPS and
a secure WebSocket with a development CA it makes itself): staff logins,
the menu and its pictures, tables, orders, payments and e-wallet invoices,
and control routes that script faults. It is meant for developing and
testing applications built with libkelo, never for serving real terminals.")

set(CPACK_DEBIAN_QML_PACKAGE_NAME qml-module-kelo)
set(CPACK_DEBIAN_QML_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_QML_PACKAGE_DEPENDS "libkelo1 ${_kelo_exact}")
set(CPACK_DEBIAN_QML_DESCRIPTION "point-of-sale client SDK for the Kelo cloud - QML module
${_kelo_deb_about}
.
This package holds the Qt Quick module Kelo 1.0 (import Kelo 1.0):
KeloTerminal, its menu, table and order models, and the kelo-qr image
provider.")

set(CPACK_DEBIAN_TERMINAL_PACKAGE_NAME kelo-terminal)
set(CPACK_DEBIAN_TERMINAL_PACKAGE_SECTION misc)
# The Qt Quick modules its screens import (no tool finds those) and adduser for the postinst
# (init-system-helpers, whose deb-systemd-* the scripts call, is essential); Qt's libraries come
# from dpkg-shlibdeps.
set(CPACK_DEBIAN_TERMINAL_PACKAGE_DEPENDS "qml-module-kelo ${_kelo_exact}, libkelo1 ${_kelo_exact}, \
qml-module-qtquick2, qml-module-qtquick-window2, qml-module-qtquick-layouts, \
qml-module-qtquick-controls2, qml-module-qtquick-templates2, \
qml-module-qtquick-virtualkeyboard, qtvirtualkeyboard-plugin, qml-module-qt-labs-folderlistmodel, \
adduser")
# Qt draws text with the system's fonts; a bare device image may have none.
set(CPACK_DEBIAN_TERMINAL_PACKAGE_RECOMMENDS "fonts-dejavu-core")
set(CPACK_DEBIAN_TERMINAL_PACKAGE_CONTROL_EXTRA "${_kelo_deb_dir}/terminal-control/conffiles"
    "${_kelo_deb_dir}/terminal-control/postinst" "${_kelo_deb_dir}/terminal-control/prerm"
    "${_kelo_deb_dir}/terminal-control/postrm")
set(CPACK_DEBIAN_TERMINAL_DESCRIPTION "touch-screen point-of-sale terminal for the Kelo cloud
kelo-terminal is the reference touch-screen terminal of libkelo, a Qt Quick
application over the QML module Kelo: staff login, the menu with the dishes'
pictures, the tables, a table's bill and e-wallet payment by QR code.
.
This package also runs it as a kiosk: the systemd unit kelo-terminal.service
starts it on the device's screen (linuxfb, eglfs or xcb) as the system user
kelo-terminal and restarts it when it exits. Its settings (the cloud's
address and CA, the merchant and the terminal's name) are in
/etc/default/kelo-terminal. The unit is not enabled on installation.")

include(CPack)
