"""The private world of one run: namespaces of its own for processes, mounts and the network.

Everything the lab makes lives inside it: /run (and with it the named network namespaces) and /dev/shm are private
memory, and all processes are children of the world's first one. When that one ends, by itself or by SIGKILL, the
kernel removes every process, namespace and file of the world. There is no clean-up code that a crash could skip.
"""

import contextlib
import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import time
import traceback
from pathlib import Path
from typing import Callable, Iterator

from lab import kernel

SKIPPED = 77  # exit status that ctest reports as "skipped"
SCRATCH = Path("/run/lab")  # inside the world: memory that goes with it
BUILD = SCRATCH / "build"  # inside the world: the build directory; its own path may lie under a hidden /tmp


class Unavailable(Exception):
    """Namespaces can't be made here; the text says why."""


def enter(body: Callable[[], int], longest_s: float = 0, door: socket.socket | None = None) -> int:
    """Run body as the first process of a new private world; return its exit status, 77 when there can be none.

    The caller stays outside as the world's guardian: SIGTERM and SIGINT end the world in order, SIGKILL at once, and
    so does the time limit, if any. Whoever connects to door is told the first process's id as seen from outside.
    """
    try:
        _leave_shared_namespaces()
    except OSError as error:
        print(f"lab: network namespaces can't be made here ({error}); run as root, or allow user namespaces",
              file=sys.stderr)
        return SKIPPED
    alive, guardian = os.pipe()
    sys.stdout.flush()
    pid = os.fork()
    if pid == 0:
        os.close(guardian)
        os._exit(_first_process(body, alive))
    os.close(alive)
    return _guard(pid, longest_s, door)


def _leave_shared_namespaces() -> None:
    flags = kernel.CLONE_NEWNS | kernel.CLONE_NEWPID | kernel.CLONE_NEWNET | kernel.CLONE_NEWIPC | kernel.CLONE_NEWUTS
    if os.geteuid() == 0:
        kernel.unshare(flags)
        return
    uid, gid = os.geteuid(), os.getegid()
    kernel.unshare(flags | kernel.CLONE_NEWUSER)
    Path("/proc/self/setgroups").write_text("deny")
    Path("/proc/self/uid_map").write_text(f"0 {uid} 1")
    Path("/proc/self/gid_map").write_text(f"0 {gid} 1")


def _first_process(body: Callable[[], int], alive: int) -> int:
    kernel.die_with_parent(signal.SIGKILL)
    if select.select([alive], [], [], 0)[0]:
        return 1  # the guardian was gone before the kernel knew what to do then
    try:
        kernel.mount("none", "/", "", kernel.MS_REC | kernel.MS_PRIVATE)
        kernel.mount("proc", "/proc", "proc")
        for place in ("/run", "/dev/shm"):
            kernel.mount("tmpfs", place, "tmpfs", 0, "mode=755")
        # Where there is no /dev/log, syslog writes to the machine's console: it is not ours, and may be a slow line.
        if Path("/dev/console").exists():
            kernel.mount("/dev/null", "/dev/console", "", kernel.MS_BIND)
        SCRATCH.mkdir()
    except OSError as error:
        print(f"lab: a private world can't be set up here ({error}); run as root", file=sys.stderr)
        return SKIPPED
    signal.signal(signal.SIGTERM, _interrupt)
    signal.signal(signal.SIGINT, _interrupt)
    try:
        return body()
    except KeyboardInterrupt:
        return 130
    except Unavailable as reason:
        print(f"lab: {reason}", file=sys.stderr)
        return SKIPPED
    except BaseException:
        traceback.print_exc()
        return 1
    finally:
        with contextlib.suppress(OSError):
            sys.stdout.flush()
            sys.stderr.flush()


def _interrupt(*_) -> None:
    raise KeyboardInterrupt


def _guard(pid: int, longest_s: float, door: socket.socket | None) -> int:
    def end(*_) -> None:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGTERM)

    signal.signal(signal.SIGINT, signal.SIG_IGN)  # a terminal's Ctrl-C reaches the first process by itself
    signal.signal(signal.SIGTERM, end)
    child = os.pidfd_open(pid)
    watched = [child] + ([door] if door else [])
    deadline = time.monotonic() + longest_s if longest_s else None
    while child not in (ready := select.select(watched, [], [], deadline and max(0, deadline - time.monotonic()))[0]):
        if door in ready:
            with door.accept()[0] as visitor:
                visitor.sendall(str(pid).encode())
        elif not ready:
            print(f"lab: not done after {longest_s:.0f} s", file=sys.stderr)
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            return 1
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


