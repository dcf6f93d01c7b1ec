# The installed package as an integrator uses it.
add_test(NAME install_package
    COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/install/check-install.sh"
            "${CMAKE_BINARY_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}/install" "$<TARGET_FILE:kelo-cloud>")
set_tests_properties(install_package PROPERTIES TIMEOUT 300)
