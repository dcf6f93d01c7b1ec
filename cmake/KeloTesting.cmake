# kelo_add_test(<name> [CLOUD] [SOURCES extra.cpp ...] [TIMEOUT seconds] [LABELS ...])
# Builds tests/tst_<name>.cpp (plus extra sources) into the QtTest executable tst_<name> and
# registers it with CTest. Every test links the library and the helpers; CLOUD links the
# in-process cloud as well (TestCloud), for suites that talk to a server.
function(kelo_add_test name)
    cmake_parse_arguments(ARG "CLOUD" "TIMEOUT" "SOURCES;LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    # Cross builds run the tests through an emulator (qemu-arm for armhf), several times slower.
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        math(EXPR ARG_TIMEOUT "${ARG_TIMEOUT} * 5")
    endif()
    add_executable(tst_${name} tst_${name}.cpp ${ARG_SOURCES})
    target_link_libraries(tst_${name} PRIVATE kelotestsupport)
    if(ARG_CLOUD)
        target_link_libraries(tst_${name} PRIVATE kelotestcloud)
    endif()
    target_compile_options(tst_${name} PRIVATE -Wall -Wextra)
    add_test(NAME ${name} COMMAND tst_${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_FORCE_STDERR_LOGGING=1")
    if(ARG_LABELS)
        set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
    endif()
endfunction()

# kelo_add_quick_test(<name> [CLOUD] QML_DIR dir [TIMEOUT seconds] [LABELS ...])
# Builds tests/tst_<name>.cpp (a QUICK_TEST_MAIN_WITH_SETUP main) into tst_<name> and registers
# it with CTest: it runs every tst_*.qml of QML_DIR, with the build tree's QML modules importable
# and the software renderer, offscreen.
function(kelo_add_quick_test name)
    cmake_parse_arguments(ARG "CLOUD" "TIMEOUT;QML_DIR" "LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 300)
    endif()
    add_executable(tst_${name} tst_${name}.cpp)
    target_link_libraries(tst_${name} PRIVATE kelotestsupport ${KELO_QT}::QuickTest ${KELO_QT}::Qml)
    if(ARG_CLOUD)
        target_link_libraries(tst_${name} PRIVATE kelotestcloud)
    endif()
    target_compile_options(tst_${name} PRIVATE -Wall -Wextra)
    target_compile_definitions(tst_${name} PRIVATE
        QUICK_TEST_SOURCE_DIR="${ARG_QML_DIR}" KELO_QML_BUILD_DIR="${KELO_QML_BUILD_DIR}")
    # The module's plugin is loaded by the QML engine, not linked: build it first.
    add_dependencies(tst_${name} keloqml)
    add_test(NAME ${name} COMMAND tst_${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_QUICK_BACKEND=software;QT_FORCE_STDERR_LOGGING=1")
    if(ARG_LABELS)
        set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
    endif()
endfunction()
