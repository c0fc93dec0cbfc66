# SPDX-License-Identifier: MIT
"""The fleet of scripts/fleet, in a network of its own: starts it, cuts its lines, counts what arrives."""

import collections
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

RATE = 10  # events a second of each router
CUT_S = 15  # longer than the keepalive takes to notice
CUTS = 2
KEEPALIVE_S = 5
TURN_S = 20  # within which all routers lose their links, one after the other
SMALL_QUEUE = 16384  # of every tenth router: too small for the time of a cut
PAYLOAD_BYTES = 60

# In the box: what a router runs. The events come through standard input.
ROUTER = """
mbusd --quiet --log /tmp/mbusd.log &
until [ -S /tmp/mbus.sock ]; do sleep 0.2; done
modemsim --link /tmp/ttyUSB2 examples/modem.at >/dev/null &
until [ -e /tmp/ttyUSB2 ]; do sleep 0.2; done
modemd /tmp/ttyUSB2 >/dev/null &
mbus-mqtt --log /tmp/line/bridge.log &
bridge=$!
until bus_param >/dev/null; do sleep 1; done # a busy machine
kill $bridge
wait $bridge
"""


def run(*words):
    subprocess.run(words, check=True)


def name_of(pid):
    with open(f"/proc/{pid}/comm", encoding="ascii") as comm:
        return comm.read().strip()


def memory_of(pid, kind):
    """Kilobytes: Rss, or Pss, in which shared pages count by parts."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        return int(re.search(rf"^{kind}: *(\d+)", rollup.read(), re.M).group(1))


def processor_s(pid):
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as stat:
            total += int(stat.read().split()[0])
    return total / 1e9


class Router:
    def __init__(self, number, work):
        self.name = f"R{number:03}"
        self.link = f"line{number}"
        self.near, self.far = f"10.77.{number}.1", f"10.77.{number}.2"
        self.small = number % 10 == 0
        self.sent = 0
        self.cuts = []  # from when to when
        self.line = f"{work}/{self.name}"
        self.start()

    def start(self):
        os.makedirs(f"{self.line}/tree/tmp/config")
        os.makedirs(f"{self.line}/tree/tmp/line")
        with open(f"{self.line}/tree/tmp/device.info", "w", encoding="ascii") as info:
            info.write(f"devid:{self.name}\n")
        with open(f"{self.line}/tree/tmp/config/mqtt.conf", "w", encoding="ascii") as conf:
            conf.write(f"host={self.near}\nprefix=fleet\npublish=param\nretry=1:8\nkeepalive={KEEPALIVE_S}\n")
            if self.small:
                conf.write(f"queue={SMALL_QUEUE}\n")
        self.box = subprocess.Popen(
            ["qzbox", "--bind", os.getcwd(), "--root", f"{self.line}/tree", "--", "sh", "-c", ROUTER],
            stdin=subprocess.PIPE,
        )

    def tree(self):
        """The box's processes, as the kernel lists them: names by their ids."""
        names, found = {}, [self.box.pid]
        for pid in found:
            try:
                names[pid] = name_of(pid)
                for task in os.listdir(f"/proc/{pid}/task"):
                    with open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as children:
                        found += [int(child) for child in children.read().split()]
            except (FileNotFoundError, ProcessLookupError):
                names.pop(pid, None)  # it has just ended
        return names

    def connect(self):
        """Lays the line, as soon as the box runs."""
        self.pids = {}
        while not {"bus_param", "mbus-mqtt"} <= self.pids.keys():
            time.sleep(0.05)
            self.pids = {name: pid for pid, name in self.tree().items()}
        inside = str(self.pids["bus_param"])
        run("ip", "link", "add", self.link, "type", "veth", "peer", "name", "wan", "netns", inside)
        run("ip", "address", "add", f"{self.near}/24", "dev", self.link)
        run("ip", "link", "set", self.link, "up")
        run("nsenter", "-t", inside, "-n", "ip", "address", "add", f"{self.far}/24", "dev", "wan")
        run("nsenter", "-t", inside, "-n", "ip", "link", "set", "wan", "up")

    def event(self):
        self.sent += 1
        text = f"ev={self.sent},{time.time():.6f},"
        self.box.stdin.write((text + "x" * (PAYLOAD_BYTES - len(text)) + "\n").encode())
        self.box.stdin.flush()

    def cut(self, now):
        run("ip", "link", "set", self.link, "down")
        self.cuts.append([now, now + CUT_S])

    def mend(self):
        run("ip", "link", "set", self.link, "up")


