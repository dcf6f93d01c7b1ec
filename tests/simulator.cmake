# kelo-cloud for integrators: the fixture on its command line, its start-up lines and SIGTERM.
if(TARGET kelo-cloud)
    kelo_add_test(simulator TIMEOUT 90)
    add_dependencies(tst_simulator kelo-cloud)
    # A cross-built tool cannot be started directly (no binfmt): it runs through the same
    # emulator as the tests; "|" separates the words.
    set(tool_command ${CMAKE_CROSSCOMPILING_EMULATOR} "$<TARGET_FILE:kelo-cloud>")
    list(JOIN tool_command "|" tool_command)
    target_compile_definitions(tst_simulator PRIVATE KELO_CLOUD_TOOL_COMMAND="${tool_command}")
endif()
