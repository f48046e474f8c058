# The appliance: 32-bit ARM Linux, hard float.
#
# With Debian's cross compiler and armhf packages it works as it stands. For a firmware's own tree, copy it
# and give the build three places, here or with -D on the command line:
#   CMAKE_SYSROOT         the firmware's root: libc, libstdc++ and jansson, with headers and jansson.pc
#   CV_HOST_INCLUDE_DIR   the maker's headers, in place of host/include
#   CV_CVUTILS_LIBRARY    the maker's libcvutils.so to link against
# and, where the compiler is another one, CV_TARGET.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

# The prefix of the compiler's programs, and the name of the directory of the target's libraries.
set(CV_TARGET arm-linux-gnueabihf CACHE STRING "Target of the cross compiler")
set(CMAKE_C_COMPILER ${CV_TARGET}-gcc)
set(CMAKE_CXX_COMPILER ${CV_TARGET}-g++)

# Runs the tests.
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
endif()

# A note on what GCC 7 changed, printed for every container, concerns nobody who compiles all of it anew.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Programs come from this machine, everything else from the sysroot where there is one.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Without this pkg-config would answer for this machine's own libraries.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/${CV_TARGET}/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

# The compiler tests of the configure step read these again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CV_TARGET)
