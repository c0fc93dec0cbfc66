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

sed -n 's/^ \(.*\)@Base .*/\1/p' "$source/packaging/debian/libqzlib3.symbols" | sort >"$work/packaged"
same "packaging/debian/libqzlib3.symbols differs from src/qzlib.map" "$work/listed" "$work/packaged"

printf '#include <qzlib.h>\n' >"$work/header.c"
for language in "$cc -std=c99 -x c" "$cc -std=gnu11 -x c" "$cxx -std=c++11 -x c++" "$cxx -std=c++20 -x c++"; do
    $language -Wall -Wextra -pedantic -Werror -I"$source/include" -fsyntax-only "$work/header.c" ||
        fail "header does not compile alone: $language"
done

# Beside zlib's header, of which this is enough.
mkdir "$work/zlib"
printf '#define ZLIB_H\nunsigned long crc32(unsigned long, const unsigned char *, unsigned);\n' >"$work/zlib/zlib.h"
printf '#include <zlib.h>\n#include <qzlib.h>\n' >"$work/after.c"
printf '#define QZLIB_NO_CRC32\n#include <qzlib.h>\n#include <zlib.h>\n' >"$work/before.c"
# A daemon may have a time_t of 64 bits where the library's has 32.
cat >"$work/time.c" <<'C'
#include <qzlib.h>
_Static_assert(sizeof(long) == 8 || _Generic(str_timestamp, char *(*)(int32_t, char *, int): 1, default: 0), "");
C
$cc -std=gnu11 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -I"$source/include" -I"$work/zlib" -fsyntax-only \
    "$work/after.c" "$work/before.c" "$work/time.c" || fail "header beside zlib's or with a time_t of 64 bits"

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

"$readelf" -hdlW "$object" >"$work/object"
has() { grep -Eq "$1" "$work/object"; }
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\.so.*/\1/p' "$work/object" | sort | tr '\n' ' ')
[ "$needed" = "libc libcjson " ] || fail "needs $needed"
has 'SONAME.*\[libqzlib\.so\.3\]' || fail "SONAME"
# On MIPS all is hidden to the compiler (src/base/all_hidden.h); a program may have a data object's only
# copy nevertheless, which the library finds through the table's global part.
if has 'Machine: *MIPS'; then
    "$readelf" -WA "$object" | sed -n '/Global entries/,$s/.* OBJECT .* \([A-Za-z_0-9]*\)$/\1/p' | sort >"$work/global"
    "$nm" -D --defined-only "$object" | awk '$2 != "T" { print $3 }' | sort | comm -23 - "$work/global" >"$work/own"
    same "reached past the table" /dev/null "$work/own"
fi

# Hardening, read back: all is bound when the object is loaded and read-only afterwards; nothing is writable
# and executable, the stack included; no search path of its own.
has 'FLAGS.*NOW' || fail "lazy binding"
has GNU_RELRO || fail "writable after relocation"
has 'GNU_STACK.* RW ' || fail "executable stack"
! has 'LOAD.* RWE ' || fail "a segment that is writable and executable"
! has TEXTREL || fail "text relocations"
! has 'R(UN)?PATH' || fail "a search path"
exit $status
