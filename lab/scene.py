"""A scene: what a scenario is written in. The machines, the steps and the checks together."""

import http.client
import os
import re
import shutil
import signal

from lab import camera as cam
from lab.account import state_in
from lab.control_point import ControlPoint, Mapping
from lab.follower import Failed, Follower
from lab.router import UPNP_PORT
from lab.stage import CAMERA, LAN
from lab.world import SCRATCH

ONE_NAT = ["START", "IpReady", "InternetReady", "NATMode", "UPnP", "UPnP", "UPnP_A", "NAT1", "UpnpPfReady",
           "LumenDevDone"]
# After the keep-alive has given up: it has forgotten its credentials, so the first question is challenged and repeated.
ONE_NAT_AGAIN = ["START", "IpReady", *ONE_NAT[1:]]


class Scene(Follower):
    """One scenario's machines, its account, and what is to hold."""

    def reload(self) -> None:
        """SIGUSR1."""
        self.account.note("(SIGUSR1 is sent)")
        self.camera.signal(signal.SIGUSR1)

    def retire(self) -> None:
        """The user turns the service off and reloads: nothing of the camera's may stay in the router."""
        self.camera.set("enabled", "0")
        self.account.note("(the user turns the service off, and SIGUSR1 is sent)")
        self.camera.signal(signal.SIGUSR1)
        self.until_state("LumenDevNotReady", 60)
        self.check_enabled(False)
        if self.router and not (self.router.scripted and self.router.scripted.silent):
            ours = [row for row in self.table() if row.description.startswith(cam.UID)]
            self.check(not ours, "no mapping of the camera's is left in the router", f"left in the router: {ours}")

    def check(self, holds: bool, what: str, otherwise: str = "") -> None:
        """Show what holds, or fail."""
        if not holds:
            raise Failed(otherwise or f"not so: {what}")
        self.account.check(what)

    def check_walk(self, *expected: str) -> None:
        """The states since the last such check, in order, up to the line that was last waited for."""
        walk = [name for _, line in self.lines[self._walk_from:self._position] if (name := state_in(line))]
        self._walk_from = self._position
        self.check(walk == list(expected), "states: " + " ".join(walk) if walk else "it has stayed in its state",
                   f"states: {' '.join(walk)}; expected: {' '.join(expected)}")

    def check_end_of_walk(self, *expected: str) -> None:
        """The states since the last check end like this."""
        walk = [name for _, line in self.lines[self._walk_from:self._position] if (name := state_in(line))]
        self._walk_from = max(self._walk_from, self._position)
        end = walk[-len(expected):]
        self.check(end == list(expected), "states, at last: " + " ".join(end), f"states, at last: {' '.join(end)}")

    def check_asked_router(self, action: str, times: int) -> None:
        """How often the scripted gateway was asked for something."""
        asked = [one for one in self.router.scripted.actions if one.split()[0] == action]
        self.check(len(asked) == times, f"the router was asked {times} times for {action}",
                   f"the router was asked {asked}")

    def open_descriptors(self) -> int:
        """How many descriptors the daemon has open."""
        return len(os.listdir(f"/proc/{self.camera.process.pid}/fd"))

    def check_log(self, pattern: str, what: str) -> None:
        """Some line of the log so far has the pattern."""
        self.check(any(re.search(pattern, line) for _, line in self.lines), what, f"the log has no line \"{pattern}\"")

    def device(self) -> dict:
        """What the service holds about the camera now."""
        return self.service.device(self.camera.hid)

    def check_registered(self, **expected: str) -> None:
        """The last update that the service holds has these values."""
        device = self.device()
        held = device.get("update") or {}
        wrong = {key: held.get(key) for key, value in expected.items() if held.get(key) != value}
        self.check(not wrong and device.get("enabled") == 1,
                   "the service holds " + " ".join(f"{key}={value}" for key, value in expected.items()),
                   f"the service holds {wrong or device}, expected {expected}")

    def check_enabled(self, enabled: bool) -> None:
        """The service and the device's status file know the switch."""
        self.until(lambda: self.device().get("enabled") == int(enabled), 30, f"enabled={enabled} at the service")
        self.account.check(f"the service knows that the switch is {'on' if enabled else 'off'}")
        self.check_online(enabled)

    def check_online(self, online: bool) -> None:
        """What the daemon tells the rest of the camera."""
        self.until(lambda: self.camera.status().get("online") == str(int(online)), 30, f"online={online}")
        self.account.check(f"the camera's status is {'on' if online else 'off'} line")

    def at(self) -> ControlPoint:
        """A control point on the camera's network."""
        return ControlPoint(self.node, LAN, UPNP_PORT)

    def table(self) -> set[Mapping]:
        """The router's table as it tells it; the firewall must agree."""
        told = self.at().table()
        forwarded = self.router.forwarded()
        if {row.port: (row.client, row.client_port) for row in told} != forwarded:
            raise Failed(f"the router tells {told} and forwards {forwarded}")
        return told

    def check_table(self, *expected: Mapping) -> None:
        """The router holds these mappings and no other."""
        table = self.table()
        shown = ", ".join(f"{row.port} to {row.client}:{row.client_port} \"{row.description}\"" for row in
                          sorted(table, key=lambda row: row.port))
        self.check(table == set(expected), f"the router's table: {shown or 'empty'}",
                   f"the router's table: {shown or 'empty'}; expected {expected}")

    def fetch(self, address: str, port: int) -> str:
        """The page at address:port, asked for from the internet; "" when there is none."""
        connection = http.client.HTTPConnection(address, port)
        try:
            connection.sock = self.internet.connect(address, port, timeout_s=2)
            connection.request("GET", "/")
            return connection.getresponse().read().decode()
        except OSError:
            return ""
        finally:
            connection.close()

    def show_device(self) -> None:
        """What the service now knows about the camera, for people."""
        device = self.device()
        self.account.title("What the service now knows about the camera")
        held = {"switch": "on" if device["enabled"] else "off", "updates": device["updates"], **device["update"]}
        for test in device["connect_back"][-1:]:
            outcome = f"in {test['took_ms']} ms" if test["connected"] else f"not: {test['error']}"
            held["reached"] = f"{test['address']}:{test['port']} {outcome}"
        for key, value in held.items():
            self.account.plain(f"   {key:<10}{value}")
        self.account.plain("")

    def check_reachable(self, address: str, port: int, reachable: bool = True) -> None:
        """Whether the camera's page is seen at address:port from the internet."""
        self.check((self.fetch(address, port) == cam.PAGE) == reachable,
                   f"from the internet, {address}:{port} {'shows' if reachable else 'does not show'} the camera's page")

    def check_timing(self, took_s: float) -> None:
        """Time to the end of the first cycle, beside the waits that are part of it; measured in real time only."""
        waits = self.account.mandated[:-1]  # the last one has begun with the end of the cycle
        total = sum(seconds for seconds, _ in waits)
        if self.options.speed == 1 and self.options.timed:
            listed = ", ".join(f"{seconds} s {why}" for seconds, why in waits)
            self.check(took_s - total <= 1,
                       f"{took_s:.2f} s after its start; of these {total} s are mandated waits ({listed})",
                       f"took {took_s:.2f} s; the mandated waits are {total} s ({listed})")

    def finish(self) -> None:
        """End the daemon and the service in order; either's bad end is a failure."""
        if self.camera:
            wrong = self.camera.end()
            self.pump()
            if wrong:
                raise Failed(wrong)
        self.end_capture()
        if self.service:
            self.service.stop()
        if self._file:
            self._file.close()

    def keep_logs(self) -> None:
        """Put what the lab's programs said beside the daemon's log."""
        scratch = self.node.scratch if self.node else SCRATCH
        for file in [*scratch.glob("*.log"), *scratch.glob("*/output.txt")]:
            if self.options.kept and file.stat().st_size:
                name = file.name if file.parent == scratch else f"{file.parent.name}-{file.name}"
                shutil.copyfile(file, self.options.kept / name)


def own(port: int, first: int = 80, client: str = CAMERA, uid: str = cam.UID) -> Mapping:
    """A mapping as the camera makes it: the name carries the first port that it tried."""
    return Mapping(port, client, 80, f"{uid}-1.2-{first}")
