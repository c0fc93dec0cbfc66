# Stage "tests": every case of every test program, each in a box of its own. A machine that is
# one of several takes every n-th case: QZ_part is "<own number>/<machines>", from 0. QZ_programs
# and QZ_filter (of GoogleTest) leave out others.
load fuse loop veth dummy tun >/dev/null

part=${QZ_part:-0/1}
number=0
passed=0
failed=""

run_case() { # run_case PROGRAM KIND LIMIT CASE
    set -- "$@" "$(cut -d ' ' -f 1 /proc/uptime)"
    if [ "$2" = box ]; then
        timeout -s KILL "$3" "$BUILD/bin/qzbox" --bind "$SOURCE" --bind "$BUILD" -- \
            "$BUILD/bin/$1" "--gtest_filter=$4" </dev/null >/qz/output 2>&1
    else
        timeout -s KILL "$3" "$BUILD/bin/$1" "--gtest_filter=$4" </dev/null >/qz/output 2>&1
    fi
    result=$?
    [ $result -ne 0 ] || grep -q '\[  PASSED  \] 1 test' /qz/output || result="not run"
    seconds=$(echo "$(cut -d ' ' -f 1 /proc/uptime) $5" | awk '{ printf "%.1f", $1 - $2 }')
    if [ "$result" = 0 ]; then
        passed=$((passed + 1))
        echo "ok      $1 $4 ($seconds s)"
    else
        failed="$failed $1:$4"
        echo "FAILED  $1 $4 ($seconds s, status $result)"
        sed 's/^/        | /' /qz/output
    fi
}

while read -r program kind limit; do
    case " ${QZ_programs:-$program} " in *[,\ ]"$program"[,\ ]*) ;; *) continue ;; esac
    cases=$("$BUILD/bin/$program" --gtest_list_tests "--gtest_filter=${QZ_filter:-*}" |
        awk '/^Running main/ { next } /^[^ ]/ { suite = $1; next } $1 !~ /^DISABLED_/ { print suite $1 }')
    [ -n "$cases$QZ_filter" ] || { failed="$failed $program"; echo "FAILED  $program lists no cases"; }
    for case in $cases; do
        number=$((number + 1))
        [ $((number % ${part#*/})) -eq "${part%/*}" ] || continue
        run_case "$program" "$kind" $((limit * QZ_TEST_SCALE)) "$case"
    done
done <"$BUILD/test-programs"

echo "$passed passed, failed:${failed:- none}"
[ -z "$failed" ] && [ $passed -gt 0 ]
