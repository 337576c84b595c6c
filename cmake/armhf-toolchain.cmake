# Cross build for the controller: 32-bit ARM, hard-float (Debian armhf,
# arm-linux-gnueabihf), run on a development host under qemu-user.
#
# The compiler is the host's clang with --target and the lld linker: Debian's
# own arm-linux-gnueabihf g++ cannot be installed beside g++-multilib (which
# the -m32 check needs), clang can. The target's C library, C++ library and
# the project's dependencies come from Debian's armhf packages unpacked into
# a sysroot under the build tree (cmake/armhf-sysroot.sh makes it; `./run
# test-arm` calls both).
#
# Inputs: ORBEL_ARMHF_SYSROOT (cache variable or environment variable), the
# unpacked sysroot; default build/armhf-sysroot beside this source tree.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

if(NOT ORBEL_ARMHF_SYSROOT)
  if(DEFINED ENV{ORBEL_ARMHF_SYSROOT} AND NOT "$ENV{ORBEL_ARMHF_SYSROOT}" STREQUAL "")
    set(ORBEL_ARMHF_SYSROOT "$ENV{ORBEL_ARMHF_SYSROOT}")
  else()
    get_filename_component(ORBEL_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot"
                           ABSOLUTE)
  endif()
endif()
set(ORBEL_ARMHF_SYSROOT "${ORBEL_ARMHF_SYSROOT}" CACHE PATH "Unpacked armhf sysroot")
if(NOT EXISTS "${ORBEL_ARMHF_SYSROOT}/usr/include/stdio.h")
  message(FATAL_ERROR "armhf sysroot missing at ${ORBEL_ARMHF_SYSROOT}: "
                      "run cmake/armhf-sysroot.sh (./run test-arm does)")
endif()
# try_compile projects configure with this file again: hand them the path.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORBEL_ARMHF_SYSROOT)

set(_orbel_triple arm-linux-gnueabihf)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${_orbel_triple})
set(CMAKE_CXX_COMPILER_TARGET ${_orbel_triple})
set(CMAKE_SYSROOT "${ORBEL_ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${_orbel_triple})

# Debian's armhf baseline: ARMv7-A, VFPv3-D16, Thumb-2, hard-float calls.
set(_orbel_arch "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")
set(CMAKE_C_FLAGS_INIT "${_orbel_arch}")
set(CMAKE_CXX_FLAGS_INIT "${_orbel_arch}")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld")
endforeach()

# Only the sysroot's libraries and headers; host programs from the host.
set(CMAKE_FIND_ROOT_PATH "${ORBEL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ORBEL_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ORBEL_ARMHF_SYSROOT}/usr/lib/${_orbel_triple}/pkgconfig:${ORBEL_ARMHF_SYSROOT}/usr/share/pkgconfig")

# CTest runs every test program under the emulator; the test support runs
# the child programs it starts the same way (ORBEL_TEST_LAUNCHER, set per
# test in tests/CMakeLists.txt from this list).
find_program(ORBEL_QEMU_ARM qemu-arm)
if(ORBEL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ORBEL_QEMU_ARM};-L;${ORBEL_ARMHF_SYSROOT}")
endif()
