# Protocol messages (Libcmn) and the published reply helpers (HttpTool, json). Signatures are
# checked against OpenSSL's HMAC with the key this build was given.
find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
kelo_add_test(libcmn_builders)
target_link_libraries(tst_libcmn_builders PRIVATE OpenSSL::Crypto)
target_compile_definitions(tst_libcmn_builders PRIVATE KELO_TEST_SECRET_KEY="${KELO_SECRET_KEY}")
kelo_add_test(libcmn_parsers)
kelo_add_test(httptool)
