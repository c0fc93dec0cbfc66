#!/bin/sh
# Usage: usage.sh BIN, in a box. What the tools and examples do with their arguments: help, and for wrong
# ones a status and a sentence, with nothing started or written.
set -u
PATH=$1:$PATH
cd /
failed=0

# expect STATUS TEXT COMMAND: the status and the start of what comes on standard error.
expect() {
    said=$(eval "timeout 9 $3" 2>&1 >/run/out </dev/null) && status=0 || status=$?
    case "$status $said" in
    "$1 $2"*) ;;
    *) echo "$3: status $status, \"$said\"" && failed=1 ;;
    esac
}

for tool in boardd bus_param bus_watch linkd mbusd modemd modemsim netd qzbox statusd zservsim; do
    wrong=2 unread=1
    [ $tool != qzbox ] || wrong=125 unread=125
    for option in -h --help; do
        expect 0 "" "$tool $option"
        grep -q "^Usage: $tool" /run/out || expect 0 "no usage" "$tool $option"
        expect $unread "$tool: standard output: No space" "$tool $option >/dev/full"
        expect $unread "$tool: standard output: Bad file" "$tool $option >&-"
    done
    expect $wrong "$tool: unrecognized option '--nonsense'" "$tool --nonsense"
done

echo 'AT => OK' >/run/table
: >/run/empty
while IFS='|' read -r command text; do
    expect 2 "${command%% *}: $text" "$command"
done <<'TABLE'
boardd off|off: neither led nor show
boardd led net 5|5: not a number from 0 to 4
boardd led net 1 2|2: one argument too many
boardd show a/b|a/b: not the name of an LED
bus_param 123456789012345678901234567890123|1234
bus_watch a b c d|d: one argument too many
linkd -i 1x a=10.0.0.1 b=10.0.0.2|1x: not a number from 1 to 60000
linkd a=10.0.0.1 b=10.0.0.256|b=10.0.0.256: the gateway
linkd a=10.0.0.1|a link is missing
mbusd --stats soon|--stats soon: not a number from 1 to 86400
mbusd --stats 86401|--stats 86401: not a number from 1 to 86400
mbusd --stats|option '--stats' requires an argument
mbusd --quiet extra|extra: there are options only
modemd /run/table|/run/table: not a tty
netd a/b|a/b: not a service's name
statusd 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17|17: one argument too many
modemsim|no table
modemsim /run|/run: Is a directory
modemsim /run/empty|/run/empty: it holds no answer
modemsim --seed x /run/table|--seed x: not a number
modemsim --fault 2:late=1s /run/table|--fault 2:late=1s: not a number from 0 to 86400000: 1s
modemsim --fault 2:stall /run/table|--fault 2:stall: it lasts
modemsim --transcript /tmp/t --link /run/empty /run/table|--link /run/empty: File exists
modemsim --transcript /run/table /run/table|/run/table: one file cannot be both
modemsim --transcript /tmp/t --control /tmp/t /run/table|/tmp/t: one file cannot be both
modemsim --transcript /tmp/t --control /run/empty /run/table|--control /run/empty: not a named pipe
zservsim --count -1|--count -1: not a number
zservsim --socket /run/empty|/run/empty: it is there and no socket
TABLE
[ -z "$(find /tmp -mindepth 1)" ] || { find /tmp && failed=1; }

expect 1 "boardd: net 1: no boardd takes the order" "boardd led net 1"

# A socket that is served is left to its server, and one that a killed server has left is not.
zservsim >/run/first &
until grep -qs listening /run/first; do :; done
expect 2 "zservsim: /tmp/.zserv: another program serves it" zservsim
kill -9 $! && wait $! 2>/dev/null
zservsim >/run/second &
second=$!
until grep -qs listening /run/second; do :; done
rm /tmp/.zserv
zservsim >/run/third &
until grep -qs listening /run/third; do :; done
kill $second && wait $second
[ -S /tmp/.zserv ] || { echo "another server's socket was removed" && failed=1; }
exit $failed
