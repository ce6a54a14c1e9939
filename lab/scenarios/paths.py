"""The ways by which a camera gets registered, one for each kind of home."""

from lab.router import Router
from lab.scene import ONE_NAT, Scene, own
from lab.stage import CAMERA, LAN, LOOPBACK_PORT, OUTSIDE, PUBLIC_CAMERA, RELAY
from lab.world import Node, link

_RELAY_PORT = 3128
_HIDDEN = "5.4.3.9"  # an access server that the camera can't reach by itself


def nat_upnp(scene: Scene) -> None:
    """A camera behind a NAT router that speaks UPnP."""
    scene.account.plain(f"""
   camera            home router                   internet
   {CAMERA} --- {LAN}  {OUTSIDE} --- the service at 5.4.3.2
                     NAT and UPnP
""")
    scene.start_service()
    scene.home()
    scene.router.start_upnp()
    scene.start_camera()
    took_s = scene.until_registered()
    scene.check_walk(*ONE_NAT)
    scene.check_timing(took_s)
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, iip=CAMERA, ueport="80", iport="80", st="12", prot="T")
    scene.check_online(True)
    scene.check_table(own(80))
    scene.check_reachable(OUTSIDE, 80)
    scene.show_device()
    scene.watch()
    scene.retire()


def public(scene: Scene) -> None:
    """A camera with a public address of its own."""
    scene.account.plain(f"""
   camera             internet
   {PUBLIC_CAMERA} -------- the service at 5.4.3.2
""")
    scene.start_service()
    scene.public()
    scene.start_camera()
    took_s = scene.until_registered()
    scene.check_walk("START", "IpReady", "InternetReady", "PublicMode", "LumenDevDone")
    scene.check_timing(took_s)
    scene.check_registered(eip=PUBLIC_CAMERA, ueip=PUBLIC_CAMERA, iip=PUBLIC_CAMERA, ueport="80", iport="80", st="4")
    scene.check_online(True)
    scene.check_reachable(PUBLIC_CAMERA, 80)
    scene.show_device()
    scene.watch()


def no_upnp(scene: Scene) -> None:
    """A camera behind a NAT router without UPnP."""
    scene.account.plain(f"""
   camera            home router                   internet
   {CAMERA} --- {LAN}  {OUTSIDE} --- the service at 5.4.3.2
                     NAT, no UPnP
""")
    scene.start_service()
    scene.home()
    scene.start_camera()
    took_s = scene.until_state("LumenDevPartDone", 90)
    scene.check_walk("START", "IpReady", "InternetReady", "NATMode", "UPnP", "NoUPnP", "LumenDevPartDone")
    scene.check_timing(took_s)
    scene.check_registered(eip=OUTSIDE, ueip="null", iip=CAMERA, ueport="0", iport="80", st="6")
    scene.check_online(True)
    scene.check_reachable(OUTSIDE, 80, reachable=False)
    scene.show_device()
    scene.watch()


def _behind_carrier(scene: Scene) -> str:
    """A home whose router is itself behind its provider's NAT; returns that router's outside address."""
    scene.start_service()
    carrier = Node("carrier")
    link(carrier, "wan", scene.internet, "isp")
    scene.internet.address("isp", "5.1.1.1/24")
    outside = "192.168.100.2"
    scene.home(outside, "192.168.100.1", carrier, "lan")
    carrier.address("wan", f"{OUTSIDE}/24")
    carrier.address("lan", "192.168.100.1/24")
    carrier.route("5.1.1.1")
    Router(carrier)
    return outside


def double_nat(scene: Scene) -> None:
    """Two NATs in a row, and the home router tells its private outside address."""
    outside = _behind_carrier(scene)
    scene.router.start_scripted_upnp(LAN, external=outside)
    scene.start_camera()
    scene.until_state("LumenDevPartDone", 90)
    scene.check_walk("START", "IpReady", "InternetReady", "NATMode", "UPnP", "UPnP", "UPnP_A", "NATM",
                     "LumenDevPartDone")
    scene.check_registered(eip=OUTSIDE, ueip=outside, iip=CAMERA, ueport="0", st="11")
    scene.check_table()
    scene.check_asked_router("AddPortMapping", 0)
    scene.retire()


def carrier_nat(scene: Scene) -> None:
    """Two NATs in a row, and a real gateway that maps nothing because its outside is private."""
    _behind_carrier(scene)
    scene.router.start_upnp()
    scene.start_camera()
    scene.until_state("LumenDevPartDone", 400)
    scene.check_walk("START", "IpReady", "InternetReady", "NATMode", "UPnP", "UPnP", "UPnP_B", "UpnpPfFailed",
                     "LumenDevPartDone")
    scene.check_registered(eip=OUTSIDE, iip=CAMERA, ueport="0", st="13")
    scene.check_table()
    scene.retire()


def relay(scene: Scene) -> None:
    """A camera that reaches its access server by the relay proxy only."""
    scene.start_service("--relay", f"{RELAY}:{_RELAY_PORT}", "--data-server", _HIDDEN)
    scene.internet.run("ip", "route", "add", "blackhole", _HIDDEN)
    scene.home()
    scene.router.start_upnp()
    scene.start_camera(network=f"proxy_host={RELAY}\nproxy_port={_RELAY_PORT}")
    scene.until_registered(120)
    scene.check_walk(*ONE_NAT)
    scene.check_log("Test proxy srv", "it tried directly first, then the relay")
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, iip=CAMERA, ueport="80", prot="TP", st="12")
    for path, by_relay in {"/enable.html": False, "/daip.html": False, "/ext.html": True, "/connectbk.html": True,
                           "/iupd.html": True}.items():
        seen = [one["relay"] for one in scene.exchanges if one["path"] == path]
        scene.check(seen and set(seen) == {by_relay}, f"{path} came {'by the relay' if by_relay else 'directly'}")
    scene.check_table(own(80))
    scene.account.note("(the service can't be reached directly any more)")
    scene.block_service()
    scene.until_log("Connect back ok!", 260)
    scene.check_walk()
    scene.account.check("the keep-alive went by the relay")
    scene.unblock_service()
    scene.retire()


def loopback(scene: Scene) -> None:
    """The camera and the service on one machine, where namespaces can't be made."""
    scene.account.plain("""
   camera and service on this machine's loopback interface: there is no router, and nothing leaves the machine
""")
    scene.loopback(scene.options.machine)
    scene.start_camera()
    took_s = scene.until_registered()
    scene.check_walk("START", "IpReady", "InternetReady", "PublicMode", "LumenDevDone")
    scene.check_timing(took_s)
    scene.check_registered(eip="127.0.0.1", ueip="127.0.0.1", iip="127.0.0.1", ueport=str(LOOPBACK_PORT), st="4")
    scene.check_online(True)
    scene.check_reachable("127.0.0.1", LOOPBACK_PORT)
    scene.show_device()
    scene.watch()
