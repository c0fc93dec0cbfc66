#!/bin/sh
# Usage: exports.sh CC CXX SOURCE_DIR OBJECT NM READELF
# The export list, the header and the built object name the same things; the object needs
# libc and libcjson only; the header compiles alone as C99 and as C++11.
set -eu
cc=$1 cxx=$2 source=$3 object=$4 nm=$5 readelf=$6
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
fail() {
    printf 'FAILED: %s\n' "$*"
    status=1
}
same() { # same WHAT FILE FILE
    diff -u "$2" "$3" >"$work/diff" || { fail "$1" && cat "$work/diff"; }
}

sed -n 's/^ *\([A-Za-z_0-9]*\);$/\1/p' "$source/src/qzlib.map" | sort >"$work/listed"
[ -s "$work/listed" ] || fail "empty export list"
[ "$(uniq -d "$work/listed")" = "" ] || fail "listed twice: $(uniq -d "$work/listed")"
"$nm" -D --defined-only "$object" | awk '{ print $3 }' | sort >"$work/exported"
same "exported differs from src/qzlib.map" "$work/listed" "$work/exported"

printf '#include <qzlib.h>\n' >"$work/header.c"
for language in "$cc -std=c99 -x c" "$cc -std=gnu11 -x c" "$cxx -std=c++11 -x c++" "$cxx -std=c++20 -x c++"; do
    $language -Wall -Wextra -pedantic -Werror -I"$source/include" -fsyntax-only "$work/header.c" ||
        fail "header does not compile alone: $language"
done

# Functions as the compiler sees them (functions of other headers carry another file name),
# data objects as they are declared.
$cc -E -I"$source/include" "$work/header.c" |
    awk '/^# [0-9]+ /{ own = ($3 ~ /qzlib\.h"$/); next } own' | tr '\n' ' ' |
    sed 's/{[^{}]*}//g; s/__attribute__ *(([^;]*))//g' | tr ';' '\n' |
    sed -n -e '/typedef/d' \
        -e 's/.*[ *(]\([a-z][A-Za-z_0-9]*\)(int sig, .*/\1/p;t' \
        -e 's/^[^(]*[ *]\([A-Za-z_][A-Za-z_0-9]*\) *(.*/\1/p;t' \
        -e 's/ *extern [^(]*[ *]\([A-Za-z_0-9]*\)\(\[[^]]*\]\)*$/\1/p' |
    tr -d ' ' | sort -u >"$work/declared"
same "declared in qzlib.h differs from src/qzlib.map" "$work/listed" "$work/declared"

needed=$("$readelf" -d "$object" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sed 's/\.so.*//' | sort | tr '\n' ' ')
[ "$needed" = "libc libcjson " ] || fail "needs $needed"
"$readelf" -d "$object" | grep -q 'SONAME.*\[libqzlib\.so\.3\]' || fail "SONAME"
if "$readelf" -d "$object" | grep -q TEXTREL; then fail "text relocations"; fi
exit $status
