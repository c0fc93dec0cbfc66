# SPDX-License-Identifier: MIT
# The library alone against a small libc: musl for 32-bit little-endian MIPS, from the folder
# that scripts/target-musl prepares. The compiler is Debian's, configured for glibc: its own
# header and library folders are set aside, its C++ headers are told what they would otherwise
# ask glibc for. <atomic> and <memory> still need glibc; the library does not use them.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-debian.cmake)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY) # there is no libc to link programs with yet

get_filename_component(QZLIB_MUSL "${CMAKE_CURRENT_LIST_DIR}/../build/target/mipsel/musl" ABSOLUTE)
set(GCC_INCLUDES /usr/lib/gcc-cross/mipsel-linux-gnu/12/include)
set(CXX_INCLUDES /usr/mipsel-linux-gnu/include/c++/12)
set(LIBC_HEADERS "-isystem ${QZLIB_MUSL}/usr/include/mipsel-linux-musl -isystem ${GCC_INCLUDES} -isystem ${QZLIB_MUSL}/kernel")
string(APPEND CMAKE_C_FLAGS_INIT " -nostdinc ${LIBC_HEADERS}")
string(APPEND CMAKE_CXX_FLAGS_INIT " -nostdinc -nostdinc++ -D'__GLIBC_PREREQ(a,b)=0' -D__locale_t=locale_t"
    " -isystem ${CXX_INCLUDES} -isystem ${CXX_INCLUDES}/mipsel-linux-gnu ${LIBC_HEADERS}")

# By its name, as -lc may pick the static archive, which is not position-independent.
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -nostdlib -L${QZLIB_MUSL}/lib/mipsel-linux-musl")
set(CMAKE_C_STANDARD_LIBRARIES "-l:libc.so -lgcc")

set(CMAKE_FIND_ROOT_PATH ${QZLIB_MUSL})
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-musl)
