"""The network around a machine: its first card is the uplink, its second one is the router's.

The router, the internet and the far ends of VPNs are one namespace, `server`, with the lab's server in it. It
gives addresses by DHCP and router advertisements; the lab's server answers names. As a program: brings all of it up.
"""

import json
import pathlib
import subprocess
import sys

sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[2])]
from vantrylab import network, world  # noqa: E402

CARD, ROUTER_CARD = "52:54:00:00:00:01", "52:54:00:00:00:02"


def run(*words: str, check: bool = True, seconds: float = 60) -> str:
    """Runs a program of the machine and gives what it wrote."""
    result = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, timeout=seconds * world.PATIENCE)
    if check and result.returncode != 0:
        raise RuntimeError(f"{' '.join(words)}: status {result.returncode}: {result.stdout.strip()[-800:]}")
    return result.stdout


def card(address: str) -> str:
    links = json.loads(run("ip", "-json", "link", "show"))
    return next(each["ifname"] for each in links if each["address"] == address)


def up() -> None:
    """Everything outside of the machine, then the uplink's addresses."""
    if pathlib.Path(network.SERVER).exists():
        return
    router = card(ROUTER_CARD)
    run("ip", "netns", "add", "server")
    run("ip", "link", "set", router, "netns", "server")
    run(*network.in_server(["ip", "link", "set", router, "name", "net0"]))
    network.server_up()
    # What comes out of a tunnel of IPsec has come in over the wire too, and is told by its path.
    run(*network.in_server(["nft", "table inet tunnels { chain arriving { type filter hook prerouting priority -300;"
                            "iifname net0 ip saddr { 10.7.0.0/24, 10.9.0.0/24 } meta secpath missing drop; }; }"]))
    run(*network.in_server([
        "dnsmasq", "--conf-file=/dev/null", "--interface=net0", "--bind-dynamic", "--port=0",
        "--pid-file=/run/lab/dnsmasq.pid", "--dhcp-leasefile=/run/lab/leases", "--dhcp-authoritative",
        "--dhcp-range=192.0.2.2,static,255.255.255.0,1h", f"--dhcp-host={CARD},{network.CLIENT_IPV4}",
        f"--dhcp-option=option:dns-server,{network.GATEWAY_IPV4}", "--enable-ra",
        "--dhcp-range=::,constructor:net0,ra-only,64,1h"]))
    manage_by("systemd-networkd")


def manage_by(manager: str) -> None:
    """Has the uplink managed by `systemd-networkd` or `NetworkManager`, and waits for its addresses."""
    other = {"systemd-networkd": "NetworkManager", "NetworkManager": "systemd-networkd"}[manager]
    run("systemctl", "stop", other, *(["systemd-networkd.socket"] if other == "systemd-networkd" else []))
    run("ip", "address", "flush", "dev", card(CARD))
    run("ip", "link", "set", card(CARD), "down")
    run("systemctl", "restart", manager)
    if manager == "NetworkManager":
        run("nmcli", "--wait", "30", "device", "connect", card(CARD), check=False)
    network.wait_until(has_uplink, f"{manager} brings the uplink up", 60)


def has_uplink() -> bool:
    return f"inet {network.CLIENT_IPV4}/" in run("ip", "address", "show", "dev", card(CARD)) and \
        "default" in run("ip", "route", "show", "dev", card(CARD))


if __name__ == "__main__":
    up()
    print(run("ip", "-brief", "address"), run("ip", "route"), sep="")
