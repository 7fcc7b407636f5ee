"""A VPN that goes and comes while an application with a rule for it never stops sending, fallback "block": what of
it leaves by the physical interface, and how long after the VPN's return it is at work again.

Three VPNs: wg-quick's order of steps (on a tun device where the kernel has no WireGuard), OpenVPN with routes of
its own, stopped, and the same killed. A capture on each interface says what passed and when.
"""

import contextlib
import dataclasses
import pathlib
import re
import signal
import statistics
import subprocess
import threading
import time

from vantrylab import applications, network, world
from vantrylab.host import Rules

HERE = pathlib.Path(__file__).resolve().parent
IPV4, IPV6 = "198.51.100.99", "2001:db8:100::99"
DATAGRAM_PORT, STREAM_PORT = 443, 8080
PROGRAM = "flapper"
RULES = Rules(rules={PROGRAM: "vpn"}, vpnFallback="block")
DEVICE, MARK, TABLE = "utun0", "51820", "51820"
DOWN_SECONDS, UP_SECONDS = 0.4, 0.7
# Words of the capture for a segment and a datagram.
KINDS = STREAM, DATAGRAM = "Flags", "UDP"
PEERS = ("--dev-type", "tun", "--secret", str(world.STATE / "flap.key"), "--cipher", "AES-256-CBC", "--auth", "SHA256",
         "--verb", "3")


@dataclasses.dataclass
class Outcome:
    flaps: int = 0
    sent_in_clear: list[str] = dataclasses.field(default_factory=list)
    through_tunnel: int = 0
    # Seconds from the moment when the routes were there to the first packet in the tunnel.
    streams_back: list[float] = dataclasses.field(default_factory=list)
    datagrams_back: list[float] = dataclasses.field(default_factory=list)

    def take(self, clear: list[str], tunnelled: list[str], returns: list[float]) -> None:
        """The lines of both captures, and when the VPN was back."""
        self.sent_in_clear = clear
        self.through_tunnel = len(tunnelled)
        self.streams_back = first_after(returns, [line for line in tunnelled if STREAM in line])
        self.datagrams_back = first_after(returns, [line for line in tunnelled if DATAGRAM in line])

    def longest_back(self) -> float:
        return max([*self.streams_back, *self.datagrams_back], default=float("inf"))

    def __str__(self) -> str:
        def times(values: list[float]) -> str:
            return f"{1e3 * statistics.median(values):.0f} ms, at most {1e3 * max(values):.0f} ms" if values else "never"
        return (f"{self.flaps} flaps: {len(self.sent_in_clear)} packets in the clear, {self.through_tunnel} through the"
                f" tunnel; back after its return, streams: {times(self.streams_back)}; datagrams:"
                f" {times(self.datagrams_back)}")


def run(command: str, check: bool = True) -> None:
    subprocess.run(command, shell=True, check=check, stdout=subprocess.DEVNULL, stderr=None if check else subprocess.DEVNULL)


def shown(command: str) -> str:
    return subprocess.run(command, shell=True, capture_output=True, text=True).stdout


