"""The scenarios: one function each, and the table of them all."""

from dataclasses import dataclass
from typing import Callable

from lab.scenarios import changes, paths, routers
from lab.scene import Scene

# How many times as fast the camera's clock runs. What bounds it: miniupnpd takes 50 ms and more for each question of a
# search, and the camera gives a search 8 s, which are 0.8 s then. Where the camera waits for minutes, half a second.
_SPEED, _SPEED_OF_LONG = 10, 16


@dataclass(frozen=True)
class Scenario:
    """A row of the table."""
    name: str
    play: Callable[[Scene], None]
    speed: float = _SPEED

    @property
    def text(self) -> str:
        """What it is, in a sentence."""
        return self.play.__doc__.split("\n")[0].rstrip(".")


SCENARIOS = {row.name: row for row in [
    Scenario("nat-upnp", paths.nat_upnp),
    Scenario("public", paths.public),
    Scenario("no-upnp", paths.no_upnp),
    Scenario("double-nat", paths.double_nat),
    Scenario("carrier-nat", paths.carrier_nat),
    Scenario("loopback", paths.loopback),
    Scenario("relay", paths.relay, _SPEED_OF_LONG),
    Scenario("foreign-mapping", routers.foreign_mapping),
    Scenario("second-camera", routers.second_camera),
    Scenario("stale-mapping", routers.stale_mapping),
    Scenario("stale-address", routers.stale_address),
    Scenario("no-external-address", routers.no_external_address),
    Scenario("maps-nothing", routers.maps_nothing),
    Scenario("router-refuses", routers.router_refuses),
    Scenario("router-mute", routers.router_mute),
    Scenario("router-silent", routers.router_silent, _SPEED_OF_LONG),
    Scenario("mapping-removed", changes.mapping_removed, _SPEED_OF_LONG),
    Scenario("external-address-changed", changes.external_address_changed, _SPEED_OF_LONG),
    Scenario("camera-address-changed", changes.camera_address_changed, _SPEED_OF_LONG),
    Scenario("switched-off", changes.switched_off, _SPEED_OF_LONG),
    Scenario("reload", changes.reload, _SPEED_OF_LONG),
    Scenario("service-gone", changes.service_gone, _SPEED_OF_LONG),
]}
