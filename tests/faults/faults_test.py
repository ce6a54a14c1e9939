#!/usr/bin/env python3
"""The daemon in a home of the lab whose system fails it: each call in turn, file systems, limits, kills, signals.
usage: faults_test.py BUILD [--every] [--seed N] [--only WORDS] [--at CALL MODE]; 77 where namespaces can't be made"""
import argparse
import os
import random
import signal
import subprocess
import sys
import time
from pathlib import Path

from faulty_home import FOR_20_S, KILL, MODES, SPEED, Home
from lab import world

REGISTERED_S = 300 + 120 + 230  # the longest wait, the hold after a change of the alias, and cycles on a busy machine
ANSWERED_S, WORKERS = 30 + 10, 6
# No lock, or no memory for a library that ends the process then; a supervisor starts it again.
IN_ORDER = "Process already running", "GLib", "failed to register TLS destructor"
NO_THREAD = b"pthread_create kestreld", b"calloc ld-linux"  # the finder's is made at the start, or not at all

# What the daemon starts into ($H has its settings and its run directory), and what mends it.
PLACES = [
    ("log, refer file: full", "mount -t tmpfs -o size=4k none /tmp; head -c 8192 /dev/zero >/tmp/x", "rm /tmp/x"),
    ("log, refer file: read-only", "mount -t tmpfs -o ro none /tmp", "mount -o remount,rw /tmp"),
    ("log, refer file: gone", "rm -rf /tmp/*; mkdir /tmp/kestreld_log.txt /tmp/kestrel_refer.js", "rm -rf /tmp/*"),
    ("run directory: full", "mount -t tmpfs -o size=8k none $H/run; head -c 8192 /dev/zero >$H/run/x", "rm $H/run/x"),
    ("run directory: gone", ":", "rm -rf $H/run"),
    ("settings: full", "cp $H/camera.conf /tmp; mount -t tmpfs -o size=12k none $H; cp /tmp/camera.conf $H; mkdir $H/run;"
     "mount -t tmpfs none $H/run; head -c 20000 /dev/zero >$H/x", "rm $H/x"),
    ("settings: read-only", "mount --bind $H $H; mount -o remount,bind,ro $H; mount -t tmpfs none $H/run",
     "mount -o remount,bind,rw $H"),
    ("settings: gone", ":", "mv $H/camera.conf $H/x; sleep 0.3; mv $H/x $H/camera.conf"),
    ("standard descriptors closed", "exec 0<&- 1>&- 2>&-", ":"),
    ("a full pipe", "mkfifo /tmp/p; exec 3<>/tmp/p; head -c 65536 /dev/zero >&3; exec 1>&3 2>&3 3>&-", ":"),
    ("ulimit -n 16", "ulimit -n 16", ":"),
    ("ulimit -v", "ulimit -v 160000", ":"),
]


