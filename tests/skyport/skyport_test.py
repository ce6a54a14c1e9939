#!/usr/bin/env python3
"""The bench service, spoken to as the daemon speaks, with a cipher of the test's own. usage: skyport_test.py SKYPORT"""

import base64
import contextlib
import ctypes
import hashlib
import http.client
import json
import re
import signal
import socket
import subprocess
import sys
import unittest

NETTLE = ctypes.CDLL("libnettle.so.8")  # for the block cipher alone
HEAD, TAIL = '<?xml version="1.0" encoding="utf-8" ?>\n<ldev>\n', "</ldev>\n"
UPDATE = [("dev", "hid KESTREL1|mac 00:11:22:33:44:55|ptype 1|model M|ver 1|sptver 1.2|oif eth0|mask 255.255.255.0|gw 10.0.0.1"
           "|eip 203.0.113.1|ueip 203.0.113.1|iip 10.0.0.2|tch 1|tstamp 123456"),
          ("ch", "chno 1|name u-1.2-80|prot T|stype HTTP|eport 5|ueport 8080|iport 80|st 15")]


def md5(*parts):
    return hashlib.md5(":".join(parts).encode()).hexdigest()


def cfb8(data, encrypt):
    context, block = ctypes.create_string_buffer(8192), ctypes.create_string_buffer(8)
    NETTLE.nettle_blowfish_set_key(context, ctypes.c_size_t(32), md5("4RkMCwa7tebVLzo2H", "quilmore").encode())
    register, out = b"58585858", bytearray()
    for byte in data:
        NETTLE.nettle_blowfish_encrypt(context, ctypes.c_size_t(8), block, register)
        out.append(byte ^ block.raw[0])
        register = register[1:] + bytes([out[-1] if encrypt else byte])
    return bytes(out)


def sealed(xml, digits="012345", padding=None):
    plain = digits.encode() + (xml if isinstance(xml, bytes) else xml.encode())
    return base64.b64encode(cfb8(plain + (b"\0" * (-len(plain) % 8) if padding is None else padding), True))


def element(name, text):
    return "" if text is None else f"<{name}>{text}</{name}>\n"


def ldev(**elements):
    return HEAD + "".join(element(*pair) for pair in elements.items()) + TAIL


def update(**other):
    """An update's XML with some texts in the place of the usual ones; None leaves the element out."""
    groups = [(group, [pair.split(" ", 1) for pair in pairs.split("|")]) for group, pairs in UPDATE]
    return HEAD + "".join(f"<{group}>\n" + "".join(element(name, other.get(name, text)) for name, text in pairs)
                          + f"</{group}>\n" for group, pairs in groups) + TAIL


class Camera:
    """The daemon's side: Digest with its decimal count and its blank before a comma."""

    def __init__(self, port, hid="KESTREL1", password="secret"):
        self.port, self.hid, self.password = port, hid, password
        self.challenge, self.count, self.head = None, 0, ""

    def authorization(self, method, uri, **other):
        self.count += 1
        value = {"realm": "", "nonce": "", "qop": "", "nc": f"{self.count:08d}", **(self.challenge or {}), **other}
        ha1, ha2 = md5(self.hid, value["realm"], self.password), md5(method, uri)
        middle = [value["nc"], "0a4f", value["qop"]] if value["qop"] else []
        return (f'Digest username="{self.hid}", realm="{value["realm"]}", qop="{value["qop"]}", algorithm="MD5", uri="{uri}" , '
                f'nonce="{value["nonce"]}", nc={value["nc"]}, cnonce="0a4f", '
                f'response="{md5(ha1, value["nonce"], *middle, ha2)}"')

    def bytes(self, method, target, body=None, authorization=None, timeout=5):
        """What comes back, up to the end of the connection or of the time."""
        head = f"{method} {target} HTTP/1.1\r\nHost: 127.0.0.1:80\r\nConnection: close\r\n"
        head += f"Authorization: {authorization}\r\n" if authorization else ""
        head += f"Content-Length: {len(body)}\r\n" if body is not None else ""
        data = b""
        with socket.create_connection(("127.0.0.1", self.port), timeout) as sock:
            try:
                sock.sendall((head + "\r\n").encode() + (body or b""))
                while part := sock.recv(65536):
                    data += part
            except OSError:
                pass
        return data

    def once(self, method, target, body=None, uri=None, **other):
        """One request: its status (0: no answer) and the answer's plain text. Takes a challenge."""
        credentials = self.authorization(method, uri or target, **other) if self.challenge else None
        self.head, _, text = self.bytes(method, target, body, credentials).decode("latin1").partition("\r\n\r\n")
        status = int(self.head[9:12] or 0)
        if status == 401 and (challenge := re.search("WWW-Authenticate: Digest (.*)", self.head)):
            self.challenge = {name: quoted or token for name, quoted, token in
                              re.findall(r'(\w+)=(?:"([^"]*)"|([^",\s]+))', challenge[1]) if name != "algorithm"}
            self.count = 1
        return status, cfb8(base64.b64decode(text), False).decode() if status == 200 else text

    def ask(self, method, target, body=None, **other):
        answer = self.once(method, target, body, **other)
        return self.once(method, target, body, **other) if answer[0] == 401 else answer


