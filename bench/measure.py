#!/usr/bin/env python3
"""The measuring part of scripts/bench, which builds what is measured here. Instructions are valgrind's, system calls
strace's, memory and wake-ups the kernel's; times are ratios of runs in turn. Everything that opens a socket runs in a
network namespace of its own."""

import argparse
import contextlib
import csv
import ctypes
import io
import json
import os
import re
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time
import urllib.request
from dataclasses import dataclass
from pathlib import Path

BUILD = Path(__file__).resolve().parent.parent / "build"
PLACE = Path("/mnt")  # where the world of the measuring sees the folder build/
PEERS = {"minissdpd": "usr/sbin/minissdpd", "wsdd2": "usr/sbin/wsdd2", "inadyn": "usr/bin/inadyn"}
AT_MOST, AT_LEAST = "at most", "at least"


@dataclass
class Figure:
    """One line of the table. `ratio` is what the wanted value is compared with."""
    row: str
    what: str
    measured: str
    peer: str
    ratio: float
    sense: str
    wanted: float
    unit: str = ""

    @property
    def share(self) -> float:
        """How much of what is allowed is used up: above 1 it is not reached."""
        return self.ratio / self.wanted if self.sense == AT_MOST else self.wanted / self.ratio

    @property
    def reached(self) -> bool:
        return round(self.share, 3) <= 1


# ---- The tools ----

def run(*argv, **options) -> str:
    """A command's standard output; its failure ends the measuring."""
    done = subprocess.run([str(word) for word in argv], text=True, capture_output=True, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, argv))}: status {done.returncode}: {done.stderr.strip()[-300:]}")
    return done.stdout


def program(name: str) -> Path:
    return PLACE / "release/bench" / name


def between(count, few: int, many: int) -> float:
    """What one of them costs, without what the program's start does."""
    return (count(many) - count(few)) / (many - few)


def instructions(name: str, piece: str, few: int, many: int, functions: tuple = ()) -> tuple[float, float]:
    """Of one run of a piece; and of that, what these functions cost with all that they call."""
    def counted(times: int) -> tuple[int, int]:
        with tempfile.NamedTemporaryFile() as out:
            said = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}", program(name), piece,
                                   str(times)], text=True, capture_output=True, check=True).stderr
            total = int(re.search(r"Collected : (\d+)", said)[1])
            if not functions:
                return total, 0
            lines = run("callgrind_annotate", "--inclusive=yes", "--threshold=100", out.name).splitlines()
        inside = [int(line.split()[0].replace(",", "")) for line in lines if any(f":{name}(" in line for name in functions)]
        return total, sum(inside)
    a, b = counted(few), counted(many)
    return tuple((more - less) / (many - few) for less, more in zip(a, b))


