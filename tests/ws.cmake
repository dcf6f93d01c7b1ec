# Notification channel: the WebSocket client against the local cloud.
kelo_add_test(wsclient TIMEOUT 120)
# The exit probe starts this test program again; a cross build starts it through the emulator.
set(test_emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
list(JOIN test_emulator "|" test_emulator)
target_compile_definitions(tst_wsclient PRIVATE KELO_TEST_EMULATOR="${test_emulator}")
