"""A headless browser for the bench service's page: Debian's chromium, driven over WebDriver (W3C) on loopback."""

import base64
import http.client
import json
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from lab.world import Node, ThisMachine, Unavailable

_OPTIONS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--disable-dev-shm-usage",
            "--disable-background-networking", "--no-first-run"]


class Browser:
    """One window. JavaScript's values come back as Python's; an error of the page's script raises."""

    def __init__(self, node: Node | ThisMachine):
        driver = shutil.which("chromedriver")
        if not driver or not shutil.which("chromium"):
            raise Unavailable("chromium is missing (packages chromium and chromium-driver)")
        self._profile = tempfile.TemporaryDirectory()
        self._node = node
        self._driver = subprocess.Popen(node.command(driver, "--port=0"), stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        self._port = 0
        while not self._port:
            words = self._driver.stdout.readline()
            assert words, "chromedriver has ended"
            if " started successfully on port " in words:
                self._port = int(words.split()[-1].rstrip("."))
        options = [*_OPTIONS, f"--user-data-dir={self._profile.name}"]
        self._session = ""
        self._session = "/session/" + self._call("POST", "/session", {"capabilities": {"alwaysMatch": {
            "goog:chromeOptions": {"args": options}, "goog:loggingPrefs": {"browser": "ALL"}}}})["sessionId"]

    def _call(self, method: str, path: str, body: dict | None = None):
        connection = http.client.HTTPConnection("127.0.0.1", self._port)
        connection.sock = self._node.connect("127.0.0.1", self._port)
        connection.sock.settimeout(30)
        connection.request(method, self._session + path, None if body is None else json.dumps(body))
        value = json.loads(connection.getresponse().read())["value"]
        connection.close()
        if isinstance(value, dict) and "error" in value:
            raise AssertionError(value["message"].split("\n")[0])
        return value

    def open(self, url: str) -> None:
        """Go to the page."""
        self._call("POST", "/url", {"url": url})

    def resize(self, width: int, height: int) -> None:
        """The page's own size, as a device of that size shows it."""
        self._call("POST", "/goog/cdp/execute", {"cmd": "Emulation.setDeviceMetricsOverride", "params": {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False}})

    def prefer_dark(self, dark: bool) -> None:
        """What the system is said to prefer."""
        self._call("POST", "/goog/cdp/execute", {"cmd": "Emulation.setEmulatedMedia", "params": {
            "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]}})

    def run(self, script: str, *arguments):
        """The value that the script returns."""
        return self._call("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def until(self, script: str, within_s: float = 5):
        """Look again until the script returns something true; returns it."""
        end = time.monotonic() + within_s
        while not (value := self.run(script)):
            assert time.monotonic() < end, f"not within {within_s} s: {script}"
            time.sleep(0.02)
        return value

    def press(self, *keys: str) -> None:
        """Keys, one after the other, to what has the focus."""
        strokes = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self._call("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": strokes}]})

    def errors(self) -> list[str]:
        """What the page's console has complained of since the last call."""
        return [entry["message"] for entry in self._call("POST", "/se/log", {"type": "browser"})]

    def picture(self, file: Path) -> None:
        """A screenshot as PNG."""
        file.write_bytes(base64.b64decode(self._call("GET", "/screenshot")))

    def close(self) -> None:
        """End the browser."""
        try:
            self._call("DELETE", "")
        finally:
            self._driver.terminate()
            self._driver.wait(10)
            self._driver.stdout.close()
            self._profile.cleanup()