def calls(*argv, work=lambda: None, stdin=None) -> int:
    """How many system calls a program makes, in all its threads."""
    with tempfile.NamedTemporaryFile("r") as out:
        process = subprocess.Popen(["strace", "--follow-forks", "-c", "-o", out.name, *map(str, argv)], stdin=stdin,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        work()
        if process.stdin:
            process.stdin.close()
        if process.wait() != 0:
            raise RuntimeError(f"{argv}: status {process.returncode}")
        rows = [line.split() for line in out.read().splitlines()]
    return sum(int(row[3]) for row in rows if len(row) >= 5 and row[3].isdigit() and row[-1] != "total")


def time_ratio(one: tuple, other: tuple, turns: int = 41) -> float:
    """Medians of programs that print their seconds, run in turn."""
    taken = [(float(run(program(one[0]), *one[1:])), float(run(program(other[0]), *other[1:]))) for _ in range(turns)]
    return statistics.median(a for a, _ in taken) / statistics.median(b for _, b in taken)


# ---- The world ----

def enter_world() -> None:
    """Into namespaces of our own: a loopback interface and nothing else, a /tmp that nobody else sees."""
    new_mounts, new_network, new_user = 0x00020000, 0x40000000, 0x10000000
    user, group = os.geteuid(), os.getegid()
    if ctypes.CDLL(None, use_errno=True).unshare(new_mounts | new_network | (new_user if user else 0)) != 0:
        raise RuntimeError(f"no namespaces can be made here: {os.strerror(ctypes.get_errno())}")
    if user:
        Path("/proc/self/setgroups").write_text("deny")
        Path("/proc/self/uid_map").write_text(f"0 {user} 1")
        Path("/proc/self/gid_map").write_text(f"0 {group} 1")
    run("mount", "--make-rprivate", "/")
    run("mount", "--bind", BUILD, PLACE)
    for folder in ("/tmp", "/run"):
        run("mount", "-t", "tmpfs", "none", folder)
    run("ip", "link", "set", "lo", "up", "multicast", "on")
    os.chdir("/")


@contextlib.contextmanager
def started(*argv, env: dict | None = None, settle_s: float = 0):
    """A program while it is measured."""
    process = subprocess.Popen([str(word) for word in argv], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        time.sleep(settle_s)
        if process.poll() is not None:
            raise RuntimeError(f"{argv[0]} has ended: status {process.returncode}")
        yield process
    finally:
        process.terminate()
        process.wait()


def service():
    """The bench service, with the account of the platform that answers from memory."""
    return started(PLACE / "release/skyport/skyport", "--account", "10203040:lab-password", "--database", "/tmp/skyport.db",
                   "--status", "127.0.0.1:8089", "--listen", "127.0.0.1:80", settle_s=2)


def dirty_kb(process: subprocess.Popen) -> int:
    return int(re.search(r"Private_Dirty: +(\d+)", Path(f"/proc/{process.pid}/smaps_rollup").read_text())[1])


def switches(process: subprocess.Popen) -> int:
    """How often its threads have gone to sleep so far."""
    tasks = Path(f"/proc/{process.pid}/task").glob("*/status")
    return sum(int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", task.read_text(), re.M)[1]) for task in tasks)


# ---- The rows ----

def size() -> list[Figure]:
    """The daemon for 32-bit ARM, hardened and stripped"""
    ours = os.path.getsize(PLACE / "armhf/kestreld.stripped")
    here = os.path.getsize(PLACE / "release/kestreld.stripped")
    peers = [f"{name} {os.path.getsize(PLACE / 'peers' / name / path):,}" for name, path in PEERS.items()]
    return [Figure("size", size.__doc__, f"{ours:,} bytes (x86-64: {here:,})", "x86-64: " + ", ".join(peers), ours / 1000,
                   AT_MOST, 50, "kB")]


def libraries() -> list[Figure]:
    """Libraries that it needs at run time"""
    def needed(path: Path, seen: set | None = None) -> set:
        seen = set() if seen is None else seen
        for name in re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", path)):
            found = next((p for p in (Path("/lib/x86_64-linux-gnu") / name, Path("/usr/lib/x86_64-linux-gnu") / name)
                          if p.exists()), None)
            if name not in seen and not name.startswith("ld-linux"):
                seen.add(name)
                if found:
                    needed(found, seen)
        return seen
    ours = needed(PLACE / "release/src/kestreld")
    peers = [f"{name} {len(needed(PLACE / 'peers' / name / path))}" for name, path in PEERS.items()]
    return [Figure("libraries", libraries.__doc__, f"{len(ours)}: libc and the camera's four" if len(ours) == 5 else str(len(ours)),
                   ", ".join(peers), len(ours), AT_MOST, 5)]



def idle() -> list[Figure]:
    """Registered and idle: memory of its own, and wake-ups a minute"""
    libraries_at = {**os.environ, "LD_LIBRARY_PATH": f"{PLACE}/release/bench/memory:{PLACE}/release/platform-stubs"}
    Path("/run/inadyn.conf").write_text("provider default@no-ip.com { username = a\npassword = b\nhostname = c.example.org }\n")
    peers = PLACE / "peers"
    with contextlib.ExitStack() as stack:
        def begin(*argv):
            return stack.enter_context(started(*argv, env=libraries_at))
        stack.enter_context(service())
        ours, floor = begin(PLACE / "release/src/kestreld"), begin(program("floor"))
        others = {"minissdpd": begin(peers / "minissdpd" / PEERS["minissdpd"], "-d", "-i", "lo", "-p", "/run/m.pid", "-s",
                                     "/run/m.sock"),
                  "wsdd2": begin(peers / "wsdd2" / PEERS["wsdd2"]),
                  "inadyn": begin(peers / "inadyn" / PEERS["inadyn"], "-n", "-f", "/run/inadyn.conf", "-P", "/run/i.pid")}
        time.sleep(60)  # registered after 11 s, the finder's first report sent after 15 s, the watch asleep 30 s later
        with urllib.request.urlopen("http://127.0.0.1:8089/devices") as answer:
            held = json.load(answer)
        if not any(device["hid"] == "10203040" for device in held):
            raise RuntimeError("the daemon has not registered")
        everybody = {"kestreld": ours, "floor": floor, **others}
        before = {name: switches(process) for name, process in everybody.items()}
        time.sleep(60)
        woken = {name: switches(process) - before[name] for name, process in everybody.items()}
        memory = {name: dirty_kb(process) for name, process in everybody.items()}
    def named(values: dict) -> str:
        return "two bare threads " + ", ".join(f"{name} {value}".removeprefix("floor ") for name, value in values.items()
                                               if name != "kestreld")
    return [Figure("idle", "Private dirty memory, registered and idle", f"{memory['kestreld']} kB", named(memory) + " kB",
                   memory["kestreld"] / memory["floor"], AT_MOST, 1.3),
            Figure("idle", "Wake-ups a minute, registered and idle", str(woken["kestreld"]), named(woken), woken["kestreld"],
                   AT_MOST, 4)]


def cipher() -> list[Figure]:
    """Key schedule and CFB-8 of 704 bytes"""
    ours, theirs = instructions("pieces", "cipher", 10, 40)[0], instructions("peers", "gcrypt", 10, 40)[0]
    spent = time_ratio(("pieces", "cipher", 100), ("peers", "openssl", 100))
    return [Figure("cipher", "Key schedule and CFB-8, 704 bytes: instructions", f"{ours:,.0f}", f"libgcrypt {theirs:,.0f}",
                   ours / theirs, AT_MOST, 1.1),
            Figure("cipher", "The same in time", "", "OpenSSL", spent, AT_MOST, 1)]


def ask_surveys(count: int) -> None:
    """Ask the finder so often, 32 surveys outstanding."""
    request = struct.pack("<HHH6s8xH", 0xFDFD, 0, 0xA1, b"\xff" * 6, 0)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
        peer.settimeout(5)
        peer.connect(("127.0.0.1", 62977))
        for turn in range(count + 32):
            if turn < count:
                peer.send(request)
            if turn >= 32:
                peer.recv(2048)


def survey(name: str, what: str, wanted: float) -> list[Figure]:
    def counted(count: int) -> int:
        def work() -> None:
            time.sleep(4)
            ask_surveys(count)
        return calls(program(name), "--serve", work=work, stdin=subprocess.PIPE)
    each = between(counted, 500, 5500)
    both = [tuple(map(float, re.findall(r"\d+\.\d+", run(program(name))))) for _ in range(3)]
    ratio, wall = (statistics.median(column) for column in zip(*both))
    row = "surveys" if name == "finder_survey_bench" else "surveys-host"
    return [Figure(row, f"{what}: rate", f"(by the wall's clock {wall:.2f})", "select loop 1", ratio, AT_LEAST, wanted),
            Figure(row, f"{what}: system calls", f"{each:.2f}, with a look at a file now and then", "select loop 3", round(each),
                   AT_MOST, 3)]


def surveys() -> list[Figure]:
    """Survey replies, 32 outstanding, settings from memory"""
    return survey("finder_survey_bench", "Survey replies", 0.9)


def surveys_host() -> list[Figure]:
    """Survey replies, 32 outstanding, with the host platform"""
    return survey("finder_survey_bench_host", "Survey replies with host/", 0.5)


def exchange() -> list[Figure]:
    """An exchange with the service: system calls, instructions without the cipher"""
    with service():
        def each(name: str, piece: str) -> float:
            return between(lambda times: calls(program(name), piece, times), 5, 45) / 2
        ours, bare, curl = each("pieces", "exchange"), each("pieces", "exchange-bare"), each("peers", "curl")
        every, inside = instructions("pieces", "exchange", 5, 45, ("kestrel::bf_cfb8_encrypt", "kestrel::bf_cfb8_decrypt"))
        theirs = instructions("peers", "curl", 5, 45)[0]
    return [Figure("exchange", "An exchange: system calls", f"{ours:.1f}", f"bare client {bare:.1f}, libcurl {curl:.1f}",
                   ours, AT_MOST, 16),
            Figure("exchange", "A challenge and its answer: instructions without the cipher",
                   f"{every - inside:,.0f} (the cipher: {inside:,.0f})", f"libcurl {theirs:,.0f}", (every - inside) / theirs,
                   AT_MOST, 0.1)]


def log() -> list[Figure]:
    """A log line, on and off"""
    on, bare = instructions("pieces", "log-on", 100, 900)[0], instructions("pieces", "log-bare", 100, 900)[0]
    off = instructions("pieces", "log-off", 100, 20100)[0] - instructions("pieces", "nothing", 100, 20100)[0]
    spdlog = instructions("peers", "spdlog-off", 100, 20100)[0]
    spent = time_ratio(("pieces", "log-on", 900), ("pieces", "log-bare", 900))
    return [Figure("log", "A log line, on: time", "", "snprintf, open, write, close", spent, AT_MOST, 1.1),
            Figure("log", "A log line, on: instructions", f"{on:,.0f}", f"the same {bare:,.0f}", on / bare, AT_MOST, 1.1),
            Figure("log", "A log line, off: instructions", f"{off:.0f}", f"spdlog {spdlog:.0f}", round(off, 1), AT_MOST, 25)]


def start() -> list[Figure]:
    """From start to registered behind a NAT router, less the waits that must be"""
    def once() -> tuple[float, float]:
        said = run(BUILD.parent / "lab/run", "nat-upnp", "--real-time", "--build", BUILD / "release")
        return tuple(map(float, re.search(r"([\d.]+) s after its start; of these (\d+) s are mandated", said).groups()))
    took, waits = min(once() for _ in range(3))  # what the machine does beside it only adds
    return [Figure("start", "Start to registered behind NAT, less the waits that must be",
                   f"{took:.2f} s less {waits:.0f} s, the least of 3", "", round(took - waits, 2), AT_MOST, 0.1, "s")]


ROWS = {"start": start, "size": size, "libraries": libraries, "idle": idle, "cipher": cipher, "surveys": surveys,
        "surveys-host": surveys_host, "exchange": exchange, "log": log}


# ---- What comes out ----

def table(figures: list[Figure]) -> str:
    lines = ["| what | measured | beside | figure | wanted | reached |", "| --- | --- | --- | --- | --- | --- |"]
    for it in figures:
        unit = f" {it.unit}" if it.unit else ""
        lines.append(f"| {it.what} | {it.measured} | {it.peer} | {it.ratio:.4g}{unit} | {it.sense} {it.wanted:g}{unit} | "
                     f"{'yes' if it.reached else 'no'} |")
    return "\n".join(lines) + "\n"


def plot(figures: list[Figure]) -> str:
    """A bar for each figure: how much of what is allowed it uses up."""
    width, left, bar, gap, top = 900, 430, 16, 10, 40
    height, scale = top + len(figures) * (bar + gap) + 10, (width - left - 70) / 2
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12" '
             'fill="#444"><rect width="100%" height="100%" fill="#fff"/>',
             f'<text x="{left + scale}" y="{top - 14}" text-anchor="middle" font-weight="bold">as much as is allowed</text>']
    for index, it in enumerate(figures):
        y, long = top + index * (bar + gap), min(it.share, 2) * scale
        parts.append(f'<text x="{left - 8}" y="{y + 12}" text-anchor="end">{it.what}</text>'
                     f'<rect x="{left}" y="{y}" width="{long:.1f}" height="{bar}" fill="{"#4c8f5e" if it.reached else "#b3261e"}"/>'
                     f'<text x="{width - 20}" y="{y + 12}" text-anchor="end">{it.share:.2f}</text>')
    parts.append(f'<line x1="{left + scale}" x2="{left + scale}" y1="{top - 8}" y2="{height - 8}" stroke="#444" stroke-dasharray="4 3"/>')
    return "\n".join(parts) + "\n</svg>\n"


def later(path: str):
    """A file that is written at the end, when another /tmp may hide its folder: a function that takes the text."""
    try:
        folder, name = os.open(Path(path).absolute().parent, os.O_RDONLY | os.O_DIRECTORY), Path(path).name
    except OSError as error:
        raise argparse.ArgumentTypeError(f"{path} can't be written: {error.strerror}") from error

    def write(text: str) -> None:
        with open(name, "w", encoding="utf-8", opener=lambda file, flags: os.open(file, flags, 0o666, dir_fd=folder)) as out:
            out.write(text)
    return write


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Measure the daemon beside its peers.")
    parser.add_argument("row", nargs="*", help="rows to measure, see --list")
    parser.add_argument("--list", action="store_true", help="list the rows")
    parser.add_argument("--csv", type=later, metavar="FILE", help="write the figures there, too")
    parser.add_argument("--plot", type=later, metavar="FILE", help="draw them there, as SVG")
    parser.add_argument("--parse", action="store_true", help=argparse.SUPPRESS)  # only look at the command line
    parser.add_argument("--no-install", action="store_true", help="install no packages (as the first option)")
    options = parser.parse_args()
    if options.list:
        print("\n".join(f"{name:<14}{measure.__doc__}" for name, measure in ROWS.items()))
        return 0
    unknown = [name for name in options.row if name not in ROWS]
    if unknown:
        print(f"scripts/bench: no row {unknown[0]}; --list shows them", file=sys.stderr)
        return 2
    if options.parse:
        return 0
    names = [name for name in ROWS if name in options.row or not options.row]
    figures, inside, failed = [], False, 0
    for name in names:
        print(f"scripts/bench: {name}", file=sys.stderr)
        try:
            if name != "start" and not inside:  # the lab makes its own
                enter_world()
                inside = True
            figures += ROWS[name]()
        except (RuntimeError, OSError, TypeError, subprocess.SubprocessError) as error:
            print(f"scripts/bench: {name} could not be measured: {error}", file=sys.stderr)
            failed = 1
    print(table(figures), end="")
    if options.csv:
        text = io.StringIO()
        writer = csv.writer(text, lineterminator="\n")
        writer.writerow(["row", "what", "measured", "beside", "figure", "sense", "wanted", "unit", "share", "reached"])
        for it in figures:
            writer.writerow([it.row, it.what, it.measured, it.peer, f"{it.ratio:.6g}", it.sense, it.wanted, it.unit,
                             f"{it.share:.4f}", it.reached])
        options.csv(text.getvalue())
    if options.plot:
        options.plot(plot(figures))
    return failed


if __name__ == "__main__":
    sys.exit(main())