class Tries(Home):
    def until_well(self, finder=True):
        self.until_registered()
        took_s = (self.page.now_ms - self.page.fired_ms) / 1000
        assert not self.page.told or took_s < REGISTERED_S, f"registered after {took_s} s"
        if finder:
            self.until_answered(ANSWERED_S / SPEED)

    def clean(self):
        self.begin()
        self.until_well()
        self.change_alias()
        self.until_well()
        self.next, self.fired, self.calls, self.open = 1, 0, self.page.calls, self.descriptors()
        self.end()

    # The N-th call fails, or the first one after it that can.
    def call(self, number, mode):
        self.begin(at=number, mode=mode)
        steps = [self.change_alias, self.reached]

        def struck():
            if steps and steps[-1]():
                steps.pop()
            return self.page.told or self.page.calls > max(number, self.calls) + 300
        try:
            self.until(struck, 15, "struck")
            self.fired += self.page.told > 0
            self.service.exchanges()
            self.until_well(finder=not self.page.what.startswith(NO_THREAD) or self.page.fired_ms > 7000)
        except AssertionError:
            if not any(words in self.camera.said() for words in IN_ORDER):
                raise
            self.begin()
            self.until_well()
        self.next = max(number, self.page.told) + (7 if b"libcrypto" in self.page.what or mode == FOR_20_S else 1)
        # An unanswered request's socket stays until that request's next turn; an exchange under way has its own.
        self.until(lambda: self.descriptors() <= self.open + 1, 3, f"down to {self.open} descriptors and one")
        self.end()

    def place(self, prelude, mend):
        self.begin(prelude)
        self.until_well()
        self.in_place(mend)
        self.until_well()
        self.until(self.change_alias, 5, "changed")
        log = Path(f"/proc/{self.process.pid}/root/tmp/kestreld_log.txt")
        self.until(lambda: log.is_file() and log.stat().st_size, 5, "logging")
        self.end()

    # Killed at a call of a cycle or of a change of the settings; the next daemon takes over.
    def killed(self, number, in_store):
        self.begin(at=0 if in_store else number, mode=KILL)
        if in_store:
            self.until_well()
            self.page.at = self.page.calls + number
            self.change_alias()
        self.process.wait(5)
        self.check_left()
        self.begin()
        self.until_well()
        self.check_left(1)
        self.end()

    # SIGTERM at a random moment, while the service or the router is silent.
    def stopped(self, silent):
        self.begin(speed=1 if silent == "service" else 4)
        time.sleep(random.uniform(0, 0.5))
        self.service.freeze() if silent == "service" else setattr(self.router.scripted, "silent", True)
        time.sleep(random.uniform(0, 0.5))
        try:
            self.end(1 if silent == "service" else 2.2)  # 8 s of its clock for the router
        finally:
            self.service.thaw()
            self.router.scripted.silent = False

    def storm(self):
        self.begin()
        self.until_well()
        for _ in range(500):
            self.process.send_signal(random.choice((signal.SIGUSR1, signal.SIGUSR2)))
            time.sleep(random.choice((0, 0.001)))
        self.service.exchanges()
        self.until_well()
        self.end()


# What one of several workers does: pairs of a name and a function.
def tries(home, share):
    def mine(rows, some=0):
        return (random.sample(rows, some) if some and not args.every else list(rows))[share::WORKERS]
    if args.at:
        yield "call", lambda: home.call(*args.at)
        return
    for mode in MODES[:KILL] if args.every else ():
        home.next = home.calls * share // WORKERS + 1
        while home.next <= home.calls * (share + 1) // WORKERS:
            yield f"call {home.next}, mode {mode}", lambda: home.call(home.next, mode)
    for number in () if args.every else mine(range(1, home.calls), 100):
        mode = random.choice(MODES[:KILL])
        yield f"call {number}, mode {mode}", lambda: home.call(number, mode)
    for name, prelude, mend in mine(PLACES):
        yield name, lambda: home.place(prelude, mend)
    for number in mine(range(1, home.calls, 10), 10):
        yield f"killed at call {number}", lambda: home.killed(number, False)
    for number in mine(range(1, 100), 8):
        yield f"killed at call {number} of a store", lambda: home.killed(number, True)
    for silent in mine(["service", "router"] * (20 if args.every else 4)):
        yield f"stopped under a silent {silent}", lambda: home.stopped(silent)
    for _ in mine(range(4)):
        yield "a storm of signals", home.storm


def work(share):
    world.show_build(args.build.resolve())
    home, tried, broken = Tries(), 0, 0
    home.clean()
    for name, run in tries(home, share):
        if args.only in name:
            tried += 1
            try:
                run()
            except (AssertionError, subprocess.TimeoutExpired) as error:
                broken, home.next = broken + 1, home.next + 1
                print(f"{name} ({home.page.what.decode()}): {error}", flush=True)
                home.process.kill()
                home.process.wait()
    print(f"{tried} tries, {home.fired} of a call that failed, over {home.calls} calls: {broken} broken", flush=True)
    return 1 if broken else 0


parser = argparse.ArgumentParser()
parser.add_argument("build", type=Path)
parser.add_argument("--seed", type=int, default=int(time.time()))
parser.add_argument("--only", default="")
parser.add_argument("--at", nargs=2, type=int)
parser.add_argument("--every", action="store_true")
args = parser.parse_args()
print("seed", args.seed, flush=True)
random.seed(args.seed)
children = []
for index in range(WORKERS):
    if (child := os.fork()) == 0:
        os._exit(world.enter(lambda: work(index)))
    children.append(child)
sys.exit(max(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) for child in children))
