# The QML module Kelo and the touch-screen terminal. A cross build only builds them: the QML
# suites and the screenshot walk need the target's QML modules and a renderer, which the armhf
# sysroot run under qemu does not provide.
if(TARGET keloqml AND NOT CMAKE_CROSSCOMPILING)
    find_package(${KELO_QT} ${KELO_QT_MIN_VERSION} REQUIRED COMPONENTS QuickTest Qml)
    kelo_add_quick_test(qml_terminal QML_DIR "${CMAKE_CURRENT_SOURCE_DIR}/qml/terminal")
endif()

# The terminal's day offscreen: screenshots checked for content, the fixture's pictures and a
# readable QR code (zbarimg from zbar-tools).
if(TARGET kelo-terminal AND NOT CMAKE_CROSSCOMPILING)
    kelo_add_test(terminal_screenshots TIMEOUT 300)
    target_link_libraries(tst_terminal_screenshots PRIVATE ${KELO_QT}::Gui)
    target_compile_definitions(tst_terminal_screenshots PRIVATE
        KELO_TERMINAL="$<TARGET_FILE:kelo-terminal>")
    add_dependencies(tst_terminal_screenshots kelo-terminal)
endif()

# The QR image provider end to end: QML Image, software renderer, zbarimg.
if(TARGET keloqml AND NOT CMAKE_CROSSCOMPILING)
    kelo_add_test(qrimageprovider)
    target_link_libraries(tst_qrimageprovider PRIVATE ${KELO_QT}::Quick ${KELO_QT}::Qml)
    target_compile_definitions(tst_qrimageprovider PRIVATE KELO_QML_BUILD_DIR="${KELO_QML_BUILD_DIR}")
    add_dependencies(tst_qrimageprovider keloqml)
    set_tests_properties(qrimageprovider PROPERTIES ENVIRONMENT
        "QT_QPA_PLATFORM=offscreen;QT_QUICK_BACKEND=software;QT_FORCE_STDERR_LOGGING=1")
endif()

# Under the sanitizers Qt's own exit-time leaks of the offscreen platform and of Qt Quick's
# picture cache are suppressed (tools/sanitizers/lsan.supp) by frames deep inside Qt, which
# only full stacks show. The options are tools/run-sanitizers.sh's, plus full stacks.
if(KELO_SANITIZE)
    foreach(test qml_terminal terminal_screenshots qrimageprovider)
        if(TEST ${test})
            set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT
                "ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:use_sigaltstack=0:fast_unwind_on_malloc=0")
        endif()
    endforeach()
endif()
