"""The network inside a world: a client with a physical interface and a VPN, and a server.

This world's own network namespace is the client. The server is a second one, reached over `eth0`
and, while the VPN is up, through the tunnel. The server listens on every address of two ranges, so
that each check can have a destination of its own, and drops what carries the tunnel's source
address over the wire: the source address that it sees says which way a packet came.

All state is in the kernel and in files of the world, so that separate commands can work on one
network.
"""

import contextlib
import dataclasses
import json
import os
import pathlib
import signal
import socket
import subprocess
import time

from . import world

SERVER = "/run/netns/server"
CONTROL_SOCKET = world.STATE / "server.sock"

PHYSICAL = "eth0"
CLIENT_IPV4, CLIENT_IPV6 = "192.0.2.2", "2001:db8:1::2"
GATEWAY_IPV4, GATEWAY_IPV6 = "192.0.2.1", "2001:db8:1::1"
TUNNEL_IPV4, TUNNEL_IPV6 = "10.8.0.2", "fd00:8::2"
TUNNEL_PEER_IPV4, TUNNEL_PEER_IPV6 = "10.8.0.1", "fd00:8::1"
SERVER_RANGE_IPV4, SERVER_RANGE_IPV6 = "198.51.100.0/24", "2001:db8:100::/64"
VPN_ENDPOINT = "203.0.113.1"

STREAM_PORTS = (53, 80, 443, 8080)
DATAGRAM_PORTS = (53, 123, 443, 5353, 8080)

LAYOUTS = ("half-default", "policy", "lower-metric", "replaced-default")
_CARRIER_MARK = _POLICY_TABLE = 51820


def server_ipv4(number: int) -> str:
    """One of the 250 addresses of the server."""
    return f"198.51.100.{number % 250 + 1}"


def server_ipv6(number: int) -> str:
    return f"2001:db8:100::{number % 250 + 1:x}"


@dataclasses.dataclass(frozen=True)
class Observation:
    """What the server saw of one connection, or of one client's datagrams to one place."""

    protocol: str
    client: str
    clientPort: int
    server: str
    serverPort: int
    bytesReceived: int
    bytesSent: int
    state: str
    number: int


def up() -> None:
    """Makes both namespaces, the wire between them, and starts the server.

    Link-local addresses are given by hand, as the kernel's own take a second or two to become usable.
    """
    _run(["ip", "netns", "add", "server"])
    _ip("""
        link set lo up
        link add eth0 type veth peer name net0 netns server
        link set eth0 addrgenmode none
        link set eth0 up
        address add fe80::2/64 dev eth0 nodad
        address add 192.0.2.2/24 dev eth0
        address add 2001:db8:1::2/64 dev eth0 nodad
        """)
    server_up()
    _add_default_routes()


def end_all() -> None:
    """Ends what still runs in the two namespaces, which are the world's alone, but for this process."""
    ours = {os.stat(place).st_ino for place in ("/proc/self/ns/net", SERVER) if os.path.exists(place)}
    for pid in (int(name) for name in os.listdir("/proc") if name.isdigit()):
        with contextlib.suppress(OSError):
            if pid not in (os.getpid(), os.getppid()) and os.stat(f"/proc/{pid}/ns/net").st_ino in ours:
                os.kill(pid, signal.SIGKILL)


def server_up() -> None:
    """Gives the server's namespace, which has its end of the wire as `net0`, its addresses and its program."""
    _server_ip(f"""
        link set lo up
        link set net0 addrgenmode none
        link set net0 up
        address add fe80::1/64 dev net0 nodad
        address add 192.0.2.1/24 dev net0
        address add 2001:db8:1::1/64 dev net0 nodad
        address add {VPN_ENDPOINT}/32 dev lo
        route add local {SERVER_RANGE_IPV4} dev lo
        route add local {SERVER_RANGE_IPV6} dev lo
        """)
    # A gateway answers for its own address alone: what is sent without a route gets nowhere.
    _server_run(["sh", "-c", "echo 1 > /proc/sys/net/ipv4/conf/net0/arp_ignore"])
    _server_run(["nft", f"""
        table inet truth {{
            chain arriving {{
                type filter hook prerouting priority -300;
                iifname "net0" ip saddr {TUNNEL_IPV4} drop
                iifname "net0" ip6 saddr {TUNNEL_IPV6} drop
            }}
        }}"""])
    _start_server()


