"""The bench service on the internet side, and what it tells about its devices and exchanges."""

import http.client
import json
import signal
import subprocess
import time
import xml.etree.ElementTree as ElementTree

from lab.world import Node

STATUS_PORT = 8089
PASSWORD = "lab-password"  # of every account


class Service:
    """One skyport process on a node."""

    def __init__(self, node: Node, accounts: list[str], options: list[str]):
        self._node = node
        self._argv = [str(node.build / "skyport/skyport")]
        for hid in accounts:
            self._argv += ["--account", f"{hid}:{PASSWORD}"]
        self._argv += ["--database", str(node.scratch / "skyport.db"), "--status", f"127.0.0.1:{STATUS_PORT}", *options]
        self._log = node.scratch / "skyport.log"
        self._process: subprocess.Popen | None = None
        self._seen = 0

    def start(self) -> None:
        """Start it and wait until it listens; what it registered before a stop is still there."""
        before = self._log.read_text() if self._log.exists() else ""
        self._process = self._node.spawn(self._argv, self._log)
        deadline = time.monotonic() + 10
        while "skyport: ready" not in self._log.read_text()[len(before):]:
            if self._process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"skyport did not start: {self._log.read_text()[len(before):].strip()[-300:]}")
            time.sleep(0.02)

    def stop(self) -> None:
        """End it in order; its port then refuses connections."""
        if self._process:
            self._process.terminate()
            code = self._process.wait(10)
            self._process = None
            if code != 0:
                raise RuntimeError(f"skyport ended with status {code}: {self._log.read_text().strip()[-300:]}")

    def freeze(self) -> None:
        """Its process stands still: connections open, nothing is answered."""
        self._process.send_signal(signal.SIGSTOP)

    def thaw(self) -> None:
        """It goes on where it stood."""
        self._process.send_signal(signal.SIGCONT)

    @property
    def running(self) -> bool:
        """Whether it answers at the moment."""
        return self._process is not None

    def _ask(self, method: str, path: str, body: str = "") -> bytes:
        connection = http.client.HTTPConnection("127.0.0.1", STATUS_PORT)
        connection.sock = self._node.connect("127.0.0.1", STATUS_PORT)
        try:
            connection.request(method, path, body)
            return connection.getresponse().read()
        finally:
            connection.close()

    def _get(self, path: str) -> list[dict]:
        return json.loads(self._ask("GET", path))

    def fault(self, fault: str) -> None:
        """Have this fault strike, as its page describes them; "" for none any more."""
        self._ask("POST" if fault else "DELETE", "/faults", fault)

    def device(self, hid: str) -> dict:
        """What it holds about one device; {} before the device's first authenticated request."""
        return next((device for device in self._get("/devices") if device["hid"] == hid), {})

    def exchanges(self) -> list[dict]:
        """The exchanges since the last call, oldest first."""
        new = self._get(f"/exchanges?since={self._seen}")
        self._seen = new[-1]["id"] if new else self._seen
        return new


def fields(xml: str) -> dict[str, str]:
    """The leaf elements of a body, in order; {} when there is none or it can't be read."""
    try:
        return {leaf.tag: leaf.text or "" for leaf in ElementTree.fromstring(xml.strip("\0")).iter() if not len(leaf)}
    except ElementTree.ParseError:
        return {}
