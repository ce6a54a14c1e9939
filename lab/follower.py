"""Following a run: the daemon's log and the service's exchanges as they come, the account of them, and waiting."""

import re
import time
from typing import Callable

from lab.account import Account, state_in
from lab.stage import LAN, Options, Stage

_POLL_S = 0.01
_EXCHANGES_S = 0.3  # how often the service is asked when the log has told of nothing
_SLACK_S = 15  # of real time, on top of every limit, for a busy machine


class Failed(Exception):
    """A check did not hold."""


class Follower(Stage):
    """A stage on which the camera is followed."""

    def __init__(self, options: Options):
        super().__init__(options)
        self.account = Account()
        self.lines: list[tuple[float, str]] = []  # of the daemon's log, with the camera's time
        self.exchanges: list[dict] = []  # that the service has seen
        self._unshown: list[tuple[float, dict]] = []
        self._position = self._walk_from = self._owed = 0
        self._asked = 0.0
        self._file = None
        if options.kept:
            options.kept.mkdir(parents=True, exist_ok=True)
            self._file = (options.kept / "kestreld_log.txt").open("w")

    def start_camera(self, **settings) -> None:
        """Make the camera, unless it is there, and start its daemon."""
        if not self.camera:
            self.make_camera(**settings)
        self.restart_camera()

    def restart_camera(self) -> None:
        """Start the daemon again."""
        self.account.camera_starts(self.options.speed)
        self.camera.start()

    def move_camera(self, address: str) -> None:
        """Power cut: the daemon is killed and started again, with another address."""
        self.camera.kill()
        self.pump()
        self._position = self._walk_from = len(self.lines)
        self.node.address("eth0", f"{address}/24")
        self.node.route(LAN)
        self.camera_address = address
        self.restart_camera()

    def pump(self) -> None:
        """Take in what has happened since the last call."""
        for line in self.camera.log.read():
            if self._file:
                self._file.write(line + "\n")
            text = line.removeprefix("KLOG").rstrip("\r")
            self.lines.append((self.account.now(), text))
            if self.account.log(text):
                self._owed += 1
                self._show_exchanges()
        self._show_exchanges()
        if self.camera.process and self.camera.process.poll() is not None:
            raise Failed(f"the daemon has ended with status {self.camera.process.returncode}: {self.camera.said()}")
        self.account.tick()

    def _show_exchanges(self) -> None:
        """Show an exchange where the log tells its end; one that the log does not tell, a little later."""
        if not self.service.running or self.account.quiet:
            self._owed = 0
            return
        if not self._owed and time.monotonic() - self._asked < _EXCHANGES_S:
            return
        self._asked = time.monotonic()
        for _ in range(5):  # the service notes an exchange just after its answer has left
            self._unshown += [(time.monotonic(), seen) for seen in self.service.exchanges()]
            if len(self._unshown) >= self._owed:
                break
            time.sleep(0.002)
        while self._unshown and (self._owed or time.monotonic() - self._unshown[0][0] > 0.5):
            seen = self._unshown.pop(0)[1]
            if self.shared and seen["user"] != self.camera.hid:
                continue
            self._owed -= min(self._owed, 1)
            self.exchanges.append(seen)
            self.account.exchange(seen)

    def until(self, condition: Callable[[], bool], within_s: float, what: str) -> None:
        """Go on until the condition holds. within_s is in the camera's seconds; the machine gets some on top."""
        end = time.monotonic() + within_s / self.account.speed + _SLACK_S
        while True:
            self.pump()
            if condition():
                return
            if time.monotonic() > end:
                raise Failed(f"{what} did not come within {within_s:.0f} s")
            time.sleep(_POLL_S)

    def until_log(self, pattern: str, within_s: float) -> re.Match:
        """Go on until the log has a line with the pattern behind the last one waited for."""
        expression, found = re.compile(pattern), []

        def seen() -> bool:
            while self._position < len(self.lines) and not found:
                match = expression.search(self.lines[self._position][1])
                self._position += 1
                if match:
                    found.append(match)
            return bool(found)

        self.until(seen, within_s, f"the log line \"{pattern}\"")
        return found[0]

    def until_log_at(self, pattern: str, within_s: float) -> float:
        """The same; returns when it came, in the camera's seconds since its start."""
        self.until_log(pattern, within_s)
        return self.lines[self._position - 1][0]

    def until_state(self, name: str, within_s: float) -> float:
        """Go on until the state is entered; returns when that was (the camera's seconds since its start)."""
        if self.options.register_within_s and name in ("LumenDevDone", "LumenDevPartDone"):
            within_s = min(within_s, self.options.register_within_s)
        return self.until_log_at(rf"\*\*\*\[{name}\.?\]\*\*\*", within_s)

    def until_registered(self, within_s: float = 90) -> float:
        """A cycle, to its best end."""
        return self.until_state("LumenDevDone", within_s)

    def pass_time(self, seconds: float, speed: float) -> int:
        """Let that much of the camera's time pass, fast and without an account; returns how many cycles began.

        The last of the waits that were begun fast may leap a little when the clock goes slow again.
        """
        self.account.note(f"({seconds / 3600:.0f} hours pass, {speed:.0f} times as fast)")
        before, began = self.account.now(), len(self.lines)
        self.account.quiet = True
        self._set_speed(speed)
        end = time.monotonic() + seconds / speed + _SLACK_S
        while self.account.now() < before + seconds and time.monotonic() < end:
            self.pump()
            time.sleep(_POLL_S)
        self._set_speed(self.options.speed)
        self.pump()
        self.account.quiet = False
        return sum(state_in(line) == "START" for _, line in self.lines[began:])

    def _set_speed(self, rate: float) -> None:
        self.camera.speed = rate
        self.account.set_speed(rate)

    def watch(self) -> None:
        """With --watch, stay and tell until Ctrl-C."""
        if self.options.watch:
            self.account.note("(Ctrl-C ends it)")
            try:
                while True:
                    self.pump()
                    time.sleep(_POLL_S)
            except KeyboardInterrupt:
                self.account.note("(Ctrl-C)")
