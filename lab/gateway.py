"""A UPnP gateway whose behaviour is scripted, for the routers that the real one can't play.

It answers discovery, describes itself and keeps a table of mappings like a good router, unless its attributes say
otherwise, which may be changed while it runs.
"""

import contextlib
import socket
import struct
import threading
import time
from collections.abc import Callable
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from xml.etree import ElementTree
from xml.sax.saxutils import escape

from lab.world import Node

WAN_IP = "urn:schemas-upnp-org:service:WANIPConnection:1"
_GROUP, _SSDP_PORT = "239.255.255.250", 1900
_NO_SUCH_INDEX, _NO_SUCH_ENTRY, _CONFLICT = 713, 714, 718
_DESCRIPTION = """<?xml version="1.0"?><root xmlns="urn:schemas-upnp-org:device-1-0"><device>
<deviceType>urn:schemas-upnp-org:device:InternetGatewayDevice:1</deviceType><friendlyName>Lab scripted router</friendlyName>
<manufacturer>Lab</manufacturer><manufacturerURL>http://lab.test/</manufacturerURL>
<modelDescription>scripted gateway</modelDescription><modelName>Scripted</modelName><modelNumber>1</modelNumber>
<presentationURL>/</presentationURL><serviceList>{}</serviceList></device></root>"""
_OK = b"HTTP/1.1 200 X\r\n"

Arguments = dict[str, str]

ThreadingHTTPServer.handle_error = lambda *_: None  # a client that gave up


