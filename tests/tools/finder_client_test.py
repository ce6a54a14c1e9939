#!/usr/bin/env python3
"""The finder from outside: a client of this test's own, kestrel-find and tshark with the dissector, against the daemon
on two LANs of a private world. usage: finder_client_test.py BUILD; 77 where namespaces can't be made"""

import fcntl
import json
import os
import pty
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from support.lan import EVERYBODY, PORT, PROJECT, cable, camera_on, raw, soon, world  # noqa: E402
from lab.clock import faster  # noqa: E402
from lab.trial import credentials, request  # noqa: E402

TAGS = iter(range(1, 0x10000))
MAC, MAC1, STUB_MAC = "02:4b:52:10:20:30", "02:4b:52:10:20:31", "02:4b:52:10:20:99"
HEADER = struct.Struct("<HHH6s4sHHH")  # of a reply; a request has eight bytes in the place of address, result and flag
OPEN = {0xA1: 312, 0x109: 304, 0xD1: 16, 0x102: 16, 0x105: 64}  # operations and their payloads
PROTECTED = {0xA5: 34, 0xD2: 16, 0x106: 64, 0x107: 16, 0x108: 16, 0x10A: 16}


def ask(interface, opcode, payload=b"", mac=raw(MAC), length=None, wait_s=2.0):
    """Broadcasts a request on an interface; the reply that comes in by it as (address, result, payload), or None."""
    tag = next(TAGS)
    with PC.inside(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as port:
        port.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interface.encode())
        port.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        port.settimeout(wait_s)
        port.sendto(request(opcode, payload, tag, mac, length), ("255.255.255.255", PORT))
        try:
            reply, (sender, sender_port) = port.recvfrom(2048)
        except TimeoutError:
            return None
    magic, echoed, op, own, ip, result, flag, size = HEADER.unpack_from(reply)
    assert (magic, echoed, op, own, flag, size) == (0xFEEE, tag, opcode, raw(MAC), 1, len(reply) - 22), reply.hex()
    assert (sender, sender_port) == (socket.inet_ntoa(ip), PORT), (sender, sender_port, ip)
    return sender, result, reply[22:]


def words(reply):
    return reply[1], *struct.unpack("<4I", reply[2])


def tool(*arguments, rate=1):
    """The command line that runs kestrel-find on the PC, by a clock of that rate."""
    return PC.command("env", *faster(rate), PC.build / "tools/kestrel-find", *arguments)


def find(*arguments, password="admin", timeout=0.5, rate=1, **options):
    """kestrel-find's exit status, standard output and standard error."""
    env = {**os.environ, "KESTREL_PASSWORD": password} if password is not None else os.environ
    done = subprocess.run(tool("--timeout", timeout * rate, *arguments, rate=rate), env=env, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60, **options)
    return done.returncode, done.stdout, done.stderr


def stored(key):
    return re.search(rf"^{key}=(.*)$", CAMERA.settings.read_text(), re.M)[1]


def start_camera():
    CAMERA.start()
    assert soon(lambda: ask("a", 0xA1, wait_s=0.1)), CAMERA.said()


class Stub:
    """A camera on a third LAN that can forget requests, mean ill, have other sizes, hear badly, or be hundreds."""

    def __init__(self):
        self.reset()
        with STUB.inside():
            self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.socket.setsockopt(socket.IPPROTO_IP, 8, 1)  # IP_PKTINFO: where a request was sent to
            self.socket.bind(("", PORT))
        threading.Thread(target=self.serve, daemon=True).start()

    def reset(self):
        self.name, self.forgets, self.surplus, self.mute, self.herd, self.deaf, self.heard = b"Stub", 0, b"", False, 1, 0, []

    def serve(self):
        while True:
            request, info, _, peer = self.socket.recvmsg(2048, 64)
            opcode, broadcast = struct.unpack_from("<H", request, 4)[0], info[0][2][8:] == b"\xff" * 4
            self.heard.append((opcode, broadcast))
            if (self.mute or [op for op, _ in self.heard].count(opcode) <= self.forgets or opcode == self.deaf and not broadcast
                    or request[6:12] not in (EVERYBODY, raw(STUB_MAC))):
                continue
            size = {**OPEN, **PROTECTED}[opcode]
            name = {0xA1: 204, 0x109: 166}.get(opcode)
            payload = b"\0" * name + self.name.ljust(size - name, b"\0") if name else b"\2" * size + self.surplus
            for number in range(self.herd):
                mac = (int.from_bytes(raw(STUB_MAC), "big") + number).to_bytes(6, "big")
                self.socket.sendto(HEADER.pack(0xFEEE, *struct.unpack_from("<HH", request, 2), mac, b"\x0a\x09\0\2", 0, 1,
                                               len(payload)) + payload, peer)


