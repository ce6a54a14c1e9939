"""The live account of a run, for people: what the camera does, learns, sends and gets, line by line.

It is made of the daemon's log and of the exchanges that the service saw. Colour, the countdown and the spinner
appear on a terminal only.
"""

import os
import re
import shutil
import sys
import textwrap
import time
from dataclasses import dataclass
from pathlib import Path

from lab.service import fields

_STATE = re.compile(r"\*\*\*\[(\w+?)\.?\]\*\*\*")

# The daemon's log lines and what they mean: the table of kestrel-explain.
TABLE = Path(__file__).resolve().parents[1] / "tools/explain/log_lines.txt"


@dataclass(frozen=True)
class Row:
    """A row of the table."""
    mark: str
    name: str
    pattern: re.Pattern
    meaning: str
    condition: str = ""  # of a wait, its seconds; "if 0" or "unless 0" of the first number

    def fit(self, line: str) -> re.Match | None:
        """The line as this row's text, or None."""
        match = self.pattern.fullmatch(line)
        if match and self.condition in ("if 0", "unless 0") and (int(match[1]) == 0) != (self.condition == "if 0"):
            return None
        return match


def _pattern(text: str) -> re.Pattern:
    return re.compile(re.escape(text).replace("%d", r"(-?\d+)").replace("%s", "(.*?)"))


def read_table() -> list[Row]:
    """All rows of the table."""
    rows = []
    for line in TABLE.read_text().splitlines():
        if line and not line.startswith("#"):
            mark, name, text, meaning, *_ = line.split(" | ")
            mark, _, condition = mark.partition(" ")
            rows.append(Row(mark, name, _pattern(text), "" if meaning == "-" else meaning, condition))
    return rows


_ROWS = read_table()
# Elements of little interest here.
_UNTOLD = ("mac", "ptype", "model", "ver", "sptver", "oif", "mask", "gw", "tch", "tstamp", "chno", "stype")
SEARCH_S = 8  # what a search for a gateway takes when none answers
_SEARCHES = {"hid": SEARCH_S, "NATMode": 2 * SEARCH_S}
_SPINNER = "|/-\\"


def state_in(line: str) -> str:
    """The state whose header this log line is, or ""."""
    match = _STATE.search(line)
    return match[1] if match else ""


