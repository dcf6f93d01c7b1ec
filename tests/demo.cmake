# The demo host's whole day against the simulator must succeed.
if(TARGET kelo-demo)
    add_test(NAME demo_day
        COMMAND bash "${PROJECT_SOURCE_DIR}/tools/demo-day.sh"
                "$<TARGET_FILE:kelo-cloud>" "$<TARGET_FILE:kelo-demo>")
    set_tests_properties(demo_day PROPERTIES TIMEOUT 300)
endif()
