# Cross build for the recorder's CPU: 32-bit ARM, hard-float (armhf), with Debian's
# arm-linux-gnueabihf toolchain (package g++-arm-linux-gnueabihf). Test binaries run under
# qemu-arm (package qemu-user), so ctest works in the cross build directory as it does natively.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# scripts/test-armhf.sh does exactly this and runs the suite.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(OBD_ARMHF_TRIPLE arm-linux-gnueabihf)
set(OBD_ARMHF_SYSROOT /usr/${OBD_ARMHF_TRIPLE})

find_program(OBD_ARMHF_CXX ${OBD_ARMHF_TRIPLE}-g++)
find_program(OBD_ARMHF_CC ${OBD_ARMHF_TRIPLE}-gcc)
if(NOT OBD_ARMHF_CXX OR NOT OBD_ARMHF_CC)
  message(FATAL_ERROR "${OBD_ARMHF_TRIPLE}-g++ not found: run scripts/deps.sh armhf "
                      "(package g++-${OBD_ARMHF_TRIPLE})")
endif()
set(CMAKE_C_COMPILER ${OBD_ARMHF_CC})
set(CMAKE_CXX_COMPILER ${OBD_ARMHF_CXX})
# GCC notes that passing some aggregates changed ABI in GCC 7.1; everything on the target is built
# with one compiler, so the note is noise.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Libraries and their headers come from the armhf side only, so nothing built for the host can be
# linked in by accident. Package configs may also come from the host: the ones that matter here
# (CLI11, nlohmann_json) are header-only and architecture-independent, and Debian keeps every
# architecture-dependent config under /usr/lib/<triple>/cmake, which for this toolchain is the
# armhf one. The cross compiler searches the host's /usr/include last, after its own headers, so
# such header-only libraries resolve while libc and libstdc++ headers stay the armhf ones.
set(CMAKE_FIND_ROOT_PATH ${OBD_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# ctest (and gtest discovery) start every target binary through this. -L makes qemu look up the
# dynamic loader and the shared libraries in the armhf tree.
find_program(OBD_QEMU_ARM qemu-arm)
if(OBD_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${OBD_QEMU_ARM} -L ${OBD_ARMHF_SYSROOT})
else()
  message(WARNING "qemu-arm not found (package qemu-user): the armhf tests build but cannot run")
endif()
