"""LANs of a private world, and what is sent to a camera's finder there."""
import sys
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT))
from lab import camera, world  # noqa: E402

PORT, EVERYBODY = 62977, b"\xff" * 6


def raw(mac):
    return bytes.fromhex(mac.replace(":", ""))


def cable(one, interface, address, other, other_interface, other_address, mac):
    """Answers may leave by another way than questions come."""
    world.link(one, interface, other, other_interface, mac)
    for node, name, own in ((one, interface, address), (other, other_interface, other_address)):
        node.address(name, f"{own}/24")
        node.run("sysctl", "-qw", "net.ipv4.conf.all.rp_filter=0", f"net.ipv4.conf.{name}.rp_filter=0")


def camera_on(node, **options):
    """Its service is nowhere; nor is a router, whose answer would be waited for at the start."""
    made = camera.Camera(node, "10.1.0.200", "eth0", **options)
    made.set("upnp_interface", "none0")
    return made


def soon(what, good=bool):
    """The value of what(), as soon as it is good, or after 15 s."""
    deadline = time.monotonic() + 15
    while not good(got := what()) and time.monotonic() < deadline:
        time.sleep(0.02)
    return got
