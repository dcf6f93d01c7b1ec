# The QML module Kelo and the touch-screen terminal. A cross build only builds them: the QML
# suites and the screenshot walk need the target's QML modules and a renderer, which the armhf
# sysroot run under qemu does not provide.
if(TARGET keloqml AND NOT CMAKE_CROSSCOMPILING)
    find_package(Qt5 5.15 REQUIRED COMPONENTS QuickTest Qml)
    kelo_add_quick_test(qml_terminal QML_DIR "${CMAKE_CURRENT_SOURCE_DIR}/qml/terminal")
endif()
