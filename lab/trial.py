"""A camera behind a router with UPnP whose daemon is started anew for each of many short tries."""

import base64
import contextlib
import os
import random
import signal
import socket
import struct
import subprocess
import time
from typing import Callable

from lab import camera as cam
from lab.stage import LAN, OUTSIDE, Options, Stage

SURVEY, OPERATIONS, ALIAS = 0xA1, 0xA5, 0x107  # of the finder
FINDER_PORT = 62977
_REQUEST, _REPLY = 0xFDFD, 0xFEEE
_MAC = bytes.fromhex(cam.MAC.replace(":", ""))
_LONGEST_S = 20  # real, for a registration


def request(opcode: int, payload: bytes = b"", tag: int = 0, mac: bytes = _MAC, length: int | None = None) -> bytes:
    """A datagram to the finder; `length` is another than the payload has."""
    return struct.pack("<HHH6s8sH", _REQUEST, tag, opcode, mac, b"unread!!", len(payload) if length is None else length) + payload


def credentials(password: bytes, user: bytes = b"admin") -> bytes:
    """How a datagram's payload begins that comes from the administrator, or says so."""
    return base64.b64encode(user).ljust(64, b"\0") + base64.b64encode(password).ljust(64, b"\0")


class Trial(Stage):
    """What does not hold is an AssertionError, an end that does not come a subprocess.TimeoutExpired."""

    def __init__(self, environment: list[str]):
        super().__init__(Options())
        self.start_service("--connect-timeout", "1")
        self.home()
        self.router.start_scripted_upnp(LAN, external=OUTSIDE)
        self.make_camera()
        self.process: subprocess.Popen = None
        self._environment = environment
        self._settings, self._names = self.camera.settings.read_text(), 0
        with self.router.node.inside():
            self._pc = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def start(self, prelude: str = ":") -> None:
        """Start a daemon on fresh settings, after a shell's work where $H has its settings and run directory."""
        self.camera.settings.write_text(self._settings)
        self.camera.output.write_text("")
        (self.camera.home / "run").mkdir(exist_ok=True)
        self.service.exchanges()
        script = cam.PRIVATE.replace("shift && exec", f"shift; H={self.camera.home}; {prelude}; exec")
        self.process = self.node.spawn(
            ["unshare", "--mount", "sh", "-c", script, "sh", self.camera.tmp, f"KESTREL_CONF={self.camera.settings}",
             *self._environment, self.node.build / "src/kestreld"], self.camera.output)

    def in_place(self, command: str) -> None:
        """A shell's work where the daemon sees it."""
        subprocess.run(["nsenter", f"--mount=/proc/{self.process.pid}/ns/mnt", "sh", "-c",
                        f"H={self.camera.home}; {command}"], check=True)

    def until(self, holds: Callable[[], object], real_s: float, what: str) -> None:
        """Wait until it holds; the daemon must not end."""
        end = time.monotonic() + real_s
        while not holds():
            assert self.process.poll() is None, f"ended: {self.process.returncode}; not {what}: {self.camera.said()[-200:]}"
            assert time.monotonic() < end, f"not {what}"
            time.sleep(0.003)

    def reached(self) -> bool:
        """Whether the service has reached the camera from outside since the last look."""
        return any((seen["path"], seen["status"]) == ("/connectbk.html", 200) for seen in self.service.exchanges())

    def until_registered(self) -> None:
        """The service reaches the camera."""
        self.until(self.reached, _LONGEST_S, "registered")

    def until_answered(self, real_s: float) -> None:
        """The finder answers anybody and the administrator."""
        for opcode in (SURVEY, OPERATIONS):
            self.until(lambda: self.ask(opcode), real_s, f"answered ({opcode:#x})")

    def ask(self, opcode: int, argument: bytes = b"") -> bool:
        """Whether the finder answers the administrator, with success."""
        tag = random.getrandbits(16)
        self._pc.settimeout(0.05)
        self._pc.sendto(request(opcode, b"" if opcode == SURVEY else credentials(b"admin") + argument, tag),
                        (self.camera_address, FINDER_PORT))
        with contextlib.suppress(OSError):
            while struct.unpack_from("<HHH", reply := self._pc.recv(2048)) != (_REPLY, tag, opcode):
                pass
            return reply[16] == 0
        return False

    def change_alias(self) -> bool:
        """A change of the settings by the finder."""
        self._names += 1
        return self.ask(ALIAS, b"lab%d" % self._names)

    def descriptors(self) -> int:
        """How many the daemon has open."""
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def end(self, within_s: float = 1) -> None:
        """SIGTERM, and an end in order."""
        self.process.terminate()
        code = self.process.wait(within_s)
        assert code in (0, -signal.SIGTERM), f"ended: {code}"  # the latter before its handler stands
        self.check_left()

    def check_left(self, mappings: int = 0) -> None:
        """What a daemon has left: whole settings, at least so many mappings and never two."""
        lost = {line for line in self._settings.split("\n") if "alias" not in line} - set(
            self.camera.settings.read_text().split("\n"))
        assert not lost, f"settings lost: {lost}"
        assert mappings <= len(self.router.scripted.rows) <= 1, f"mappings: {self.router.scripted.rows}"
