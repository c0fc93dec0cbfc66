#!/bin/sh
# Usage: installed.sh CC CXX BUILD_DIR SOURCES EXPORTS
# Installs everything into a new prefix, builds programs outside the tree against the library there, the
# ways a firmware engineer would (pkg-config, find_package, -lqzlib alone, dlopen()), and reads the manual.
# shellcheck disable=SC2086 # $flags is a list
set -eu
cc=$1 cxx=$2 build=$3 sources=$4 exports=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
status=0
cmake --install "$build" --prefix "$prefix" >/dev/null
cd "$prefix"

for file in include/qzlib.h lib/libqzlib.so lib/libqzlib.so.3 lib/libqzlib.so.3.2.0 lib/pkgconfig/qzlib.pc \
    lib/cmake/qzlib/qzlib-config.cmake bin/qzbox share/man/man1/qzbox.1 share/man/man5/qzlib-mbus.5 \
    share/man/man7/qzlib.7 share/man/man7/qzlib-mbus.7 share/man/man8/mbusd.8; do
    [ -e "$file" ] || { echo "not installed: $file" && exit 1; }
done

# Each exported name has a page, and each page that one refers to is there.
cd share/man
{
    sed -n 's/^ *\([A-Za-z_0-9]*\);$/\1/p' "$exports" | while read -r name; do
        grep -qs "\(^\|, \)${name}[, ]" "man3/$name.3" || echo "no page for $name"
    done
    sed -n 's/^\.BR \(.*qz.*\) (\([1-8]\)).*/\1.\2/p' man*/* | sed 's/[\]//g' | sort -u |
        while read -r page; do [ -e "man${page##*.}/$page" ] || echo "no $page"; done
} >"$work/missing"
[ ! -s "$work/missing" ] || { cat "$work/missing" && status=1; }
mandoc -Tlint -W warning man?/* || status=1

flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs qzlib)
cd "$work"
$cc -std=c99 -Wall -Wextra -Werror "$sources/consumer.c" -o by_pkg_config_c $flags -ldl
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
exit $status