class Finder(unittest.TestCase):
    def setUp(self):
        STUB_CAMERA.reset()
        for key, value in {"alias": "yard", "last_alias": "front", "alias_status": "16", "enabled": "1"}.items():
            CAMERA.set(key, value)

    def test_the_answer_leaves_by_the_interface_of_the_request(self):
        for interface, ip, mac in (("a", "10.1.0.1", MAC), ("b", "10.1.0.3", MAC1)):  # one subnet, two cables
            for opcode, at_mac, own, at_ip in ((0xA1, 198, mac, 268), (0x109, 160, MAC, 294)):
                address, result, told = ask(interface, opcode, mac=EVERYBODY)
                self.assertEqual((address, result, len(told), told[at_mac:at_mac + 6], told[at_ip:at_ip + 4]),
                                 (ip, 0, OPEN[opcode], raw(own), socket.inet_aton(ip)))

    def test_a_wrong_length_is_not_served(self):
        for _ in range(BROKEN):
            self.assertIsNone(ask("a", 0xA1, b"x", length=0, wait_s=0.1))

    def test_find_tells_what_the_cameras_tell(self):
        STUB_CAMERA.forgets = 2
        status, out, _ = find("list", "--json", timeout=1.6)
        both = {camera["mac"]: camera for camera in json.loads(out)}
        self.assertEqual((status, sorted(both)), (0, [MAC, STUB_MAC]))  # once, though reached by two interfaces
        shown = json.loads(find("show", "10.1.0.1", "--json")[1])
        self.assertRegex(shown.pop("local_time"), r"^20\d\d-\d\d-\d\d \d\d:\d\d:\d\d$")
        told_dns = [socket.inet_ntoa(ask("a", 0xA1)[2][at:at + 4]).replace("0.0.0.0", "") for at in (284, 288)]
        self.assertEqual(shown, {
            "name": "B\u00fcro", "address": "10.1.0.1", "mac": MAC, "interface": "a", "brand": "Lumen", "model": "LC-1200",
            "oem_version": "1.2.0-oem", "http_port": 8080, "https": False, "client_version": "1.2", "gateway": "10.1.0.2",
            "url": "http://front.skyport.test/", "product": "Network Camera", "product_type": 2, "hardware": 0x10002,
            "interface_mac": MAC, "interface_address": "10.1.0.1", "netmask": "255.255.255.0", "dns1": told_dns[0],
            "dns2": told_dns[1], "dhcp": False, "timezone": 0x1234, "dst": True, "service": "on"})
        self.assertRegex(find("show", MAC)[1], r"HARDWARE +0x00010002\n")
        self.assertRegex(find("show", STUB_MAC)[1], r"GATEWAY +-\n")
        STUB_CAMERA.name = b"a\x1b[31m\x9b\xe2\x80\xae\xff;\\"
        self.assertIn("a?[31m???;\\", find("--interface", "c")[1])
        self.assertEqual(find("--interface", "c", "-p", "list")[1].split(";")[:5],
                         ["a\\027[31m\\155\\226\\128\\174\\255\\059\\092", "10.9.0.2", "0", STUB_MAC, ""])
        self.assertEqual(json.loads(find("--interface", "c", "list", "--json")[1])[0]["name"][:2], "a\x1b")
        STUB_CAMERA.herd = 400
        self.assertEqual(len(json.loads(find("--interface", "c", "list", "--json", timeout=1.6)[1])), 400)

    def test_find_lists_each_camera_as_it_comes(self):
        with subprocess.Popen(tool("--timeout", "8", "--interface", "c"), stdout=subprocess.PIPE, text=True) as listing:
            self.assertRegex(listing.stdout.readline() + listing.stdout.readline(), r"(?s)SERVICE URL\n.*" + STUB_MAC)
            self.assertIsNone(listing.poll())
            listing.kill()

    def test_credentials_are_broadcast_only_when_told(self):
        STUB_CAMERA.deaf = 0x106
        status, _, said = find("alias", STUB_MAC)
        self.assertEqual((status, "--broadcast" in said, (0x106, True) in STUB_CAMERA.heard), (1, True, False))
        self.assertEqual((find("--broadcast", "alias", STUB_MAC)[0], (0x106, True) in STUB_CAMERA.heard), (0, True))
        self.assertIn("is still on", find("service", STUB_MAC, "off")[2])  # whatever the reply said

    def test_find_changes_settings(self):
        def facts(*arguments, **options):
            status, out, _ = find(*arguments, "--json", **options)
            return status, {k: v for k, v in json.loads(out).items() if k not in ("mac", "address", "interface", "handle")}

        self.assertEqual(facts("service", MAC, "OFF"), (0, {"service": "off", "changed": True}))
        self.assertEqual(facts("service", MAC, "off"), (0, {"service": "off", "changed": False}))
        off = {"state": "not registered", "reason": "", "detail": "remote access is switched off", "conf_state": 3,
               "reason_code": 0, "detail_code": 2}
        self.assertEqual(soon(lambda: facts("status", "b\u00fcro"), lambda told: told == (0, off)), (0, off))
        self.assertEqual(find("service", MAC, password=None)[:2], (0, "off\n"))
        self.assertEqual(facts("service", MAC, "on"), (0, {"service": "on", "changed": True}))
        self.assertEqual((facts("alias", MAC), stored("enabled")), ((0, {"alias": "front"}), "1"))
        self.assertEqual(facts("alias", MAC, "gate"), (0, {"alias": "gate"}))
        self.assertEqual((find("alias", MAC, "door")[0], stored("alias")), (4, "gate"))
        for status, code, word in ((1, 4, "pending"), (16, 0, "accepted"), (32, 5, "duplicate"), (48, 6, "failed")):
            CAMERA.set("alias_status", str(status))
            self.assertEqual(facts("alias-status", MAC), (code, {"alias_status": word}))
        self.assertEqual(facts("alias", MAC, "door", "--wait=1", rate=4), (4, {"alias_status": "pending"}))
        CAMERA.set("alias_status", "16")
        for after_s, then in ((1, signal.SIGSTOP), (2.5, signal.SIGCONT)):  # silent at the second question
            threading.Timer(after_s, CAMERA.process.send_signal, (then,)).start()
        threading.Timer(2, CAMERA.set, ("alias_status", "16")).start()
        self.assertEqual(facts("alias", MAC, "door", "--wait=20", rate=2), (0, {"alias_status": "accepted"}))
        self.assertEqual(facts("ops", MAC), (0, {
            "announced": [*range(0xA1, 0xB2)], "answered": [0xA1, 0xA5, 0xD1, 0x102, 0x105, 0x106, 0x108, 0x109], "silent": [],
            "not_tried": [0xA2, 0xA3, 0xA4, *range(0xA6, 0xB2), 0xD2, 0x107, 0x10A]}))
        self.assertEqual(facts("domain", MAC, "skyport.test", "--yes"),
                         (0, {"domain": "skyport.test", "changed": False, "wait_ms": 30000}))

    def test_find_says_in_one_sentence_what_is_wrong(self):
        STUB_CAMERA.name = "B\u00fcro".encode()
        STUB_CAMERA.surplus = b"x"
        for status, sentence, arguments, options in (
                (3, "refused 'admin'", ("alias", MAC), {"password": "wrong"}), (3, "refused 'bob'", ("--user", "bob", "ops", MAC), {}),
                (1, "did not answer", ("status", "02:4b:52:10:20:77"), {}), (1, "did not answer", ("status", "nobody"), {}),
                (1, "did not answer", ("status", "10.1.0.9"), {}), (2, "several cameras", ("status", "b\u00fcro"), {}),
                (6, "17 bytes instead of 16", ("status", STUB_MAC), {}), (6, "interface nope", ("--interface", "nope", "list"), {}),
                (2, "'on' or 'off'", ("service", MAC, "maybe"), {}), (2, "at most 31", ("alias", MAC, "a b"), {}),
                (2, "at most 31", ("alias", MAC, "a" * 32), {}), (2, "must not be empty", ("domain", MAC, ""), {}),
                (2, "--yes", ("domain", MAC, "new.test"), {}), (2, "--help", ("frob",), {}),
                (2, "'nan'", ("list", "--timeout", "nan"), {}), (2, "needs the alias", ("alias", MAC, "--wait"), {}),
                (2, "can't be read", ("--password-file", "/nowhere", "ops", MAC), {}), (2, "at most 45", ("ops", MAC), {"password": "p" * 46}),
                (2, "KESTREL_PASSWORD", ("ops", MAC), {"password": None, "start_new_session": True})):
            got, _, said = find(*arguments, **options)
            self.assertEqual(got, status, arguments)
            self.assertRegex(said, rf"^kestrel-find: [^\n]*{sentence}[^\n]*\n$")
        self.assertEqual(stored("domain"), "skyport.test")

    def test_find_asks_at_the_terminal(self):
        def dialogue(arguments, *steps):
            pid, terminal = pty.fork()
            if pid == 0:
                os.environ.pop("KESTREL_PASSWORD", None)
                os.environ["TERM"] = "xterm"
                os.execvp("nsenter", tool("--interface", "a", *arguments))
            fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("4H", 24, 200, 0, 0))
            shown = b""
            for prompt, answer in steps:
                while prompt not in shown:
                    shown += os.read(terminal, 4096)
                os.write(terminal, answer)
            try:
                while more := os.read(terminal, 4096):
                    shown += more
            except OSError:
                pass
            os.close(terminal)
            return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), shown

        status, shown = dialogue(["alias", MAC], (b"Password of admin", b"admin\n"))
        self.assertEqual((status, b"front" in shown, b"admin\r\n" in shown), (0, True, False))  # typed without echo
        status, shown = dialogue(["ops", MAC], (b"Password", b"admin\n"))
        self.assertEqual((status, shown.count(b"Password")), (0, 1))  # though four of its requests carry it
        status, shown = dialogue(["--timeout", "0.5", "list"])
        self.assertEqual((status, b"\33[2A\33[J" in shown), (0, True))  # the rows as they came give way to the table
        self.assertEqual(dialogue(["alias", MAC], (b"Password", b"wrong\n"))[0], 3)
        self.assertEqual(dialogue(["alias", MAC], (b"Password", b"\3"))[0], 130)
        self.assertEqual(dialogue(["domain", MAC, "new.test"], (b"Go on", b"n\n"))[0], 2)
        self.assertEqual(stored("domain"), "skyport.test")

    def test_find_watches_who_comes_and_goes(self):
        STUB_CAMERA.mute = True
        command = tool("--json", "--interface", "c", "watch", "--interval", "3", "--rounds", "40", rate=8)
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as watch:
            for mute, event in ((False, "came"), (True, "gone")):
                time.sleep(0.5)
                STUB_CAMERA.mute = mute
                told = json.loads(watch.stdout.readline())
                self.assertEqual((told["event"], told["mac"]), (event, STUB_MAC))
            watch.terminate()
            self.assertEqual(watch.wait(10), 0)

    @unittest.skipUnless(shutil.which("killall"), "the camera's shell has no killall (package psmisc)")
    def test_new_domain_ends_the_daemon(self):
        def supervise():
            ends.append(CAMERA.process.wait(20))
            start_camera()

        ends, supervisor = [], threading.Thread(target=supervise)
        supervisor.start()
        status, out, _ = find("domain", MAC, "new.test", "--yes")
        supervisor.join()
        self.assertEqual((status, "is back" in out, ends, stored("domain")), (0, True, [-9], "new.test"))
        CAMERA.set("domain", "skyport.test")
        self.assertEqual(words(ask("a", 0x108, credentials(b"admin"))), (1, 3, 0, 0, 0))  # what it set before is forgotten
        self.assertEqual(find("alias-status", MAC)[0], 6)


