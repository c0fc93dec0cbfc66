# Stage "tests": every case of every test program, each in a box of its own. A machine that is
# one of several takes every n-th case: QZ_part is "<own number>/<machines>", from 0. QZ_programs
# and QZ_filter (of GoogleTest) leave out others.
load fuse loop veth dummy tun >/dev/null

part=${QZ_part:-0/1}
number=0
passed=0
failed=""

run_case() { # run_case PROGRAM KIND LIMIT CASE
    box=
    [ "$2" != box ] || box="$BUILD/bin/qzbox --bind $SOURCE --bind $BUILD --"
    # shellcheck disable=SC2086 # words, or none
    timeout -s KILL $(($3 * ${QZ_TEST_SCALE:-1})) $box "$BUILD/bin/$1" "--gtest_filter=$4" </dev/null >/qz/output 2>&1
    result=$?
    [ $result -ne 0 ] || grep -q '\[  PASSED  \] 1 test' /qz/output || result="not run"
    if [ "$result" = 0 ]; then
        echo "ok      $1 $4"
        passed=$((passed + 1))
    else
        echo "FAILED  $1 $4 (status $result)"
        sed 's/^/        | /' /qz/output
        failed="$failed $1:$4"
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
        run_case "$program" "$kind" "$limit" "$case"
    done
done <"$BUILD/test-programs"

echo "$passed passed, failed:${failed:- none}"
[ -z "$failed" ] && [ $passed -gt 0 ]
