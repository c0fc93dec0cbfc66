# SPDX-License-Identifier: MIT
# Sourced after common.sh: takes the architecture of the target, by Debian's name for it, off the
# front of the script's arguments (default mipsel), and says what follows from it.

architecture=mipsel
case "${1:-}" in
mipsel | armhf | arm64 | riscv64) architecture=$1 && shift ;;
esac

suite=bookworm # the last one with mipsel; newer libraries could ask for a newer libc than the compiler's
case "$architecture" in
mipsel)
    triplet=mipsel-linux-gnu
    emulator_package=qemu-system-mips kernel=4kc-malta machine="malta -cpu 24Kf" console=ttyS0
    ;;
armhf)
    triplet=arm-linux-gnueabihf
    emulator_package=qemu-system-arm kernel=armmp machine="virt,highmem=off -cpu cortex-a7" console=ttyAMA0
    ;;
arm64)
    triplet=aarch64-linux-gnu
    emulator_package=qemu-system-arm kernel=arm64 machine="virt -cpu cortex-a53" console=ttyAMA0
    ;;
riscv64) # built only: there is no machine of it
    triplet=riscv64-linux-gnu
    suite=trixie # the first one with it
    kernel=""
    ;;
esac
emulator=${triplet%%-*}
target=build/target/$architecture