def physical_down() -> None:
    _ip(f"link set {PHYSICAL} down")


def physical_up() -> None:
    """Brings back what the kernel took away with the link: the IPv6 address and all routes."""
    _ip(f"""
        link set {PHYSICAL} up
        address replace fe80::2/64 dev {PHYSICAL} nodad
        address replace {CLIENT_IPV6}/64 dev {PHYSICAL} nodad
        """)
    layout = vpn_layout()
    if layout != "replaced-default":
        _add_default_routes()
    if layout is not None:
        _ip(f"route replace {VPN_ENDPOINT} via {GATEWAY_IPV4} dev {PHYSICAL}")


def spare_carrier_up() -> None:
    """A second wire that only the VPN's own packets can take, so that it survives the loss of the first.

    It has no default route: nothing but the VPN can be reached over it.
    """
    _ip("""
        link add spare0 type veth peer name net1 netns server
        link set spare0 up
        address add 198.18.0.2/30 dev spare0
        """)
    _server_ip("""
        link set net1 up
        address add 198.18.0.1/30 dev net1
        """)
    _ip(f"route add {VPN_ENDPOINT} via 198.18.0.1 dev spare0 metric 500")


def spare_carrier_down() -> None:
    _ip("link delete spare0")


def vpn_up(layout: str = "half-default") -> None:
    """Raises the tunnel and routes everything into it, the way the named kind of VPN does."""
    assert layout in LAYOUTS, layout
    device = "wg0" if layout == "policy" and kernel_has_wireguard() else "utun0"
    if device == "wg0":
        _raise_wireguard()
    else:
        _raise_openvpn(mark=layout == "policy")
    _ip(f"address add {TUNNEL_IPV6} peer {TUNNEL_PEER_IPV6} dev {device} nodad")
    _LAYOUT_FILE.write_text(json.dumps({"layout": layout, "device": device}))
    _ROUTES_IN[layout](device)


def vpn_down() -> None:
    """Takes the tunnel away, its device first, as when a VPN program dies or is stopped."""
    layout = vpn_layout()
    if tunnel_device() == "wg0":
        _ip("link delete wg0")
        _server_ip("link delete wg-server")
    else:
        _end(_CLIENT_PID)
        _end(_SERVER_PID)
        wait_until(lambda: not has_interface("utun0"), "utun0 goes away")
    _LAYOUT_FILE.unlink()
    if layout == "policy":
        for family in ("-4", "-6"):
            _run(["ip", family, "rule", "delete", "table", str(_POLICY_TABLE)])
            _run(["ip", family, "rule", "delete", "table", "main", "suppress_prefixlength", "0"])
    if has_carrier(PHYSICAL):
        _add_default_routes()
        _run(["ip", "route", "delete", VPN_ENDPOINT, "dev", PHYSICAL], check=False)


def vpn_layout() -> str | None:
    return _layout_state().get("layout")


def tunnel_device() -> str | None:
    return _layout_state().get("device")


def kernel_has_wireguard() -> bool:
    made = _run(["ip", "link", "add", "wg-probe", "type", "wireguard"], check=False)
    if made:
        _ip("link delete wg-probe")
    return made


def has_interface(name: str) -> bool:
    return _run(["ip", "link", "show", name], check=False)


def has_carrier(name: str) -> bool:
    answer = subprocess.run(["ip", "-json", "link", "show", name], capture_output=True, text=True)
    return answer.returncode == 0 and "UP" in json.loads(answer.stdout)[0]["flags"]


def in_server(command: list[str]) -> list[str]:
    """The command that runs `command` in the server's network namespace."""
    return ["nsenter", f"--net={SERVER}", *command]


