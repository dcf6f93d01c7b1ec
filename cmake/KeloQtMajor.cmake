# The Qt major version the tree builds against: 5 (5.15, the default) or 6 (6.4 or later).
# Everything installed is named per major, so that both builds can share one prefix:
#   Qt 5: libkelo.so.1,     include/kelo/,          find_package(Kelo)    -> Kelo::kelo,    kelo.pc
#   Qt 6: libkelo-qt6.so.1, include/kelo-qt6/kelo/, find_package(KeloQt6) -> KeloQt6::kelo, kelo-qt6.pc
# Hosts write #include <kelo/kelosdk.h> with either. The tools get the same suffix
# (kelo-cloud-qt6, kelo-demo-qt6).
set(KELO_QT_MAJOR 5 CACHE STRING "Qt major version to build against: 5 or 6")
set_property(CACHE KELO_QT_MAJOR PROPERTY STRINGS 5 6)

if(KELO_QT_MAJOR STREQUAL "5")
    set(KELO_QT_MIN_VERSION 5.15)
    set(KELO_NAME_SUFFIX "")
    set(KELO_PACKAGE Kelo)
    set(KELO_PC_NOTE "")
elseif(KELO_QT_MAJOR STREQUAL "6")
    set(KELO_QT_MIN_VERSION 6.4)
    set(KELO_NAME_SUFFIX "-qt6")
    set(KELO_PACKAGE KeloQt6)
    set(KELO_PC_NOTE " (Qt 6)")
else()
    message(FATAL_ERROR "KELO_QT_MAJOR must be 5 or 6 (got '${KELO_QT_MAJOR}')")
endif()

set(KELO_QT Qt${KELO_QT_MAJOR})
set(KELO_OUTPUT_NAME kelo${KELO_NAME_SUFFIX})
set(KELO_PKGCONFIG_NAME kelo${KELO_NAME_SUFFIX})
if(KELO_NAME_SUFFIX)
    set(KELO_INSTALL_INCLUDEDIR include/kelo${KELO_NAME_SUFFIX})
else()
    set(KELO_INSTALL_INCLUDEDIR include)
endif()
message(STATUS "libkelo: Qt ${KELO_QT_MAJOR}, installs lib${KELO_OUTPUT_NAME}.so.1 and ${KELO_PACKAGE}")
