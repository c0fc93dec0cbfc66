#!/bin/sh
# Usage: usage.sh BIN, in a box. What the tools and examples do with their arguments: help, and for wrong
# ones a status and a sentence, with nothing started or written.
set -u
PATH=$1:$PATH
cd /
failed=0

# expect STATUS PATTERN COMMAND: the status and the start of what comes on standard error.
expect() {
    said=$(eval "timeout 60 $3" 2>&1 >/run/out </dev/null) && status=0 || status=$?
    # shellcheck disable=SC2254 # a pattern
    case "$status $said" in
    "$1 "$2*) ;;
    *) echo "$3: status $status, \"$said\"" && failed=1 ;;
    esac
}

bridge=$(command -v mbus-mqtt >/dev/null && echo mbus-mqtt)
for tool in boardd bus_param bus_watch linkd $bridge mbusd modemd modemsim netd qzbox qzctl statusd zservsim; do
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

# shellcheck disable=SC2034 # the table's rows use it
long=$(printf '%0500d' 0)
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
mbusd --stats 86401|--stats 86401: not a number from 1 to 86400
mbusd --stats|option '--stats' requires an argument
mbusd --quiet extra|extra: there are options only
modemd /run/table|/run/table: not a tty
netd a/b|a/b: not a service's name
qzctl|no command: it is one of conf, env, log
qzctl frob|frob: no such command
qzctl --completion zsh|--completion zsh: it is for bash only
qzctl --timeout|option '--timeout' requires an argument
qzctl conf|conf: no service
qzctl conf netd|conf netd: after the service comes
qzctl conf netd show|conf netd: after the service comes
qzctl conf ../netd list|the service ../netd: it is a name, not a path
qzctl conf $long list|the service 0000
qzctl conf netd list a b|conf list: b: one argument too many
qzctl conf netd list --force|conf list takes no --force
qzctl conf netd get|conf get: an argument is missing: [[]GROUP] NAME
qzctl conf netd get a=b|the name a=b: it holds a =
qzctl conf netd get shutdown x|the group shutdown: that is a parameter's name
qzctl conf netd set a|a: without a value it would be a group
qzctl conf netd set =1|the name is empty
qzctl conf netd set '#a=1'|the name #a: in the file this would be a comment
qzctl conf netd set 'a= b'|the value " b" begins or ends with a blank
qzctl conf netd set a=$long|the value 0000
qzctl conf netd set $long=a|the name 0000
qzctl conf netd unset --group a b|unset --group a: the whole group goes
qzctl env|env: no action
qzctl env frob|env frob: no such action: it is one of list, get, set
qzctl env list --image ''|--image is empty
qzctl env get a=b|a=b: a name holds no =
qzctl env set a|a: without a value: NAME=VALUE
qzctl env set =a|=a: the name is empty
qzctl env unset ''|: the name is empty
qzctl env restore /tmp/$long$long$long$long$long$long$long$long$long$long$long|the file /tmp/0000
qzctl log level loud|the level loud: it is debug, info, warn, error or emerg
qzctl log send info $long$long|the text 0000
qzctl log send info a --ident ''|--ident is empty
qzctl bus top --interval 0|--interval 0: not a number from 1 to 86400
qzctl bus top --count many|--count many: not a number
qzctl bus send $long b|the name 0000
qzctl bus send a b --type 4|--type 4: not a number from 0 to 3
qzctl bus listen --trace --json|--trace is mbusd's
qzctl bus listen --timeout -1|--timeout -1: not a number
qzctl bus wait ''|the name is empty
qzctl at $long$long|the command 0000
qzctl at --baud 1 AT|--baud 1: no line has that rate
qzctl at --device '' AT|--device is empty
qzctl msg send x|the type x: not a number
qzctl msg send 4294967296|the type 4294967296: not a number from 0 to 4294967295
qzctl msg send 1 --to a-name-of-16-chr|--to a-name-of-16-chr...: more than 15 characters
qzctl led ../net on|the light ../net: it is a name
qzctl led net blue|the mode blue: it is off, on, fast
qzctl gpio sim 2|the value 2: not a number from 0 to 1
qzctl route via 1.2.3|the address 1.2.3: not an IPv4 address
qzctl route add 10.0.0.0 eth0|the prefix 10.0.0.0: it is ADDRESS/LENGTH
qzctl route add 10.0.0.0/33 eth0|the prefix length 33: not a number
qzctl route del 10.0.0.0/0 eth0|the prefix 10.0.0.0/0: the default route is 0.0.0.0/0
qzctl route add 10.0.0.0/8 a-name-too-long-|the next hop a-name-too-long-...: more than 15
qzctl route add 10.0.0.0/8 1x|the next hop 1x: not an IPv4 address
qzctl if ../lo|the interface ../lo: it is a name
qzctl probe tcp a 70000|the port 70000: not a number from 1 to 65535
qzctl run ls -l|invalid option -- 'l'
qzctl run -- $long x|run: the command has more than 255
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
# The fewest words of each command, with what it asks for then, and one more than the most.
for row in 'conf netd set:' 'conf netd unset:' 'env get:NAME' 'env backup:FILE' 'log send info:LEVEL TEXT' \
    'cli get lan:' 'bus send a:NAME TEXT' 'bus wait:NAME' 'at:COMMAND...' 'msg send:TYPE' 'route via:ADDRESS' \
    'probe tcp a:' 'probe dns:' 'run:'; do
    expect 2 "qzctl: *: an argument is missing: ${row#*:}" "qzctl ${row%:*}"
done
for words in 'env list x' 'env clear now' 'env verify now' 'env restore a b' 'cli get a b c d' 'bus list all' \
    'modem a b' 'msg listen 1' 'route list all' 'watchdog feed it' 'sys all'; do
    expect 2 "qzctl: *: ${words##* }: one argument too many" "qzctl $words"
done
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
