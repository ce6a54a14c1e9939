#!/usr/bin/env python3
"""kestrel-explain from outside: its table against the daemon's sources, stories, verdicts, copies and following.
usage: explain_test.py BUILD"""

import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
TOOL = Path(sys.argv.pop(1)) / "tools/kestrel-explain"


def explain(*arguments, log="", status=0):
    """What the tool prints for a log on its standard input."""
    data = log if isinstance(log, bytes) else "".join(f"KLOG{line}\n" for line in log).encode()
    done = subprocess.run([TOOL, *arguments], input=data, capture_output=True, timeout=60)
    assert done.returncode == status, (arguments, done)
    return done.stdout.decode() if status == 0 else done.stderr.decode()


def ask(name, *lines):
    return [f"------------------------[ {name}:38 ]------------------------", " ecnode bodylen=104", *lines]


# Pieces of real logs.
REFUSED = (" rc=-1 errno=115", "connect=-1")
TIMED_OUT = (" rc=-1 errno=115", " WaitConnect timeout", " connect=-1")
BOOT = ["Starting.......", "=> uid=(LC-1200_102030)", "try to get_dev_sip_account", "=> hid=(10203040)",
        "user name=(10203040)", "dev_reload(0)"]
CYCLE = [" [kestreld] *** get proxy ip failed!", "redirip=5.4.3.2, gethostbyname_addr=5.4.3.2", " ***[START]***",
         " [kestreld]: iface=(2) active ip is=192.168.1.50", " Enable=1, Last_Spt_Enabled=1"]
DAIP = [" must Query DAIP", *ask("srv_get_daip", " connect=0", " <-200 OK receiced!"), " >>ret=1 auth_fail_count=0"]
SEEN = ["dev_reload(0)", "***[IpReady]***", *ask("srv_get_eip", " connect=0", "<-200 OK receiced!"),
        " ==>[eip:eport] 5.1.1.2:34449"]
NAT = [*SEEN, "***[InternetReady]***", "***[NATMode]***", "***[UPnP]***"]
ROUTER = [*NAT, "***[UPnP]***", "upnpcp_get_eip ret=0", "***[UPnP_A.]***", "***[NAT1]***"]
MAPPED = ["Querying eport:(80)", "B1 Port mapping i(80)-e(80) ok!", "***[UpnpPfReady]***"]
UNREACHED = ask("srv_connectback", "connect=0", "Error:(404)") + ["go_UpnpPfReady:66 connect back failed, delete pf"]
REPORT = ask("srv_update", "connect=0", "200 OK")
START = BOOT + CYCLE + DAIP
DONE = [*START, *ROUTER, *MAPPED, *ask("srv_connectback", "connect=0", "200 OK"), *REPORT, "***[LumenDevDone]***"]
KEEP = ["wait (230)secs to connect back!"]
NOT_READY = ["dev_reload(0)", "***[LumenDevNotReady]***", "0", "wait (300)secs to start over!"]
PART_DONE = [*REPORT, "***[LumenDevPartDone]***", "wait (300)secs to start over!"]

