#!/usr/bin/env python3
"""Datagrams of every bad kind, forged where need be, to the finder of a real daemon: while each comes, honest surveys
stay answered. usage: datagrams_test.py BUILD; 77 where namespaces can't be made"""
import os
import random
import socket
import struct
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from support.lan import EVERYBODY, PORT, cable, camera, camera_on, raw, soon, world  # noqa: E402
from lab.trial import credentials, request  # noqa: E402

CAMERA, PC, ALL = "10.1.0.1", "10.1.0.2", "255.255.255.255"
PC_MAC, MAC = "02:4b:52:00:00:02", raw(camera.MAC)


def frame(data, source=PC, port=50001, to=CAMERA, offset=0, surplus=0):
    """An Ethernet frame with a datagram in it; `surplus` is what UDP says too much, `offset` a fragment's word."""
    udp = struct.pack("!HHHH", port, PORT, 8 + len(data) + surplus, 0) + data
    head = [0x4500, 20 + len(udp), random.getrandbits(16), offset, 0x4011, 0,
            *struct.unpack("!4H", socket.inet_aton(source) + socket.inet_aton(to))]
    head[5] = 0xFFFF - (sum(head) % 0xFFFF)
    return (EVERYBODY if to == ALL else MAC) + raw(PC_MAC) + b"\x08\0" + struct.pack("!10H", *head) + udp


SURVEY, ANY = request(0xA1, mac=EVERYBODY), range(1501 - 28)
CHECKS = -1  # as many replies as there may be checks of passwords
# What comes, how often a second, and how many replies go out.
KINDS = [
    ("own reply, back", 1000, lambda: [frame(REPLY, port=PORT)] * 20, 0),
    ("own reply as a request", 1000, lambda: [frame(b"\xfd\xfd" + REPLY[2:], port=PORT)] * 20, 20),
    ("from port 0", 1000, lambda: [frame(SURVEY, port=0)] * 20, 0),
    ("from an echo service", 1000, lambda: [frame(SURVEY, port=7)] * 20, 20),
    ("from the finder's port", 1000, lambda: [frame(SURVEY, port=PORT)] * 20, 20),
    ("from the camera itself", 1000, lambda: [frame(SURVEY, CAMERA, PORT)] * 20, 0),
    ("from loopback", 1000, lambda: [frame(SURVEY, "127.0.0.1", PORT)] * 20, 0),
    ("from broadcast", 1000, lambda: [frame(SURVEY, source) for source in ("10.1.0.255", "10.1.0.0", ALL)] * 10, 0),
    ("from a group", 1000, lambda: [frame(SURVEY, "239.1.2.3")] * 20, 0),
    ("from nowhere to everybody", 1000, lambda: [frame(SURVEY, "0.0.0.0", PORT, ALL)] * 20, 0),
    ("from absent neighbours", 500, lambda: [frame(SURVEY, f"10.1.0.{10 + i % 200}") for i in range(500)], 0),
    ("from 1,000 sources", 1000, lambda: [frame(SURVEY, f"10.2.{i // 250}.{i % 250 + 1}", i + 1) for i in range(1000)], 1000),
    ("surveys of every length", 5000, lambda: [frame(request(0xA1, b"x" * n, mac=EVERYBODY)) for n in ANY[:-22]], 1003),
    ("zeros of every length", 5000, lambda: [frame(b"\0" * n) for n in ANY], 0),
    ("lengths that lie", 5000, lambda: [frame(request(0xA1, b"x" * n, mac=EVERYBODY, length=n + 1)) for n in ANY[:-22]], 0),
    ("noise", 5000, lambda: [frame(random.randbytes(n)) for n in ANY], 0),
    ("every length without a password", 20000, lambda: [frame(request(0xA5, b"\xff" * n)) for n in ANY[:-22]] * 7, CHECKS),
    ("every kind of question", 20000, lambda: [frame(request(n)) for n in range(0x10000) if n not in (0xD1, 0x102, 0x105)][::6], CHECKS),
    ("wrong passwords", 20000, lambda: [frame(request(0xA5, credentials(b"%d" % n))) for n in range(10000)], CHECKS),
    ("a right one, again and again", 20000, lambda: [frame(request(0xA5, credentials(b"admin")))] * 10000, CHECKS),
    ("fragments without an end", 5000, lambda: [frame(SURVEY, offset=0x2000)] * 1000, 0),
    ("longer than they are", 5000, lambda: [frame(SURVEY, surplus=40)] * 20, 0),
]