def check_dissection(capture):
    """What tshark makes of all the datagrams of the tests: a row each, of the fields that are asked for."""
    fields = "magic opcode bad_length brand timezone hardware alias_status conf_state wait user".split()
    columns = ["_ws.malformed", "_ws.col.Protocol", "_ws.col.Info", *("kestrel_finder." + field for field in fields)]
    out = subprocess.run(["tshark", "-r", capture, "-X", f"lua_script:{PROJECT}/tools/wireshark/kestrel-finder.lua",
                          "-Y", f"udp.port == {PORT} and not icmp", "-T", "fields", *(p for c in columns for p in ("-e", c))],
                         env={**os.environ, "HOME": str(world.SCRATCH)}, check=True, capture_output=True, text=True).stdout
    rows = [dict(zip(("malformed", "protocol", "info", *fields), line.split("\t"))) for line in out.splitlines()]
    check = unittest.TestCase()
    check.assertEqual({row["protocol"] for row in rows}, {"FINDER"})
    check.assertEqual([row["bad_length"] for row in rows if row["malformed"]], ["1"] * BROKEN)
    for magic, word in (("0xfdfd", "Request"), ("0xfeee", "Reply")):
        named = {int(row["opcode"], 16) for row in rows if row["magic"] == magic and re.match(rf"{word}: (?!operation 0x)", row["info"])}
        check.assertEqual(named, {*OPEN, *PROTECTED})
    check.assertTrue({("Lumen", "4660", "0x00010002")} <= {(r["brand"], r["timezone"], r["hardware"]) for r in rows})
    check.assertTrue({"0", "2"} <= {r["alias_status"] for r in rows} and {"3"} <= {r["conf_state"] for r in rows})
    check.assertTrue({"30000"} <= {r["wait"] for r in rows} and {"admin", "bob"} <= {r["user"] for r in rows})
    check.assertTrue([r for r in rows if "authentication refused" in r["info"]])
    print(f"dissected {len(rows)} datagrams")


