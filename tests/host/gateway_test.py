#!/usr/bin/env python3
"""libupnpc against a scripted gateway on loopback: what routers do, well and badly. usage: gateway_test.py DRIVER"""

import socket
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))
from lab import gateway  # noqa: E402

IP1, IP2, PPP1, _ = (f"urn:schemas-upnp-org:service:WAN{kind}Connection:{version}"
                        for kind in ("IP", "PPP") for version in (1, 2))
NOBODY = "http://127.0.0.1:1/desc.xml"
BOMB = f"<!DOCTYPE r [<!ENTITY a '{'x' * 9999}'>" + "".join(
    f"<!ENTITY {name} '{f'&{of};' * 99}'>" for of, name in zip("abcdef", "bcdefg")) + "]><root>&g;</root>"


ROW = {"NewInternalClient": "127.0.0.1", "NewInternalPort": "80", "NewExternalPort": "80", "NewProtocol": "TCP"}
WELL = {"control_mode": "", "errors": lambda *_: 0, "keeps": True, "table": {"80": ROW}}
CALLS = {"eip 0": 0, "port 80": 1, "entry 0": 0, "add 81": 0, "delete 80": 0}  # and their results when all is well
LONG = dict.fromkeys(("NewExternalIPAddress", "NewInternalClient", "NewInternalPort"), "9" * 300000)
CODES = (400, 401, 402, 501, 606, 713, 718, 724, 725, 726, 727, 728, 729, 899)
# A fault, and the results of the five calls under it.
FAULTS = [
    ("gone", [-1] * 5),
    *(({"control_mode": mode}, [-1] * 5) for mode in ("silent", "drip", "flood", "flooding head", "cut", "garbage")),
    *(({"control_mode": mode}, [100] * 5) for mode in ("no XML", "deep")),
    ({"errors": lambda *_: LONG}, [4, 2, 0, 101, 0]),
    ({"keeps": False, "table": {}}, [0, 3, 713, 101, 4]),
    ({"errors": lambda *_: 714}, [714, 3, 714, 714, 4]),
    *(({"errors": lambda *_, code=code: code}, [result] * 5)
      for code, result in (*zip(CODES, CODES), (399, 100), (900, 100), (99999, 100), (-7, 100))),
]


class Gateway(gateway.Gateway):
    """Describes itself in XML as few write it: decoys in a comment, CDATA and an attribute, prefixes, an entity."""

    def __init__(self, ip="127.0.0.1", **told):
        super().__init__(None, ip, **{"external": "203.0.113.5", "prefix": "u:", "pad": 0, "first": "", "last": "</d:root>"} | told)

    def description(self):
        services = "".join(f"""<d:service id='1>2'><!-- <controlURL>/no</controlURL> --><d:serviceType>
            {kind}</d:serviceType ><controlURL a="/>"><![CDATA[{url}]]></controlURL></d:service>""" for kind, url in self.services)
        return f"""<?xml version="1.0" encoding="{self.encoding}"?><!DOCTYPE root [<!ENTITY x "<device>no</device>">]>
            <!-- <device><friendlyName>no</friendlyName></device> --><d:root xmlns:d='u'>{self.first}<d:device><friendlyName a=">no">
            Tom &amp; J&#xE9;rôme<!-- <x> -->&x;</friendlyName><manufacturer><![CDATA[A</manufacturer><modelName>no<B>]]></manufacturer>
            <modelName>{"M" * 50}</modelName><modelNumber/><modelDescription>D</modelDescription><manufacturerURL>U</manufacturerURL>{"<icon>x</icon>" * (self.pad // 14)}<deviceList><device>
            <presentationURL>inner</presentationURL><serviceList>{services}</serviceList></device></deviceList>
            <presentationURL>http://own/</presentationURL></d:device>{self.last}"""


