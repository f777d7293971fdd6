# Cross build for 32-bit ARM Linux (hard float) with Debian's
# arm-linux-gnueabihf toolchain. Programs run under qemu-arm, so ctest works
# as on the host:
#
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#   cmake --build build/arm -j2 && ctest --test-dir build/arm
#
# Needs g++-arm-linux-gnueabihf, qemu-user and android-liblog-dev:armhf
# (scripts/setup.sh installs them).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(EVRC_CROSS_TRIPLE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${EVRC_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${EVRC_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${EVRC_CROSS_TRIPLE})
# The target's loader and C library come from Debian's armhf multiarch
# packages (libc6:armhf); with the cross toolchain's copy under
# /usr/arm-linux-gnueabihf a program that starts a thread crashes in qemu.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /)

# Nothing here is mixed with objects from GCC before 7.1, so its notes about
# the changed passing of some parameters are noise.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Target files live in the cross toolchain's tree and in Debian's multiarch
# directories (/usr/lib/arm-linux-gnueabihf, where liblog:armhf installs).
# Programs (python3, qemu) always come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${EVRC_CROSS_TRIPLE} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The OpenMAX IL and Android log headers are architecture-independent, but
# they sit in /usr/include next to the host's C library headers, which must
# not reach the cross compiler. Copy just them into a private directory.
get_property(evrc_in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT evrc_in_try_compile)
  set(evrc_cross_include ${CMAKE_BINARY_DIR}/cross-include)
  file(GLOB evrc_omx_headers /usr/include/OMX_*.h)
  if(evrc_omx_headers)
    file(COPY ${evrc_omx_headers} DESTINATION ${evrc_cross_include}/omx)
  endif()
  if(IS_DIRECTORY /usr/include/bellagio)
    file(COPY /usr/include/bellagio DESTINATION ${evrc_cross_include}/omx)
  endif()
  if(EXISTS /usr/include/android/android/log.h)
    file(COPY /usr/include/android/ DESTINATION ${evrc_cross_include}/android)
  endif()
  set(OMX_INCLUDE_DIR ${evrc_cross_include}/omx CACHE PATH "OpenMAX IL headers for the target")
  set(ANDROID_LOG_INCLUDE_DIR ${evrc_cross_include}/android CACHE PATH "Android log headers for the target")
endif()

# Host-only parts: benchmarks and tools need host libraries (benchmark,
# libsndfile, ffmpeg) that have no place in the target build.
set(EVRC_BUILD_BENCH OFF CACHE BOOL "Build the benchmarks")
set(EVRC_BUILD_TOOLS OFF CACHE BOOL "Build the command-line tools")
