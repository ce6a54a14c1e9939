"""The camera: its settings, its web page, the daemon on it, and the daemon's log as it grows."""

import os
import signal
import subprocess
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

from lab.clock import SpeedyClock
from lab.service import PASSWORD
from lab.world import Node

MODEL = "LC-1200"
MAC = "02:4b:52:10:20:30"
UID = f"{MODEL}_102030"  # the model and the last three bytes of the hardware address
HID = "10203040"
SECOND_MAC, SECOND_UID, SECOND_HID = "02:4b:52:50:60:70", f"{MODEL}_506070", "50607080"  # of another camera
PAGE = "This is the camera's own page.\n"

_SETTINGS = """\
[device]
brand=Lumen
product=Network Camera
model={model}
camera_name=Lab camera
firmware_version=1.2.0
oem_version=1.2.0-oem
spt_version=1.2
product_type=0
hw_spec=0x00010002
timezone=0
dst=0
refer_file=/tmp/kestrel_refer.js

[network]
http_port={http_port}
https=0
dhcp=0
{network}

[skyport]
hid={hid}
password={password}
domain=skyport.test
domain_ip={service}
redirect_host={service}
enabled=1
first_connection=<fc>2026-01-31 12:00:00</fc>

[users]
admin=admin
admin_password=admin
user1=admin

[debug]
level=4
token=mObRaKiV

[host]
run_dir={run_dir}
upnp_interface={interface}
"""

# The daemon's log has a fixed path under /tmp: each daemon gets a /tmp of its own, and the /sys of its own network.
PRIVATE = 'mount --bind "$1" /tmp && { mount -t sysfs none /sys 2>/dev/null || true; } && shift && exec env "$@"'


class LogTail:
    """Reads the daemon's log as it grows, across the rotations after every 1000 lines."""

    def __init__(self, path: Path):
        self._path, self._file, self._rest = path, None, ""
        if path.exists():  # an earlier daemon's; this one's first line moves it away
            self._file = path.open(errors="replace")
            self._file.seek(0, os.SEEK_END)

    def read(self) -> list[str]:
        """The complete lines since the last call, without their mark."""
        text = ""
        if self._file:
            text = self._file.read()
            if self._rotated():
                text += self._file.read()
                self._file.close()
                self._file = None
        if not self._file and self._path.exists():
            self._file = self._path.open(errors="replace")
            text += self._file.read()
        *lines, self._rest = (self._rest + text).split("\n")
        return [line.removeprefix("KLOG").rstrip("\r") for line in lines]

    def _rotated(self) -> bool:
        try:
            return os.stat(self._path).st_ino != os.fstat(self._file.fileno()).st_ino
        except FileNotFoundError:
            return False


class Camera:
    """A node with the daemon's settings; the daemon is started and ended by the scene."""

    def __init__(self, node: Node, service: str, interface: str, hid: str = HID,
                 http_port: int = 80, network: str = "", speed: float = 1, changing_speed: bool = False):
        self.node, self.hid, self.http_port, self.interface = node, hid, http_port, interface
        self.home = node.scratch / node.name
        self.tmp = self.home / "tmp" if node.private_tmp else Path("/tmp")
        self.settings = self.home / "camera.conf"
        for folder in (self.home, self.tmp):
            folder.mkdir(parents=True, exist_ok=True)
        self.settings.write_text(_SETTINGS.format(
            model=MODEL, http_port=http_port, network=network, hid=hid, password=PASSWORD, service=service,
            run_dir=self.home / "run", interface=interface))
        self.output = self.home / "output.txt"
        self.log = LogTail(self.tmp / "kestreld_log.txt")
        self.process: subprocess.Popen | None = None
        self._clock = SpeedyClock(self.home / "speed", speed, changing_speed)

    @property
    def speed(self) -> float:
        """How many of the camera's seconds pass in a real one."""
        return self._clock.rate

    @speed.setter
    def speed(self, rate: float) -> None:
        self._clock.change(rate)

    def serve_page(self, address: str) -> None:
        """The camera's own web server, which the service connects back to."""
        with self.node.inside():
            server = ThreadingHTTPServer((address, self.http_port), _Page)
        threading.Thread(target=server.serve_forever, daemon=True).start()

    def start(self, supervised: bool = False) -> None:
        """Start the daemon; its process id is the process's own, so that signals reach it. Supervised it is started
        again whenever it ends, as on a camera; the process is then the supervisor."""
        env = [f"KESTREL_CONF={self.settings}", *self._clock.environment()]
        private = ["unshare", "--mount", "sh", "-c", PRIVATE, "sh", self.tmp] if self.node.private_tmp else ["env"]
        again = ["sh", "-c", 'while :; do "$@"; sleep 1; done', "sh"] if supervised else []
        self.process = self.node.spawn([*private, *env, *again, self.node.build / "src/kestreld"], self.output)
        self._clock.started()

    def signal(self, number: int) -> None:
        """Send the daemon a signal."""
        self.process.send_signal(number)

    def end(self) -> str:
        """End the daemon in order; returns "" or what was wrong with its end."""
        if not self.process:
            return ""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return "the daemon did not end within 30 s of SIGTERM"
        finally:
            self.process = None
        return "" if code == 0 else f"the daemon ended with status {code}: {self.said()}"

    def kill(self) -> None:
        """The power goes: the daemon ends at once and puts nothing in order."""
        self.process.kill()
        self.process.wait()
        self.process = None

    def said(self) -> str:
        """The last of what the daemon wrote to its terminal."""
        return self.output.read_text(errors="replace").strip()[-2000:]

    def set(self, key: str, value: str) -> None:
        """Change one setting, replacing the file in one step as an editor does."""
        lines = [f"{key}={value}" if line.startswith(f"{key}=") else line
                 for line in self.settings.read_text().split("\n")]
        new = self.settings.with_suffix(".new")
        new.write_text("\n".join(lines))
        new.replace(self.settings)

    def status(self) -> dict[str, str]:
        """The device's status file: online and uri."""
        file = self.home / "run/status"
        return dict(line.split("=", 1) for line in file.read_text().split()) if file.exists() else {}


class _Page(BaseHTTPRequestHandler):
    def log_message(self, *_):
        pass

    def do_GET(self):
        data = PAGE.encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)
