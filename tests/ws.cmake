# Notification channel: the WebSocket client against the local cloud.
# About 90 s: the two 15 s deadlines are waited out once each.
kelo_add_test(wsclient TIMEOUT 240)
# The deadlines and caps the tests wait out or fill.
target_include_directories(tst_wsclient PRIVATE "${PROJECT_SOURCE_DIR}/sdk")
# The exit probe starts this test program again; a cross build starts it through the emulator.
set(test_emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
list(JOIN test_emulator "|" test_emulator)
target_compile_definitions(tst_wsclient PRIVATE KELO_TEST_EMULATOR="${test_emulator}")
