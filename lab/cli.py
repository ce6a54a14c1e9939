"""lab/run: the scenarios from the command line."""

import argparse
import contextlib
import math
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from lab import window, world
from lab.control_point import Refused
from lab.follower import Failed
from lab.scenarios import SCENARIOS
from lab.scene import Scene
from lab.stage import Options

_LAB = Path(__file__).resolve().parent
_LONGEST_S = 1800  # no run takes longer


def run(argv: list[str]) -> int:
    """lab/run: play scenarios, each in a world of its own."""
    parser = argparse.ArgumentParser(
        prog="lab/run", description="Play scenarios with the real daemon in network namespaces.")
    parser.add_argument("name", nargs="*", help="scenarios to play, see --list")
    parser.add_argument("--list", action="store_true", help="list the scenarios")
    parser.add_argument("--names", action="store_true", help="list their names only")
    parser.add_argument("--all", action="store_true", help="play all of them, one after the other")
    parser.add_argument("--times", type=_above_zero(int), default=1, metavar="N", help="play that often in a row")
    parser.add_argument("--build", type=Path, metavar="DIR", help="the build directory (default: the newest in build/)")
    parser.add_argument("--real-time", action="store_true", help="don't speed up the camera's clock")
    parser.add_argument("--speed", type=_above_zero(float), metavar="N", help="speed the camera's clock up N times")
    parser.add_argument("--within", type=float, default=0, metavar="S", help="fail when registering takes longer")
    parser.add_argument("--untimed", action="store_true", help="don't measure the first cycle, as of an emulated daemon")
    parser.add_argument("--keep-log", type=Path, metavar="DIR",
                        help="where the logs go (default: lab/NAME in the build)")
    parser.add_argument("--capture", type=Path, metavar="FILE", help="write the camera's packets there, as pcapng")
    parser.add_argument("--watch", action="store_true", help="stay registered until Ctrl-C, where the scenario can")
    parser.add_argument("--here", action="store_true",
                        help="in real time on this machine itself, without namespaces (loopback only)")
    parser.add_argument("--probe", action="store_true", help="only say whether scenarios can be played here: 0 or 77")
    options = parser.parse_args(argv)
    if options.list or options.names:
        for name, scenario in SCENARIOS.items():
            print(name if options.names else f"{name:<26}{scenario.text}")
        return 0
    if options.probe:
        return world.enter(world.probe)
    names = list(SCENARIOS) if options.all else options.name
    unknown = [name for name in names if name not in SCENARIOS]
    if unknown or not names:
        what = f"no scenario {unknown[0]}" if unknown else "no scenario named"
        print(f"lab/run: {what}; --list shows them", file=sys.stderr)
        return 2
    build = find_build("lab/run", options.build)
    if not build:
        return 2
    if options.capture and len(names) * options.times > 1:
        print("lab/run: --capture takes one scenario, played once", file=sys.stderr)
        return 2
    if len(names) * options.times == 1:
        return _play_one(names[0], options, build)
    return _play_many(names, options, build)


def capture(argv: list[str]) -> int:
    """lab/capture: one scenario, and the camera's packets in a file for Wireshark."""
    parser = argparse.ArgumentParser(
        prog="lab/capture", description="Play a scenario and write the camera's packets to NAME.pcapng.")
    parser.add_argument("name", help="the scenario, see lab/run --list")
    parser.add_argument("file", nargs="?", type=Path, help="default: NAME.pcapng in this folder")
    parser.add_argument("--build", type=Path, metavar="DIR", help="the build directory (default: the newest in build/)")
    options = parser.parse_args(argv)
    file = options.file or Path(f"{options.name}.pcapng")
    code = run([options.name, "--capture", str(file), *(["--build", str(options.build)] if options.build else [])])
    if code == 0:
        print(f"The packets are in {file}; -X lua_script:{_LAB.parent / 'tools/wireshark/kestrel-finder.lua'} has "
              "Wireshark and tshark read the finder's.")
    return code


def _above_zero(kind: type):
    def read(text: str):
        try:
            number = kind(text)
        except ValueError:
            number = 0
        if not 0 < number < math.inf:
            raise argparse.ArgumentTypeError(f"'{text}' is not a {'whole ' if kind is int else ''}number above 0")
        return number
    return read


def find_build(command: str, build: Path | None) -> Path | None:
    """The build directory to use: the one that was named, or the newest in build/; None, having said so."""
    if not build:
        built = sorted((_LAB.parent / "build").glob("*/src/kestreld"), key=lambda file: file.stat().st_mtime)
        build = built[-1].parent.parent if built else None
    with contextlib.suppress(PermissionError):
        if build and (build / "src/kestreld").exists() and (build / "skyport/skyport").exists():
            return build.resolve()
    print(f"{command}: no kestreld and skyport in {build or 'build/'}; build first, or name the directory by --build",
          file=sys.stderr)
    return None


