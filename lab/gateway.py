"""A UPnP gateway whose behaviour is scripted, for the routers that the real one can't play.

It answers discovery, describes itself and keeps a table of mappings like a good router, unless told otherwise.
"""

import re
import socket
import struct
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Callable

from lab.world import Node

_GROUP, _SSDP_PORT = "239.255.255.250", 1900
_DEVICE = "urn:schemas-upnp-org:device:InternetGatewayDevice:1"
_SERVICE = "urn:schemas-upnp-org:service:WANIPConnection:1"
_UUID = "uuid:5e1f0b7c-2d0b-4b7e-9a57-0a4b7a3f1c02"

_DESCRIPTION = f"""<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><specVersion><major>1</major><minor>0</minor></specVersion>
<device><deviceType>{_DEVICE}</deviceType><friendlyName>Lab scripted router</friendlyName>
<manufacturer>Lab</manufacturer><manufacturerURL>http://lab.test/</manufacturerURL>
<modelDescription>scripted gateway</modelDescription><modelName>Scripted</modelName><modelNumber>1</modelNumber>
<UDN>{_UUID}</UDN><presentationURL>/</presentationURL>
<deviceList><device><deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>
<friendlyName>WAN</friendlyName><UDN>{_UUID}-1</UDN>
<deviceList><device><deviceType>urn:schemas-upnp-org:device:WANConnectionDevice:1</deviceType>
<friendlyName>WAN connection</friendlyName><UDN>{_UUID}-2</UDN>
<serviceList><service><serviceType>{_SERVICE}</serviceType><serviceId>urn:upnp-org:serviceId:WANIPConn1</serviceId>
<SCPDURL>/scpd.xml</SCPDURL><controlURL>/control</controlURL><eventSubURL>/event</eventSubURL></service></serviceList>
</device></deviceList></device></deviceList></device></root>
"""

_FAULT = ('<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>'
          '<UPnPError xmlns="urn:schemas-upnp-org:control-1-0"><errorCode>{code}</errorCode>'
          '<errorDescription>refused</errorDescription></UPnPError></detail></s:Fault>')

_NO_SUCH_INDEX, _NO_SUCH_ENTRY, _CONFLICT, _INVALID_ACTION = 713, 714, 718, 401


