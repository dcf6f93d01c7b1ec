# The target platform's data model, reported by every test run (native and armhf under qemu).
kelo_add_test(platform TIMEOUT 60)
