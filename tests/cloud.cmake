# The local cloud server as its clients see it.
kelo_add_test(cloudserver TIMEOUT 90)
target_link_libraries(tst_cloudserver PRIVATE Qt5::WebSockets)
# A cross-built tool cannot be started directly (no binfmt): tst_simulator runs it through
# the emulator, so here it is checked in native builds only.
if(TARGET kelo-cloud AND NOT CMAKE_CROSSCOMPILING)
    add_dependencies(tst_cloudserver kelo-cloud)
    target_compile_definitions(tst_cloudserver PRIVATE KELO_CLOUD_TOOL_PATH="$<TARGET_FILE:kelo-cloud>")
endif()
