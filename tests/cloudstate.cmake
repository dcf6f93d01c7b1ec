kelo_add_test(cloudstate TIMEOUT 60)