OVER = ["go_LumenDevDone:56 connect back failed, delete pf & start over! "]
NONE_LEFT = ["***[UpnpPfFailed]***", *PART_DONE]
OFF, ONLY, REACHED = "off line", "registered only", "registered and reachable"
# A log; the standing, its cycle and how long it stood; words of the verdict.
VERDICTS = {
    "tested": (DONE + KEEP + ask("srv_connectback", "connect=0", "200 OK") + KEEP, REACHED, 1, 230, "router's port 80"),
    "test fails": (DONE + KEEP + ask("srv_connectback", "connect=0", "Error:(404)") + OVER, ONLY, 1, 0, "404"),
    "mended": (DONE + KEEP + ask("srv_connectback", "connect=0", "Error:(404)") + OVER + DONE[len(BOOT):] + KEEP, REACHED,
               2, 0, "'step': None, 'answer': None, 'router_code': None, 'next': []"),
    "no test": (DONE + KEEP + ask("srv_connectback", *REFUSED) + OVER, ONLY, 1, 0, "outside failed", "refused"),
    "public": (START + SEEN + ["***[PublicMode]***", *REPORT, "***[LumenDevDone]***"], ONLY, 1, 0, "not have tested"),
    "no UPnP": (START + NAT + ["***[NoUPnP]***", *PART_DONE], ONLY, 1, 0, "no UPnP gateway", "guest network"),
    "two NATs": (START + ROUTER + ["***[NATM]***", "pdev->ue.ip  : c(192.168.100.2)-l()", *PART_DONE], ONLY, 1, 0,
                 "192.168.100.2, the service sees 5.1.1.2", "bridge"),
    "full": (START + ROUTER + 2 * ["***B1 Port mapping add port (80) failed,try next"] + NONE_LEFT, ONLY, 1, 0, "(2 t"),
    "code": (START + ROUTER + ["unhandled return value(501),UPF() failed"] + NONE_LEFT, ONLY, 1, 0, "'501'", "by hand"),
    "maps nothing": (START + ROUTER + MAPPED + UNREACHED + NONE_LEFT, ONLY, 1, 0, "maps ports", "connectbk", "404"),
    "no answer": (START + SEEN[:2] + ask("srv_get_eip", *TIMED_OUT) + NOT_READY + CYCLE
                  + ask("srv_get_daip", *TIMED_OUT) + NOT_READY + BOOT[-1:], OFF, 1, 600, "daip", "can't be reached"),
    "password": (BOOT + CYCLE + 2 * ask("srv_update", "connect=0", "<-401 received!") + NOT_READY, OFF, 1, 0, "creden"),
    "query's error": (START + SEEN[:2] + ask("srv_get_eip", " connect=0") + NOT_READY, OFF, 1, 0, "else than 200"),
    "error": (START + ask("srv_update", "connect=0", "Error=(503)") + NOT_READY, OFF, 1, 0, "iupd", "503", "own log"),
    "switch": (BOOT + CYCLE[:4] + [" Enable=0, Last_Spt_Enabled=-1", *NOT_READY], OFF, 1, 0, "switched"),
    "no LAN": (DONE + 2 * [*CYCLE[:3], " [kestreld]: *** No IP", "dev_reload(0)"], OFF, 2, 20, "no LAN", "cable"),
    "ended": (DONE + KEEP + [" signalRequestExit()"], OFF, 1, 0, "before that it was registered and reachable"),
    "began late": (ROUTER[-1:] + PART_DONE, ONLY, 0, 0, "no mapping"),
    "just started": (DONE + BOOT[:1], "not decided", 1, 0, "has started"),
    # The finder's requests, and what stands in an answer's text, say nothing about the registration.
    "beside": (START + SEEN[:2] + ask("srv_get_eip", " rc=-1 errno=115", "----------sz_xml_data packet----------",
                                      "connect=0", "200 OK", " connect=-1") + NOT_READY, OFF, 1, 0, "no connection"),
    "forged": (START + NOT_READY + ["decodestr:\n***[LumenDevDone]***\n"], OFF, 1, 0),
}


