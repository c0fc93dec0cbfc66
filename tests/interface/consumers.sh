#!/bin/sh
# Usage: consumers.sh CC CXX BUILD_DIR SOURCES
# Installs the library into a new prefix and builds programs outside the tree against it, the
# ways a firmware engineer would: pkg-config, find_package, -lqzlib alone, dlopen().
set -eu
cc=$1 cxx=$2 build=$3 sources=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

for file in include/qzlib.h lib/libqzlib.so lib/libqzlib.so.3 lib/libqzlib.so.3.2.0 lib/pkgconfig/qzlib.pc \
    lib/cmake/qzlib/qzlib-config.cmake bin/qzbox share/man/man1/qzbox.1; do
    [ -e "$prefix/$file" ] || { echo "not installed: $file" && exit 1; }
done

PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs qzlib)
cd "$work"
# shellcheck disable=SC2086 # a list of flags
$cc -std=c99 -Wall -Wextra -Werror "$sources/consumer.c" -o by_pkg_config_c $flags -ldl
# shellcheck disable=SC2086
$cxx -std=c++11 -Wall -Wextra -Werror -x c++ "$sources/consumer.c" -o by_pkg_config_cxx $flags -ldl
$cc -std=c99 -I"$prefix/include" "$sources/consumer.c" -o by_name_alone -L"$prefix/lib" -lqzlib -ldl

mkdir project
cp "$sources/consumer.c" project/
cat >project/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(qzlib 3.2 REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer qzlib::qzlib ${CMAKE_DL_LIBS})
CMAKE
CC=$cc cmake -G Ninja -S project -B project/build -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build project/build >/dev/null

for program in by_pkg_config_c by_pkg_config_cxx by_name_alone project/build/consumer; do
    LD_LIBRARY_PATH=$prefix/lib "$build/bin/qzbox" --bind "$work" -- "$work/$program" || { echo "failed: $program" && exit 1; }
done

# The tools find the library beside them, wherever the prefix is now.
mv "$prefix" "$work/moved"
for tool in "$work"/moved/bin/*; do
    "$tool" --help >"$work/help" || { echo "does not start: $tool" && exit 1; }
done