class Gateway:
    """On one node's LAN side, or, without a node, on loopback. `install` gets the mappings after every change."""

    def __init__(self, node: Node | None, address: str, port: int = 0,
                 install: Callable[[list[tuple[int, str, int]]], None] = lambda rows: None,
                 location: str = "http://{}/desc.xml", **told: object):
        self.services = ((WAN_IP, "/control"),)
        self.external = ""  # what it gives as its outside address
        self.connected = ""  # the path whose connection is up, when there are several
        self.maps, self.keeps = True, True  # False: says yes to an add and forwards nothing; and forgets it
        self.silent, self.silent_searches = False, 0  # takes every action and never answers; questions not answered
        self.description_mode = self.control_mode = ""  # what is wrong with its answers, see _spoilt
        self.errors: Callable[[str, Arguments], int | Arguments] = lambda action, arguments: 0  # in place of an answer
        self.before: list[str] = []  # locations that others answer with first
        self.prefix, self.encoding = "", "UTF-8"
        self.table: dict[str, Arguments] = {}  # by outside port, as they were asked for
        self.calls: list[tuple[str, str, Arguments]] = []  # every action, its path and arguments
        self.gets = 0
        self.__dict__.update(told)
        self._install, self._lock = install, threading.Lock()
        with node.inside() if node else contextlib.nullcontext():
            self.start((address, port))
            self.ssdp = _discovery_socket(address) if node else socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        if not node:
            self.ssdp.bind(("127.0.0.1", 0))
        self.location = location.format("%s:%d" % self.http.server_address)
        threading.Thread(target=self._answer_searches, daemon=True).start()

    def start(self, address: tuple[str, int]) -> None:
        """Serve its description and its actions there."""
        self.http = ThreadingHTTPServer(address, self._handler())
        threading.Thread(target=self.http.serve_forever, daemon=True).start()

    def stop(self) -> None:
        """Nothing listens any more; searches are still answered."""
        self.http.shutdown()
        self.http.server_close()

    @property
    def rows(self) -> dict[int, tuple[str, int, str]]:
        """Outside port: (client, its port, description)."""
        return {int(port): (row["NewInternalClient"], int(row["NewInternalPort"]), row.get("NewPortMappingDescription", ""))
                for port, row in self.table.items()}

    @property
    def actions(self) -> list[str]:
        """Every action asked for, in order, with its port where it has one."""
        return [" ".join([action, arguments.get("NewExternalPort", "")]).strip() for action, _, arguments in self.calls]

    def description(self) -> str:
        """The XML text that its location leads to."""
        return _DESCRIPTION.format("".join(f"<service><serviceType>{kind}</serviceType><controlURL>{url}</controlURL></service>"
                                           for kind, url in self.services))

    def act(self, action: str, path: str, arguments: Arguments) -> int | Arguments:
        """An action's answer, or its UPnP error code."""
        port = arguments.get("NewExternalPort")
        match action:
            case "AddPortMapping" if self.keeps:
                if self.table.get(port, arguments)["NewInternalClient"] != arguments["NewInternalClient"]:
                    return _CONFLICT
                self.table[port] = arguments
            case "DeletePortMapping":
                if not self.table.pop(port, None):
                    return _NO_SUCH_ENTRY
            case "GetSpecificPortMappingEntry":
                return self.table.get(port, _NO_SUCH_ENTRY)
            case "GetGenericPortMappingEntry":
                index = int(arguments["NewPortMappingIndex"])
                return list(self.table.values())[index] if index < len(self.table) else _NO_SUCH_INDEX
            case "GetStatusInfo":
                return {"NewConnectionStatus": "Connected" if path == self.connected else "Disconnected"}
            case "GetExternalIPAddress":
                return {"NewExternalIPAddress": self.external}
        self._install([(port, client, its) for port, (client, its, _) in self.rows.items()] if self.maps else [])
        return {}

    def _answer_searches(self) -> None:
        while True:
            question, peer = self.ssdp.recvfrom(2048)
            if b"InternetGatewayDevice:1" not in question:
                continue  # the same question for another kind of device
            self.silent_searches -= 1
            if self.silent_searches < 0:
                for location in [*self.before, self.location]:
                    self.ssdp.sendto(f"HTTP/1.1 200 OK\r\nST: x\r\nLoCation:  {location} \r\n\r\n".encode(), peer)

    def _handler(gateway) -> type:
        class Handler(BaseHTTPRequestHandler):
            def log_message(self, *_):
                pass

            def do_GET(self):
                gateway.gets += 1
                _answer(self.wfile, gateway.description_mode, 200, gateway.description().encode(gateway.encoding))

            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"])).decode()
                kind, action = self.headers["SOAPAction"].strip('"').split("#")
                (call,), = ElementTree.fromstring(body)
                assert call.tag == f"{{{kind}}}{action}", call.tag
                arguments = {argument.tag: escape(argument.text or "") for argument in call}
                gateway.calls.append((action, self.path, arguments))
                with gateway._lock:
                    result = not gateway.silent and (gateway.errors(action, arguments) or
                                                     gateway.act(action, self.path, arguments))
                p, failed = gateway.prefix, isinstance(result, int)
                if failed:
                    text = f"<s:Fault><detail><UPnPError><{p}errorCode>{result}</{p}errorCode></UPnPError></detail></s:Fault>"
                else:
                    texts = "".join(f"<{p}{name}>{text}</{p}{name}>" for name, text in result.items())
                    text = f"<{p}{action}Response xmlns:u='{kind}'>{texts}</{p}{action}Response>"
                _answer(self.wfile, "silent" if gateway.silent else gateway.control_mode, 500 if failed else 200,
                        "<s:Envelope xmlns:s='http://schemas.xmlsoap.org/soap/envelope/'><s:Body>".encode(gateway.encoding)
                        + f"{text}</s:Body></s:Envelope>".encode(gateway.encoding))

        return Handler


def _answer(out, mode: str, status: int, text: bytes) -> None:
    whole = f"HTTP/1.1 {status} X\r\nContent-Length: {len(text)}\r\n\r\n".encode() + text
    match mode:
        case "silent":
            threading.Event().wait()
        case "drip":
            for byte in whole:
                out.write(bytes([byte]))
                time.sleep(0.2)
        case "flood" | "flooding head":
            out.write(b"HTTP/1.1 200 OK\r\n" + (b"\r\n" if mode == "flood" else b""))
            while True:
                out.write(b"X: <x>\r\n" * 10000)
        case _:
            out.write({"": whole, "404": whole.replace(b" 200 ", b" 404 "), "garbage": b"\0\1\2\3" * 100,
                       "cut": whole[:-20], "deep": _OK + b"\r\n" + b"<a>" * 300000,
                       "no end": _OK + b"\r\n" + text[:text.find(b"3.5<")],
                       "no XML": _OK + b"\r\n<<a<b>>&&;&#xfffffffff;<!--<![CDATA["}[mode])


def _discovery_socket(address: str) -> socket.socket:
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("", _SSDP_PORT))
    membership = struct.pack("4s4s", socket.inet_aton(_GROUP), socket.inet_aton(address))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
    return sock