class Received:
    """What the subscriber has printed so far, read on as it grows."""

    def __init__(self, path):
        self.file = open(path, encoding="ascii", errors="replace")
        self.rest = ""
        self.events = collections.defaultdict(lambda: collections.defaultdict(list))  # router, number: delays
        self.dropped = collections.defaultdict(int)
        self.online = set()
        self.seconds = collections.Counter()

    def read(self):
        text = self.rest + self.file.read()
        lines = text.split("\n")
        self.rest = lines.pop()
        for line in lines:
            when, topic, payload = (line.split(" ", 2) + ["", ""])[:3]
            _, router, kind = topic.split("/")[:3]
            if kind == "bus" and payload.startswith("ev="):
                number, sent, _ = payload[3:].split(",")
                self.events[router][int(number)].append((float(sent), float(when) - float(sent)))
                self.seconds[int(float(when))] += 1
            elif kind == "dropped":
                self.dropped[router] = int(payload)
            elif kind == "state" and payload == "online":
                self.online.add(router)

    def complete(self, router):
        return len(self.events[router.name]) + self.dropped[router.name] >= router.sent


def start_broker(work):
    with open(f"{work}/broker.conf", "w", encoding="ascii") as conf:
        conf.write("listener 1883\nallow_anonymous true\nuser root\nlog_type all\nmax_queued_messages 0\n")
        conf.write(f"log_dest file {work}/broker.log\n")
    run("ip", "link", "set", "lo", "up")
    broker = subprocess.Popen(["mosquitto", "-c", f"{work}/broker.conf"], stderr=subprocess.DEVNULL)
    with open(f"{work}/seen", "w", encoding="ascii") as seen:
        subscribe = ["mosquitto_sub", "-h", "127.0.0.1", "-q", "1", "-t", "fleet/#", "-F", "%U %t %p"]
        while subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-t", "x", "-n"], stderr=subprocess.DEVNULL).returncode:
            time.sleep(0.1)
        subscriber = subprocess.Popen(subscribe, stdout=seen)
    return broker, subscriber


def unflagged_repeats(work):
    """Publications that the broker got again without the flag, and with it. Packet numbers do not come round."""
    seen, wrong, flagged = set(), 0, collections.Counter()
    with open(f"{work}/broker.log", encoding="ascii", errors="replace") as log:
        for line in log:
            match = re.search(r"Received PUBLISH from (\S+) \(d(\d), q1, r0, m(\d+), '[^']*/bus/", line)
            if match is None:
                continue
            router, again, number = match.group(1), match.group(2) == "1", match.group(3)
            flagged[router] += again
            wrong += not again and (router, number) in seen
            seen.add((router, number))
    return wrong, flagged


def drive(routers, received):
    """Events at their rate, while each line is cut and mended in its turn. Returns how long that took."""
    plan = []
    step = TURN_S / len(routers)
    for round_number in range(CUTS):
        for place, router in enumerate(routers):
            at = 5 + round_number * (TURN_S + CUT_S + 20) + place * step
            plan += [(at, router, True), (at + CUT_S, router, False)]
    plan.sort(key=lambda entry: entry[0])
    length = plan[-1][0] + 20
    due = start = time.time()
    tick = 0
    while (now := time.time()) - start < length:
        while plan and plan[0][0] <= now - start:
            _, router, is_cut = plan.pop(0)
            if is_cut:
                router.cut(now)
            else:
                router.mend()
        for place in range(tick % 10, len(routers), 10):
            routers[place].event()
        tick += 1
        if tick % 100 == 0:
            received.read()
        # What a halt of the machine has kept back does not come all at once: a ring holds 63 packets.
        due = max(due + 1 / (10 * RATE), time.time() - 0.2)
        time.sleep(max(0.0, due - time.time()))
    return length


def percentile(values, part):
    values = sorted(values)
    return values[min(len(values) - 1, int(len(values) * part))] if values else 0.0


