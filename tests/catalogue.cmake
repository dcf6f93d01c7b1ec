# Menu catalogue and picture cache.
kelo_add_test(foodcatalogue TIMEOUT 30)
kelo_add_test(cdownloadfileman TIMEOUT 60)