def _play_one(name: str, options: argparse.Namespace, build: Path) -> int:
    scenario = SCENARIOS[name]
    kept = (options.keep_log or build / "lab" / name).resolve()
    try:
        kept.mkdir(parents=True, exist_ok=True)
        tempfile.TemporaryFile(dir=kept).close()
    except OSError as error:
        print(f"lab/run: logs can't be kept in {kept} ({error.strerror}); name another place by --keep-log",
              file=sys.stderr)
        return 2
    speed = 1 if options.real_time or options.here else options.speed or scenario.speed
    scene_options = Options(speed=speed, kept=kept, watch=options.watch,
                            register_within_s=options.within, timed=not options.untimed,
                            capture=options.capture and options.capture.resolve(),
                            window=window.frame() if options.watch else None)
    if options.here:
        return _play_here(scenario, scene_options, build)
    return world.enter(lambda: _play(scenario, scene_options, build), longest_s=0 if options.watch else _LONGEST_S)


def _play(scenario, options: Options, build: Path) -> int:
    """Inside the world: one scenario, from its title to its result."""
    world.show_build(build)
    subprocess.run(["ip", "link", "set", "dev", "lo", "up"], check=True)
    options.machine = world.ThisMachine(world.BUILD, world.SCRATCH)
    options.machine.private_tmp = True
    return _tell(scenario, options)


def _play_here(scenario, options: Options, build: Path) -> int:
    """The loopback scenario outside of any world; the daemon's log is the real one then."""
    if scenario.name != "loopback":
        print("lab/run: only the scenario loopback can be played without namespaces", file=sys.stderr)
        return 2
    if running := _daemons_here():
        print(f"lab/run: a kestreld is running here already (process {running[0]}) and uses the same log; end it first",
              file=sys.stderr)
        return 2
    try:
        socket.create_server(("127.0.0.1", 80)).close()
    except OSError as error:
        print(f"lab/run: port 80 of 127.0.0.1 can't be had ({os.strerror(error.errno)}), and the daemon knows no "
              "other; run this as root, with nothing else on that port", file=sys.stderr)
        return 1
    scratch = options.kept / "scratch"
    shutil.rmtree(scratch, ignore_errors=True)
    scratch.mkdir(parents=True)
    options.machine = world.ThisMachine(build, scratch)
    begun = time.time()
    try:
        return _tell(scenario, options)
    except KeyboardInterrupt:
        return 130
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
        log = Path("/tmp/kestreld_log.txt")
        if log.exists() and log.stat().st_mtime > begun:
            log.unlink()


def _daemons_here() -> list[str]:
    """Process ids of daemons that see the same /tmp; those in a world of their own don't."""
    own, found = os.stat("/proc/self/ns/mnt").st_ino, []
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if (process / "comm").read_text().strip() == "kestreld" and os.stat(process / "ns/mnt").st_ino == own:
                found.append(process.name)
    return found


def _tell(scenario, options: Options) -> int:
    scene = Scene(options)
    scene.account.title(f"{scenario.name}: {scenario.text}")
    if options.speed != 1:
        scene.account.plain(f"The camera's clock runs {options.speed:g} times as fast; times are the camera's.")
    if options.window:
        scene.account.plain(f"The bench service's page: {window.url(options.window)}")
    try:
        scenario.play(scene)
        scene.finish()
    except (Failed, RuntimeError, OSError, Refused, subprocess.SubprocessError) as reason:
        what = str(reason) if isinstance(reason, (Failed, RuntimeError)) else f"the lab: {reason!r}"
        scene.account.failure(what, [line for _, line in scene.lines[-25:]])
        return 1
    finally:
        scene.keep_logs()
        scene.account.plain(f"\nThe full log: {options.kept / 'kestreld_log.txt'}")
    scene.account.plain(f"{scenario.name}: passed")
    return 0


def _play_many(names: list[str], options: argparse.Namespace, build: Path) -> int:
    """One process a scenario, so that each has its own world; the sum at the end."""
    passed_on = ["--build", str(build), "--within", str(options.within)]
    passed_on += ["--real-time"] if options.real_time else []
    passed_on += ["--untimed"] if options.untimed else []
    passed_on += ["--speed", str(options.speed)] if options.speed else []
    results: dict[str, list[str]] = {name: [] for name in names}
    for _ in range(options.times):
        for name in names:
            begun = time.monotonic()
            logs = ["--keep-log", str(options.keep_log / name)] if options.keep_log else []
            code = subprocess.run([sys.executable, "-B", str(_LAB / "run"), name, *passed_on, *logs]).returncode
            if code == 130:
                return 130
            word = {0: "passed", world.SKIPPED: "skipped"}.get(code, "FAILED")
            results[name].append(f"{word} {time.monotonic() - begun:.1f} s")
    print()
    for name, words in results.items():
        print(f"{name:<26}{', '.join(words)}")
    said = [word for words in results.values() for word in words]
    if any(word.startswith("FAILED") for word in said):
        return 1
    return world.SKIPPED if all(word.startswith("skipped") for word in said) else 0
