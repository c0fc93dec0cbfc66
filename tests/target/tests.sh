# Stage "tests": every case of every test program, each in a box of its own. A machine that is
# one of several takes every n-th case: QZ_part is "<own number>/<machines>", from 0. QZ_programs
# and QZ_filter (of GoogleTest) leave out others.
load fuse loop veth dummy tun >/dev/null

part=${QZ_part:-0/1}
number=0
passed=0
failed=""

run_case() { # run_case PROGRAM KIND LIMIT CASE
    name=$1:$4
    if [ "$2" = box ]; then
        set -- "$@" "$BUILD/bin/qzbox" --bind "$SOURCE" --bind "$BUILD" --
    fi
    program_path=$BUILD/bin/$1 limit_s=$(($3 * ${QZ_TEST_SCALE:-1})) filter=--gtest_filter=$4
    shift 4
    started=$(cut -d ' ' -f 1 /proc/uptime)
    timeout -s KILL "$limit_s" "$@" "$program_path" "$filter" </dev/null >/qz/output 2>&1
    result=$?
    [ $result -ne 0 ] || grep -q '\[  PASSED  \] 1 test' /qz/output || result="not run"
    seconds=$(echo "$(cut -d ' ' -f 1 /proc/uptime) $started" | awk '{ printf "%.1f", $1 - $2 }')
    if [ "$result" = 0 ]; then
        echo "ok      ${program_path##*/} ${filter#*=} ($seconds s)"
        passed=$((passed + 1))
        return
    fi
    echo "FAILED  ${program_path##*/} ${filter#*=} ($seconds s, status $result)"
    sed 's/^/        | /' /qz/output
    failed="$failed $name"
}

while read -r program kind limit; do
    case " ${QZ_programs:-$program} " in *[,\ ]"$program"[,\ ]*) ;; *) continue ;; esac
    cases=$("$BUILD/bin/$program" --gtest_list_tests "--gtest_filter=${QZ_filter:-*}" |
        awk '/^Running main/ { next } /^[^ ]/ { suite = $1; next } $1 !~ /^DISABLED_/ { print suite $1 }')
    [ -n "$cases$QZ_filter" ] || { failed="$failed $program"; echo "FAILED  $program lists no cases"; }
    for case in $cases; do
        number=$((number + 1))
        [ $((number % ${part#*/})) -eq "${part%/*}" ] || continue
        run_case "$program" "$kind" "$limit" "$case"
    done
done <"$BUILD/test-programs"

echo "$passed passed, failed:${failed:- none}"
[ -z "$failed" ] && [ $passed -gt 0 ]
