# Installation: the library, flat public headers under <includedir>/kelo, the CMake package
# (find_package(Kelo) -> Kelo::kelo, or KeloQt6 -> KeloQt6::kelo) and the pkg-config file
# (kelo.pc or kelo-qt6.pc). Names and folders per Qt major: see KeloQtMajor.cmake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The install tree uses <prefix>/lib as documented for integrators, on every architecture.
set(KELO_INSTALL_LIBDIR lib)
set(KELO_INSTALL_CMAKEDIR ${KELO_INSTALL_LIBDIR}/cmake/${KELO_PACKAGE})

# Install components, one per Debian package (cmake/KeloDebian.cmake): runtime (libkelo1: the
# library and its soname link), dev (libkelo-dev: headers, the libkelo.so link, the CMake package,
# kelo.pc), cloud (kelo-cloud, in tools/), qml (qml-module-kelo).
install(TARGETS kelo EXPORT ${KELO_PACKAGE}Targets
    LIBRARY DESTINATION ${KELO_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${KELO_INSTALL_LIBDIR} COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    INCLUDES DESTINATION ${KELO_INSTALL_INCLUDEDIR})
install(FILES ${KELO_PUBLIC_HEADERS} "${KELO_BUILD_INCLUDE_DIR}/kelo/kelo_export.h"
    DESTINATION ${KELO_INSTALL_INCLUDEDIR}/kelo COMPONENT dev)
install(EXPORT ${KELO_PACKAGE}Targets NAMESPACE ${KELO_PACKAGE}:: DESTINATION ${KELO_INSTALL_CMAKEDIR}
    COMPONENT dev)

configure_package_config_file(cmake/KeloConfig.cmake.in
    "${CMAKE_BINARY_DIR}/${KELO_PACKAGE}Config.cmake" INSTALL_DESTINATION ${KELO_INSTALL_CMAKEDIR})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/${KELO_PACKAGE}ConfigVersion.cmake"
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/${KELO_PACKAGE}Config.cmake"
    "${CMAKE_BINARY_DIR}/${KELO_PACKAGE}ConfigVersion.cmake"
    DESTINATION ${KELO_INSTALL_CMAKEDIR} COMPONENT dev)

configure_file(cmake/kelo.pc.in "${CMAKE_BINARY_DIR}/${KELO_PKGCONFIG_NAME}.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/${KELO_PKGCONFIG_NAME}.pc"
    DESTINATION ${KELO_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
include(KeloSymbols)
