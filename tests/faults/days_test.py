#!/usr/bin/env python3
"""Days of the daemon in a home of the lab where everything fails and comes back, in minutes: its waits leap. At the end
it holds what it held at the start. usage: days_test.py BUILD [--days N] [--seed N]; 77: no namespaces can be made"""
import argparse
import random
import re
import signal
import socket
import sys
import threading
import time
from contextlib import suppress
from pathlib import Path

from faulty_home import Home
from lab import camera as cam, world
from lab.stage import LAN
from lab.trial import ALIAS, FINDER_PORT, OPERATIONS, SURVEY, credentials, request

HOUR_S, DAY_S, DRAW = 3600, 86400, random.Random()
LEAP_S = 20  # with each millisecond in which the daemon only waits
PAUSE_S = 3 * HOUR_S  # between faults, on average
REGISTERED_S = 230 + 300 + 150  # the wait for the next test, that after a cycle cut by a slow machine, the cycles
ROOM = {"RssAnon": 64, "VmData": 132}  # KiB: pages that are touched late, one step of the heap
# Not those whose 200 is taken at its word though it says nothing.
ANSWERS = ["status=503", "refuse", "reset", "garbage", "oversize", "cut", "stale", "noqop", "nononce", "bighead"]

# Places, of which each has one fault at a time: its name, how long it may last, and what it does.
PLACES = [
    [("service stopped", 6 * HOUR_S, lambda home: home.service.stop()),
     ("service silent", 600, lambda home: home.service.freeze()),
     ("service dripping", 300, lambda home: home.service.fault("*:drip=0.1")),
     ("service failing", HOUR_S, lambda home: home.service.fault(f"*:{DRAW.choice(ANSWERS)}"))],
    [("UPnP hidden", 6 * HOUR_S, lambda home: home.router.hide_upnp()),
     ("mappings forgotten", 0, lambda home: home.router.forget_mappings()),
     ("another outside address", 0, lambda home: home.change_outside(f"5.1.1.{DRAW.randint(2, 9)}"))],
    [("interface down", HOUR_S, lambda home: home.node.run("ip", "link", "set", "dev", "eth0", "down")),
     ("interface deleted", HOUR_S, lambda home: home.node.run("ip", "link", "del", "dev", "eth0")),
     ("address gone", HOUR_S, lambda home: home.node.run("ip", "addr", "flush", "dev", "eth0")),
     ("another address", 0, lambda home: home.plug_in(f"192.168.1.{DRAW.randint(50, 59)}"))],
    [("clock set", 0, lambda home: setattr(home.page, "step_s", home.page.step_s + DRAW.randint(-DAY_S, DAY_S))),
     ("clock set by years", 0, lambda home: setattr(home.page, "step_s", DRAW.randint(-20, 20) * 365 * DAY_S))],
]


