"""A small UPnP control point: what any machine on the LAN can ask of the router, seen from that machine."""

import http.client
import re
from dataclasses import dataclass

from lab.world import Node

_ENVELOPE = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
             's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
             '<u:{action} xmlns:u="{service}">{arguments}</u:{action}></s:Body></s:Envelope>')
_SERVICE = re.compile(r"<serviceType>\s*(\S*:WAN(?:IP|PPP)Connection:\d)\s*</serviceType>.*?"
                      r"<controlURL>\s*([^<\s]*)\s*</controlURL>", re.S)


class Refused(Exception):
    """The router answered with a UPnP error; the code is in .code."""

    def __init__(self, action: str, code: int):
        super().__init__(f"{action}: error {code}")
        self.code = code


@dataclass(frozen=True)
class Mapping:
    """One row of a router's table."""
    port: int  # outside
    client: str
    client_port: int
    description: str


class ControlPoint:
    """Talks to the gateway at address:port from one node, optionally from one of its addresses."""

    def __init__(self, node: Node, address: str, port: int, source: str = ""):
        self._node, self._address, self._port, self._source = node, address, port, source
        self._service, self._path = "", ""

    def _request(self, method: str, path: str, body: str, headers: dict[str, str]) -> tuple[int, str]:
        connection = http.client.HTTPConnection(self._address, self._port)
        connection.sock = self._node.connect(self._address, self._port, source=self._source)
        try:
            connection.request(method, path, body or None, headers)
            answer = connection.getresponse()
            return answer.status, answer.read().decode()
        finally:
            connection.close()

    def act(self, action: str, **arguments: object) -> dict[str, str]:
        """Run one action of the WAN connection service; returns the answer's arguments."""
        if not self._path:
            found = _SERVICE.search(self._request("GET", "/rootDesc.xml", "", {})[1])
            if not found:
                raise RuntimeError("the router's description names no WAN connection service")
            self._service, self._path = found.groups()
        text = "".join(f"<{key}>{value}</{key}>" for key, value in arguments.items())
        body = _ENVELOPE.format(action=action, service=self._service, arguments=text)
        status, answer = self._request("POST", self._path, body, {
            "SOAPAction": f'"{self._service}#{action}"', "Content-Type": "text/xml"})
        if status != 200:
            code = re.search(r"<errorCode>\s*(\d+)", answer)
            raise Refused(action, int(code[1]) if code else status)
        return dict(re.findall(r"<(New\w+)>([^<]*)</", answer))

    def add(self, mapping: Mapping) -> None:
        """Ask for a mapping."""
        self.act("AddPortMapping", NewRemoteHost="", NewExternalPort=mapping.port, NewProtocol="TCP",
                 NewInternalPort=mapping.client_port, NewInternalClient=mapping.client, NewEnabled=1,
                 NewPortMappingDescription=mapping.description, NewLeaseDuration=0)

    def delete(self, port: int) -> None:
        """Ask for a mapping's end."""
        self.act("DeletePortMapping", NewRemoteHost="", NewExternalPort=port, NewProtocol="TCP")

    def table(self) -> set[Mapping]:
        """Every row that the router admits to."""
        rows = set()
        for index in range(1000):
            try:
                row = self.act("GetGenericPortMappingEntry", NewPortMappingIndex=index)
            except Refused as refused:
                if refused.code not in (713, 714):  # index behind the end; some routers say "no such entry"
                    raise
                break
            rows.add(Mapping(int(row["NewExternalPort"]), row["NewInternalClient"], int(row["NewInternalPort"]),
                             row["NewPortMappingDescription"]))
        return rows
