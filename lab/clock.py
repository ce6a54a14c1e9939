"""Clocks that run faster than the world's, by libfaketime: the camera's, and that of the router beside it."""

import time
from pathlib import Path

from lab.world import Unavailable


def faster(rate: float) -> list[str]:
    """The environment of a program whose time runs at this rate; nothing for a rate of 1."""
    return [] if rate == 1 else _preloaded() + [f"FAKETIME=+0 x{rate}"]


class SpeedyClock:
    """Makes the daemon's time run faster, by libfaketime; a rate of 1 leaves it alone."""

    def __init__(self, file: Path, rate: float, changing: bool):
        self.rate, self._file, self._changing = rate, file, changing
        self._offset_s, self._start = 0.0, 0.0

    def environment(self) -> list[str]:
        """The environment that the daemon needs for it."""
        if not self._changing:
            return faster(self.rate)
        self._file.write_text(f"+0 x{self.rate}\n")
        return _preloaded() + [f"FAKETIME_TIMESTAMP_FILE={self._file}", "FAKETIME_NO_CACHE=1"]

    def started(self) -> None:
        """The daemon's clock starts now."""
        self._start, self._offset_s = time.monotonic(), 0.0

    def change(self, rate: float) -> None:
        """Another rate from now on, without a leap: the offset makes both lines meet at this moment."""
        if not self._changing:
            raise ValueError("this clock was not made to change")
        self._offset_s += (time.monotonic() - self._start) * (self.rate - rate)
        self.rate = rate
        new = self._file.with_suffix(".new")
        new.write_text(f"{self._offset_s:+.3f} x{rate}\n")
        new.replace(self._file)


def _preloaded() -> list[str]:
    # The sanitizers' runtimes come second: the check that they come first is about interceptors, and both work.
    return [f"LD_PRELOAD={_faketime()}", "ASAN_OPTIONS=verify_asan_link_order=0"]


def _faketime() -> str:
    """The MT variant: the daemon has two threads."""
    for folder in Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"):
        return str(folder)
    raise Unavailable("libfaketime is missing (package libfaketime)")
