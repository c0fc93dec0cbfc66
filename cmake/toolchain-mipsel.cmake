# 32-bit little-endian MIPS with Debian's cross compiler. cJSON and GoogleTest for the target
# come from the sysroot that scripts/target-sysroot makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)

# Flash is what the target is short of: -Os comes with the build type, and the preset has the
# library's code, not that of the tests, in the processor's 16-bit instructions (-mips16), which
# takes a third off. The 24K cores know MIPS32 release 2 and MIPS16e.
set(CMAKE_C_FLAGS_INIT "-march=mips32r2 -mtune=24kc")
set(CMAKE_CXX_FLAGS_INIT "-march=mips32r2 -mtune=24kc")

# The target's pages have 4 KiB. The linker's default for MIPS, 64 KiB, keeps code and data
# that far apart and pads the file up to there.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")

get_filename_component(QZLIB_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/target/sysroot" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${QZLIB_SYSROOT} /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
