# Menu catalogue and picture cache.
kelo_add_test(foodcatalogue TIMEOUT 30)
kelo_add_test(cdownloadfileman TIMEOUT 60)
# The picture stamp is tested through the library's own private helper.
target_include_directories(tst_cdownloadfileman PRIVATE "${PROJECT_SOURCE_DIR}/catalogue")