def body():
    global PC, STUB, CAMERA, STUB_CAMERA
    for program in ("tshark", "dumpcap"):
        if not shutil.which(program):
            raise world.Unavailable(f"the program {program} is missing")
    world.show_build(Path(sys.argv[1]).resolve())
    machine, PC, STUB = world.Node("camera"), world.Node("pc"), world.Node("stub")
    cable(machine, "eth0", "10.1.0.1", PC, "a", "10.1.0.2", MAC)
    cable(machine, "eth1", "10.1.0.3", PC, "b", "10.1.0.4", MAC1)
    machine.route("10.1.0.2")
    cable(STUB, "eth0", "10.9.0.2", PC, "c", "10.9.0.1", STUB_MAC)
    for node in (machine, PC, STUB):  # above the finder's port, which tshark then asks first what a datagram is
        node.run("sysctl", "-qw", "net.ipv4.ip_local_port_range=63000 64999")
    CAMERA = camera_on(machine, http_port=8080, speed=20, network="active_interface=eth0\ninterfaces=eth0;eth1")
    for key, value in {"camera_name": "B\u00fcro", "timezone": "4660", "dst": "1", "product_type": "1", "enabled":
                       "1\nalias=yard\nlast_alias=front\nalias_status=16", "user1": "admin\nuser2=bob"}.items():
        CAMERA.set(key, value)
    capture = world.SCRATCH / "finder.pcapng"
    tracer = PC.spawn(["dumpcap", "-q", "-i", "any", "-w", capture], world.SCRATCH / "dumpcap.txt")
    assert soon(capture.exists), (world.SCRATCH / "dumpcap.txt").read_text()
    STUB_CAMERA = Stub()
    start_camera()
    result = unittest.TextTestRunner(verbosity=2).run(unittest.defaultTestLoader.loadTestsFromTestCase(Finder))
    ended = CAMERA.end()
    time.sleep(1)  # dumpcap reads in blocks
    tracer.terminate()
    tracer.wait(10)
    print(ended or "the daemon ended in order")
    check_dissection(capture)
    return 0 if result.wasSuccessful() and not ended else 1


BROKEN = 3  # datagrams with a wrong length
if __name__ == "__main__":
    sys.exit(world.enter(body, longest_s=110))