def observations() -> list[Observation]:
    """Everything that has reached the server so far, oldest first."""
    with socket.socket(socket.AF_UNIX) as control:
        control.connect(str(CONTROL_SOCKET))
        text = b""
        while piece := control.recv(1 << 20):
            text += piece
    return [Observation(**entry) for entry in json.loads(text)]


def seen_at(address: str, port: int | None = None) -> list[Observation]:
    return [each for each in observations()
            if each.server == address and port in (None, each.serverPort)]


def wait_until(condition, what: str, seconds: float = 10) -> None:
    seconds *= world.PATIENCE
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError(f"waited {seconds:.0f} seconds in vain until {what}")
        time.sleep(0.01)


_LAYOUT_FILE = world.STATE / "vpn.json"
_CLIENT_PID = world.STATE / "openvpn-client.pid"
_SERVER_PID = world.STATE / "openvpn-server.pid"


def _layout_state() -> dict[str, str]:
    return json.loads(_LAYOUT_FILE.read_text()) if _LAYOUT_FILE.exists() else {}


def _start_server() -> None:
    places = [*(f"tcp:{port}" for port in STREAM_PORTS), *(f"udp:{port}" for port in DATAGRAM_PORTS)]
    log = open(world.STATE / "server.log", "ab")
    subprocess.Popen(in_server([str(world.BUILD / "Lab" / "lab-server"), str(CONTROL_SOCKET), *places]),
                     stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    wait_until(CONTROL_SOCKET.exists, "the server listens")


def _add_default_routes() -> None:
    _ip(f"""
        route replace default via {GATEWAY_IPV4} dev {PHYSICAL} metric 100
        route replace default via {GATEWAY_IPV6} dev {PHYSICAL} metric 1024
        """)


def _raise_openvpn(mark: bool) -> None:
    key = world.STATE / "static.key"
    if not key.exists():
        _run(["openvpn", "--genkey", "secret", str(key)])
    common = ["--dev-type", "tun", "--secret", str(key), "--cipher", "AES-256-CBC",
              "--auth", "SHA256", "--daemon", "--verb", "3"]
    _server_run(["openvpn", "--dev", "tun-server", *common, "--local", VPN_ENDPOINT, "--float",
                 "--ifconfig", TUNNEL_PEER_IPV4, TUNNEL_IPV4, "--writepid", str(_SERVER_PID),
                 "--log", str(world.STATE / "openvpn-server.log")])
    _run(["openvpn", "--dev", "utun0", *common, "--remote", VPN_ENDPOINT, "--nobind",
          "--ifconfig", TUNNEL_IPV4, TUNNEL_PEER_IPV4, "--writepid", str(_CLIENT_PID),
          "--log", str(world.STATE / "openvpn-client.log"),
          *(["--mark", str(_CARRIER_MARK)] if mark else [])])
    wait_until(lambda: (_CLIENT_PID.exists() and _SERVER_PID.exists() and
                         _has_address("utun0") and _has_server_address("tun-server")),
                "the tunnel rises")
    _server_ip(f"address add {TUNNEL_PEER_IPV6} peer {TUNNEL_IPV6} dev tun-server nodad")


def _raise_wireguard() -> None:
    client_key, client_public = wireguard_keys("client")
    server_public = wireguard_server_up(client_public)
    _ip(f"""
        link add wg0 type wireguard
        address add {TUNNEL_IPV4} peer {TUNNEL_PEER_IPV4} dev wg0
        """)
    _run(["wg", "set", "wg0", "private-key", client_key, "fwmark", str(_CARRIER_MARK),
          "peer", server_public, "endpoint", f"{VPN_ENDPOINT}:51820",
          "allowed-ips", "0.0.0.0/0,::/0"])
    _ip("link set wg0 up")


def wireguard_server_up(client_public: str) -> str:
    """Raises the server's end for one client, and gives the server's public key."""
    server_key, server_public = wireguard_keys("server")
    _server_ip(f"""
        link add wg-server type wireguard
        address add {TUNNEL_PEER_IPV4} peer {TUNNEL_IPV4} dev wg-server
        """)
    _server_run(["wg", "set", "wg-server", "private-key", server_key, "listen-port", "51820",
                 "peer", client_public, "allowed-ips", f"{TUNNEL_IPV4}/32,{TUNNEL_IPV6}/128"])
    _server_ip(f"""
        link set wg-server up
        address add {TUNNEL_PEER_IPV6} peer {TUNNEL_IPV6} dev wg-server nodad
        """)
    return server_public


def wireguard_keys(name: str) -> tuple[str, str]:
    """The file with a new private key, and the public key."""
    file = world.STATE / f"wireguard-{name}.key"
    private = subprocess.run(["wg", "genkey"], check=True, capture_output=True, text=True).stdout
    file.touch(mode=0o600)
    file.write_text(private)
    public = subprocess.run(["wg", "pubkey"], input=private, check=True, capture_output=True, text=True)
    return str(file), public.stdout.strip()


def _route_endpoint() -> None:
    if has_carrier(PHYSICAL):
        _ip(f"route replace {VPN_ENDPOINT} via {GATEWAY_IPV4} dev {PHYSICAL}")


def _route_by_halves(device: str) -> None:
    _route_endpoint()
    _ip(f"""
        route add 0.0.0.0/1 dev {device}
        route add 128.0.0.0/1 dev {device}
        route add ::/1 dev {device}
        route add 8000::/1 dev {device}
        """)


def _route_by_policy(device: str) -> None:
    """Everything that is not the VPN's own, which carries a mark, looks at a table of its own first."""
    for family in ("-4", "-6"):
        _run(["ip", family, "route", "add", "default", "dev", device, "table", str(_POLICY_TABLE)])
        _run(["ip", family, "rule", "add", "not", "fwmark", str(_CARRIER_MARK),
              "table", str(_POLICY_TABLE)])
        _run(["ip", family, "rule", "add", "table", "main", "suppress_prefixlength", "0"])


def _route_by_metric(device: str) -> None:
    _route_endpoint()
    _ip(f"""
        route add default dev {device} metric 50
        -6 route add default dev {device} metric 50
        """)


def _route_instead(device: str) -> None:
    _route_endpoint()
    _run(["ip", "-4", "route", "delete", "default", "dev", PHYSICAL], check=False)
    _run(["ip", "-6", "route", "delete", "default", "dev", PHYSICAL], check=False)
    _run(["ip", "-4", "route", "add", "default", "dev", device])
    _run(["ip", "-6", "route", "add", "default", "dev", device])


_ROUTES_IN = {"half-default": _route_by_halves, "policy": _route_by_policy,
              "lower-metric": _route_by_metric, "replaced-default": _route_instead}


def _has_address(device: str) -> bool:
    return _shows_address(["ip", "-json", "address", "show", "dev", device])


def _has_server_address(device: str) -> bool:
    return _shows_address(in_server(["ip", "-json", "address", "show", "dev", device]))


def _shows_address(command: list[str]) -> bool:
    answer = subprocess.run(command, capture_output=True, text=True)
    return answer.returncode == 0 and any(
        each.get("family") == "inet" for link in json.loads(answer.stdout)
        for each in link.get("addr_info", []))


def _end(pid_file: pathlib.Path) -> None:
    pid = int(pid_file.read_text())
    os.kill(pid, signal.SIGTERM)
    # It removes the file itself on its way out, which must not hit the file of its successor.
    wait_until(lambda: not os.path.exists(f"/proc/{pid}"), "openvpn ends")
    pid_file.unlink(missing_ok=True)


def _run(command: list[str], check: bool = True) -> bool:
    result = subprocess.run(command, capture_output=True, text=True)
    if check and result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {result.stderr.strip() or result.stdout.strip()}")
    return result.returncode == 0


def _server_run(command: list[str]) -> None:
    _run(in_server(command))


def _ip(commands: str) -> None:
    for line in filter(None, map(str.strip, commands.splitlines())):
        _run(["ip", *line.split()])


def _server_ip(commands: str) -> None:
    for line in filter(None, map(str.strip, commands.splitlines())):
        _server_run(["ip", *line.split()])
