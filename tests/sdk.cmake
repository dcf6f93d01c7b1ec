# The SDK object: construction and notification hookup, then one suite per group of flows.
kelo_add_test(kelosdk TIMEOUT 60)
kelo_add_test(kelosdk_login TIMEOUT 60)
kelo_add_test(kelosdk_floor TIMEOUT 60)
kelo_add_test(kelosdk_payment TIMEOUT 60)