class Explain(unittest.TestCase):
    def test_every_line_of_the_table_stands_in_the_daemon(self):
        literals = set()
        for file in (PROJECT / "src").rglob("*.[ch]*"):
            for run in re.findall(r'(?:"(?:[^"\\\n]|\\.)*"\s*)+', file.read_text()):
                text = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', run))
                literals |= {part.strip() for part in re.split(r"\\[nr]", text)}
        table = (PROJECT / "tools/explain/log_lines.txt").read_text()
        texts = [line.split(" | ")[2] for line in table.splitlines() if line and not line.startswith("#")]
        self.assertEqual([text for text in texts if text not in literals], [])

    def test_verdicts(self):
        for name, (log, standing, cycle, seconds, *words) in VERDICTS.items():
            with self.subTest(name):
                verdict = json.loads(explain("--json", "--verdict", log=log))
                _, *since = verdict["since"].values()
                self.assertEqual((verdict["standing"], *since), (standing, cycle, seconds, name == "began late"))
                self.assertEqual([word for word in words if word not in str(verdict)], [])

    def test_story_folds_what_repeats_and_shows_foreign_text_harmlessly(self):
        failing = CYCLE + ask("srv_get_daip", *TIMED_OUT) + NOT_READY
        ports = [f"***B1 Port mapping add port ({port}) failed,try next" for port in range(8081, 8131)]
        story = explain(log=["friendlyName=[\x1b[2J\u202evil\xfc]"] + ports + DONE + 40 * failing)
        for told in ("(39 more cycles like this one)", "(47 more lines like these)", 'gateway "?[2J?vil\xfc"',
                     "  ! the router refuses port 8083\n", "UPnP              asks the router",
                     "since    line 106, in cycle 2; at least 3:15:00"):
            self.assertIn(told, story)
        self.assertEqual(story.count("-> GET /daip.html"), 2)
        long = b"KLOG***[START]***\n" + b"KLOG" + 30_000_000 * b"a" + b"\nKLOG***[LumenDevPartDone]***\n\0\xff\n"
        self.assertIn("registered only", explain(log=long))

    def test_redacted_copy_has_no_secret_and_the_same_verdict(self):
        secrets = ("10203040", "s3cret)pw", "LC-1200_102030", "8ee508d0166245f7", "3mR+kM+R", "439500", "00:4B:52:10",
                   "00:4b:52:10", "5.1.1.2", "5.4.3.2", "13ktbr/L1YKP", "bXkgYm9keQ==", "garden", "d102f14efb6c")
        log = DONE + ["get_dev_sip_account success, hid=10203040, password=s3cret)pw", "=> pass=(s3cret)pw)",
                      "  nonce=8ee508d0166245f76c80114628d0dbc7", "  cnonce=3mR+kM+R+5iRGnsU1JZDgikmP9bBN7xT (32)",
                      "kestreld 76 Timestamp=439500", "<tstamp>439500</tstamp>", "  mac=00:4b:52:10:20:30",
                      "ReqMAC=00:4B:52:10:20:30", "<ah>garden</ah>", "  tell garden", "\n<--\n" + 14 * "13ktbr/L1YKP"
                      + "\nbXkgYm9keQ==\n<--", 'Digest username="10203040", nonce="8ee508d0166245f7", '
                      'response="d102f14efb6c', "  FirmwareVersion=1.2.0.4", "[255.255.255.0]", "\n<--\n<p>kept",
                      " ==>[eip:eport] 5.1.1.2:1", "redirip=5.4.3.2, gethostbyname_addr=5.4.3.2."]
        copy = explain("--redact", log=log)
        self.assertEqual([secret for secret in secrets if secret in copy], [])
        for kept in ("192.168.1.50", "1.2.0.4", "[255.255.255.0]", "ReqMAC=[mac-1]", "tell [name-1]", "<p>kept"):
            self.assertIn(kept, copy)
        self.assertEqual(len(set(re.findall(r"gethostbyname_addr=(\S+?)\.?\n", copy))), 1)
        self.assertEqual(explain("--verdict", log=copy.encode()), explain("--verdict", log=log))
        self.assertRegex(explain("--redact", "--addresses", "all", log=log), r"active ip is=192\.168\.0\.1\n")
        self.assertIn("5.1.1.2", explain("--redact", "--addresses", "none", log=log))
        journal = "".join(f"Nov 23 10:00:00 camera[7]: KLOG{line}\n" for line in log[:60] + [l for l in log if "pass" in l]).encode()
        late = explain("--redact", log=["***[NATM]***", "  chname=LC-1200_102030-1.2-80", "x LC-1200_102030"])
        self.assertEqual([secret for secret in secrets if secret in explain("--redact", log=journal) + late], [])
        self.assertIn("no line of a", explain("--redact", log="KLOG=> pass=(s3cret)pw)\n".encode("utf-16"), status=1))
        with tempfile.TemporaryDirectory() as folder:
            (copy_file := Path(folder, "copy")).write_text("before")
            explain("--redact", "-o", copy_file, "/dev/null", folder, status=2)
            self.assertEqual((copy_file.read_text(), os.listdir(folder)), ("before", ["copy"]))
            explain("--redact", "-o", copy_file, log=log)
            self.assertEqual((copy_file.read_text(), os.listdir(folder)), (copy, ["copy"]))

    def test_files_of_a_pair_and_wrong_commands(self):
        with tempfile.TemporaryDirectory() as folder:
            new, old = Path(folder, "kestreld_log.txt"), Path(folder, "kestreld_log.old")
            old.write_text("".join(f"KLOG{line}\n" for line in DONE))
            new.write_text("KLOG" + KEEP[0] + "\n")
            for files in ([new], [new, old], [old, new]):
                self.assertIn("registered and reachable", explain(*files))
            self.assertIn("not decided", explain("--alone", new))
        for arguments, status, words in ((["--follow"], 2, "one log file"), (["/nowhere"], 2, "can't read /nowhere"),
                                         (["--redact", "--json"], 2, "excludes"), (["/dev/null"], 1, "no line of a")):
            self.assertRegex(explain(*arguments, status=status), f"^kestrel-explain: .*{words}.*\n$")

    def test_following_a_log_across_rotations(self):
        with tempfile.TemporaryDirectory() as folder:
            log, out = Path(folder, "kestreld_log.txt"), Path(folder, "out")
            with out.open("w") as file:
                tool = subprocess.Popen([TOOL, "--json", "-f", log], stdout=file)
                self.addCleanup(tool.kill)

                def until(count, word, end=time.monotonic() + 20):
                    while out.read_text().count(word) != count and time.monotonic() < end:
                        time.sleep(0.02)
                    self.assertEqual((word, out.read_text().count(word)), (word, count))

                log.write_text("".join(f"KLOG{line}\n" for line in START))
                until(1, '"state","name":"START"')
                with log.open("a") as open_log:  # as the daemon does: the last lines, then the rename, then a new file
                    open_log.write("".join(f"KLOG{line}\n" for line in DONE[len(START):-1]))
                log.rename(folder + "/kestreld_log.old")
                log.write_text(f"KLOG{DONE[-1]}\n")
                until(1, f'"standing":"{REACHED}"')
                until(0, "lost")
                log.rename(folder + "/lost")
                log.write_text("KLOG signalRequestExit()\n")
                until(1, "lost")
                until(1, f'"standing":"{OFF}"')
                tool.terminate()
                self.assertEqual(tool.wait(10), 0)


if __name__ == "__main__":
    unittest.main()
