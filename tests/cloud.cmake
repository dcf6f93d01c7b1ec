# The local cloud server as its clients see it.
kelo_add_test(cloudserver TIMEOUT 90)
target_link_libraries(tst_cloudserver PRIVATE Qt5::WebSockets)
if(TARGET kelo-cloud)
    add_dependencies(tst_cloudserver kelo-cloud)
    target_compile_definitions(tst_cloudserver PRIVATE KELO_CLOUD_TOOL_PATH="$<TARGET_FILE:kelo-cloud>")
endif()