class Account:
    """Prints the account. Feed it with log lines and exchanges; call tick() often."""

    def __init__(self):
        self._terminal = sys.stdout.isatty() and os.environ.get("TERM") != "dumb"
        self._colours = self._terminal and not os.environ.get("NO_COLOR")
        self._plain = "utf" not in (sys.stdout.encoding or "").lower()
        self._width = max(60, min(shutil.get_terminal_size((110, 24)).columns, 130)) - 1
        self._start, self._start_s, self.speed = time.monotonic(), 0.0, 1.0
        self._state = self._shown_state = ""
        self._wait: tuple[float, float, str] | None = None  # began, seconds, why
        self._searched_s, self._second_header = 0, False
        self.mandated: list[tuple[int, str]] = []  # waits since the daemon's start that the daemon must make
        self._under = ""  # the countdown as it stands below the last line
        self.quiet = False

    def now(self) -> float:
        """Seconds of the camera's clock since its start."""
        return self._start_s + (time.monotonic() - self._start) * self.speed

    def set_speed(self, rate: float) -> None:
        """The camera's clock runs at another speed from now on."""
        self._start_s, self._start, self.speed = self.now(), time.monotonic(), rate

    def camera_starts(self, speed: float) -> None:
        """The clock starts with the daemon."""
        self._start, self._start_s, self.speed = time.monotonic(), 0.0, speed
        self._shown_state = self._state = ""
        self.mandated, self._searched_s = [], SEARCH_S
        self.note("the camera starts")

    def title(self, text: str) -> None:
        """A heading."""
        self._print(f"\n{self._paint('1', text)}")

    def note(self, text: str, mark: str = " ") -> None:
        """One line of the account, now."""
        colour = {"+": "32", "!": "31"}.get(mark, "")
        state = self._state if self._state != self._shown_state else ""
        self._shown_state = self._state
        head = f"{self.now():8.1f} s  {state:<17}"
        self._wrapped(head, text, colour, bold=state)

    def check(self, text: str) -> None:
        """Something that was to be shown, and was."""
        self._wrapped(" " * 12 + ("ok " if self._plain else "\u2714  "), text, "32")

    def failure(self, reason: str, last_lines: list[str]) -> None:
        """Why the run failed, and what the daemon said last."""
        self.quiet = False
        if last_lines:
            self._print("\nThe daemon's last lines:\n" + "\n".join(f"    {line}" for line in last_lines))
        self._print(self._paint("1;31", f"FAILED: {reason}"))

    def plain(self, text: str) -> None:
        """Text without a time."""
        self._print(text)

    def log(self, line: str) -> bool:
        """One line of the daemon's log. True when an exchange with the service has just ended."""
        found = [(row, match) for row in _ROWS if row.mark != "request" and (match := row.fit(line.strip()))]
        names = {row.name for row, _ in found}
        self._account_for_searches(names)
        if name := state_in(line):
            self._enter(name)
        if names & {"no-connection", "silent"}:
            self.note("no answer from the service", "!")
        for row, match in [pair for pair in found if pair[0].mark in ".+!"][:1]:
            if row.meaning:
                self._wait = None
                self.note(row.meaning.format(*match.groups()), " " if row.mark == "." else row.mark)
        for row, match in found:
            if row.mark == "wait":
                seconds = int(row.condition.format(*match.groups()))
                self.mandated.append((seconds, row.meaning))
                self.note(f"waits {seconds} s {row.meaning}")
                self._wait = (self.now(), seconds, row.meaning)
        for name in names & _SEARCHES.keys():
            self._wait = (self.now(), _SEARCHES[name], "for a gateway's answer")
        return bool(names & {"challenged", "ok", "status"})

    def _enter(self, name: str) -> None:
        if name == "UPnP" and self._state == "NATMode" and not self._second_header:
            self._second_header = True  # NATMode announces UPnP under its own header, before it has found any
            return
        self._second_header = False
        self._state, self._wait = name, None
        if name != self._shown_state or name == "START":
            self._shown_state = ""
            self.note(_STATES.get(name, ""))

    def _account_for_searches(self, names: set[str]) -> None:
        if names & {"first-gateway", "gateway"}:
            self._searched_s = 0
        elif "NATMode" in names:
            self._searched_s = 2 * SEARCH_S
        elif names & {"user", "NoUPnP"}:
            if self._searched_s:
                self.mandated.append((self._searched_s, "for a gateway that does not answer"))
                self.note("no gateway has answered")
            self._searched_s = 0

    def exchange(self, seen: dict) -> None:
        """One exchange as the service saw it."""
        out, back = ("->", "<-") if self._plain else ("\u2192", "\u2190")
        how = f"Digest, nc {seen['nc']}" if seen["nc"] else "no credentials"
        relay = " by the relay" if seen["relay"] else ""
        says = {401: "401, wants credentials", 404: "404, not reached"}.get(seen["status"], str(seen["status"]))
        extra = "".join(f"; {seen[key]}" for key in ("fault", "error") if seen.get(key))
        self._wrapped(" " * 29, f"{out} {seen['method']} {seen['path']}{relay} ({how})  {back} {says}{extra}", "36")
        if seen["status"] != 401:
            for word, xml in (("sent", seen["request"]), ("got", seen["answer"])):
                values = {key: value for key, value in fields(xml).items() if key not in _UNTOLD}
                if values:
                    text = " ".join(f"{key}={value}" for key, value in values.items())
                    self._wrapped(" " * 31 + f"{word:<5}", text, "2")

    def tick(self) -> None:
        """Keep the countdown moving."""
        if not self._terminal:
            return
        text = f"{' ' * 29}{_SPINNER[int(time.monotonic() * 8) % 4]}"
        if self._wait:
            left_s = self._wait[0] + self._wait[1] - self.now()
            if left_s > 0:
                text += f" {left_s:.0f} s left, {self._wait[2]}"
            else:
                self._wait = None
        if text != self._under:
            self._under = text
            # A line that the terminal wraps could not be taken back.
            columns = shutil.get_terminal_size((110, 24)).columns
            sys.stdout.write(f"\r\x1b[K{text[:columns - 1]}")
            sys.stdout.flush()

    def _wrapped(self, head: str, text: str, colour: str = "", bold: str = "") -> None:
        lines = textwrap.wrap(text, self._width - len(head)) or [""]
        shown = head.replace(bold, self._paint("1", bold), 1) if bold else head
        self._print((shown + self._paint(colour, lines[0])).rstrip())
        for line in lines[1:]:
            self._print(" " * len(head) + self._paint(colour, line))

    def _paint(self, colour: str, text: str) -> str:
        return f"\x1b[{colour}m{text}\x1b[0m" if self._colours and colour and text else text

    def _clear(self) -> None:
        if self._terminal and self._under:
            sys.stdout.write("\r\x1b[K")
            self._under = ""

    def _print(self, text: str) -> None:
        if self.quiet:
            return
        try:
            self._clear()
            print(text, flush=True)
        except BrokenPipeError:  # the reader has seen enough; the run itself goes on
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


# What each state is for, in a few words.
_STATES = {row.name: row.meaning for row in _ROWS if row.mark == "state"}