class Bench:
    """A gateway and a process that calls the library."""

    def __init__(self, lease=0, **told):
        self.gateway = Gateway(**told)
        self.folder = tempfile.TemporaryDirectory()
        with open(self.folder.name + "/camera.conf", "w", encoding="utf-8") as conf:
            conf.write(f"[host]\nupnp_interface=lo\nupnp_ssdp_address=127.0.0.1\nupnp_lease_s={lease}\n"
                       f"upnp_ssdp_port={self.gateway.ssdp.getsockname()[1]}\n")
        self.process = subprocess.Popen([DRIVER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        env={"KESTREL_CONF": conf.name})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.communicate(timeout=20)
        assert self.process.returncode == 0, self.process.returncode
        self.folder.cleanup()

    def ask(self, call, port=0, timeout=8):
        """The call's result and outputs; `took` is how long it was at it."""
        start = time.monotonic()
        print(call, port, timeout, file=self.process.stdin, flush=True)
        result, *texts = self.process.stdout.readline().rstrip("\n").split("\t")
        self.took = time.monotonic() - start
        return [int(result), *texts]

    def codes(self, *calls):
        return [self.ask(*call.split())[0] for call in calls]

    def leases(self):
        """The leases that were asked for since the last time."""
        asked = [arguments["NewLeaseDuration"] for action, _, arguments in self.gateway.calls if action == "AddPortMapping"]
        self.gateway.calls.clear()
        return asked


def own_address():
    """An address of this machine that is not on the loopback network; nothing is sent."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        try:
            sock.connect(("192.0.2.1", 9))
            return sock.getsockname()[0]
        except OSError:
            return "0.0.0.0"


class GatewayTest(unittest.TestCase):
    def each(self, rows, check):
        """Runs `check` on every row, many at once: most of it is waiting."""
        with ThreadPoolExecutor(32) as pool:
            for row, result in [(row, pool.submit(check, *row)) for row in rows]:
                with self.subTest(row=str(row)[:90]):
                    result.result()

    def test_a_mapping_from_the_search_to_its_end(self):
        with Bench() as bench:
            self.assertEqual(bench.codes("eip", "port 80", "entry 0", "add 80", "delete 80"), [-1] * 5, "no gateway yet")
            self.assertEqual(bench.ask("discover"), [0, "Tom & Jérôme&x;", "A</manufacturer><modelName>no<B>", "U", "M" * 31, "", "D", "http://own/"])
            self.assertEqual(bench.ask("eip"), [0, "203.0.113.5"])
            for bench.gateway.prefix in ("", "m:", "u:"):
                self.assertEqual(bench.codes("eip", "port 80", "entry 0"), [0, 3, 713])
            self.assertEqual(bench.codes("add 80"), [0])
            self.assertEqual(bench.ask("port", 80), [1, "cam<&>_AABBCC-1.2-80", "127.0.0.1", "80", "0"])
            self.assertEqual(bench.ask("entry", 0), [0, "cam<&>_AABBCC-1.2-80", "80", "TCP"])
            self.assertEqual(bench.codes("entry 1", "delete 80", "delete 80"), [713, 0, 4])
            bench.gateway.calls.clear()
            self.assertEqual(bench.codes("port 0", "add 0", "delete 0"), [3, 102, 4])
            self.assertEqual(bench.gateway.calls, [], "port 0 would stand for all ports")

    def test_the_lease_that_the_router_insists_on_is_kept(self):
        for lease, refused, code, asked in ((0, "0", 402, [["0", "604800"], ["604800"]]),
                                            (3600, "3600", 725, [["3600", "0"], ["0"]])):
            with self.subTest(code=code), Bench(lease=lease) as bench:
                bench.gateway.errors = lambda _, arguments: code if arguments.get("NewLeaseDuration") == refused else 0
                for expected in [*asked, asked[1]]:
                    bench.ask("discover") if expected == asked[0] else None
                    self.assertEqual((bench.codes("add 80"), bench.leases()), ([0], expected))

    def test_what_the_table_says(self):
        entry = {"NewInternalClient": "127.0.0.9", "NewInternalPort": "80", "NewPortMappingDescription": "x" * 500,
                 "NewLeaseDuration": "77"}
        with Bench() as bench:
            bench.ask("discover")
            for client, result in (("127.0.0.9", 2), ("127.0.0.1", 1), ("camera.lan", 2), ("", 3)):
                bench.gateway.table = {"80": entry | {"NewInternalClient": client}}
                texts = ["x" * 63, client, "80", "77"] if client else ["-", "-", "-1", "-1"]
                self.assertEqual(bench.ask("port", 80), [result, *texts])
            bench.gateway.keeps = False  # says yes to an add and does nothing
            for there, result in (({}, 101), (entry, 101), (entry | {"NewInternalClient": "127.0.0.1"}, 0),
                                  (entry | {"NewInternalClient": "127.0.0.1", "NewInternalPort": "8080"}, 101)):
                bench.gateway.table = {"80": there} if there else {}
                self.assertEqual(bench.codes("add 80"), [result], there)
            bench.gateway.errors = lambda action, _: 501 if action == "GetSpecificPortMappingEntry" else 0
            self.assertEqual(bench.codes("add 80"), [0], "a router that can't say is believed")
            for external, expected in (("0.0.0.0", [0, "0.0.0.0"]), ("", [4, "-"]), ("fe80::1", [4, "-"])):
                bench.gateway.external = external
                self.assertEqual(bench.ask("eip"), expected)
            bench.gateway.external, bench.gateway.control_mode = "203.0.113.5", "no end"
            self.assertEqual(bench.ask("eip"), [4, "-"], "half an address is none")

    def test_descriptions(self):
        outside, found, missed = own_address(), 0, 1

        def check(result, path, told):
            with Bench(**told) as bench:
                code, name, *_ = bench.ask("discover", timeout=1 if result else 8)
                self.assertEqual((code, name), (result, "" if result else "Tom & Jérôme&x;"))
                self.assertLess(bench.took, 3)
                if path:
                    self.assertEqual((bench.codes("eip"), bench.gateway.calls[-1][:2]), ([0], ("GetExternalIPAddress", path)))
                if outside in str(told):
                    self.assertEqual(bench.gateway.gets, 0 if "ip" in told else 1)

        self.each([
            (found, "/control", {"services": ((IP2, "control"),)}),
            (found, "/ppp", {"services": ((PPP1, "/ppp"),)}),
            (found, "/b", {"services": ((IP1, "/a"), (PPP1, "/b")), "connected": "/b"}),
            (found, "/control", {"pad": 300000}),
            (found, "/control", {"encoding": "iso-8859-1"}),
            (found, "/control", {"encoding": "UTF-16"}),
            (found, "/control", {"last": ""}),
            (found, "/control", {"last": "<<a<b>>&&;&#xfffffffff;<!--<![CDATA["}),
            (found, "/control", {"first": "<a>" * 300000}),
            (found, "/control", {"first": f"<URLBase>http://{outside}/</URLBase>"}),
            (found, "/control", {"services": ((IP1, ""), (IP2, "/control"))}),
            (missed, "", {"pad": 1100000}),
            (missed, "", {"services": (("urn:schemas-upnp-org:service:Layer3Forwarding:1", "/c"),)}),
            (missed, "", {"services": ((IP1, f"http://{outside}/control"),)}),
            (missed, "", {"ip": outside}),
            (missed, "", {"location": "file:///etc/passwd"}),
            (missed, "", {"location": "http://{}/" + "x" * 600}),
            (found, "/control", {"silent_searches": 1}),
            *((missed, "", {"description": lambda text=text: text})
              for text in (BOMB, "<root>" * 300000, "<root " + "a='b' " * 100000, "<!--" * 100000)),
            *((missed, "", {"description_mode": mode})
              for mode in ("silent", "drip", "flood", "flooding head", "garbage", "no XML", "cut", "404"))], check)

    def test_bad_neighbours_cost_the_router_nothing(self):
        slow = [Gateway(description_mode=mode).location for mode in ("drip", "silent")]
        with Bench(before=[*slow, NOBODY]) as bench:
            self.assertEqual(bench.codes("discover"), [0])
            self.assertLess(bench.took, 1.5)

    def test_each_call_ends_in_its_result_and_the_next_is_well(self):
        def check(fault, call, expected):
            with Bench() as bench:
                router = bench.gateway
                router.table = WELL["table"].copy()
                bench.ask("discover")
                router.stop() if fault == "gone" else router.__dict__.update(fault)
                self.assertEqual(bench.ask(*call.split(), timeout=1)[0], expected)
                self.assertLess(bench.took, 9 if call[0] in "ad" else 4)  # an add and a delete take their own time-out
                if expected != -1:  # one try, or two of different leases
                    self.assertIn(bench.leases(), ([], ["0"], ["0", "604800"] if expected == 402 else []))
                if fault == "gone":
                    router.start(router.http.server_address)
                router.__dict__.update(WELL, table=WELL["table"].copy())
                self.assertEqual(bench.codes(call), [CALLS[call]])

        self.each([(fault, call, result) for fault, results in FAULTS for call, result in zip(CALLS, results)], check)

    def test_of_two_gateways_one_is_used_until_it_is_gone(self):
        other = Gateway()
        with Bench(before=[other.location]) as bench:
            self.assertEqual(bench.codes("discover", "add 80", "add 81", "delete 80"), [0] * 4)
            used, spare = (other, bench.gateway) if other.calls else (bench.gateway, other)
            self.assertEqual((list(used.table), spare.calls), (["81"], []))
            used.stop()
            self.assertEqual(bench.codes("eip", "discover", "add 80"), [-1, 0, 0])
            self.assertEqual(list(spare.table), ["80"])


if __name__ == "__main__":
    DRIVER = sys.argv.pop(1)
    unittest.main()
