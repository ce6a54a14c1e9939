"""The machines of a scene: who is where, with which address, and how they are joined."""

import shutil
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from lab import camera as cam
from lab.router import Router
from lab.service import Service
from lab.window import look_into
from lab.world import Node, ThisMachine, Unavailable, link

SERVICE = "5.4.3.2"
RELAY = "5.4.3.3"
ISP, OUTSIDE = "5.1.1.1", "5.1.1.2"  # the home router's line: a public range, or miniupnpd would map nothing
LAN, CAMERA, OTHER = "192.168.1.1", "192.168.1.50", "192.168.1.60"  # OTHER: another machine at home
PC, PC_MAC = "192.168.1.20", "02:4b:52:00:00:20"
PUBLIC_ISP, PUBLIC_CAMERA = "5.9.8.1", "5.9.8.50"
LOOPBACK_PORT = 8081  # the camera's web server, where 80 is the service's


@dataclass
class Options:
    """How to run a scene."""
    speed: float = 1  # of the camera's clock; 1: in real time
    machine: ThisMachine | None = None  # for the scene that uses the loopback interface
    kept: Path | None = None  # where the full log goes
    watch: bool = False  # stay until Ctrl-C when all is shown
    capture: Path | None = None  # where the camera's packets go
    window: socket.socket | None = None  # of this machine, where the page of the service is to be seen
    register_within_s: float = 0  # 0: as long as the scenario allows
    timed: bool = True  # in real time, a first cycle that takes longer than its waits fails


class Stage:
    """One scenario's machines. The daemon is not started here."""

    def __init__(self, options: Options):
        self.options = options
        self.node: Node = None  # the camera's machine
        self.camera_address = ""
        self.outside = OUTSIDE  # the home's address on the internet
        self.camera: cam.Camera = None
        self.router: Router = None
        self.service: Service = None
        self.internet: Node = None
        self.shared = False  # another camera uses the service too
        self._capture: subprocess.Popen | None = None

    def start_service(self, *options: str) -> None:
        """The internet with the service on it."""
        self.internet = Node("internet")
        self.internet.address("lo", "127.0.0.1/8", f"{SERVICE}/32", f"{RELAY}/32")
        self.internet.run("sysctl", "-qw", "net.ipv4.ip_forward=1")
        self.service = Service(self.internet, [cam.HID, cam.SECOND_HID], list(options))
        self.service.start()
        if self.options.window:
            look_into(self.options.window, self.internet)

    def home(self, outside: str = OUTSIDE, isp: str = ISP, behind: Node | None = None,
             isp_interface: str = "isp") -> None:
        """A home with a router and the camera's cable, on the internet or behind another router."""
        node, router = Node("camera"), Node("router")
        router.run("ip", "link", "add", "name", "lan", "type", "bridge")
        router.run("ip", "link", "set", "dev", "lan", "up")
        self._cable(node, router, "lan1", cam.MAC)
        link(router, "wan", behind or self.internet, isp_interface)
        router.address("lan", f"{LAN}/24")
        router.address("wan", f"{outside}/24")
        router.route(isp)
        if not behind:
            self.internet.address(isp_interface, f"{isp}/24")
        self.router = Router(router, self.options.speed)
        self._plug_in(node, CAMERA, LAN)

    @staticmethod
    def _cable(node: Node, router: Node, port: str, mac: str) -> None:
        link(node, "eth0", router, port, mac)
        router.run("ip", "link", "set", "dev", port, "master", "lan")

    def plug_in_pc(self) -> None:
        """A PC at home, for the tools."""
        node = Node("pc")
        self._cable(node, self.router.node, "lan3", PC_MAC)
        node.address("eth0", f"{PC}/24")
        node.route(LAN)

    def plug_in_second_camera(self) -> cam.Camera:
        """Another camera at home, at the address OTHER, whose daemon is not started."""
        node = Node("camera2")
        self._cable(node, self.router.node, "lan2", cam.SECOND_MAC)
        node.address("eth0", f"{OTHER}/24")
        node.route(LAN)
        second = cam.Camera(node, SERVICE, "eth0", hid=cam.SECOND_HID, speed=self.options.speed)
        second.serve_page("0.0.0.0")
        self.shared = True
        return second

    def public(self) -> None:
        """A camera with a public address, straight on the internet."""
        node = Node("camera")
        link(node, "eth0", self.internet, "isp", cam.MAC)
        self.internet.address("isp", f"{PUBLIC_ISP}/24")
        self._plug_in(node, PUBLIC_CAMERA, PUBLIC_ISP)

    def loopback(self, machine: ThisMachine) -> None:
        """The camera and the service on one machine, without any network but its loopback interface."""
        self.internet = self.node = machine
        self.service = Service(machine, [cam.HID], ["--listen", "127.0.0.1:80"])
        self.service.start()
        self.camera = cam.Camera(machine, "127.0.0.1", "lo", http_port=LOOPBACK_PORT, network="active_interface=lo",
                                 speed=self.options.speed)
        self.camera.serve_page("127.0.0.1")
        self.capture("lo")

    def _plug_in(self, node: Node, address: str, gateway: str) -> None:
        node.address("eth0", f"{address}/24")
        node.route(gateway)
        self.node, self.camera_address = node, address

    def make_camera(self, network: str = "", changing_speed: bool = False) -> None:
        """Settle the camera's settings and serve its page."""
        self.camera = cam.Camera(self.node, SERVICE, "eth0", network=network, speed=self.options.speed,
                                 changing_speed=changing_speed)
        self.camera.serve_page("0.0.0.0")
        self.capture("eth0")

    def capture(self, interface: str) -> None:
        """From now on the camera's packets go to the file that was asked for, if one was."""
        file = self.options.capture
        if not file:
            return
        program = shutil.which("dumpcap")
        if not program:
            raise Unavailable("dumpcap is missing (package wireshark-common)")
        self._capture = self.node.spawn([program, "-q", "-i", interface, "-w", file], self.node.scratch / "dumpcap.log")
        deadline = time.monotonic() + 5
        while not file.exists() or not file.stat().st_size:
            if self._capture.poll() is not None or time.monotonic() > deadline:
                said = (self.node.scratch / "dumpcap.log").read_text().strip()
                raise RuntimeError(f"dumpcap writes nothing to {file}: {said[-300:]}")
            time.sleep(0.02)

    def end_capture(self) -> None:
        """All packets are in the file when it returns."""
        if self._capture:
            self._capture.terminate()
            self._capture.wait(10)

    def change_outside(self, address: str) -> None:
        """The provider gives the home another outside address, and the old one leads nowhere."""
        self.internet.run("ip", "route", "replace", "unreachable", self.outside)
        self.internet.run("ip", "route", "flush", "exact", address)
        self.router.node.address("wan", f"{address}/24")
        self.router.node.route(ISP)
        if self.router.scripted:
            self.router.scripted.external = address
        self.outside = address

    def block_service(self) -> None:
        """Drop what comes to the service directly; the relay's port stays open."""
        self.internet.run("nft", "-f", "-", text="""table inet blocked {
            chain input { type filter hook input priority 0; iifname "isp" tcp dport 80 drop; }; }\n""")

    def unblock_service(self) -> None:
        """Undo block_service."""
        self.internet.run("nft", "delete", "table", "inet", "blocked")
