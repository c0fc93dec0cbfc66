# SPDX-License-Identifier: MIT
# Debian's cross compilers. QZLIB_ARCHITECTURE is Debian's name of the processor. cJSON and
# GoogleTest for it come from the sysroot that scripts/target-sysroot makes.
set(QZLIB_ARCHITECTURE mipsel CACHE STRING "The processor to build for: mipsel, armhf, arm64 or riscv64")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QZLIB_ARCHITECTURE)

# Flash is what the target is short of: -Os comes with the build type, and the preset has the
# library's code for MIPS, not that of the tests, in the processor's 16-bit instructions
# (-mips16), which takes a third off. The 24K cores know MIPS32 release 2 and MIPS16e.
set(mipsel_TRIPLET mipsel-linux-gnu)
set(mipsel_FLAGS "-march=mips32r2 -mtune=24kc")
set(armhf_TRIPLET arm-linux-gnueabihf)
set(armhf_FLAGS "-Wno-psabi") # notes on what GCC before 7.1 did with C++ arguments
set(arm64_TRIPLET aarch64-linux-gnu)
set(riscv64_TRIPLET riscv64-linux-gnu)

# 32-bit kernels have pages of 4 KiB. The linker's default for MIPS and ARM, 64 KiB, keeps code
# and data that far apart and pads the file up to there. 64-bit ARM kernels may have such pages.
set(mipsel_LINK_FLAGS "-Wl,-z,max-page-size=4096")
set(armhf_LINK_FLAGS ${mipsel_LINK_FLAGS})

set(QZLIB_TRIPLET ${${QZLIB_ARCHITECTURE}_TRIPLET})
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${QZLIB_TRIPLET}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${QZLIB_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QZLIB_TRIPLET}-g++)
set(CMAKE_C_FLAGS_INIT "${${QZLIB_ARCHITECTURE}_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${${QZLIB_ARCHITECTURE}_FLAGS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${${QZLIB_ARCHITECTURE}_LINK_FLAGS}")

get_filename_component(QZLIB_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/target/${QZLIB_ARCHITECTURE}/sysroot" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${QZLIB_SYSROOT} /usr/${QZLIB_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