class Vpn:
    """One way of coming and going. `up` returns when the VPN's own steps are done."""

    options: tuple[str, ...] = ()
    ending = signal.SIGTERM

    def __init__(self):
        self.process: subprocess.Popen | None = None

    def up(self) -> None:
        self.process = subprocess.Popen(
            ["openvpn", "--dev", DEVICE, *PEERS, "--remote", network.VPN_ENDPOINT, "--nobind",
             "--ifconfig", network.TUNNEL_IPV4, network.TUNNEL_PEER_IPV4,
             "--ifconfig-ipv6", f"{network.TUNNEL_IPV6}/64", network.TUNNEL_PEER_IPV6, *self.options],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        network.wait_until(lambda: network.TUNNEL_IPV6 in shown(f"ip address show dev {DEVICE}"), "the tunnel has its addresses")

    def down(self) -> None:
        self.process.send_signal(self.ending)
        self.process.wait()


class OpenVpn(Vpn):
    options = ("--redirect-gateway", "def1", "ipv6", "--route-ipv6", "2001:db8:100::/64")


class KilledOpenVpn(OpenVpn):
    ending = signal.SIGKILL


class WgQuick(Vpn):
    """Its steps in its order; the tunnel's own packets carry its mark."""

    options = ("--mark", MARK)

    def up(self) -> None:
        super().up()
        for family in ("-4", "-6"):
            run(f"ip {family} route add default dev {DEVICE} table {TABLE}")
            run(f"ip {family} rule add not fwmark {MARK} table {TABLE}")
            run(f"ip {family} rule add table main suppress_prefixlength 0")
        run("sysctl -q net.ipv4.conf.all.src_valid_mark=1")

    def down(self) -> None:
        for family in ("-4", "-6"):
            run(f"ip {family} rule delete table {TABLE}")
            run(f"ip {family} rule delete table main suppress_prefixlength 0")
        super().down()


VPNS = {"wg-quick": WgQuick, "openvpn": OpenVpn, "openvpn killed": KilledOpenVpn}


def tunnel_server_up() -> subprocess.Popen:
    """The VPN's other end, which stays."""
    key = world.STATE / "flap.key"
    if not key.exists():
        run(f"openvpn --genkey secret {key}")
    server = subprocess.Popen(network.in_server(
        ["openvpn", "--dev", "tun-flap", *PEERS, "--local", network.VPN_ENDPOINT, "--float",
         "--ifconfig", network.TUNNEL_PEER_IPV4, network.TUNNEL_IPV4,
         "--ifconfig-ipv6", f"{network.TUNNEL_PEER_IPV6}/64", network.TUNNEL_IPV6]),
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    network.wait_until(lambda: subprocess.run(network.in_server(["ip", "link", "show", "tun-flap"]),
                                              capture_output=True).returncode == 0, "the VPN's server has its device")
    return server


@contextlib.contextmanager
def capture(place: list[str], interface: str, packets: str = f"dst host {IPV4} or dst host {IPV6}"):
    """A list that has a line for each such packet, to the application's servers as a rule, once the block is left."""
    lines: list[str] = []
    process = subprocess.Popen([*place, "tcpdump", "-i", interface, "-n", "-tt", "-l", "--immediate-mode", "-s", "100",
                                "-B", "16384",
                                f"({packets}) and (tcp or udp)"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    network.wait_until(lambda: "listening on" in process.stderr.readline(), "the capture begins")
    reader = threading.Thread(target=lambda: lines.extend(filter(str.strip, process.stdout)))
    reader.start()
    try:
        yield lines
    finally:
        time.sleep(0.2)
        process.send_signal(signal.SIGINT)
        reader.join()
        said = process.stderr.read()
        if re.search(r"[1-9]\d* packets dropped by kernel", said):
            raise RuntimeError(f"the capture on {interface} is not whole: {said}")


def traffic(program: pathlib.Path, seconds: int, sockets: str) -> subprocess.Popen:
    words = ("-I", HERE / "traffic.py", IPV4, IPV6, DATAGRAM_PORT, STREAM_PORT, seconds, sockets)
    account = ({"user": world.PERSON, "group": world.PERSON, "extra_groups": []} if world.is_root_world() else {})
    return subprocess.Popen([str(program), *map(str, words)], **account)


def leads_to_tunnel() -> bool:
    return all(f"dev {DEVICE}" in shown(f"ip route get {address}") for address in (IPV4, IPV6))


def play(vpn: Vpn, flaps: int, announce, sockets: str = "fleeting") -> Outcome:
    """`announce` is told of every other flap whether the VPN is up, as a host application would say it.

    A socket that is closed at once is named only where the kernel notes who opens it.
    """
    outcome = Outcome(flaps)
    server = tunnel_server_up()
    vpn.up()
    announce(True)
    time.sleep(0.5)
    returns: list[float] = []
    with capture([], network.PHYSICAL) as clear, capture(network.in_server([]), "tun-flap") as tunnelled:
        sender = traffic(applications.make_interpreter(PROGRAM), int(flaps * (DOWN_SECONDS + UP_SECONDS + 4)) + 5, sockets)
        time.sleep(UP_SECONDS)
        for number in range(flaps):
            is_announced = number % 2 == 1
            vpn.down()
            if is_announced:
                announce(False)
            time.sleep(DOWN_SECONDS)
            vpn.up()
            network.wait_until(leads_to_tunnel, "the routes lead to the tunnel")
            returns.append(time.time())
            if is_announced:
                announce(True)
            time.sleep(UP_SECONDS)
        sender.kill()
        sender.wait()
    vpn.down()
    server.terminate()
    server.wait()
    outcome.take(clear, tunnelled, returns)
    return outcome


def first_after(moments: list[float], lines: list[str]) -> list[float]:
    """How long after each moment the first line is; where none comes before the next moment, that long."""
    times = [float(line.split()[0]) for line in lines]
    ends = [*moments[1:], moments[-1] + UP_SECONDS]
    return [max(0.0, next((at for at in times if at >= moment), end) - moment) for moment, end in zip(moments, ends)]
