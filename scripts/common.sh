# SPDX-License-Identifier: MIT
# Shared by the scripts: where the tree is, and how packages get installed. Sourced, not run.

set -eu
cd "$(dirname "$0")/.."

say() { printf '\n== %s\n' "$*"; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

wait_for_dpkg="-o DPkg::Lock::Timeout=300" # a machine that has just started may be installing, too

# need PACKAGE...: installs the Debian packages that are missing, without asking.
need() {
    missing=""
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    say "installing$missing"
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        echo "there is no sudo; root has to install them first" >&2
        exit 1
    fi
    # shellcheck disable=SC2086 # lists of words
    as_root apt-get $wait_for_dpkg update -qq
    # shellcheck disable=SC2086 # lists of words
    as_root env DEBIAN_FRONTEND=noninteractive apt-get $wait_for_dpkg install -y -qq --no-install-recommends $missing \
        </dev/null >/dev/null
}

# Ends the script, before it builds anything, where the kernel would refuse a router in a box.
need_box() {
    set -- --mount --net --ipc --uts --pid --fork --propagation unchanged --mount-proc true
    [ "$(id -u)" -ne 0 ] || ! unshare "$@" 2>/dev/null || return 0
    unshare --map-root-user "$@" || {
        echo "this machine permits no router in a box: run this as root, in a container with the" \
            "capability SYS_ADMIN; or permit user namespaces (sysctl user.max_user_namespaces=10000," \
            "where they exist kernel.unprivileged_userns_clone=1 and" \
            "kernel.apparmor_restrict_unprivileged_userns=0; not in a chroot)" >&2
        exit 1
    }
}

BUILD_PACKAGES="cmake ninja-build gcc g++ libc6-dev pkg-config libcjson-dev"
RUN_PACKAGES="iproute2 net-tools procps"
MQTT_PACKAGES="libmosquitto-dev mosquitto mosquitto-clients"
BENCH_PACKAGES="libbenchmark-dev zlib1g-dev libdbus-1-dev libmosquitto-dev"
TEST_PACKAGES="libgtest-dev openssl mandoc python3 u-boot-tools libubootenv-tool"

# The style is that of one version, since every version has its own. Debian 12 has this one; elsewhere
# scripts/test leaves it out and says so.
STYLE_PACKAGES="clang-format-14"
can_check_style() {
    for tool in $STYLE_PACKAGES; do
        command -v "$tool" >/dev/null || apt-cache show "$tool" >/dev/null 2>&1 || return 1
    done
}

# run_tests BUILD [CTEST-OPTION...]: many at once, since most of them wait.
run_tests() {
    tests=$1
    shift
    ctest --test-dir "$tests" --output-on-failure -j $(($(nproc) * 16)) --no-tests=error "$@"
}
