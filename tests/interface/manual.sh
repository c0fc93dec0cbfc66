#!/bin/sh
# Usage: manual.sh BUILD_DIR EXPORTS
# The installed manual has a page for each exported name, and no page that mandoc warns about.
set -eu
build=$1 exports=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work" >/dev/null
cd "$work/share/man"

status=0
sed -n 's/^ *\([A-Za-z_0-9]*\);$/\1/p' "$exports" | while read -r name; do
    grep -qs "\(^\|, \)${name}[, ]" "man3/$name.3" || echo "no page for $name"
done >missing
for page in man1/qzbox.1 man5/qzlib-mbus.5 man7/qzlib.7 man7/qzlib-mbus.7 man8/mbusd.8; do
    [ -e "$page" ] || { echo "no $page" && status=1; }
done
# What a page refers to is there, too.
sed -n 's/^\.BR \(.*qz.*\) (\([1-8]\)).*/\1.\2/p' man*/* | sed 's/[\]//g' | sort -u |
    while read -r page; do [ -e "man${page##*.}/$page" ] || echo "no $page"; done >>missing
[ ! -s missing ] || { cat missing && status=1; }
mandoc -Tlint -W warning man?/* || status=1
exit $status
