# HTTP transport: parameter lists and the request objects.
kelo_add_test(httpparams TIMEOUT 30)
kelo_add_test(httpbase TIMEOUT 60)
