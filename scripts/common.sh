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

# need PACKAGE...: installs the Debian packages that are missing, without asking.
need() {
    missing=""
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    say "installing$missing"
    as_root apt-get update -qq
    # shellcheck disable=SC2086 # a list of words
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing \
        </dev/null >/dev/null
}

BUILD_PACKAGES="cmake ninja-build gcc g++ libc6-dev pkg-config libcjson-dev"
RUN_PACKAGES="iproute2 net-tools procps"
TEST_PACKAGES="libgtest-dev u-boot-tools libubootenv-tool"

# run_tests BUILD [CTEST-OPTION...]: many at once, since most of them wait. Some look at the
# clock: a case that fails is tried once more, and CTest shows both results.
run_tests() {
    tests=$1
    shift
    ctest --test-dir "$tests" --output-on-failure -j $(($(nproc) * 16)) --no-tests=error \
        --repeat until-pass:2 "$@"
}
