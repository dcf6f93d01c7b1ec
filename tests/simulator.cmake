# kelo-cloud for integrators: fixtures on its command line, and the control routes under /_sim/.
if(TARGET kelo-cloud)
    kelo_add_test(simulator TIMEOUT 90)
    target_link_libraries(tst_simulator PRIVATE Qt5::WebSockets)
    add_dependencies(tst_simulator kelo-cloud)
    # A cross-built tool runs through the same emulator as the tests; "|" separates the words.
    set(tool_command ${CMAKE_CROSSCOMPILING_EMULATOR} "$<TARGET_FILE:kelo-cloud>")
    list(JOIN tool_command "|" tool_command)
    target_compile_definitions(tst_simulator PRIVATE KELO_CLOUD_TOOL_COMMAND="${tool_command}")
endif()
