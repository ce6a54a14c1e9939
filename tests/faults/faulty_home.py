"""A home of the lab whose daemon's calls fail as a page says, and whose clocks run as it says: fault_preload.cpp."""
import ctypes
import mmap
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))
from lab import world  # noqa: E402
from lab.trial import Trial  # noqa: E402

MODES = FIRST, SECOND, SHORT, FOR_20_S, KILL = range(5)  # as in fault_preload.cpp
SPEED = 16


class Page(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int64) for name in "at mode while_ms speed leap_s step_s calls fired fired_ms now_ms told"
                .split()] + [("what", ctypes.c_char * 48)]


class Home(Trial):
    def __init__(self):
        super().__init__([f"LD_PRELOAD={world.BUILD}/tests/faults/libfault_preload.so",
                          f"KESTREL_FAULT_PAGE={world.SCRATCH}/page"])
        with open(world.SCRATCH / "page", "w+b") as file:
            file.truncate(ctypes.sizeof(Page))
            self.page = Page.from_buffer(mmap.mmap(file.fileno(), 0))

    def begin(self, prelude=":", speed=SPEED, at=0, mode=FIRST, leap_s=4):
        self.page.__init__(at, mode, 20000, speed, leap_s, 0, 0, 0, 0, 0, 0, b"")
        self.start(prelude)
