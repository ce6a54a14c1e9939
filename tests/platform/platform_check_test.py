#!/usr/bin/env python3
"""kestrel-platform-check on the host platform, which keeps its contract, and on one that breaks it.
usage: platform_check_test.py CHECK CHECK_OF_BROKEN SETTINGS"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

OVERWRITTEN = "has its memory overwritten: mend the library before anything else"
BROKEN = {  # function: what is broken, and what the daemon does
    "cre_get_skyport_enable_state": f"2 bytes in an output of 1: the daemon {OVERWRITTEN}",
    "get_dev_sip_account": f"writes in front of an output: the daemon {OVERWRITTEN}",
    "dev_get_brand_name": "22 bytes in a buffer of 4: the daemon has room for that, and cuts it",
    "get_redirsrv_ip": "no terminator within 16 bytes: the daemon puts one at the end of its room",
    "net_get_http_srv_port": "result 1, and an output was not touched: the daemon does not register",
    "dev_get_model_name": "result 0 though a text was filled in: the daemon has no name of its own",
    "dev_get_if_metric": "the count was not touched: the daemon finds no interface",
    "tessel_get_mac3": "leaks 1 descriptors a call: the daemon runs out of them in time",
    "dev_get_dst": "took 13",
    "dev_get_timezone": "ended by signal 9 (Killed): the daemon ends by it too",
    "tessel_get_lock": "a held lock is given to another process: the daemon runs twice",
    "ILibProcessSocketRecv": "the socket is not marked closed: the daemon closes a number that may be another's",
    "b64_encode": f"8 bytes, and 5 are meant: the daemon {OVERWRITTEN}",
    "cre_set_skyport_domain": '"platform-check.test" was not stored: the daemon tells the tool',
    "cre_set_skyport_enable_state": "the switch keeps 1: the daemon tells the tool",
    "set_redirsrv_ip": '"192.0.2.77" was not stored: the daemon tells the tool',
}


def check(program, *options):
    with tempfile.TemporaryDirectory() as home:
        text = Path(sys.argv[3]).read_text()
        for key, value in {"run_dir": f"{home}/run", "upnp_interface": "none0", "hid": "10203040",
                           "password": "unseen", "redirsrv_ip": "192.0.2.1"}.items():
            text = re.sub(f"(?m)^#?{key}=.*", f"{key}={value}", text)
        conf = Path(home) / "camera.conf"
        conf.write_text(text)
        run = subprocess.run([program, *options], env=os.environ | {"KESTREL_CONF": str(conf)}, timeout=100,
                             capture_output=True, text=True)
        put_back = conf.read_text().replace("stored_hid=10203040", "stored_hid=") == text
    assert put_back or program != sys.argv[1], "the settings are not put back"
    return run.returncode, run.stdout


status, out = check(sys.argv[1], "--write")
assert status == 0 and out.endswith("\n63 kept, 0 broken\n") and "unseen" not in out, out
status, out = check(sys.argv[2], "--write")
found = re.findall(r"(?m)^(.{31}\S?) .* BROKEN\n  (.*)$", out)
assert status == 1 and {name.strip() for name, _ in found} == set(BROKEN), out
for name, what in found:
    assert what.startswith(BROKEN[name.strip()]), what
assert check(sys.argv[1], "--wirte")[0] == 2
