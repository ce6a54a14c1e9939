"""A window into the lab: a port of this machine's loopback that leads to the page of the bench service inside."""

import contextlib
import socket
import threading

from lab.service import STATUS_PORT
from lab.world import Node, ThisMachine


def frame() -> socket.socket:
    """Listen on this machine, on the page's own port where it is free. Made outside, a listener stays there."""
    try:
        return socket.create_server(("127.0.0.1", STATUS_PORT))
    except OSError:
        return socket.create_server(("127.0.0.1", 0))


def url(window: socket.socket) -> str:
    """Where a browser finds the page."""
    return f"http://127.0.0.1:{window.getsockname()[1]}/"


def look_into(window: socket.socket, node: Node | ThisMachine) -> None:
    """From now on who comes to the window is led to the service on this node."""
    threading.Thread(target=_lead, args=(window, node), daemon=True).start()


def _lead(window: socket.socket, node: Node | ThisMachine) -> None:
    while True:
        visitor = window.accept()[0]
        try:
            inside = node.connect("127.0.0.1", STATUS_PORT)
        except OSError:  # the scenario has stopped the service
            visitor.close()
            continue
        inside.settimeout(None)
        for source, sink in ((visitor, inside), (inside, visitor)):
            threading.Thread(target=_pour, args=(source, sink), daemon=True).start()


def _pour(source: socket.socket, sink: socket.socket) -> None:
    with contextlib.suppress(OSError):
        while piece := source.recv(65536):
            sink.sendall(piece)
    for end in (source, sink):
        with contextlib.suppress(OSError):
            end.shutdown(socket.SHUT_RDWR)