class SkyportTest(unittest.TestCase):
    def setUp(self):
        self.service = subprocess.Popen(
            [SKYPORT, "--listen", "127.0.0.1:0", "--relay", "127.0.0.1:0", "--status", "127.0.0.1:0", "--account", "KESTREL1:secret",
             "--account", "KESTREL2:geheim", "--alias-taken", "taken", "--connect-timeout", "1"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.end)
        self.assertEqual(self.service.stdout.readline(), "skyport: ready\n")
        self.port, self.relay, self.status = (int(self.service.stdout.readline().rpartition(":")[2]) for _ in range(3))
        self.camera = Camera(self.port)

    def end(self):
        self.service.send_signal(signal.SIGTERM)
        self.service.communicate(timeout=5)
        self.assertEqual(self.service.returncode, 0)

    def people(self, path, method="GET", body=None, wanted=200, **headers):
        with contextlib.closing(http.client.HTTPConnection("127.0.0.1", self.status, timeout=10)) as connection:
            connection.request(method, path, body, headers)
            answer = connection.getresponse()
            self.assertEqual(answer.status, wanted, (path, headers))
            self.assertNotIn("Access-Control", str(answer.headers))
            return json.loads(answer.read())

    def last(self, *names):
        exchange = self.people("/exchanges")[-1]
        return exchange[names[0]] if len(names) == 1 else [exchange[name] for name in names]

    def test_digest_as_the_daemon_does_it(self):
        camera = self.camera
        self.assertEqual([camera.once("GET", "/daip.html")[0] for _ in range(2)], [401, 200])
        self.assertEqual(self.last("nc", "authorized", "user"), ["00000002", True, "KESTREL1"])
        for count in range(3, 13):  # one nonce for every path; 00000010 follows 00000009
            self.assertEqual(camera.once("GET", "/ext.html")[0], 200)
            self.assertEqual(self.last("nc"), f"{count:08d}")
        absolute = "http://203.0.113.9:80/daip.html"
        self.assertIn("<da_eip>203.0.113.9</da_eip>", camera.once("GET", absolute)[1])
        self.assertEqual(camera.once("GET", "/ext.html", uri="http://203.0.113.9:80/ext.html")[0], 200, "a relay made it a path")
        self.assertEqual(self.last("relay", "path"), [True, "/ext.html"])
        camera.port = self.relay
        self.assertEqual([camera.once("GET", "/daip.html")[0], camera.once("GET", absolute)[0]], [400, 200])
        camera.port = self.port
        last = f"{camera.count:08d}"
        for what, error, stale in (({"nc": last}, f"nc {last} is not above the last one", True),
                                   ({"nc": "13"}, "nc is not eight digits", False),
                                   ({"nonce": "0" * 32}, "nonce is not known", True),
                                   ({"realm": "other"}, "authorization has another realm", False),
                                   ({"qop": "auth-int"}, "authorization has another qop", False),
                                   ({"qop": ""}, "qop is not the challenge's", False),
                                   ({"uri": "/daip.html"}, "authorization's uri is not the request's", False)):
            kept = camera.challenge
            self.assertEqual(camera.once("GET", "/ext.html", **what)[0], 401, what)
            self.assertEqual((self.last("error"), "stale=true" in camera.head), (error, stale))
            camera.challenge, camera.count = kept, 50
        for other, error in ((Camera(self.port, password="x"), "response does not match"), (Camera(self.port, "NOBODY00"), "account is not known")):
            self.assertEqual((other.ask("GET", "/ext.html")[0], self.last("error")), (401, error))
        for junk in ("Basic abc", "Digest", "Digest x", 'Digest a="b', "Digest a=b,a=c", "Digest ,,,", 'Digest a="\\'):
            self.assertEqual(camera.bytes("GET", "/ext.html", authorization=junk)[9:12], b"401", junk)
        self.assertEqual(camera.once("GET", "/ext.html")[0], 200, "the nonce has outlived all of it")

    def test_every_path(self):
        ask, answered = self.camera.ask, (200, "")
        self.assertEqual(ask("GET", "/daip.html"), (200, ldev(da_eip="127.0.0.1")))
        status, text = ask("GET", "/ext.html")
        self.assertEqual((status, text), (200, ldev(ext_ip="127.0.0.1", ext_port=self.last("peer").split(":")[1])))
        self.assertEqual(self.last("answer"), text)
        xml = update(model="A&amp;B &#65; grün", prot="TP")
        self.assertEqual(ask("POST", "/iupd.html", sealed(xml, "987654")), answered)
        self.assertEqual(self.last("request", "digits", "error"), [xml, "987654", ""])
        self.assertEqual([self.people("/devices")[0]["update"][name] for name in ("model", "prot", "ueport")], ["A&B A grün", "TP", "8080"])
        for switch in (1, 0):
            self.assertEqual(ask("POST", "/enable.html", sealed(ldev(hid="KESTREL1", enable=switch))), answered)
            self.assertEqual(self.people("/devices")[0]["enabled"], switch)
        self.assertEqual(ask("POST", "/conn_report.html", sealed(ldev(wan="pppoe<b>2</b>"))), answered)
        self.assertEqual(self.people("/devices")[0]["first_connection"], "<wan>pppoe<b>2</b></wan>\n")
        second = Camera(self.port, "KESTREL2", "geheim")
        for camera, name, verdict in ((self.camera, "garden", 0), (second, "GARDEN", 2), (self.camera, "taken", 2), (self.camera, "a b", 1),
                                      (self.camera, "yard", 0), (second, "garden", 0), (self.camera, "", 0), (second, "yard", 0)):
            body = sealed(ldev(hid=camera.hid, redirip="127.0.0.1", ah=name))
            self.assertEqual(camera.ask("POST", "/alias.html", body), (200, ldev(ahret=verdict)), name)
        self.assertEqual([(device["hid"], device["alias"]) for device in self.people("/devices")], [("KESTREL1", None), ("KESTREL2", "yard")])
        self.assertEqual([ask("GET", "/nope.html")[0], ask("POST", "/ext.html", b"")[0]], [404, 405])

    def test_the_status_port_takes_orders_from_this_machine_alone(self):
        own = f"127.0.0.1:{self.status}"
        for host, origin, wanted in (
                ("localhost", "", 200), ("[::1]:80", "", 200), (own, "http://" + own, 200), ("127.9.9.9", "", 200), ("10.9.9.9", "", 403),
                ("rebound.test", "", 403), (f"rebound.test:{self.status}", "http://rebound.test", 403), ("127.0.0.1.test", "", 403),
                (own, "http://other.test", 403), (own, "null", 403), (own, "http://127.0.0.1:1", 403)):
            headers = {"Host": host, **({"Origin": origin} if origin else {})}
            self.people("/faults", "POST", "/ext.html:reset", wanted, **headers)
            self.people("/devices", wanted=wanted, **headers)
            if wanted != 200:  # it would not end
                self.people("/events", wanted=wanted, **headers)
        self.assertEqual(self.people("/faults"), ["/ext.html:reset"] * 4)
        self.people("/faults", "POST", "/ext.html:reset\n" * 996)
        self.assertRegex(self.people("/faults", "POST", "/alias.html:reset", 409)["error"], "at most 1000 .* DELETE")
        self.assertEqual(self.people("/faults"), ["/ext.html:reset"] * 1000)
        self.assertEqual(self.people("/faults", "DELETE"), [])

    def test_followers_miss_nothing_of_a_burst(self):
        with socket.create_connection(("127.0.0.1", self.port)) as burst:
            self.camera.ask("GET", "/daip.html")
            burst.sendall(500 * b"M\x1b \xc2\x9b HTTP/1.1\r\nHost: x\r\n\r\n")
            while self.people("/exchanges")[-1]["id"] < 500:
                pass
        with socket.create_connection(("127.0.0.1", self.status), 3) as follower:
            follower.sendall(b"GET /events?since=0 HTTP/1.1\r\n\r\n")
            told = b""
            while told.count(b'"id":') < self.last("id"):
                told += follower.recv(65536)
        self.assertEqual(told.count(b"event: devices"), 1)
        self.assertEqual([one["id"] for one in self.people("/exchanges?before=7&last=2")], [5, 6])
        with contextlib.closing(http.client.HTTPConnection("127.0.0.1", self.status, timeout=10)) as connection:
            connection.request("GET", "/")
            text = connection.getresponse().read().decode()
        self.assertFalse([c for c in text if c != "\n" and (c < " " or "\x7f" <= c < "\xa0")], "what moves a terminal")

    def test_connecting_back(self):
        def ask(port):
            return self.camera.ask("POST", "/connectbk.html", sealed(ldev(hid="KESTREL1", eip="127.0.0.1", ueport=port, tstamp="1")))[0]

        with socket.create_server(("127.0.0.1", 0), backlog=1) as listener:
            port = listener.getsockname()[1]
            self.assertEqual(ask(port), 200)
            listener.settimeout(2)
            listener.accept()[0].close()
            # A full queue swallows the connection; the service gives up in its time, and serves others meanwhile.
            crowd = [socket.socket() for _ in range(4)]
            for sock in crowd:
                sock.setblocking(False)
                sock.connect_ex(listener.getsockname())
            self.assertEqual((ask(port), self.last("error")), (404, "connect back: Connection timed out"))
            [sock.close() for sock in crowd]
        self.assertEqual((ask(port), self.last("error")), (404, "connect back: Connection refused"))
        self.assertEqual([ask("0"), ask("65536")], [400, 400])
        self.assertEqual([(back["port"], back["connected"]) for back in self.people("/devices")[0]["connect_back"]], [(port, True), (port, False), (port, False)])

    def test_a_body_that_is_wrong_is_refused_and_shown(self):
        raw, xml = update().encode(), update()
        swapped = xml.replace("<model>M</model>\n<ver>1</ver>", "<ver>1</ver>\n<model>M</model>")
        not_formed = "XML is not well-formed: "
        for body, error in (
                (b"!!!!", "body is not base64"), (sealed(xml)[:-1], "body is not base64"), (b"", "body does not begin with six digits"),
                (base64.b64encode(raw), "body does not begin with six digits"), (sealed(xml, "12345x"), "body does not begin with six digits"),
                (sealed(xml + " " * ((1 - len(xml) - 6) % 8), padding=b""), "body is not padded to a multiple of 8"),
                (sealed(xml, padding=b"\0" * (8 + -(len(xml) + 6) % 8)), "body is padded by a whole block or more"),
                (sealed(xml[40:]), "XML does not begin with its declaration and <ldev>"), (sealed(xml[:-3]), "XML does not end with </ldev>"),
                (sealed(update(model="<x>")), not_formed), (sealed(update(model="</ver><ver>")), not_formed),
                (sealed(update(model="A&B")), "XML holds a bare '&'"), (sealed(update(model="\1")), "XML holds a control character"),
                (sealed(raw.replace(b">M<", b">\xff<")), "XML holds bytes that are not UTF-8"),
                (sealed(update(ver=None)), "body lacks <dev/ver>"), (sealed(update(mac="x</mac><mac>y")), "body has twice <dev/mac>"),
                (sealed(update(mac="x</mac><zz>y</zz><mac>")), "body has twice <dev/mac>"),
                (sealed(xml.replace("<hid>", "<zz>y</zz>\n<hid>")), "body has an unknown element <dev/zz>"),
                (sealed(swapped), "body has <dev/ver> out of its order"), (sealed(update(ptype="2")), "body's <dev/ptype> can't be 2"),
                (sealed(update(prot="X")), "body's <ch/prot> can't be X"), (sealed(update(st="x")), "body's <ch/st> can't be x"),
                (sealed(update(hid="KESTREL2")), "hid 'KESTREL2' is not the account's"),
                (sealed(update(model="<a>" * 1500 + "</a>" * 1500)), "XML is nested too deep in <dev/model>")):
            with self.subTest(error=error):
                answer, (status, shown) = self.camera.ask("POST", "/iupd.html", body), self.last("status", "error")
                self.assertEqual((answer[0], status, shown[:len(error)]), (400, 400, error))
        self.assertEqual(self.people("/devices"), [], "nothing of it was kept")
        self.assertEqual(self.camera.bytes("POST", "/iupd.html", b"A" * 20000)[9:12], b"413")
        self.assertEqual(self.last("status", "error"), [413, "body is too large"])
        self.assertEqual(Camera(self.port).once("POST", "/iupd.html", sealed(update(ver=None)))[0], 401)
        self.assertEqual(self.last("error"), "body lacks <dev/ver>", "shown for a stranger too")


if __name__ == "__main__":
    SKYPORT = sys.argv.pop(1)
    unittest.main()
