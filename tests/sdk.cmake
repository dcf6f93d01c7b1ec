# The SDK object: notification hookup, each request kind's wire form and busy guard, logging;
# then one suite per flow with a state of its own.
kelo_add_test(kelosdk)
kelo_add_test(kelosdk_login)
kelo_add_test(kelosdk_payment)
kelo_add_test(kelosdk_lifetime)
