"""lab/up, lab/enter, lab/down: a home with a router that stays, to work in by hand.

A socket without a file (its name is in the kernel only) tells where the standing lab is; it ends with it.
"""

import argparse
import contextlib
import os
import select
import signal
import socket
import struct
import sys
from pathlib import Path

from lab import camera as cam
from lab import window, world
from lab.cli import find_build
from lab.scene import Scene
from lab.stage import SERVICE, Options

_NAME = f"\0kestrel-lab-{os.getuid()}"
_NODES = ("camera", "camera2", "pc", "router", "internet")
_LONGEST_START_S = 30
_STANDS = "\0"  # ends what the lab says when it stands


def up(argv: list[str]) -> int:
    """Build the home and the internet in the background, and return when they stand."""
    parser = argparse.ArgumentParser(
        prog="lab/up", description="Make a home with two cameras, a PC and a NAT router with UPnP, and the internet.")
    parser.add_argument("--build", type=Path, metavar="DIR", help="the build directory (default: the newest in build/)")
    parser.add_argument("--bare", action="store_true", help="start no daemon, for one that is run by hand")
    arguments = parser.parse_args(argv)
    build = find_build("lab/up", arguments.build)
    if not build:
        return 2
    door = socket.socket(socket.AF_UNIX)
    try:
        door.bind(_NAME)
    except OSError:
        print("lab/up: the lab is up already; lab/enter goes in, lab/down ends it", file=sys.stderr)
        return 1
    options = Options(window=window.frame())
    told, tell = os.pipe()
    if os.fork() == 0:
        os.close(told)
        os.setsid()
        door.listen()
        null = os.open(os.devnull, os.O_RDWR)
        for stream, place in ((0, null), (1, null), (2, tell)):
            os.dup2(place, stream)
        os._exit(world.enter(lambda: _stand(build, options, arguments.bare, tell), door=door))
    os.close(tell)
    text = _read_until_end(told)
    stands = text.endswith(_STANDS)
    print(text.strip().strip(_STANDS), file=sys.stdout if stands else sys.stderr)
    return 0 if stands else world.SKIPPED if "can't be" in text else 1


def _stand(build: Path, options: Options, bare: bool, tell: int) -> int:
    world.show_build(build)
    scene = Scene(options)
    scene.start_service()
    scene.home()
    scene.router.start_upnp()
    scene.plug_in_pc()
    first = cam.Camera(scene.node, SERVICE, "eth0")
    first.serve_page("0.0.0.0")
    for camera in (first, scene.plug_in_second_camera()):
        if not bare:
            camera.start(supervised=True)
    daemons = f"""lab/enter camera {world.BUILD}/src/kestreld    run the daemon""" if bare else \
        "lab/enter camera killall kestreld                 end both daemons; their supervisors start them again"
    os.write(tell, f"""\
The lab is up: {", ".join(_NODES)}. In them the build is at {world.BUILD}.
   {daemons}
   lab/enter camera tail -F /tmp/kestreld_log.txt    read a daemon's log
   lab/enter pc {world.BUILD}/tools/kestrel-find     find the cameras from the PC at home
   lab/enter router nft list table inet home         see the router's table
   lab/enter internet bash                           a shell; the service's status is at 127.0.0.1:8089
   {window.url(options.window)}                         the service's page, for a browser on this machine
   lab/down                                          end it
{_STANDS}""".encode())
    null = os.open(os.devnull, os.O_WRONLY)
    os.dup2(null, 2)
    os.close(tell)
    while True:  # the first process is the parent of all that is left behind by others
        with contextlib.suppress(ChildProcessError):
            os.wait()
            continue
        signal.pause()


def enter(argv: list[str]) -> int:
    """Run a command, or a shell, on one node of the standing lab."""
    parser = argparse.ArgumentParser(
        prog="lab/enter", description="Run a command on a node of the lab that lab/up made.")
    parser.add_argument("node", choices=_NODES)
    parser.add_argument("command", nargs=argparse.REMAINDER, help="default: a shell")
    options = parser.parse_args(argv)
    found = _find()
    if not found:
        print("lab/enter: the lab is not up; lab/up makes it", file=sys.stderr)
        return 1
    into = ["nsenter", "--target", str(found[1]), "--mount", "--pid"]
    if os.geteuid() != 0:
        into += ["--user", "--preserve-credentials"]
    command = options.command or [os.environ.get("SHELL", "/bin/sh")]
    node = ["nsenter", f"--net=/run/netns/{options.node}", "--"]
    if options.node.startswith("camera"):
        home = world.SCRATCH / options.node
        node += ["unshare", "--mount", "sh", "-c", cam.PRIVATE, "sh", str(home / "tmp"),
                 f"KESTREL_CONF={home / 'camera.conf'}"]
    os.execvp(into[0], [*into, "--", *node, *command])


def down(argv: list[str]) -> int:
    """End the standing lab with everything in it."""
    argparse.ArgumentParser(prog="lab/down", description="End what lab/up made, with all in it.").parse_args(argv)
    found = _find()
    if not found:
        print("lab/down: the lab is not up", file=sys.stderr)
        return 0
    guardian = os.pidfd_open(found[0])
    for number in (signal.SIGTERM, signal.SIGKILL):
        with contextlib.suppress(ProcessLookupError):
            signal.pidfd_send_signal(guardian, number)
        if select.select([guardian], [], [], 10)[0]:
            return 0
    print("lab/down: the lab does not end", file=sys.stderr)
    return 1


def _find() -> tuple[int, int] | None:
    """Process ids of the standing lab's guardian and of its first process; None when it is not up."""
    with socket.socket(socket.AF_UNIX) as door:
        try:
            door.settimeout(5)
            door.connect(_NAME)
            guardian = struct.unpack("3i", door.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]
            return guardian, int(door.recv(20))
        except (OSError, ValueError):
            return None


def _read_until_end(told: int) -> str:
    """What the lab says while it starts: until it stands, or has ended."""
    text = ""
    while not text.endswith(_STANDS) and select.select([told], [], [], _LONGEST_START_S)[0]:
        piece = os.read(told, 4096).decode()
        text += piece
        if not piece:
            break
    return text
