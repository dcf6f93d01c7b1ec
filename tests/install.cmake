# The installed package as an integrator uses it. A cross build has no host toolchain for the
# target and cannot run kelo-cloud directly: the check belongs to native builds.
if(NOT CMAKE_CROSSCOMPILING)
    add_test(NAME install_package
        COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/install/check-install.sh"
                "${CMAKE_BINARY_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}/install" "$<TARGET_FILE:kelo-cloud>"
                ${KELO_QT_MAJOR})
    # kelo-cloud holds no build key: it is handed this build's at run time.
    set_tests_properties(install_package PROPERTIES TIMEOUT 300
        ENVIRONMENT "KELO_CLOUD_KEY=${KELO_SECRET_KEY}")
endif()
