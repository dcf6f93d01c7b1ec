# Sourced by tools/make-packages.sh and tools/abi.sh: the build that the Debian packages ship.
#   configure_package_build <amd64|armhf> <build-dir>
# Release (-O3 -DNDEBUG) with Debian's hardening flags (dpkg-buildflags, hardening=+all), whose
# CXXFLAGS also bring -g and -ffile-prefix-map (paths in the debug information stay relative, so
# the ABI description does not depend on where the tree is). Tests and examples are not built.
# The packages are stripped by CPack; the build tree keeps the debug information for abidw.
configure_package_build() {
    local arch=$1 build=$2 root=$PWD
    local cross=() env_args=(DEB_BUILD_MAINT_OPTIONS=hardening=+all)
    if [ "$arch" = armhf ]; then
        cross=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" -DKELO_ARMHF_SYSROOT="$root/_build/armhf-sysroot")
        env_args+=(DEB_HOST_ARCH=armhf)
    fi
    local cxxflags ldflags
    cxxflags="$(env "${env_args[@]}" dpkg-buildflags --get CXXFLAGS) $(env "${env_args[@]}" dpkg-buildflags --get CPPFLAGS)"
    # Given CMAKE_CXX_FLAGS replaces the toolchain's initial flags: keep its -Wno-psabi for armhf.
    if [ "$arch" = armhf ]; then cxxflags+=" -Wno-psabi"; fi
    ldflags=$(env "${env_args[@]}" dpkg-buildflags --get LDFLAGS)
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_WARNINGS_AS_ERRORS=ON \
        -DKELO_PACKAGING=ON -DCMAKE_INSTALL_PREFIX=/usr \
        -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_EXAMPLES=OFF -DKELO_BUILD_TOOLS=ON \
        -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_SHARED_LINKER_FLAGS="$ldflags" \
        -DCMAKE_EXE_LINKER_FLAGS="$ldflags" -DCMAKE_MODULE_LINKER_FLAGS="$ldflags" \
        "${cross[@]}" >/dev/null
}
