"""The home router: a real NAT by nftables, with a real UPnP gateway (miniupnpd) or a scripted one on its LAN side."""

import json
import shutil
import signal
import subprocess
import time

from lab.clock import faster
from lab.gateway import Gateway
from lab.world import SCRATCH, Node, Unavailable

UPNP_PORT = 5000
TABLE = "home"

# One inet table holds everything, the gateway's chains included. Nothing comes in but answers and mapped ports.
_RULES = """
table inet home {
    chain forward {
        type filter hook forward priority 0; policy drop;
        iifname "lan" accept
        ct state established,related accept
        jump upnp_forward
    }
    chain prerouting {
        type nat hook prerouting priority -100; policy accept;
        jump upnp_nat
    }
    chain postrouting {
        type nat hook postrouting priority 100; policy accept;
        jump upnp_post
        oifname "wan" masquerade
    }
    chain upnp_forward { }
    chain upnp_nat { }
    chain upnp_post { }
}
"""

_MINIUPNPD = f"""\
ext_ifname=wan
listening_ip=lan
http_port={UPNP_PORT}
enable_upnp=yes
enable_natpmp=no
secure_mode=no
system_uptime=yes
uuid=5e1f0b7c-2d0b-4b7e-9a57-0a4b7a3f1c01
friendly_name=Lab home router
upnp_table_name={TABLE}
upnp_nat_table_name={TABLE}
upnp_forward_chain=upnp_forward
upnp_nat_chain=upnp_nat
upnp_nat_postrouting_chain=upnp_post
"""


class Router:
    """A node with the interfaces "lan" and "wan" that masquerades what leaves by "wan"."""

    def __init__(self, node: Node, speed: float = 1):
        self.node, self._speed = node, speed
        self.scripted: Gateway | None = None
        self._agent: subprocess.Popen | None = None
        node.run("sysctl", "-qw", "net.ipv4.ip_forward=1")
        node.run("nft", "-f", "-", text=_RULES)

    def start_upnp(self, refuse_all: bool = False) -> None:
        """Run the real gateway; refuse_all makes its permission rules turn every mapping down."""
        program = shutil.which("miniupnpd", path="/usr/sbin:/usr/bin:/sbin:/usr/local/sbin")
        if not program:
            raise Unavailable("miniupnpd is missing (package miniupnpd-nftables)")
        settings = SCRATCH / f"{self.node.name}-miniupnpd.conf"
        verb = "deny" if refuse_all else "allow"
        settings.write_text(f"{_MINIUPNPD}{verb} 0-65535 0.0.0.0/0 0-65535\n")
        log = SCRATCH / f"{self.node.name}-miniupnpd.log"
        # A gateway takes up to a second to answer a search; on the camera's clock, or the camera no longer listens.
        self._agent = self.node.spawn(
            ["env", *faster(self._speed), program, "-d", "-f", settings, "-P", SCRATCH / f"{self.node.name}-miniupnpd.pid"], log)
        deadline = time.monotonic() + 10
        while "HTTP listening on port" not in log.read_text(errors="replace"):
            if self._agent.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"miniupnpd did not start: {log.read_text(errors='replace')[-300:]}")
            time.sleep(0.02)

    def start_scripted_upnp(self, lan_address: str, **behaviour: object) -> Gateway:
        """Run the scripted gateway instead; its mappings become rules of the same table."""
        self.scripted = Gateway(self.node, lan_address, UPNP_PORT, self._install, **behaviour)
        return self.scripted

    def freeze_upnp(self) -> None:
        """The gateway's process stands still: connections open, nothing is answered."""
        self._agent.send_signal(signal.SIGSTOP)

    def thaw_upnp(self) -> None:
        """The gateway goes on where it stood."""
        self._agent.send_signal(signal.SIGCONT)

    def hide_upnp(self) -> None:
        """Searches for the gateway are dropped; they don't pile up as with one that stands still."""
        self.node.run("nft", "-f", "-", text="""table inet hidden {
            chain input { type filter hook input priority 0; udp dport 1900 drop; }; }\n""")

    def show_upnp(self) -> None:
        """Searches for the gateway come through again."""
        self.node.run("nft", "delete", "table", "inet", "hidden")

    def forget_mappings(self) -> None:
        """The mappings vanish from the firewall, as after a reboot."""
        if self.scripted:
            self.scripted.table.clear()
        self._install([])

    def forwarded(self) -> dict[int, tuple[str, int]]:
        """What the firewall really forwards: outside port to (inside address, inside port)."""
        listing = json.loads(self.node.run("nft", "-j", "list", "chain", "inet", TABLE, "upnp_nat"))
        ports = {}
        for rule in (item["rule"]["expr"] for item in listing["nftables"] if "rule" in item):
            dnat = next(part["dnat"] for part in rule if "dnat" in part)
            port = next(part["match"]["right"] for part in rule if "match" in part
                        and part["match"]["left"].get("payload", {}).get("field") == "dport")
            ports[port] = (dnat["addr"], dnat["port"])
        return ports

    def _install(self, rows: list[tuple[int, str, int]]) -> None:
        rules = [f"flush chain inet {TABLE} upnp_nat", f"flush chain inet {TABLE} upnp_forward"]
        for port, client, client_port in rows:
            rules += [f'add rule inet {TABLE} upnp_nat iif "wan" tcp dport {port} dnat ip to {client}:{client_port}',
                      f'add rule inet {TABLE} upnp_forward iif "wan" ip daddr {client} tcp dport {client_port} accept']
        self.node.run("nft", "-f", "-", text="\n".join(rules) + "\n")
