"""Things that happen while the camera is registered."""

import signal

from lab.scene import ONE_NAT, ONE_NAT_AGAIN, Scene, own
from lab.stage import CAMERA, LAN, OUTSIDE

_KEEP_ALIVE_S = 230
_MOVED_OUTSIDE, _MOVED_CAMERA = "5.1.1.77", "192.168.1.77"


def _registered(scene: Scene, *options: str, **camera_options) -> None:
    scene.start_service(*options)
    scene.home()
    scene.router.start_upnp()
    scene.start_camera(**camera_options)
    scene.until_registered()
    scene.check_walk(*ONE_NAT)
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, iip=CAMERA, ueport="80", st="12")
    scene.check_table(own(80))


def mapping_removed(scene: Scene) -> None:
    """The mapping is removed behind the camera's back."""
    _registered(scene)
    scene.until_log("Connect back ok!", _KEEP_ALIVE_S + 30)
    scene.account.note("(another control point deletes the mapping)")
    scene.at().delete(80)
    scene.check_table()
    scene.until_log("connect back failed, delete pf & start over", _KEEP_ALIVE_S + 30)
    scene.until_registered()
    scene.check_walk(*ONE_NAT_AGAIN)
    scene.check_table(own(80))
    scene.check_reachable(OUTSIDE, 80)
    scene.check(scene.device()["updates"] == 1, "nothing has changed for the service: there was no second report")
    scene.retire()


def external_address_changed(scene: Scene) -> None:
    """The router gets another outside address."""
    _registered(scene)
    scene.account.note(f"(the router's outside address becomes {_MOVED_OUTSIDE})")
    scene.change_outside(_MOVED_OUTSIDE)
    scene.until_registered(2 * _KEEP_ALIVE_S)
    scene.check_walk(*ONE_NAT_AGAIN)
    scene.check_registered(eip=_MOVED_OUTSIDE, ueip=_MOVED_OUTSIDE, iip=CAMERA, ueport="80", st="12")
    scene.check_table(own(80))
    scene.check_reachable(_MOVED_OUTSIDE, 80)
    scene.retire()


def camera_address_changed(scene: Scene) -> None:
    """The camera gets another LAN address."""
    _registered(scene, "--connect-timeout", "1")
    scene.account.note(f"(the camera's address becomes {_MOVED_CAMERA})")
    scene.node.address("eth0", f"{_MOVED_CAMERA}/24")
    scene.node.route(LAN)
    scene.camera_address = _MOVED_CAMERA
    scene.until_registered(2 * _KEEP_ALIVE_S)
    scene.check_walk(*ONE_NAT_AGAIN)
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, iip=_MOVED_CAMERA, ueport="80", st="12")
    scene.check_table(own(80, client=_MOVED_CAMERA))
    scene.check_reachable(OUTSIDE, 80)
    scene.retire()


def switched_off(scene: Scene) -> None:
    """The user turns the service off, and on again."""
    _registered(scene)
    scene.account.note("(the user turns the service off)")
    scene.camera.set("enabled", "0")
    scene.until_state("LumenDevNotReady", _KEEP_ALIVE_S + 60)
    scene.check_walk("LumenDevNotReady")
    scene.check_enabled(False)
    scene.account.note("(the user turns the service on)")
    scene.camera.set("enabled", "1")
    scene.until_registered(400)
    scene.check_walk(*ONE_NAT)
    scene.check_log("^ignore adding port mapping", "it found its mapping in place, and kept it")
    scene.check_registered(ueport="80", st="12")
    scene.check_online(True)
    scene.retire()


def reload(scene: Scene) -> None:
    """SIGUSR1 and SIGUSR2 come while the camera is registered."""
    _registered(scene)
    scene.reload()
    scene.until_log("go to reload, delete pf port=80", 30)
    scene.until_log(r"^state_init\(\)", 30)
    scene.until_registered()
    scene.check_walk(*ONE_NAT)
    scene.check(scene.device()["updates"] == 2, "it reported again, as after a start")
    scene.check_table(own(80))

    scene.account.note("(SIGUSR2 is sent, then the mapping is removed)")
    scene.camera.signal(signal.SIGUSR2)
    scene.until_log("Connect back ok!", 30)
    scene.at().delete(80)
    scene.until_log("connect back failed, delete pf & start over", _KEEP_ALIVE_S + 30)
    held_from = scene.until_log_at("^sleep 120 secs", 30)
    held_s = scene.until_state("START", 150) - held_from
    scene.check(118 <= held_s <= 140, f"the next cycle waited {held_s:.0f} s")
    scene.until_registered()
    scene.check_walk(*ONE_NAT_AGAIN)
    scene.check_table(own(80))
    scene.retire()


def service_gone(scene: Scene) -> None:
    """The service is gone for a day, and comes back."""
    _registered(scene, changing_speed=True)
    before = scene.open_descriptors()
    scene.account.note("(the service is gone)")
    scene.service.stop()
    scene.until_state("LumenDevNotReady", _KEEP_ALIVE_S + 60)
    scene.check_walk("START", "IpReady", "LumenDevNotReady")
    scene.check_online(False)
    scene.check_table()
    cycles = scene.pass_time(86400, 4800)
    scene.check(cycles >= 500, f"a day later it has begun {cycles} cycles")
    now = scene.open_descriptors()
    scene.check(now <= before + 8, f"descriptors in use: {before} before, {now} now")
    scene.account.note("(the service is back)")
    scene.service.start()
    scene.until_registered(400)
    scene.check_end_of_walk(*ONE_NAT)
    scene.check_registered(eip=OUTSIDE, ueip=OUTSIDE, ueport="80", st="12")
    scene.check_table(own(80))
    scene.retire()