class Gateway:
    """The scripted gateway on one node's LAN side. Its attributes may be changed while it runs."""

    def __init__(self, node: Node, address: str, port: int, install: Callable[[list], None],
                 external: str = "", silent: bool = False, maps: bool = True):
        self.external = external  # what it gives as its outside address
        self.silent = silent  # takes every action's connection and never answers
        self.maps = maps  # False: says yes to an add and forwards nothing
        self.rows: dict[int, tuple[str, int, str]] = {}  # outside port: (client, its port, description)
        self.actions: list[str] = []  # every action asked for, in order, with its port where it has one
        self._install, self._lock = install, threading.Lock()
        self._end = threading.Event()
        with node.inside():
            self._http = ThreadingHTTPServer((address, port), self._handler())
            self._ssdp = _discovery_socket(address)
        self._location = f"http://{address}:{port}/rootDesc.xml"
        for work in (self._http.serve_forever, self._answer_searches):
            threading.Thread(target=work, daemon=True).start()

    def _answer_searches(self) -> None:
        while True:
            data, peer = self._ssdp.recvfrom(2048)
            wanted = re.search(rb"(?im)^ST:\s*(\S+)", data)
            if not data.startswith(b"M-SEARCH") or not wanted:
                continue
            target = wanted[1].decode(errors="replace")
            if target in (_DEVICE, _SERVICE, "upnp:rootdevice", "ssdp:all"):
                target = _DEVICE if target == "ssdp:all" else target
                self._ssdp.sendto((f"HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=120\r\nST: {target}\r\n"
                                   f"USN: {_UUID}::{target}\r\nEXT:\r\nSERVER: Lab/1 UPnP/1.0 Scripted/1\r\n"
                                   f"LOCATION: {self._location}\r\n\r\n").encode(), peer)

    def _handler(gateway) -> type:
        class Handler(BaseHTTPRequestHandler):
            def log_message(self, *_):
                pass

            def do_GET(self):
                self._answer(200, _DESCRIPTION)

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode(errors="replace")
                action = self.headers.get("SOAPAction", "").strip('"').rpartition("#")[2]
                if gateway.silent:
                    gateway.actions.append(action)
                    gateway._end.wait()
                    return
                arguments = dict(re.findall(r"<(New\w+)[^>]*>([^<]*)</", body))
                code, answer = gateway._act(action, arguments)
                if code:
                    self._answer(500, _envelope(_FAULT.format(code=code)))
                else:
                    text = "".join(f"<{key}>{value}</{key}>" for key, value in answer.items())
                    name = f"u:{action}Response"
                    self._answer(200, _envelope(f'<{name} xmlns:u="{_SERVICE}">{text}</{name}>'))

            def _answer(self, status: int, text: str):
                data = text.encode()
                self.send_response(status)
                self.send_header("Content-Type", 'text/xml; charset="utf-8"')
                self.send_header("Content-Length", str(len(data)))
                self.send_header("Connection", "close")
                self.end_headers()
                self.wfile.write(data)

        return Handler

    def _act(self, action: str, arguments: dict[str, str]) -> tuple[int, dict[str, object]]:
        """One action: (UPnP error code or 0, the answer's arguments)."""
        with self._lock:
            port = int(arguments.get("NewExternalPort", 0) or 0)
            self.actions.append(f"{action} {port}" if port else action)
            match action:
                case "GetExternalIPAddress":
                    return 0, {"NewExternalIPAddress": self.external}
                case "AddPortMapping":
                    return self._add(port, arguments), {}
                case "DeletePortMapping":
                    if not self.rows.pop(port, None):
                        return _NO_SUCH_ENTRY, {}
                    self._apply()
                    return 0, {}
                case "GetSpecificPortMappingEntry":
                    return (0, self._row(port)) if port in self.rows else (_NO_SUCH_ENTRY, {})
                case "GetGenericPortMappingEntry":
                    index = int(arguments.get("NewPortMappingIndex", 0))
                    if index >= len(self.rows):
                        return _NO_SUCH_INDEX, {}
                    port = list(self.rows)[index]
                    return 0, {"NewRemoteHost": "", "NewExternalPort": port, "NewProtocol": "TCP", **self._row(port)}
                case "GetStatusInfo":
                    return 0, {"NewConnectionStatus": "Connected", "NewLastConnectionError": "ERROR_NONE",
                               "NewUptime": 1}
            return _INVALID_ACTION, {}

    def _add(self, port: int, arguments: dict[str, str]) -> int:
        client = arguments["NewInternalClient"]
        if port in self.rows and self.rows[port][0] != client:
            return _CONFLICT
        self.rows[port] = (client, int(arguments["NewInternalPort"]), arguments["NewPortMappingDescription"])
        self._apply()
        return 0

    def _row(self, port: int) -> dict[str, object]:
        client, client_port, description = self.rows[port]
        return {"NewInternalPort": client_port, "NewInternalClient": client, "NewEnabled": 1,
                "NewPortMappingDescription": description, "NewLeaseDuration": 0}

    def _apply(self) -> None:
        rows = [(port, client, client_port) for port, (client, client_port, _) in self.rows.items()]
        self._install(rows if self.maps else [])


def _envelope(text: str) -> str:
    return ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            f's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>{text}</s:Body></s:Envelope>')


def _discovery_socket(address: str) -> socket.socket:
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("", _SSDP_PORT))
    membership = struct.pack("4s4s", socket.inet_aton(_GROUP), socket.inet_aton(address))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
    return sock
