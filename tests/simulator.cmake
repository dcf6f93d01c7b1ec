# kelo-cloud for integrators: the fixture on its command line, its start-up lines and SIGTERM.
# The tool runs on the developer's machine, so it is checked in native builds only: under
# qemu-user, QProcess of Qt 5.15 cannot start children at all (its clone with CLONE_PIDFD is
# refused by the emulator), so a cross-built suite could not start the tool.
if(TARGET kelo-cloud AND NOT CMAKE_CROSSCOMPILING)
    kelo_add_test(simulator TIMEOUT 90)
    add_dependencies(tst_simulator kelo-cloud)
    target_compile_definitions(tst_simulator PRIVATE KELO_CLOUD_TOOL_COMMAND="$<TARGET_FILE:kelo-cloud>"
        KELO_TEST_DEVELOPMENT_KEY="${KELO_DEVELOPMENT_KEY}")
endif()
