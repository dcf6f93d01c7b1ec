# Installation: the library, flat public headers under include/kelo, the CMake package Kelo
# (find_package(Kelo) -> Kelo::kelo) and the pkg-config file kelo.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The install tree uses <prefix>/lib as documented for integrators, on every architecture.
set(KELO_INSTALL_LIBDIR lib)
set(KELO_INSTALL_CMAKEDIR ${KELO_INSTALL_LIBDIR}/cmake/Kelo)

# Install components, one per Debian package (cmake/KeloDebian.cmake): runtime (libkelo1: the
# library and its soname link), dev (libkelo-dev: headers, the libkelo.so link, the CMake package,
# kelo.pc), cloud (kelo-cloud, in tools/), qml (qml-module-kelo).
install(TARGETS kelo EXPORT KeloTargets
    LIBRARY DESTINATION ${KELO_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${KELO_INSTALL_LIBDIR} COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    INCLUDES DESTINATION include)
install(FILES ${KELO_PUBLIC_HEADERS} "${KELO_BUILD_INCLUDE_DIR}/kelo/kelo_export.h"
    DESTINATION include/kelo COMPONENT dev)
install(EXPORT KeloTargets NAMESPACE Kelo:: DESTINATION ${KELO_INSTALL_CMAKEDIR} COMPONENT dev)

configure_package_config_file(cmake/KeloConfig.cmake.in
    "${CMAKE_BINARY_DIR}/KeloConfig.cmake" INSTALL_DESTINATION ${KELO_INSTALL_CMAKEDIR})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/KeloConfigVersion.cmake"
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/KeloConfig.cmake" "${CMAKE_BINARY_DIR}/KeloConfigVersion.cmake"
    DESTINATION ${KELO_INSTALL_CMAKEDIR} COMPONENT dev)

configure_file(cmake/kelo.pc.in "${CMAKE_BINARY_DIR}/kelo.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/kelo.pc" DESTINATION ${KELO_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
include(KeloSymbols)
