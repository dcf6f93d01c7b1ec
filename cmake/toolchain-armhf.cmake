# Cross-builds for 32-bit ARM Linux (Debian armhf) against a sysroot made by
# tools/make-armhf-sysroot.sh, using Debian's arm-linux-gnueabihf cross compiler:
#
#   cmake -S . -B _build/armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DKELO_ARMHF_SYSROOT=$PWD/_build/armhf-sysroot
#
# Qt's code generators (moc, rcc, uic) run on the build machine: the host's are used with the
# sysroot's Qt libraries and headers (both Qt 5.15 from the same Debian release). Test programs run
# through qemu-arm (CMAKE_CROSSCOMPILING_EMULATOR), so ctest works unchanged.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KELO_ARMHF_TRIPLET arm-linux-gnueabihf)

set(KELO_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../_build/armhf-sysroot"
    CACHE PATH "armhf sysroot made by tools/make-armhf-sysroot.sh")
get_filename_component(_kelo_sysroot "${KELO_ARMHF_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${_kelo_sysroot}/usr/lib/${KELO_ARMHF_TRIPLET}")
    message(FATAL_ERROR "No armhf sysroot at ${_kelo_sysroot}: run tools/make-armhf-sysroot.sh first")
endif()
# try_compile() projects read this file again: hand them the sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELO_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER ${KELO_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KELO_ARMHF_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KELO_ARMHF_TRIPLET})

set(CMAKE_SYSROOT "${_kelo_sysroot}")
set(CMAKE_FIND_ROOT_PATH "${_kelo_sysroot}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The sysroot's libraries pull in others by soname (Qt -> ICU, GLES, ...): let the linker find them
# there rather than nowhere.
foreach(_dir lib/${KELO_ARMHF_TRIPLET} usr/lib/${KELO_ARMHF_TRIPLET})
    string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_kelo_sysroot}/${_dir}")
    string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_kelo_sysroot}/${_dir}")
endforeach()
# GCC notes every std::pair/QPair passed by value that its ARM calling convention changed in 7.1;
# all code here is built by one compiler, so the notes say nothing.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")

# Host Qt tools. Qt5's CMake files only create Qt5::moc and friends when they are not defined yet,
# and would otherwise point them at armhf binaries inside the sysroot.
find_program(KELO_HOST_QT_MOC moc PATHS /usr/lib/qt5/bin /usr/lib/x86_64-linux-gnu/qt5/bin NO_DEFAULT_PATH)
if(NOT KELO_HOST_QT_MOC)
    message(FATAL_ERROR "The host's Qt 5 moc is missing: install qtbase5-dev-tools")
endif()
get_filename_component(_kelo_qt_bin "${KELO_HOST_QT_MOC}" DIRECTORY)
foreach(_tool moc rcc uic lrelease)
    if(NOT TARGET Qt5::${_tool} AND EXISTS "${_kelo_qt_bin}/${_tool}")
        add_executable(Qt5::${_tool} IMPORTED)
        set_target_properties(Qt5::${_tool} PROPERTIES IMPORTED_LOCATION "${_kelo_qt_bin}/${_tool}")
    endif()
endforeach()

find_program(KELO_QEMU_ARM qemu-arm)
if(NOT KELO_QEMU_ARM)
    message(FATAL_ERROR "qemu-arm is missing: install qemu-user")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${KELO_QEMU_ARM};-L;${_kelo_sysroot}")
