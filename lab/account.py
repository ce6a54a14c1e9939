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

from lab.service import fields

_STATE = re.compile(r"\*\*\*\[(\w+?)\.?\]\*\*\*")

# What the daemon's log says, and what that means. A line that is in no row is only in the full log.
_MEANINGS = [(re.compile(pattern), meaning) for pattern, meaning in [
    (r"^=> uid=\((.*)\)", "this is {0}"),
    (r"^=> hid=\((.*)\)", "its host id is {0}; looking for a UPnP gateway"),
    (r"get_dev_sip_account fail", "!no account at the service yet"),
    (r"^======== uid_info", "found a gateway; looking for old mappings of its own"),
    (r"Remove pollution ExtPort\((\d+)\)", "removes its old mapping of port {0}"),
    (r"Occupy by other service", "leaves another's mapping alone"),
    (r"proxy srv:\((.+)\):\((.+)\)", "relay proxy {0}:{1}"),
    (r"redirip=\S*, gethostbyname_addr=(\S+)", "the service is at {0}"),
    (r"iface=\(\d+\) active ip is=(\S+)", "its LAN address is {0}"),
    (r"\*\*\* No IP", "!no LAN address"),
    (r"\*\*\* get ddns ip failed", "!the service's address can't be found"),
    (r"must update Enable state\((\d)\)", "reports the user's switch to the service: {0}"),
    (r"update Enable state\(\d\) fail", "!could not tell it"),
    (r"must Query DAIP", "asks for its access server"),
    (r"get daip fail", "!got none"),
    (r"Physical DA eip: (\S*)", "its access server is {0}"),
    (r"Test proxy srv", "no answer; tries the relay proxy"),
    (r"==>\[eip:eport\] (\S+)", "the service sees it at {0}"),
    (r"diff eip, private iip", "so it is behind a NAT"),
    (r"diff eip, public iip", "another address, but a public one"),
    (r"^friendlyName=\[(.*)\]", "found the gateway \"{0}\""),
    (r"^upnpcp_get_eip ret=0", "the router tells its outside address"),
    (r"^upnpcp_get_eip ret=([1-9-]\d*)", "!the router does not tell its outside address ({0})"),
    (r"Querying eport:\((\d+)\)", "asks the router about port {0}"),
    (r"ueport:\(\d+\) EMPTY", "it is free; maps it"),
    (r"ueport:\((\d+)\) occupied", "port {0} belongs to another machine"),
    (r"Previously Added by Me", "the mapping is its own, made at an earlier address; replaces it"),
    (r"^ignore adding port mapping", "the mapping is its own and right"),
    (r"add port \((\d+)\) failed", "!the router refuses port {0}"),
    (r"^(?:A\d|B1) Port mapping i\((\d+)\)-e\((\d+)\) ok", "+the router's port {1} leads to the camera's port {0}"),
    (r"unhandled return value\((-?\d+)\)", "!no use of the router ({0})"),
    (r"connect back failed", "!the service does not reach it"),
    (r"^ ?connect back test ok|^Connect back ok!", "+the service reaches it from outside"),
    (r"Connect back need authentication", "once more, with credentials"),
    (r"delete port=(\d+)", "deletes the mapping of port {0}"),
    (r"must do first update", "first report since the start"),
    (r"must\s?update\.?$", "what it reported has changed"),
    (r"last state \((\w+)\), need to update", "the last cycle ended in {0}: reports again"),
    (r"BYPASS update", "nothing has changed: no report"),
    (r"go to reload", "reload: starts anew"),
    (r"requestReloadHandler", "SIGUSR1 has come: reload"),
    (r"requestConfigure", "SIGUSR2 has come: hold before the next start-over"),
    (r"signalRequestExit", "told to end"),
]]
_WAITS = [(re.compile(pattern), seconds, why) for pattern, seconds, why in [
    (r"^user name=\(", 6, "at start-up"),
    (r"\*\*\*\[NATU\.\]", 5, "before the test"),
    (r"\*\*\*\[UpnpPfReady\]", 5, "before the test"),
    (r"wait \((\d+)\)secs to start over", 0, "before the next cycle"),
    (r"wait \((\d+)\)secs to connect back", 0, "before the next test"),
    (r"^sleep (\d+) secs", 0, "because of SIGUSR2"),
    (r"sleep (\d+) sec to try again", 0, "before asking again"),
    (r"\*\*\* No IP|\*\*\* get ddns ip failed|\*\*\* get http srv port failed", 10, "before trying again"),
]]
_ANSWERED = re.compile(r"<-401 received|200 OK|Error[:=]\(|Unknow Error")
_UNANSWERED = re.compile(r"^\s*connect=-1|^\s*null$")
# Elements of little interest here.
_UNTOLD = ("mac", "ptype", "model", "ver", "sptver", "oif", "mask", "gw", "tch", "tstamp", "chno", "stype")
SEARCH_S = 8  # what a search for a gateway takes when none answers
_SEARCHES = [(re.compile(r"^=> hid="), SEARCH_S), (re.compile(r"\*\*\*\[NATMode\]"), 2 * SEARCH_S)]
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
        self._account_for_searches(line)
        if name := state_in(line):
            self._enter(name)
        if _UNANSWERED.search(line):
            self.note("no answer from the service", "!")
        for pattern, meaning in _MEANINGS:
            if match := pattern.search(line):
                self._wait = None
                mark = meaning[0] if meaning[0] in "+!" else " "
                self.note(meaning.lstrip("+!").format(*match.groups()), mark)
                break
        for pattern, seconds, why in _WAITS:
            if match := pattern.search(line):
                seconds = seconds or int(match[1])
                self.mandated.append((seconds, why))
                self.note(f"waits {seconds} s {why}")
                self._wait = (self.now(), seconds, why)
        for pattern, seconds in _SEARCHES:
            if pattern.search(line):
                self._wait = (self.now(), seconds, "for a gateway's answer")
        return bool(_ANSWERED.search(line))

    def _enter(self, name: str) -> None:
        if name == "UPnP" and self._state == "NATMode" and not self._second_header:
            self._second_header = True  # NATMode announces UPnP under its own header, before it has found any
            return
        self._second_header = False
        self._state, self._wait = name, None
        if name != self._shown_state or name == "START":
            self._shown_state = ""
            self.note(_STATES.get(name, ""))

    def _account_for_searches(self, line: str) -> None:
        if line.startswith("======== uid_info") or line.startswith("friendlyName=["):
            self._searched_s = 0
        elif "***[NATMode]***" in line:
            self._searched_s = 2 * SEARCH_S
        elif line.startswith("user name=(") or "***[NoUPnP]***" in line:
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
_STATES = {
    "START": "gathers addresses and settings",
    "IpReady": "asks the service how it sees the camera",
    "InternetReady": "compares that with its own address",
    "NATMode": "looks for the router's UPnP",
    "PublicMode": "has a public address",
    "UPnP": "asks the router for its outside address",
    "NoUPnP": "no UPnP: reports without a mapping",
    "UPnP_A": "is the router's outside address the one that the service sees?",
    "UPnP_B": "maps a port without knowing the router's address",
    "NATU": "has the fresh mapping tested from outside",
    "NAT1": "one NAT: maps a port",
    "NATM": "more than one NAT: reports without a mapping",
    "UpnpPfReady": "has the mapping tested from outside, then reports",
    "UpnpPfFailed": "no mapping to be had: reports without one",
    "LumenDevPartDone": "registered, but not reachable from outside",
    "LumenDevDone": "registered",
    "LumenDevNotReady": "not registered",
}