class Days(Home):
    def __init__(self):
        super().__init__()
        self.faults, self.slowest_s, self.sent, self.replies, self.late = 0, 0, 0, 0, 0
        threading.Thread(target=self.fire, daemon=True).start()

    # Surveys, wrong passwords, changes without any, noise, lengths that lie: from the LAN, all the time.
    def fire(self):
        draw = random.Random(args.seed)
        with self.router.node.inside():
            pc = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        while True:
            wrong = credentials(draw.randbytes(9))
            shot = draw.choice([request(SURVEY), request(SURVEY)[:-1], request(OPERATIONS, wrong),
                                request(ALIAS, draw.randbytes(200)), draw.randbytes(draw.randrange(1400))])
            with suppress(OSError):
                self.sent += pc.sendto(shot, (self.camera_address, FINDER_PORT)) > 0
            with suppress(OSError):
                self.replies += pc.recv(2048)[:2] == b"\xee\xfe"
            time.sleep(0.005)

    def plug_in(self, address):
        if "eth0" not in self.node.run("ip", "link"):
            self._cable(self.node, self.router.node, "lan1", cam.MAC)
        self.node.run("ip", "link", "set", "dev", "eth0", "up")
        self._plug_in(self.node, address, LAN)

    # No wait may leap over it.
    def mend(self):
        self.page.leap_s = 0
        if not self.service.running:
            self.service.start()
        self.service.thaw()
        self.service.fault("")
        with suppress(RuntimeError):  # shown already
            self.router.show_upnp()
        self.plug_in(self.camera_address)

    def now_s(self):
        assert self.process.poll() is None, f"ended: {self.process.returncode}: {self.camera.said()[-300:]}"
        return self.page.now_ms / 1000

    # What the service holds leads here, and it has just been here. An address of the LAN that changed within a cycle is
    # told late, at the latest after a reload.
    def registered(self, reloaded):
        self.tested = self.tested or self.reached()
        update = self.tested and self.service.device(cam.HID)["update"] or {}
        well = update.get("eip") == self.outside and self.camera.status().get("online") == "1" and \
            self.router.scripted.rows.get(int(update["ueport"]), [""])[0] == self.camera_address
        late = well and update["iip"] != self.camera_address
        self.late += late and not reloaded
        return well and not (late and reloaded)

    # Counted from when the world is well.
    def until_well(self, reloaded=False):
        well_s, took_s, self.tested = self.now_s(), 0, False
        self.service.exchanges()
        self.page.leap_s = LEAP_S
        while (now_s := self.now_s()) and not self.registered(reloaded):
            took_s = now_s - well_s
            assert took_s < REGISTERED_S, f"not registered {took_s:.0f} s after"
        self.slowest_s = max(self.slowest_s, took_s)
        self.until_answered(5)

    def let_pass(self, seconds):
        end_s = self.now_s() + seconds
        while self.now_s() < end_s:
            time.sleep(0.02)

    def suffer(self, faults, share=1.0):
        self.faults += len(faults)
        try:
            for _, _, fail in faults:
                fail(self)
            self.let_pass(share * DRAW.uniform(0, min((most_s for _, most_s, _ in faults if most_s), default=0)))
            self.mend()
            self.until_well()
        except AssertionError as error:
            names = ", ".join(name for name, _, _ in faults)
            raise AssertionError(f"{names}, at day {self.page.now_ms / 1000 / DAY_S:.2f}: {error}") from None

    # After a reload, which takes back every mapping of its own; between two exchanges.
    def holds(self):
        self.process.send_signal(signal.SIGUSR1)
        self.until(lambda: len(self.router.scripted.rows) == 1, 20, "down to one mapping")
        self.until_well(reloaded=True)
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return {"descriptors": min(self.descriptors() for _ in range(200) if not time.sleep(0.005))} | {
            key: int(re.search(rf"{key}:\s+(\d+)", status)[1]) for key in ("Threads", "RssAnon", "VmData")}


def play():
    world.show_build(args.build.resolve())
    home, told = Days(), 0
    home.begin(leap_s=LEAP_S)
    home.until_well()
    for fault in (fault for place in PLACES for fault in place):  # what is taken once and kept is there at the start
        home.suffer([fault], 0.1)
    start, start_s = home.holds(), home.now_s()
    while (days := (home.now_s() - start_s) / DAY_S) < args.days:
        if days >= told:
            print(f"day {days:.1f}: {home.faults} faults, registered within {home.slowest_s:.0f} s", flush=True)
            told += 1
        home.let_pass(DRAW.expovariate(1 / PAUSE_S))
        home.suffer([DRAW.choice(place) for place in DRAW.sample(PLACES, DRAW.choice([1, 1, 2, 3]))])
    end = home.holds()
    home.end()
    print(f"day {days:.1f}: {home.faults} faults, registered within {home.slowest_s:.0f} s, {home.late} times with an older "
          f"address of the LAN, {home.replies} replies to {home.sent} datagrams; at the start {start}, at the end {end}")
    return 0 if all(end[key] <= value + ROOM.get(key, 0) for key, value in start.items()) else 1


parser = argparse.ArgumentParser()
parser.add_argument("build", type=Path)
parser.add_argument("--days", type=float, default=30)
parser.add_argument("--seed", type=int, default=int(time.time()))
args = parser.parse_args()
print("seed", args.seed, flush=True)
DRAW.seed(args.seed)
sys.exit(world.enter(play))