def report(routers, received, length, work):
    """The figures as lines of a page, and what is wrong."""
    sent = sum(router.sent for router in routers)
    unique = sum(len(received.events[router.name]) for router in routers)
    copies = sum(len(c) for router in routers for c in received.events[router.name].values())
    dropped = sum(received.dropped[router.name] for router in routers)
    wrong, flagged = unflagged_repeats(work)
    faults = [f"{wrong} repeats without their flag"] if wrong else []
    up, through = [], []
    for router in routers:
        events = received.events[router.name]
        if len(events) + received.dropped[router.name] != router.sent:
            faults.append(f"{router.name}: {router.sent} sent, {len(events)} arrived, {received.dropped[router.name]} dropped")
        if not router.small and received.dropped[router.name]:
            faults.append(f"{router.name}: its queue was large enough")
        again = sum(len(c) - 1 for c in events.values())
        if again > flagged[router.name]:
            faults.append(f"{router.name}: {again} events twice, {flagged[router.name]} flags")
        for copy in events.values():
            when, delay = copy[0]
            # The two seconds before a cut lie in buffers, those after it in a queue.
            near = any(begin - 2 < when < end + 20 for begin, end in router.cuts)
            (through if near else up).append(delay)
    bridges = [router.pids["mbus-mqtt"] for router in routers]
    boxes = [sum(memory_of(pid, "Pss") for pid in router.tree()) for router in routers]
    cpu = sum(processor_s(pid) for pid in bridges)
    lines = [
        f"| routers, cuts of each line, seconds of a cut | {len(routers)}, {CUTS}, {CUT_S} |",
        f"| events sent, each {PAYLOAD_BYTES} bytes | {sent} |",
        f"| events a second: mean, most in one second | {unique / length:.0f}, {max(received.seconds.values())} |",
        f"| delay with the line up: median, 99 %, most | {statistics.median(up) * 1e3:.1f} ms, "
        f"{percentile(up, 0.99) * 1e3:.1f} ms, {max(up) * 1e3:.0f} ms |",
        f"| delay around a cut: median, most | {statistics.median(through):.1f} s, {max(through):.1f} s |",
        f"| lost | {sent - unique - dropped} |",
        f"| dropped and counted, by the {sum(r.small for r in routers)} routers with a queue of {SMALL_QUEUE} bytes | {dropped} |",
        f"| received twice; sent again with the flag, without it | {copies - unique}; {sum(flagged.values())}, {wrong} |",
        f"| memory of a bridge: resident, its share (mean, most) | {statistics.mean(memory_of(p, 'Rss') for p in bridges):.0f} KiB, "
        f"{statistics.mean(memory_of(p, 'Pss') for p in bridges):.0f} KiB, {max(memory_of(p, 'Pss') for p in bridges)} KiB |",
        f"| memory of a router, bus, modem and box included (share) | {statistics.mean(boxes):.0f} KiB |",
        f"| processor time of a bridge for an event | {cpu / sent * 1e6:.0f} us |",
    ]
    return lines, faults


def record(lines):
    path = "docs/fleet.md"
    with open(path, encoding="utf-8") as page:
        text = page.read()
    processor = re.search(r"model name\s*: (.*)", open("/proc/cpuinfo", encoding="ascii").read())
    table = f"On {processor.group(1) if processor else 'this machine'}, {os.cpu_count()} cores:\n\n| measured | |\n|---|---|\n"
    table += "\n".join(lines)
    begin, end = "<!-- written by scripts/fleet -->\n", "\n<!-- up to here -->"
    head, rest = text.split(begin)
    tail = rest.split(end.strip(), 1)[1]
    with open(path, "w", encoding="utf-8") as page:
        page.write(head + begin + table + end + tail)


def main():
    count = int(sys.argv[1])
    if not 1 <= count <= 250:
        sys.exit("fleet: 1 to 250 routers")
    work = tempfile.mkdtemp(prefix="fleet.", dir="build")
    work = os.path.abspath(work)
    broker, subscriber = start_broker(work)
    received = Received(f"{work}/seen")
    print(f"== {count} routers start", flush=True)
    routers = []
    for number in range(1, count + 1):
        routers.append(Router(number, work))
        routers[-1].connect()
    limit = time.time() + 120
    while len(received.online) < count:
        received.read()
        if time.time() > limit:
            sys.exit(f"fleet: only {len(received.online)} routers came online")
        time.sleep(0.2)
    print("== all are online; events flow, lines are cut in turn", flush=True)
    length = drive(routers, received)
    limit = time.time() + 60
    while not all(received.complete(router) for router in routers) and time.time() < limit:
        time.sleep(0.5)
        received.read()
    lines, faults = report(routers, received, length, work)
    print("\n".join(lines))
    for router in routers:
        router.box.stdin.close()
    for router in routers:
        if router.box.wait() != 0:
            faults.append(f"{router.name}: its bridge ended with {router.box.returncode}")
    subscriber.terminate()
    broker.terminate()
    broker.wait()
    if faults:
        sys.exit("fleet: FAILED: " + "\nfleet: FAILED: ".join(faults) + f"\nfleet: see {work}")
    shutil.rmtree(work)
    if os.environ.get("RECORD") == "1":
        record(lines)


main()
