# The local cloud as its clients see it: the merchant's rules, the control routes and the CA.
kelo_add_test(cloudserver TIMEOUT 90)
target_link_libraries(tst_cloudserver PRIVATE Qt5::WebSockets)
