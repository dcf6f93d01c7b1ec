# The local cloud as its clients see it: the merchant's rules, the control routes and the CA.
kelo_add_test(cloudserver TIMEOUT 90)
target_link_libraries(tst_cloudserver PRIVATE ${KELO_QT}::WebSockets)
target_compile_definitions(tst_cloudserver PRIVATE KELO_TEST_DEVELOPMENT_KEY="${KELO_DEVELOPMENT_KEY}")
