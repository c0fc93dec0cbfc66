#!/bin/sh
# SPDX-License-Identifier: MIT
# Usage: in_home.sh SOURCE_DIR BUILD_DIR DOCUMENT, in a box, which keeps both visible.
# A home with a copy of what the documents use of the tree in ~/src, and the build in its place there. It
# is on /srv, since the boxes that the documents make have a /tmp of their own, and the tree may be in /home.
set -eu
source=$1 build=$2 home=/srv/you
mount -t tmpfs home /srv
mkdir -p $home/src/build
cp -R "$source/examples" "$source/docs" "$source/README.md" $home/src
ln -s "$build" $home/src/build/release
cd $home
exec env -i HOME=$home PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin \
    python3 "$source/tests/docs/run.py" "src/$3"
