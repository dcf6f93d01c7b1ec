# kelo-cloud for integrators: fixtures on its command line, and the control routes under /_sim/.
if(TARGET kelo-cloud)
    kelo_add_test(simulator TIMEOUT 90)
    target_link_libraries(tst_simulator PRIVATE Qt5::WebSockets)
    add_dependencies(tst_simulator kelo-cloud)
    target_compile_definitions(tst_simulator PRIVATE KELO_CLOUD_TOOL_PATH="$<TARGET_FILE:kelo-cloud>")
endif()