def show_build(build: Path) -> None:
    """Inside the world: have the build directory at BUILD too, where no daemon's private /tmp hides it."""
    BUILD.mkdir()
    kernel.mount(str(build), str(BUILD), "", kernel.MS_BIND)


class Node:
    """One machine of the lab: a named network namespace."""

    build, scratch = BUILD, SCRATCH
    private_tmp = True  # each daemon gets a /tmp of its own

    def __init__(self, name: str):
        self.name = name
        subprocess.run(["ip", "netns", "add", name], check=True)
        self._fd = os.open(f"/run/netns/{name}", os.O_RDONLY | os.O_CLOEXEC)
        self.run("ip", "link", "set", "dev", "lo", "up")

    def command(self, *argv: object) -> list[str]:
        """The command line that runs argv in this node."""
        return ["nsenter", f"--net=/run/netns/{self.name}", "--", *map(str, argv)]

    def run(self, *argv: object, text: str | None = None) -> str:
        """Run a short command in this node and return its output; a failure raises with what it said."""
        done = subprocess.run(self.command(*argv), input=text, capture_output=True, text=True, timeout=20)
        if done.returncode != 0:
            raise RuntimeError(f"{self.name}: {' '.join(map(str, argv))}: {done.stderr.strip() or done.returncode}")
        return done.stdout

    def spawn(self, argv: list, output: Path, env: dict[str, str] | None = None) -> subprocess.Popen:
        """Start a program in this node, its output going to a file. A terminal's Ctrl-C does not reach it."""
        with output.open("ab") as file:
            return subprocess.Popen(self.command(*argv), stdin=subprocess.DEVNULL, stdout=file, stderr=file,
                                    start_new_session=True, env={**os.environ, **(env or {})})

    @contextlib.contextmanager
    def inside(self) -> Iterator[None]:
        """Sockets that this thread makes in the block belong to this node, and stay there."""
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            kernel.setns(self._fd, kernel.CLONE_NEWNET)
            try:
                yield
            finally:
                kernel.setns(home, kernel.CLONE_NEWNET)
        finally:
            os.close(home)

    def connect(self, address: str, port: int, timeout_s: float = 3, source: str = "") -> socket.socket:
        """A TCP connection opened from this node."""
        with self.inside():
            return socket.create_connection((address, port), timeout_s, (source, 0) if source else None)

    def address(self, interface: str, *addresses: str) -> None:
        """Give an interface these addresses (with their prefix lengths) and no other."""
        self.run("ip", "addr", "flush", "dev", interface)
        for address in addresses:
            self.run("ip", "addr", "add", address, "dev", interface)

    def route(self, gateway: str) -> None:
        """Make gateway the way out of this node."""
        self.run("ip", "route", "replace", "default", "via", gateway)


class ThisMachine(Node):
    """Not a node: this machine itself, of which the loopback interface is used. Programs end with the lab's process."""

    private_tmp = False

    def __init__(self, build: Path, scratch: Path):
        self.name, self.build, self.scratch = "loopback", build, scratch

    def command(self, *argv: object) -> list[str]:
        return ["setpriv", "--pdeathsig", "KILL", "--", *map(str, argv)]

    @contextlib.contextmanager
    def inside(self) -> Iterator[None]:
        yield


def link(one: Node, interface: str, other: Node, other_interface: str, mac: str = "") -> None:
    """A cable between two nodes. mac, when given, is the hardware address of the first end."""
    own = ["address", mac] if mac else []
    one.run("ip", "link", "add", "name", interface, *own, "type", "veth",
            "peer", "name", other_interface, "netns", other.name)
    one.run("ip", "link", "set", "dev", interface, "up")
    other.run("ip", "link", "set", "dev", other_interface, "up")


def probe() -> int:
    """Inside a world: can a node, a cable and a firewall table be made? 0 or 77 with the reason on standard error."""
    for program in ("ip", "nsenter", "nft"):
        if not shutil.which(program):
            raise Unavailable(f"the program {program} is missing")
    try:
        one, other = Node("one"), Node("other")
        link(one, "a", other, "b")
        one.run("nft", "-f", "-", text="table inet probe { chain c { type nat hook postrouting priority 100; }; }\n")
    except (RuntimeError, subprocess.CalledProcessError, OSError) as error:
        raise Unavailable(f"network namespaces can't be made here ({error})") from error
    return 0
