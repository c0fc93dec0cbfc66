# Stage "musl": the program that calls every family, against the small libc.
"$BUILD/bin/qzbox" --bind "$SOURCE" --bind "$BUILD" -- /qz/musl/every_family