class Lan:
    """The PC's end of the cable: sends frames, and counts replies that do not go to the honest tool."""

    def __init__(self, pc):
        with pc.inside():
            self.wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            self.wire.bind(("a", 0x0800))
            self.honest, self.echo = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
        self.honest.connect((CAMERA, PORT))
        self.honest.settimeout(1)
        self.echo.bind(("", 7))
        self.replies = self.settled = 0
        for work in (self.count, self.send_back):
            threading.Thread(target=work, daemon=True).start()

    def count(self):
        own = self.honest.getsockname()[1]
        while True:
            data = self.wire.recv(2048).ljust(64)
            source, port = struct.unpack_from("!HH", data, 34)
            self.replies += (data[6:12], source, data[42:44]) == (MAC, PORT, b"\xee\xfe") and port != own

    def send_back(self):
        while True:
            self.echo.sendto(*self.echo.recvfrom(2048))

    def send(self, frames, rate):
        start = time.monotonic()
        for index, data in enumerate(frames):
            if (early := start + index / rate - time.monotonic()) > 0:
                time.sleep(early)
            self.wire.send(data)

    def ask(self, datagram=SURVEY):
        try:
            self.honest.send(datagram)
            return self.honest.recv(2048)
        except OSError:
            return b""

    def settle(self):
        """Until all that was sent is worked off: what is asked last is answered last."""
        self.settled += 1
        last = request(0xA1, tag=self.settled, mac=EVERYBODY)
        while self.ask(last)[2:4] != last[2:4]:
            pass
        time.sleep(0.1)

    def suffer(self, what, rate, make, expected):
        frames, lost, tries = make(), 0, 0
        self.replies, start = 0, time.monotonic()
        sender = threading.Thread(target=self.send, args=(frames, rate))
        sender.start()
        while sender.is_alive() or tries < 3:
            lost, tries = lost + (not self.ask()), tries + 1
            time.sleep(0.02)
        self.settle()
        took = time.monotonic() - start
        least, most = (1, 21 + 10 * took) if expected == CHECKS else (expected * 0.97, expected)
        print(f"{what}: {len(frames)} in {took:.1f} s, {self.replies} replies; {lost} of {tries} honest surveys lost", flush=True)
        return least <= self.replies <= most and lost <= max(1, tries / 20)


def body():
    global REPLY
    world.show_build(Path(sys.argv[1]).resolve())
    machine, pc = world.Node("camera"), world.Node("pc")
    cable(machine, "eth0", CAMERA, pc, "a", PC, camera.MAC)
    pc.run("ip", "link", "set", "dev", "a", "address", PC_MAC)
    machine.route(PC)
    daemon = camera_on(machine, network="active_interface=eth0")
    daemon.start()
    lan = Lan(pc)
    REPLY = soon(lan.ask)
    assert REPLY, daemon.said()
    bad = [kind[0] for kind in KINDS if not lan.suffer(*kind)]
    time.sleep(0.3)  # three checks of passwords
    if lan.ask(request(0xA5, credentials(b"admin")))[16:18] != b"\0\0":
        bad.append("the administrator is not served")
    if len(os.listdir(f"/proc/{daemon.process.pid}/fd")) > 9:  # five, and those of an exchange with the service
        bad.append("descriptors")
    print(daemon.end() or "the daemon ended in order", *bad, sep="\n")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(world.enter(body, longest_s=110))
