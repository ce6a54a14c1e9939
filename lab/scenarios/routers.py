"""Routers that hold something already, or that misbehave."""

from lab.camera import SECOND_HID, SECOND_UID
from lab.control_point import Mapping
from lab.scene import ONE_NAT, Scene, own
from lab.stage import CAMERA, LAN, OTHER, OUTSIDE

_FOREIGN = Mapping(80, OTHER, 8080, "games console")
_EARLIER = "192.168.1.77"  # the camera's address of yesterday
_TO_UPNP = ["START", "IpReady", "InternetReady", "NATMode", "UPnP"]  # ends with NATMode's own second header


def _home_with_upnp(scene: Scene, **options) -> None:
    scene.start_service()
    scene.home()
    scene.router.start_upnp(**options)


def foreign_mapping(scene: Scene) -> None:
    """Another machine's mapping is on the wanted port."""
    _home_with_upnp(scene)
    scene.at().add(_FOREIGN)
    scene.start_camera()
    scene.until_registered()
    scene.check_walk(*ONE_NAT)
    scene.check_table(_FOREIGN, own(443))
    scene.check_registered(ueip=OUTSIDE, ueport="443", st="12")
    scene.check_reachable(OUTSIDE, 443)
    scene.retire()
    scene.check_table(_FOREIGN)


def second_camera(scene: Scene) -> None:
    """Two cameras behind one router."""
    _home_with_upnp(scene)
    scene.start_camera()
    scene.until_registered()
    scene.check_walk(*ONE_NAT)
    scene.account.note(f"(another camera starts at {OTHER})")
    second = scene.plug_in_second_camera()
    second.start()
    scene.until(lambda: scene.service.device(SECOND_HID).get("updates"), 90, "the other camera's registration")
    update = scene.service.device(SECOND_HID)["update"]
    scene.check((update["iip"], update["ueport"]) == (OTHER, "443"), "the service holds the other camera at port 443",
                f"the service holds {update}")
    theirs = own(443, client=OTHER, uid=SECOND_UID)
    scene.check_table(own(80), theirs)
    scene.check_reachable(OUTSIDE, 80)
    scene.check_reachable(OUTSIDE, 443)
    scene.retire()
    scene.check_table(theirs)
    wrong = second.end()
    scene.check(not wrong, "the other camera's daemon ends in order", wrong)


def stale_mapping(scene: Scene) -> None:
    """The camera's own mappings of earlier runs are still there."""
    _home_with_upnp(scene)
    foreign = Mapping(9000, OTHER, 9000, "games console")
    for mapping in (own(80), foreign, own(8081, 8081), own(8090, 443)):
        scene.at().add(mapping)
    scene.start_camera()
    scene.until_registered()
    scene.check_walk(*ONE_NAT)
    for port in (80, 8081, 8090):
        scene.check_log(rf"Remove pollution ExtPort\({port}\)", f"it removed its old mapping of port {port}")
    scene.check_table(own(80), foreign)
    scene.check_registered(ueport="80", st="12")
    scene.retire()
    scene.check_table(foreign)


def stale_address(scene: Scene) -> None:
    """The camera's own mapping leads to an address that it had before a power cut."""
    _home_with_upnp(scene)
    scene.node.address("eth0", f"{_EARLIER}/24")
    scene.node.route(LAN)
    scene.start_camera()
    scene.until_registered()
    scene.check_table(own(80, client=_EARLIER))
    scene.check_walk(*ONE_NAT)

    scene.account.note("(power cut; the camera comes back at another address)")
    scene.move_camera(CAMERA)
    scene.until_registered()
    scene.check_log(r"Remove pollution ExtPort\(80\)", "it removed the mapping of its earlier address")
    scene.check_walk(*ONE_NAT)
    scene.check_table(own(80))
    scene.check_registered(iip=CAMERA, ueport="80")

    scene.account.note("(power cut; another address, and the router can't be found while the camera starts)")
    scene.router.hide_upnp()
    scene.move_camera(_EARLIER)
    scene.until_log(r"^user name=\(", 60)
    scene.router.show_upnp()
    scene.until_registered()
    scene.check_log(r"A4 Port mapping i\(80\)-e\(80\) ok!", "it replaced the mapping of its earlier address")
    scene.check_walk(*ONE_NAT)
    scene.check_table(own(80, client=_EARLIER))
    scene.check_registered(iip=_EARLIER, ueport="80")
    scene.retire()


