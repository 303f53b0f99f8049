# Toolchain: 64-bit Arm Linux, built with the distribution's cross compiler and tried under qemu's user emulation.
#
# SONETRIX_SYSROOT is a tree with the target's headers and libraries, CPython among them: by default the one that
# tools/setup arm makes of the distribution's packages.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(SONETRIX_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-arm64 CACHE PATH "The target's headers and libraries")
cmake_path(ABSOLUTE_PATH SONETRIX_SYSROOT NORMALIZE OUTPUT_VARIABLE CMAKE_SYSROOT)
if(NOT IS_DIRECTORY ${CMAKE_SYSROOT}/usr/include)
    message(FATAL_ERROR "${CMAKE_SYSROOT} is no tree with an Arm system's headers. Make it with tools/setup arm, or name "
        "your board's with -DSONETRIX_SYSROOT=<tree>.")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SONETRIX_SYSROOT)

if(NOT CMAKE_C_COMPILER)
    set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
endif()
if(NOT CMAKE_CXX_COMPILER)
    set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(SONETRIX_QEMU NAMES qemu-aarch64 qemu-aarch64-static)
if(SONETRIX_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${SONETRIX_QEMU} -L ${CMAKE_SYSROOT})
endif()
