# The SDK object: construction and notification hookup, then one suite per group of flows.
kelo_add_test(kelosdk)
kelo_add_test(kelosdk_login)
kelo_add_test(kelosdk_floor)
kelo_add_test(kelosdk_payment)
