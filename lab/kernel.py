"""The few system calls that Python's library lacks: namespaces, mounts, the parent-death signal."""

import ctypes
import os

CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWIPC = 0x08000000
CLONE_NEWUSER = 0x10000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000

MS_BIND = 0x1000
MS_REC = 0x4000
MS_PRIVATE = 0x40000

_PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _call(name: str, *args) -> None:
    if getattr(_libc, name)(*args) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{name}: {os.strerror(number)}")


def unshare(flags: int) -> None:
    """Leave the shared namespaces named by flags (CLONE_NEW...) for fresh ones."""
    _call("unshare", ctypes.c_int(flags))


def setns(fd: int, flags: int) -> None:
    """Move the calling thread, and it alone, into the namespace that fd refers to."""
    _call("setns", ctypes.c_int(fd), ctypes.c_int(flags))


def mount(source: str, target: str, kind: str, flags: int = 0, data: str = "") -> None:
    """mount(2)."""
    _call("mount", source.encode(), target.encode(), kind.encode(), ctypes.c_ulong(flags), data.encode())


def die_with_parent(signal_number: int) -> None:
    """Have the kernel send this signal to the calling process when its parent ends, however it ends."""
    _call("prctl", ctypes.c_int(_PR_SET_PDEATHSIG), ctypes.c_ulong(signal_number), 0, 0, 0)
