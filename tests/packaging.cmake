# The exported symbols of libkelo.so.1 are exactly the committed list abi/libkelo.so.1.symbols, and
# all of them belong to the public classes (tools/abi.sh). Sanitizer builds export the
# instrumentation's symbols as well: the check belongs to the other builds.
if(NOT KELO_SANITIZE)
    add_test(NAME exported_symbols
        COMMAND bash "${PROJECT_SOURCE_DIR}/tools/abi.sh" symbols "$<TARGET_FILE:kelo>" "${CMAKE_NM}")
endif()
