# The demo host's whole day against the simulator must succeed.
if(TARGET kelo-demo)
    add_test(NAME demo_day
        COMMAND bash "${PROJECT_SOURCE_DIR}/tools/demo-day.sh"
                "$<TARGET_FILE:kelo-cloud>" "$<TARGET_FILE:kelo-demo>")
    # kelo-cloud holds no build key: it is handed this build's at run time.
    set_tests_properties(demo_day PROPERTIES TIMEOUT 300
        ENVIRONMENT "KELO_CLOUD_KEY=${KELO_SECRET_KEY}")
endif()