def no_external_address(scene: Scene) -> None:
    """A router that gives 0.0.0.0 as its outside address, and maps all the same."""
    scene.start_service()
    scene.home()
    scene.router.start_scripted_upnp(LAN, external="0.0.0.0")
    scene.start_camera()
    took_s = scene.until_registered()
    scene.check_walk(*_TO_UPNP, "UPnP", "UPnP_A", "UPnP_B", "NATU", "UpnpPfReady", "LumenDevDone")
    scene.check_timing(took_s)
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, ueport="80", st="12")
    scene.check_table(own(80))
    scene.check_reachable(OUTSIDE, 80)
    scene.retire()


def maps_nothing(scene: Scene) -> None:
    """A router that says yes to every mapping and forwards nothing."""
    scene.start_service("--connect-timeout", "1")
    scene.home()
    scene.router.start_scripted_upnp(LAN, external=OUTSIDE, maps=False)
    scene.start_camera()
    scene.until_state("LumenDevPartDone", 200)
    scene.check_walk(*_TO_UPNP, "UPnP", "UPnP_A", *["NAT1", "UpnpPfReady"] * 4, "UpnpPfFailed", "LumenDevPartDone")
    tried = [action for action in scene.router.scripted.actions if action.startswith("AddPort")]
    scene.check(tried == [f"AddPortMapping {port}" for port in (80, 443, 8081, 8082)],
                "it tried 80, 443, 8081 and 8082", f"it tried {tried}")
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, ueport="0", st="13")
    scene.check(not scene.router.scripted.rows, "and took each of them back")
    scene.retire()


def router_refuses(scene: Scene) -> None:
    """A router that refuses every mapping."""
    _home_with_upnp(scene, refuse_all=True)
    scene.start_camera()
    scene.until_state("LumenDevPartDone", 400)
    scene.check_walk(*_TO_UPNP, "UPnP", "UPnP_A", "NAT1", "UpnpPfFailed", "LumenDevPartDone")
    scene.check_log(r"B1 Port mapping add port \(8128\) failed", "it tried 50 ports, from 80 to 8128")
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, ueport="0", st="13")
    scene.check_table()
    scene.check_reachable(OUTSIDE, 80, reachable=False)
    scene.retire()


def router_mute(scene: Scene) -> None:
    """A router that can be found, and then never answers."""
    scene.start_service()
    scene.home()
    scene.router.start_scripted_upnp(LAN, silent=True)
    scene.start_camera()
    scene.until_state("LumenDevPartDone", 150)
    scene.check_walk(*_TO_UPNP, "UPnP", "UPnP_B", "UpnpPfFailed", "LumenDevPartDone")
    scene.check_log(r"unhandled return value\(-1\)", "two unanswered questions were enough")
    scene.check_registered(eip=OUTSIDE, ueip="null", ueport="0", st="13")
    scene.retire()


def router_silent(scene: Scene) -> None:
    """A router that goes silent and forgets its mappings while the camera is registered."""
    _home_with_upnp(scene)
    scene.start_camera()
    scene.until_registered()
    scene.check_walk(*ONE_NAT)
    scene.account.note("(the router's UPnP hangs, and its mappings are gone)")
    scene.router.freeze_upnp()
    scene.router.forget_mappings()
    scene.until_state("LumenDevPartDone", 400)
    scene.check_walk("START", "IpReady", *_TO_UPNP[1:], "NoUPnP", "LumenDevPartDone")
    scene.check_registered(eip=OUTSIDE, ueip="null", ueport="0", st="6")
    scene.account.note("(the router is back)")
    scene.router.thaw_upnp()
    scene.until_registered(400)
    scene.check_walk(*ONE_NAT)
    scene.check_registered(ueip=OUTSIDE, ueport="80", st="12")
    scene.check_table(own(80))
    scene.retire()
