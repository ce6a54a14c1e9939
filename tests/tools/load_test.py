#!/usr/bin/env python3
"""skyport-load against the bench service, well and ill. usage: load_test.py SKYPORT_LOAD SKYPORT"""

import csv
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

LOAD, SKYPORT = sys.argv[1:]


def load(*options):
    done = subprocess.run([LOAD, "--speed", "100", *options], capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


def row(table, path):
    return [int(word) for word in next(line for line in table.splitlines() if line.startswith(path)).split()[1:5]]


with tempfile.TemporaryDirectory() as folder, socket.create_server(("127.0.0.1", 0)) as shut:
    accounts, rows = Path(folder, "accounts"), Path(folder, "rows.csv")
    accounts.write_text(load("-n", "40", "--accounts")[1])
    service = subprocess.Popen([SKYPORT, "--listen", "127.0.0.1:0", "--status", "127.0.0.1:0", "--accounts", accounts,
                                "--fault", "/daip.html:status=503*5"], stdout=subprocess.PIPE, text=True)
    assert service.stdout.readline() == "skyport: ready\n"
    there = "--service", service.stdout.readline().split()[-1]
    code, table, _ = load("-n", "40", *there, "--csv", str(rows))
    assert code == 0 and "40 of 40 cameras registered" in table, table
    for path, wanted in (("/enable.html", [40, 40, 0, 0]), ("/daip.html", [40, 0, 5, 0]), ("/connectbk.html", [40, 0, 0, 0]),
                         ("/iupd.html", [40, 0, 0, 0])):
        assert row(table, path) == wanted, table
    seen = list(csv.DictReader(rows.open()))
    assert len(seen) == sum(row(table, "all")) and sum(one["status"] == "503" for one in seen) == 5
    shut_port = f"127.0.0.1:{shut.getsockname()[1]}"
    shut.close()
    code, table, _ = load("-n", "3", *there, "--reached", shut_port, "--for", "2")
    assert code == 1 and "0 of 3 cameras" in table and row(table, "/connectbk.html")[2] >= 12 and row(table, "/iupd.html")[0] >= 3, table
    code, table, _ = load("-n", "3", "--service", shut_port, "--for", "1")
    assert code == 1 and row(table, "/enable.html")[3] >= 9 and "times: Connection refused" in table, table
    for wrong in (("--service", "x"), ("--reached", "1.2.3.4"), ("--csv", folder), ("-n", "0"), ("--speed", "nan"), ("--what",),
                  ("--service", "1.2.3.4:80x"), ("--prefix", "a:b"), ("--csv", "/dev/full", *there, "-n", "1")):
        code, _, said = load(*wrong)
        assert code == 2 and said.startswith("skyport-load: ") and said.count("\n") == 1, (wrong, said)
    accounts.write_text("A:b\nnobody\n")
    done = subprocess.run([SKYPORT, "--accounts", accounts], capture_output=True, text=True)
    assert done.returncode == 2 and "line 2 is not HID:PASSWORD" in done.stderr, done.stderr
    service.send_signal(signal.SIGTERM)
    assert service.wait(5) == 0
