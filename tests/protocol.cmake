# Protocol messages (Libcmn) and the published reply helpers (HttpTool, json).
kelo_add_test(libcmn_builders)
kelo_add_test(libcmn_parsers)
kelo_add_test(httptool)

# Signatures are checked against OpenSSL's HMAC with the key this build was given.
find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
kelo_add_test(libcmn_signing)
target_link_libraries(tst_libcmn_signing PRIVATE OpenSSL::Crypto)
target_compile_definitions(tst_libcmn_signing PRIVATE KELO_TEST_SECRET_KEY="${KELO_SECRET_KEY}")
