#!/usr/bin/env python3
"""libupnpc against a scripted gateway on loopback: what routers do, well and badly. usage: gateway_test.py DRIVER"""

import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from xml.etree import ElementTree
from xml.sax.saxutils import escape

IP1, IP2, PPP1, _ = (f"urn:schemas-upnp-org:service:WAN{kind}Connection:{version}"
                        for kind in ("IP", "PPP") for version in (1, 2))
NOBODY = "http://127.0.0.1:1/desc.xml"
BOMB = f"<!DOCTYPE r [<!ENTITY a '{'x' * 9999}'>" + "".join(
    f"<!ENTITY {name} '{f'&{of};' * 99}'>" for of, name in zip("abcdef", "bcdefg")) + "]><root>&g;</root>"


ThreadingHTTPServer.handle_error = lambda *_: None  # a client that gave up


class Gateway:
    """Answers searches, describes itself, keeps a table of mappings, all as its attributes say."""

    def __init__(self, services=((IP1, "/control"),), ip="127.0.0.1", location=None, **told):
        self.services, self.pad, self.external = services, 0, "203.0.113.5"
        self.first, self.last, self.encoding, self.prefix = "", "</d:root>", "UTF-8", "u:"
        self.before, self.silent_searches = [], 0  # locations that others answer with first; questions not answered
        self.description_mode = self.control_mode = ""
        self.errors, self.connected, self.maps = lambda action, arguments: 0, "", True
        self.table, self.calls, self.gets = {}, [], 0
        self.__dict__.update(told)
        self.http = ThreadingHTTPServer((ip, 0), self.handler())
        self.ssdp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.ssdp.bind(("127.0.0.1", 0))
        self.location = (location or "http://{}/desc.xml").format("%s:%d" % self.http.server_address)
        for work in (self.http.serve_forever, self.answer_searches):
            threading.Thread(target=work, daemon=True).start()

    def answer_searches(self):
        while True:
            question, peer = self.ssdp.recvfrom(2048)
            if b"InternetGatewayDevice:1" not in question:
                continue  # the same question for another kind of device
            self.silent_searches -= 1
            if self.silent_searches < 0:
                for location in [*self.before, self.location]:
                    self.ssdp.sendto(f"HTTP/1.1 200 OK\r\nST: x\r\nLoCation:  {location} \r\n\r\n".encode(), peer)

    def description(self):
        """XML as few write it: decoys in a comment, CDATA and an attribute, prefixes, an entity of its own."""
        services = "".join(f"""<d:service id='1>2'><!-- <controlURL>/no</controlURL> --><d:serviceType>
            {kind}</d:serviceType ><controlURL a="/>"><![CDATA[{url}]]></controlURL></d:service>""" for kind, url in self.services)
        return f"""<?xml version="1.0" encoding="{self.encoding}"?><!DOCTYPE root [<!ENTITY x "<device>no</device>">]>
            <!-- <device><friendlyName>no</friendlyName></device> --><d:root xmlns:d='u'>{self.first}<d:device><friendlyName a=">no">
            Tom &amp; J&#xE9;rôme<!-- <x> -->&x;</friendlyName><manufacturer><![CDATA[A</manufacturer><modelName>no<B>]]></manufacturer>
            <modelName>{"M" * 50}</modelName><modelNumber/><modelDescription>D</modelDescription><manufacturerURL>U</manufacturerURL>{"<icon>x</icon>" * (self.pad // 14)}<deviceList><device>
            <presentationURL>inner</presentationURL><serviceList>{services}</serviceList></device></deviceList>
            <presentationURL>http://own/</presentationURL></d:device>{self.last}"""

    def act(self, action, path, arguments):
        """An action's answer, or its UPnP error code."""
        port = arguments.get("NewExternalPort")
        match action:
            case "AddPortMapping" if self.maps:
                self.table[port] = arguments
            case "DeletePortMapping":
                return {} if self.table.pop(port, None) else 714
            case "GetSpecificPortMappingEntry":
                return self.table.get(port, 714)
            case "GetGenericPortMappingEntry":
                index = int(arguments["NewPortMappingIndex"])
                return list(self.table.values())[index] if index < len(self.table) else 713
            case "GetStatusInfo":
                return {"NewConnectionStatus": "Connected" if path == self.connected else "Disconnected"}
        return {"NewExternalIPAddress": self.external}

    def handler(gateway):
        class Handler(BaseHTTPRequestHandler):
            def log_message(self, *_):
                pass

            def do_GET(self):
                gateway.gets += 1
                self.answer(gateway.description_mode, 200, gateway.description())

            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"])).decode()
                kind, action = self.headers["SOAPAction"].strip('"').split("#")
                (call,), = ElementTree.fromstring(body)
                assert call.tag == f"{{{kind}}}{action}", call.tag
                arguments = {argument.tag: escape(argument.text or "") for argument in call}
                gateway.calls.append((action, self.path, arguments))
                p, result = gateway.prefix, gateway.errors(action, arguments) or gateway.act(action, self.path, arguments)
                if isinstance(result, int):
                    result = f"<s:Fault><detail><UPnPError><{p}errorCode>{result}</{p}errorCode></UPnPError></detail></s:Fault>"
                else:
                    texts = "".join(f"<{p}{name}>{text}</{p}{name}>" for name, text in result.items())
                    result = f"<{p}{action}Response xmlns:u='{kind}'>{texts}</{p}{action}Response>"
                self.answer(gateway.control_mode, 500 if "Fault" in result else 200,
                            f"<s:Envelope xmlns:s='http://schemas.xmlsoap.org/soap/envelope/'><s:Body>{result}</s:Body></s:Envelope>")

            def answer(self, mode, status, text):
                text = text.encode(gateway.encoding)
                whole = f"HTTP/1.1 {status} X\r\nContent-Length: {len(text)}\r\n\r\n".encode() + text
                match mode:
                    case "silent":
                        time.sleep(60)
                    case "drip":
                        for byte in whole:
                            self.wfile.write(bytes([byte]))
                            time.sleep(0.2)
                    case "flood" | "flooding head":
                        self.wfile.write(b"HTTP/1.1 200 OK\r\n" + (b"\r\n" if mode == "flood" else b""))
                        while True:
                            self.wfile.write(b"X: <x>\r\n" * 10000)
                    case _:
                        self.wfile.write({"": whole, "404": whole.replace(b" 200 ", b" 404 "), "garbage": b"\0\1\2\3" * 100, "cut": whole[:-20],
                                          "deep": b"HTTP/1.1 200 X\r\n\r\n" + b"<a>" * 300000, "no end": b"HTTP/1.1 200 X\r\n\r\n" + text[:text.find(b"3.5<")],
                                          "no XML": b"HTTP/1.1 200 X\r\n\r\n<<a<b>>&&;&#xfffffffff;<!--<![CDATA["}[mode])

        return Handler


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
        """Runs `check` on every row, all at once: most of it is waiting."""
        with ThreadPoolExecutor(len(rows)) as pool:
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
            bench.gateway.maps = False  # says yes to an add and does nothing
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


if __name__ == "__main__":
    DRIVER = sys.argv.pop(1)
    unittest.main()
