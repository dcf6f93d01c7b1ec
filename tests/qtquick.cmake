# The QML module Kelo and the touch-screen terminal. A cross build only builds them: the QML
# suites and the screenshot walk need the target's QML modules and a renderer, which the armhf
# sysroot run under qemu does not provide.
if(TARGET keloqml AND NOT CMAKE_CROSSCOMPILING)
    find_package(Qt5 5.15 REQUIRED COMPONENTS QuickTest Qml)
    kelo_add_quick_test(qml_terminal QML_DIR "${CMAKE_CURRENT_SOURCE_DIR}/qml/terminal")
endif()

# The terminal's day offscreen: screenshots checked for content, the fixture's pictures and a
# readable QR code (zbarimg from zbar-tools).
if(TARGET kelo-terminal AND NOT CMAKE_CROSSCOMPILING)
    kelo_add_test(terminal_screenshots TIMEOUT 300)
    target_link_libraries(tst_terminal_screenshots PRIVATE Qt5::Gui)
    target_compile_definitions(tst_terminal_screenshots PRIVATE
        KELO_TERMINAL="$<TARGET_FILE:kelo-terminal>")
    add_dependencies(tst_terminal_screenshots kelo-terminal)
endif()
